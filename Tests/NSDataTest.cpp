#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "Support/TemporaryDirectory.h"

using KQ::NSData;

namespace {

std::shared_ptr<const NSData> dataWith(const std::string& bytes) {
  return NSData::dataWithBytes(bytes.data(), bytes.size());
}

std::string text(const NSData& data) { return {reinterpret_cast<const char*>(data.bytes()), data.length()}; }

NSData::Block blockOf(std::size_t length) {
  NSData::Block block(static_cast<std::uint8_t*>(std::malloc(length)));
  std::memset(block.get(), 'x', length);
  return block;
}

}  // namespace

TEST(NSData, HoldsACopyOfTheBytes) {
  std::string bytes = KQTest::patternBytes(5000);
  const std::string original = bytes;
  const auto data = dataWith(bytes);
  bytes.assign(bytes.size(), '\0');
  ASSERT_TRUE(data != nullptr);
  EXPECT_EQ(original.size(), data->length());
  EXPECT_EQ(original, text(*data));
}

TEST(NSData, OfNoBytesHasLengthZero) {
  EXPECT_EQ(0U, NSData::dataWithBytes(nullptr, 0)->length());
  EXPECT_EQ(0U, NSData::dataWithBytes("x", 0)->length());
  EXPECT_EQ(0U, NSData::dataWithBytesNoCopy(nullptr, 0)->length());
}

TEST(NSData, TakesABlockOverWithoutACopy) {
  NSData::Block block = blockOf(100);
  const std::uint8_t* const address = block.get();
  const auto data = NSData::dataWithBytesNoCopy(std::move(block), 100);
  EXPECT_EQ(address, data->bytes());
  EXPECT_EQ(std::string(100, 'x'), text(*data));
}

TEST(NSData, TakesOverABlockThatIsLongerThanItsLength) {
  const auto data = NSData::dataWithBytesNoCopy(blockOf(100), 40);
  EXPECT_EQ(40U, data->length());
  EXPECT_EQ(std::string(40, 'x'), text(*data));
}

TEST(NSData, IsEqualToABufferWithTheSameBytes) {
  EXPECT_TRUE(*dataWith("abc") == *dataWith("abc"));
  EXPECT_TRUE(*dataWith(std::string("a\0b", 3)) == *dataWith(std::string("a\0b", 3)));
  EXPECT_TRUE(*NSData::dataWithBytesNoCopy(blockOf(100), 3) == *dataWith(std::string(3, 'x')));
}

TEST(NSData, DiffersFromABufferWithOtherBytesOrAnotherLength) {
  EXPECT_FALSE(*dataWith("abc") == *dataWith("abd"));
  EXPECT_FALSE(*dataWith("abc") == *dataWith("abcd"));
  EXPECT_FALSE(*dataWith("abc") == *dataWith(""));
  EXPECT_FALSE(*dataWith("") == *dataWith("a"));
  EXPECT_FALSE(*dataWith(std::string("a\0b", 3)) == *dataWith(std::string("a\0c", 3)));
}

TEST(NSData, EmptyBuffersAreEqualWhereverTheyCameFrom) {
  EXPECT_TRUE(*NSData::dataWithBytes(nullptr, 0) == *dataWith(""));
  EXPECT_TRUE(*NSData::dataWithBytesNoCopy(blockOf(10), 0) == *NSData::dataWithBytes(nullptr, 0));
}

TEST(NSData, CannotBeCopiedOrChanged) {
  static_assert(!std::is_copy_constructible_v<NSData>);
  static_assert(!std::is_copy_assignable_v<NSData>);
  static_assert(std::is_const_v<std::remove_pointer_t<decltype(dataWith("")->bytes())>>);
}

TEST(NSData, OfMoreMemoryThanThereIsThrowsBadAlloc) {
  const char byte = 0;
  EXPECT_THROW(NSData::dataWithBytes(&byte, UINT64_MAX), std::bad_alloc);
  EXPECT_THROW(NSData::dataWithBytes(&byte, std::uint64_t{1} << 62), std::bad_alloc);
}

TEST(NSData, ManyThreadsReadAndShareOneBuffer) {
  const std::string bytes = KQTest::patternBytes(10000);
  auto data = dataWith(bytes);
  std::vector<std::thread> threads;
  std::vector<int> equal(8, 0);
  for (std::size_t number = 0; number < equal.size(); ++number) {
    threads.emplace_back([&, mine = data, number] { equal[number] = text(*mine) == bytes ? 1 : 0; });
  }
  data.reset();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::vector<int>(8, 1), equal);
}
