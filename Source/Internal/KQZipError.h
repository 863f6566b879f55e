#pragma once

#include <string>

#include "../KQZipErrorCodes.h"
#include "../Platform/NSError.h"

// Makes the library's own errors. Callers recognise them by the domain string and the codes, which the public
// headers name at each operation.

/// Makes an error of the library's domain.
inline std::shared_ptr<const KQ::NSError> KQZipMakeError(KQZipErrorCode code, std::string message) {
  return KQ::NSError::errorWithDomain("KQZipErrorDomain", code, std::move(message));
}

/// Stores an error of the library's domain if there is a slot. Returns false.
inline bool KQZipFail(KQ::NSErrorSlot slot, KQZipErrorCode code, const std::string& message) {
  if (slot != nullptr) *slot = KQZipMakeError(code, message);
  return false;
}

/// The error in the slot; none without a slot.
inline std::shared_ptr<const KQ::NSError> KQZipErrorInSlot(KQ::NSErrorSlot slot) {
  return slot != nullptr ? *slot : nullptr;
}
