#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "KQExport.h"

namespace KQ {

/// The user-information key of an error's message.
inline constexpr char NSLocalizedDescriptionKey[] = "NSLocalizedDescription";

/// The domain of errors that carry an `errno` as their code.
inline constexpr char NSPOSIXErrorDomain[] = "NSPOSIXErrorDomain";

/// A failure: a domain, a code within it and a message for people. Immutable; any number of threads may read
/// one.
class KQZIP_EXPORT NSError {
 public:
  /// An error whose user information holds the message under NSLocalizedDescriptionKey and nothing else.
  static std::shared_ptr<const NSError> errorWithDomain(std::string domain, std::int64_t code,
                                                        std::string message);

  /// An error of NSPOSIXErrorDomain with an `errno` as its code. The message has the path and the system's
  /// reason. In the path, control characters and bytes that are not valid UTF-8 are shown as `\xNN`.
  static std::shared_ptr<const NSError> errorWithPOSIXCode(int code, const std::string& path);

  /// Use the static operations instead.
  NSError(std::string domain, std::int64_t code, std::string message);

  /// The domain that gives the code its meaning.
  const std::string& domain() const { return domain_; }

  /// The code: negative in the library's own domain, an `errno` in NSPOSIXErrorDomain.
  std::int64_t code() const { return code_; }

  /// The message. Never empty in an error that the library makes.
  const std::string& localizedDescription() const;

  /// All user information: the message under NSLocalizedDescriptionKey.
  const std::map<std::string, std::string>& userInfo() const { return userInfo_; }

  /// Domain, code and message in one line, as in log lines.
  std::string description() const;

 private:
  std::string domain_;
  std::int64_t code_;
  std::map<std::string, std::string> userInfo_;
};

/// Where an operation stores its error: the address of an error pointer, or null when the caller wants none.
/// The pointer is written only on failure.
using NSErrorSlot = std::shared_ptr<const NSError>*;

/// Stores `error` in the slot if there is one.
inline void NSStoreError(NSErrorSlot slot, std::shared_ptr<const NSError> error) {
  if (slot != nullptr) *slot = std::move(error);
}

}  // namespace KQ
