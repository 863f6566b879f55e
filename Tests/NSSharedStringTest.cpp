#include <KQZip/Platform/Internal/NSSharedString.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using KQ::NSSharedString;

TEST(NSSharedString, IsAbsentAtFirst) {
  const NSSharedString text;
  EXPECT_FALSE(text.isPresent());
  EXPECT_EQ("", text.view());
  EXPECT_EQ(std::nullopt, text.string());
}

TEST(NSSharedString, AnEmptyTextIsPresent) {
  const NSSharedString text{std::string_view()};
  EXPECT_TRUE(text.isPresent());
  EXPECT_EQ("", text.string());
}

TEST(NSSharedString, HoldsACopyOfAllBytesNulIncluded) {
  std::string bytes("a\0\xFF", 3);
  const NSSharedString text{std::string_view(bytes)};
  const std::string before = std::exchange(bytes, "xyz");
  EXPECT_EQ(before, text.view());
  EXPECT_EQ(before, text.string());
}

TEST(NSSharedString, IsMadeFromAStringOrAnOptionalText) {
  EXPECT_EQ("name", NSSharedString(std::string("name")).string());
  EXPECT_FALSE(NSSharedString(std::optional<std::string>()).isPresent());
  EXPECT_EQ("name", NSSharedString(std::optional<std::string>("name")).string());
}

TEST(NSSharedString, CopiesShareTheBytesWhichLiveAsLongAsOneOfThem) {
  NSSharedString copy;
  const char* bytes = nullptr;
  {
    const NSSharedString text{std::string_view("a name longer than any small buffer")};
    bytes = text.view().data();
    copy = text;
  }
  EXPECT_EQ(bytes, copy.view().data());
  EXPECT_EQ("a name longer than any small buffer", copy.view());
}

TEST(NSSharedString, AMoveLeavesAnAbsentText) {
  NSSharedString text{std::string_view("name")};
  const NSSharedString moved = std::move(text);
  EXPECT_FALSE(text.isPresent());
  EXPECT_EQ("name", moved.view());
}

TEST(NSSharedString, AssigningATextToItselfKeepsIt) {
  NSSharedString text{std::string_view("name")};
  const NSSharedString& same = text;
  text = same;
  EXPECT_EQ("name", text.view());
}

TEST(NSSharedString, IsFilledStartingFromZeros) {
  const auto text = NSSharedString::textFilledBy(4, [](char* bytes) {
    EXPECT_EQ(std::string(4, '\0'), std::string(bytes, 4));
    bytes[1] = 'x';
    return true;
  });
  EXPECT_EQ(std::string("\0x\0\0", 4), text.view());
}

TEST(NSSharedString, IsAbsentWhenFillingFails) {
  EXPECT_FALSE(NSSharedString::textFilledBy(4, [](char*) { return false; }).isPresent());
}

TEST(NSSharedString, IsCopiedAndReleasedFromManyThreads) {
  for (int round = 0; round < 50; ++round) {
    NSSharedString text{std::string_view("shared by all threads")};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
      threads.emplace_back([own = text] {
        for (int i = 0; i < 100; ++i) {
          const NSSharedString copy = own;
          EXPECT_EQ("shared by all threads", copy.view());
        }
      });
    }
    text = NSSharedString();
    for (std::thread& thread : threads) thread.join();
  }
}

}  // namespace
