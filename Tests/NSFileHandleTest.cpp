#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Support/ErrorExpectations.h"
#include "Support/Surroundings.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryDirectory.h"

namespace fs = std::filesystem;

using namespace KQTest;
using KQ::NSFileHandle;

namespace {

const std::uint8_t* bytesOf(const std::string& text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

std::string readAt(const NSFileHandle& handle, std::uint64_t length, std::uint64_t offset) {
  std::vector<std::uint8_t> buffer(length);
  const std::int64_t count = handle.read(buffer.data(), length, offset);
  return count < 0 ? "failed" : std::string(buffer.begin(), buffer.begin() + count);
}

/// A file "abcdefgh" and a handle that updates it.
struct Letters {
  TemporaryDirectory folder;
  std::string path = folder / "letters";
  std::shared_ptr<NSFileHandle> handle;

  Letters() {
    writeFile(path, "abcdefgh");
    handle = NSFileHandle::fileHandleForUpdatingAtPath(path);
  }
};

}  // namespace

TEST(NSFileHandle, ReadsWhereverItIsAskedToAndFewerBytesOnlyAtTheEnd) {
  const Letters letters;
  for (const auto& handle : {letters.handle, NSFileHandle::fileHandleForReadingAtPath(letters.path)}) {
    ASSERT_TRUE(handle);
    EXPECT_EQ(8, handle->length());
    EXPECT_EQ("fgh", readAt(*handle, 3, 5));
    EXPECT_EQ("abcdefgh", readAt(*handle, 8, 0));
    EXPECT_EQ("gh", readAt(*handle, 5, 6));
    EXPECT_EQ("", readAt(*handle, 5, 8));
    EXPECT_EQ("", readAt(*handle, 5, INT64_MAX));
    EXPECT_EQ("", readAt(*handle, 0, 2));
  }
}

TEST(NSFileHandle, WritesInPlaceAndOpeningChangesNothing) {
  const Letters letters;
  EXPECT_EQ("abcdefgh", readFile(letters.path));
  EXPECT_TRUE(letters.handle->write(bytesOf("XYZ"), 3, 2));
  EXPECT_EQ("abXYZfgh", readFile(letters.path));
  EXPECT_EQ("bXYZf", readAt(*letters.handle, 5, 1));
  EXPECT_TRUE(letters.handle->write(bytesOf("!"), 1, 9));
  EXPECT_EQ(std::string("abXYZfgh\0!", 10), readFile(letters.path));
  EXPECT_EQ(10, letters.handle->length());
  EXPECT_TRUE(letters.handle->write(nullptr, 0, 3));
  EXPECT_TRUE(letters.handle->close());
  EXPECT_TRUE(letters.handle->close());
}

TEST(NSFileHandle, ShortAndInterruptedTransfersAreCompleted) {
  const Letters letters;
  SystemCalls calls;
  calls.longestTransfer = 3;
  calls.interruptEveryOther = true;
  EXPECT_TRUE(letters.handle->write(bytesOf("01234567"), 8, 0));
  EXPECT_EQ(3U, calls.transfers.size());
  EXPECT_EQ(3U, calls.interruptions);
  EXPECT_EQ("01234567", readAt(*letters.handle, 8, 0));
  EXPECT_EQ(6U, calls.transfers.size());
}

TEST(NSFileHandle, AFailedTransferIsTheSystemsErrorThatNamesTheFile) {
  const Letters letters;
  SystemCalls calls;
  calls.longestTransfer = 3;
  calls.failAt = 2;
  calls.failForGood = true;
  Error error;
  EXPECT_FALSE(letters.handle->write(bytesOf("01234567"), 8, 0, &error));
  expectPOSIXError(EIO, letters.path, error);
  EXPECT_FALSE(letters.handle->write(bytesOf("0"), 1, 0));
  std::uint8_t byte = 0;
  error = nullptr;
  EXPECT_EQ(-1, letters.handle->read(&byte, 1, 0, &error));
  expectPOSIXError(EIO, letters.path, error);
  calls.failAt = 0;
  EXPECT_EQ("012defgh", readFile(letters.path));
}

TEST(NSFileHandle, AWriteThatTheSystemRefusesFails) {
  const Letters letters;
  inChildProcess([&] {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{10, 10};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    Error error;
    EXPECT_FALSE(letters.handle->write(bytesOf("0123"), 4, 8, &error));
    expectPOSIXError(EFBIG, letters.path, error);
    EXPECT_TRUE(letters.handle->write(bytesOf("0123"), 4, 4, &error));
  });
  EXPECT_EQ("abcd012301", readFile(letters.path));
}

TEST(NSFileHandle, OffsetsThatDoNotFitTheSystemsAreRefused) {
  const Letters letters;
  std::uint8_t byte = 0;
  for (const std::uint64_t offset : {std::uint64_t{INT64_MAX} + 1, UINT64_MAX}) {
    Error error;
    EXPECT_EQ(-1, letters.handle->read(&byte, 1, offset, &error));
    expectPOSIXError(EOVERFLOW, letters.path, error);
    error = nullptr;
    EXPECT_FALSE(letters.handle->write(&byte, 1, offset, &error));
    expectPOSIXError(EOVERFLOW, letters.path, error);
  }
  Error error;
  EXPECT_FALSE(letters.handle->write(&byte, 1, INT64_MAX, &error));
  expectPOSIXError(EOVERFLOW, letters.path, error);
  EXPECT_EQ("abcdefgh", readFile(letters.path));
}

TEST(NSFileHandle, WhatIsNoRegularFileHasNoHandle) {
  const TemporaryDirectory folder;
  ASSERT_EQ(0, mkfifo((folder / "pipe").c_str(), 0600));
  const std::vector<std::pair<std::string, int>> paths{
      {folder / "missing", ENOENT}, {folder.path().string(), EISDIR}, {folder / "pipe", ESPIPE},
      {"/dev/null", ESPIPE},        {std::string("a\0b", 3), EINVAL}, {"a\xFF", EILSEQ}};
  for (const auto& [path, code] : paths) {
    SCOPED_TRACE(path);
    Error error;
    EXPECT_EQ(nullptr, NSFileHandle::fileHandleForReadingAtPath(path, &error));
    expectPOSIXCode(code, error);
    error = nullptr;
    EXPECT_EQ(nullptr, NSFileHandle::fileHandleForUpdatingAtPath(path, &error));
    expectPOSIXCode(code, error);
    EXPECT_EQ(nullptr, NSFileHandle::fileHandleForUpdatingAtPath(path));
  }
  EXPECT_FALSE(fs::exists(folder / "missing"));
}

TEST(NSFileHandle, WhatMayNotBeWrittenCanBeRead) {
  const Letters letters;
  fs::permissions(letters.path, fs::perms::owner_read | fs::perms::others_read);
  fs::permissions(letters.folder.path(), fs::perms::all);
  inUnprivilegedChildProcess([&] {
    Error error;
    EXPECT_EQ(nullptr, NSFileHandle::fileHandleForUpdatingAtPath(letters.path, &error));
    expectPOSIXError(EACCES, letters.path, error);
    const auto handle = NSFileHandle::fileHandleForReadingAtPath(letters.path);
    ASSERT_TRUE(handle);
    EXPECT_EQ("abcdefgh", readAt(*handle, 8, 0));
    error = nullptr;
    EXPECT_FALSE(handle->write(bytesOf("0"), 1, 0, &error));
    expectPOSIXError(EBADF, letters.path, error);
  });
}

TEST(NSFileHandle, AClosedHandleFails) {
  const Letters letters;
  ASSERT_TRUE(letters.handle->close());
  Error error;
  std::uint8_t byte = 0;
  EXPECT_EQ(-1, letters.handle->read(&byte, 1, 0, &error));
  expectPOSIXError(EBADF, letters.path, error);
  error = nullptr;
  EXPECT_FALSE(letters.handle->write(&byte, 1, 0, &error));
  expectPOSIXError(EBADF, letters.path, error);
  EXPECT_GT(0, letters.handle->length());
}
