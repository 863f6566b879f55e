#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "Support/ErrorExpectations.h"

using KQ::NSError;
using KQTest::expectPOSIXError;

TEST(NSError, HoldsItsDomainCodeAndMessage) {
  const auto error = NSError::errorWithDomain("SomeDomain", -101, "It broke.");
  ASSERT_TRUE(error != nullptr);
  EXPECT_EQ("SomeDomain", error->domain());
  EXPECT_EQ(-101, error->code());
  EXPECT_EQ("It broke.", error->localizedDescription());
}

TEST(NSError, HoldsCodesOfSixtyFourBits) {
  EXPECT_EQ(INT64_MIN, NSError::errorWithDomain("D", INT64_MIN, "m")->code());
  EXPECT_EQ(INT64_MAX, NSError::errorWithDomain("D", INT64_MAX, "m")->code());
}

TEST(NSError, TheUserInformationHoldsTheMessageAndNothingElse) {
  const auto error = NSError::errorWithDomain("SomeDomain", -1, "It broke.");
  const std::map<std::string, std::string> expected{{KQ::NSLocalizedDescriptionKey, "It broke."}};
  EXPECT_EQ(expected, error->userInfo());
}

TEST(NSError, TheConstantsHaveTheirNamesAsValues) {
  EXPECT_STREQ("NSLocalizedDescription", KQ::NSLocalizedDescriptionKey);
  EXPECT_STREQ("NSPOSIXErrorDomain", KQ::NSPOSIXErrorDomain);
}

TEST(NSError, TheDescriptionShowsDomainCodeAndMessageInOneLine) {
  const std::string description =
      NSError::errorWithDomain("SomeDomain", -101, "It broke 100%.")->description();
  EXPECT_NE(std::string::npos, description.find("SomeDomain")) << description;
  EXPECT_NE(std::string::npos, description.find("-101")) << description;
  EXPECT_NE(std::string::npos, description.find("It broke 100%.")) << description;
  EXPECT_EQ(std::string::npos, description.find('\n')) << description;
}

TEST(NSError, AnErrorMadeFromErrnoNamesThePathAndTheReason) {
  for (const int code : {ENOENT, EACCES, ENOSPC, EFBIG, EINVAL, EILSEQ, ENOTDIR, EEXIST}) {
    const auto error = NSError::errorWithPOSIXCode(code, "/some/folder/100%@ file");
    expectPOSIXError(code, "/some/folder/100%@ file", error);
    EXPECT_EQ(1U, error->userInfo().size());
  }
}

TEST(NSError, AnErrorMadeFromAnUnknownErrnoStillNamesThePath) {
  const auto error = NSError::errorWithPOSIXCode(99999, "x/y");
  EXPECT_EQ(99999, error->code());
  EXPECT_NE(std::string::npos, error->localizedDescription().find("x/y"));
}

TEST(NSError, APathInAMessageShowsControlCharactersAndInvalidBytesEscaped) {
  const auto error = NSError::errorWithPOSIXCode(ENOENT, std::string("a\x07"
                                                                     "b\0\x99\xC3\xA9",
                                                                     7));
  expectPOSIXError(ENOENT, "a\\x07b\\x00\\x99\xC3\xA9", error);
}

TEST(NSError, APathNeverBreaksTheLineOfADescription) {
  const std::string description = NSError::errorWithPOSIXCode(ENOENT, "a\nb\r\x1B[2J")->description();
  for (const char byte : description) EXPECT_GE(static_cast<unsigned char>(byte), 0x20U) << description;
}

TEST(NSError, IsImmutableWhenItIsHandedOut) {
  static_assert(std::is_const_v<std::remove_pointer_t<KQ::NSErrorSlot>::element_type>);
  static_assert(
      std::is_same_v<decltype(NSError::errorWithDomain("", 0, "")), std::shared_ptr<const NSError>>);
}

TEST(NSError, StoringReplacesWhatTheSlotHeld) {
  std::shared_ptr<const NSError> slot = NSError::errorWithDomain("D", 1, "first");
  const auto second = NSError::errorWithDomain("D", 2, "second");
  KQ::NSStoreError(&slot, second);
  EXPECT_EQ(second, slot);
}

TEST(NSError, StoringWithoutASlotReleasesTheError) {
  const auto error = NSError::errorWithDomain("D", 1, "m");
  KQ::NSStoreError(nullptr, error);
  EXPECT_EQ(1, error.use_count());
}

TEST(NSError, ManyThreadsMakeAndReadErrorsAtOnce) {
  const auto shared = NSError::errorWithPOSIXCode(ENOENT, "shared");
  const std::string description = shared->description();
  std::vector<std::thread> threads;
  std::vector<int> wrong(8, 0);
  for (std::size_t number = 0; number < wrong.size(); ++number) {
    threads.emplace_back([&, number] {
      const std::string path = "path " + std::to_string(number);
      const int code = number % 2 == 0 ? ENOENT : EACCES;
      const std::string reason = std::generic_category().message(code);
      for (int round = 0; round < 500; ++round) {
        const auto error = NSError::errorWithPOSIXCode(code, path);
        const std::string& message = error->localizedDescription();
        if (message.find(path) == std::string::npos || message.find(reason) == std::string::npos)
          ++wrong[number];
        if (shared->description() != description) ++wrong[number];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::vector<int>(8, 0), wrong);
}
