#pragma once

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <system_error>

namespace KQTest {

/// Expects an error that carries `code`, an `errno`, whatever its message is.
inline void expectPOSIXCode(int code, const std::shared_ptr<const KQ::NSError>& error) {
  ASSERT_TRUE(error != nullptr);
  EXPECT_EQ("NSPOSIXErrorDomain", error->domain());
  EXPECT_EQ(code, error->code()) << error->description();
  EXPECT_FALSE(error->localizedDescription().empty());
}

/// Expects an error that carries `code`, an `errno`, with a message that names `path` and the reason.
inline void expectPOSIXError(int code, const std::string& path,
                             const std::shared_ptr<const KQ::NSError>& error) {
  ASSERT_NO_FATAL_FAILURE(expectPOSIXCode(code, error));
  const std::string message = error->localizedDescription();
  EXPECT_NE(std::string::npos, message.find(path)) << message;
  EXPECT_NE(std::string::npos, message.find(std::generic_category().message(code))) << message;
}

}  // namespace KQTest
