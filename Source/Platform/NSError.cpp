#include "NSError.h"

#include <system_error>
#include <utility>

#include "NSString.h"

namespace KQ {

NSError::NSError(std::string domain, std::int64_t code, std::string message)
    : domain_(std::move(domain)), code_(code), userInfo_{{NSLocalizedDescriptionKey, std::move(message)}} {}

std::shared_ptr<const NSError> NSError::errorWithDomain(std::string domain, std::int64_t code,
                                                        std::string message) {
  return std::make_shared<const NSError>(std::move(domain), code, std::move(message));
}

std::shared_ptr<const NSError> NSError::errorWithPOSIXCode(int code, const std::string& path) {
  return errorWithDomain(NSPOSIXErrorDomain, code,
                         stringByEscapingUnprintables(path) + ": " + std::generic_category().message(code));
}

const std::string& NSError::localizedDescription() const { return userInfo_.at(NSLocalizedDescriptionKey); }

std::string NSError::description() const {
  return "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" + localizedDescription() + "\"";
}

}  // namespace KQ
