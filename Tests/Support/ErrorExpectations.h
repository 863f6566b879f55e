#pragma once

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <system_error>

namespace KQTest {

using Error = std::shared_ptr<const KQ::NSError>;

/// An error that no operation makes, which stands in a slot before a call to see whether the slot is written.
inline Error earlierError() { return KQ::NSError::errorWithDomain("EarlierDomain", -7, "Something earlier"); }

/// What a log line shows for an error: its description, or "(null)" when there is none.
inline std::string describe(const Error& error) { return error ? error->description() : "(null)"; }

/// Code and message of the error in a slot, "-100 got unexpected bytes...", or "no error".
inline std::string errorText(const Error& error) {
  return error ? std::to_string(error->code()) + " " + error->localizedDescription() : "no error";
}

/// Fails the test unless the error is exactly this one.
inline void expectError(const Error& error, const std::string& domain, std::int64_t code,
                        const std::string& description) {
  ASSERT_NE(nullptr, error);
  EXPECT_EQ(domain, error->domain());
  EXPECT_EQ(code, error->code());
  EXPECT_EQ(description, error->localizedDescription());
}

/// expectError() for an error of the library's own domain.
inline void expectError(const Error& error, std::int64_t code, const std::string& description) {
  expectError(error, "KQZipErrorDomain", code, description);
}

/// expectError() for an error of the library's own domain with nothing else in its user information.
inline void expectKQZipError(const Error& error, std::int64_t code, const std::string& message) {
  ASSERT_NO_FATAL_FAILURE(expectError(error, code, message));
  const std::map<std::string, std::string> expected{{KQ::NSLocalizedDescriptionKey, message}};
  EXPECT_EQ(expected, error->userInfo());
}

/// Expects an error that carries `code`, an `errno`, whatever its message is.
inline void expectPOSIXCode(int code, const Error& error) {
  ASSERT_TRUE(error != nullptr);
  EXPECT_EQ("NSPOSIXErrorDomain", error->domain());
  EXPECT_EQ(code, error->code()) << error->description();
  EXPECT_FALSE(error->localizedDescription().empty());
}

/// Expects an error that carries `code`, an `errno`, with a message that names `path` and the reason.
inline void expectPOSIXError(int code, const std::string& path, const Error& error) {
  ASSERT_NO_FATAL_FAILURE(expectPOSIXCode(code, error));
  const std::string message = error->localizedDescription();
  EXPECT_NE(std::string::npos, message.find(path)) << message;
  EXPECT_NE(std::string::npos, message.find(std::generic_category().message(code))) << message;
}

}  // namespace KQTest
