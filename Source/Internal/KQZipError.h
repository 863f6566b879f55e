#pragma once

#include <string>

#include "../KQZipErrorCodes.h"
#include "../Platform/NSError.h"

// The library's own errors, for its own use: callers know them by the domain string and the codes, which
// the public headers name where they are made.

/// Makes an error of the library's domain.
inline std::shared_ptr<const KQ::NSError> KQZipMakeError(KQZipErrorCode code, std::string message) {
  return KQ::NSError::errorWithDomain("KQZipErrorDomain", code, std::move(message));
}

/// Stores an error of the library's domain if there is a slot. Returns false, the result of what failed.
inline bool KQZipFail(KQ::NSErrorSlot slot, KQZipErrorCode code, const std::string& message) {
  if (slot != nullptr) *slot = KQZipMakeError(code, message);
  return false;
}

/// The error that stands in the slot; none without a slot.
inline std::shared_ptr<const KQ::NSError> KQZipErrorInSlot(KQ::NSErrorSlot slot) {
  return slot != nullptr ? *slot : nullptr;
}
