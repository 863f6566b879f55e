// The functions of the system that the library calls in a program of tests: each tells whoever waits for it,
// and goes on to the system's own. Linked into the program itself, or loaded before the system's library,
// because the first definition is the one that is called.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

#include "Support/FileMoments.h"
#include "Support/Sanitizers.h"
#include "Support/SystemCalls.h"

using KQTest::AtFileMoment;
using KQTest::SystemCalls;

// A sanitizer checks these calls in functions of its own, which go on to the system's. In what is not built
// with it, as the module that is loaded into the tool, they would lead back here.
extern "C" {
[[gnu::weak]] ssize_t __interceptor_read(int, void*, size_t);
[[gnu::weak]] ssize_t __interceptor_pread(int, void*, size_t, off_t);
[[gnu::weak]] ssize_t __interceptor_write(int, const void*, size_t);
[[gnu::weak]] ssize_t __interceptor_pwrite(int, const void*, size_t, off_t);
[[gnu::weak]] ssize_t __interceptor_writev(int, const iovec*, int);
}

namespace {

constexpr bool isSanitized = KQTEST_ADDRESS_SANITIZER || KQTEST_THREAD_SANITIZER;

template <class Function>
Function* systemFunction(const char* name, Function* ofASanitizer = nullptr) {
  return isSanitized && ofASanitizer != nullptr ? ofASanitizer
                                                : reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" ssize_t read(int file, void* buffer, size_t length) {
  static auto* const real = systemFunction<ssize_t(int, void*, size_t)>("read", __interceptor_read);
  SystemCalls* const calls = SystemCalls::active();
  if (calls == nullptr) return real(file, buffer, length);
  const iovec piece{buffer, length};
  return calls->perform(&piece, 1, -1, [file](const iovec* pieces, int) {
    return real(file, pieces->iov_base, pieces->iov_len);
  });
}

extern "C" ssize_t pread(int file, void* buffer, size_t length, off_t offset) {
  static auto* const real = systemFunction<ssize_t(int, void*, size_t, off_t)>("pread", __interceptor_pread);
  if (AtFileMoment* const moment = AtFileMoment::active()) moment->beforeRead(file, offset);
  SystemCalls* const calls = SystemCalls::active();
  if (calls == nullptr) return real(file, buffer, length, offset);
  const iovec piece{buffer, length};
  return calls->perform(&piece, 1, offset, [=](const iovec* pieces, int) {
    return real(file, pieces->iov_base, pieces->iov_len, offset);
  });
}

extern "C" ssize_t write(int file, const void* buffer, size_t length) {
  static auto* const real = systemFunction<ssize_t(int, const void*, size_t)>("write", __interceptor_write);
  SystemCalls* const calls = SystemCalls::active();
  if (calls == nullptr) return real(file, buffer, length);
  const iovec piece{const_cast<void*>(buffer), length};
  return calls->perform(
      &piece, 1, -1,
      [file](const iovec* pieces, int) { return real(file, pieces->iov_base, pieces->iov_len); }, true);
}

extern "C" ssize_t writev(int file, const iovec* pieces, int count) {
  static auto* const real = systemFunction<ssize_t(int, const iovec*, int)>("writev", __interceptor_writev);
  SystemCalls* const calls = SystemCalls::active();
  if (calls == nullptr) return real(file, pieces, count);
  return calls->perform(
      pieces, count, -1,
      [file](const iovec* allowed, int allowedCount) { return real(file, allowed, allowedCount); }, true);
}

extern "C" ssize_t pwrite(int file, const void* buffer, size_t length, off_t offset) {
  static auto* const real =
      systemFunction<ssize_t(int, const void*, size_t, off_t)>("pwrite", __interceptor_pwrite);
  SystemCalls* const calls = SystemCalls::active();
  if (calls == nullptr) return real(file, buffer, length, offset);
  const iovec piece{const_cast<void*>(buffer), length};
  return calls->perform(
      &piece, 1, offset,
      [=](const iovec* pieces, int) { return real(file, pieces->iov_base, pieces->iov_len, offset); }, true);
}

extern "C" ssize_t sendfile(int target, int source, off_t* offset, size_t length) noexcept {
  static auto* const real = systemFunction<ssize_t(int, int, off_t*, size_t)>("sendfile");
  AtFileMoment* const moment = AtFileMoment::active();
  if (moment != nullptr && offset != nullptr) moment->beforeRead(source, *offset);
  SystemCalls* const calls = SystemCalls::active();
  if (calls == nullptr || offset == nullptr) return real(target, source, offset, length);
  if (calls->cannotMove) {
    errno = EINVAL;
    return -1;
  }
  // It moves no bytes of this process.
  const iovec piece{nullptr, length};
  return calls->perform(
      &piece, 1, *offset,
      [=](const iovec* pieces, int) { return real(target, source, offset, pieces->iov_len); }, true);
}

extern "C" off_t lseek(int file, off_t offset, int whence) noexcept {
  static auto* const real = systemFunction<off_t(int, off_t, int)>("lseek");
  if (SystemCalls* const calls = SystemCalls::active()) ++calls->seeks;
  return real(file, offset, whence);
}

extern "C" int openat(int folder, const char* path, int flags, ...) {
  static auto* const real = systemFunction<int(int, const char*, int, ...)>("openat");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  AtFileMoment* const moment = AtFileMoment::active();
  if (moment == nullptr) return real(folder, path, flags, mode);
  moment->beforeOpen(path);
  const int file = real(folder, path, flags, mode);
  moment->afterOpen(path, file);
  return file;
}

extern "C" int fstatat(int folder, const char* path, struct stat* status, int flags) noexcept {
  static auto* const real = systemFunction<int(int, const char*, struct stat*, int)>("fstatat");
  if (AtFileMoment* const moment = AtFileMoment::active()) moment->beforeAttributes(path);
  return real(folder, path, status, flags);
}
