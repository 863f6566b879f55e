#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <string>

#include "Support/FileMoment.h"

// Stands between a program and the system's calls that concern one file, so that something can be done at an
// exact moment of that file's reading. Include it in one source file of a program, and in no other: it
// defines the functions that the library's calls then go to.

namespace KQTest {

/// While one exists, something is done once, at a moment in the reading of a file.
class AtFileMoment {
 public:
  AtFileMoment(std::string path, FileMoment moment, std::function<void()> action)
      : path_(std::move(path)), moment_(moment), action_(std::move(action)) {
    active() = this;
  }
  ~AtFileMoment() { active() = nullptr; }
  AtFileMoment(const AtFileMoment&) = delete;
  AtFileMoment& operator=(const AtFileMoment&) = delete;

  /// Whether the moment has come.
  bool hasCome() const { return hasCome_; }

  /// The one that exists, null for none.
  static AtFileMoment*& active() {
    static AtFileMoment* moment = nullptr;
    return moment;
  }

  void beforeOpen(const char* path) {
    if (path == path_) reached(FileMoment::Call::Open, 0);
  }
  void afterOpen(const char* path, int file) {
    if (path == path_) {
      ++opens_;
      file_ = file;
    } else if (file == file_) {
      file_ = -1;
    }
  }
  void beforeRead(int file, std::int64_t offset) {
    if (file == file_ && file >= 0) reached(FileMoment::Call::Read, offset);
  }
  void beforeAttributes(const char* path) {
    if (path == path_) reached(FileMoment::Call::Attributes, 0);
  }

 private:
  void reached(FileMoment::Call call, std::int64_t offset) {
    if (hasCome_ || opens_ != moment_.opens || call != moment_.call || offset < moment_.from ||
        offset >= moment_.end)
      return;
    hasCome_ = true;
    action_();
  }

  std::string path_;
  FileMoment moment_;
  std::function<void()> action_;
  int opens_ = 0;
  int file_ = -1;
  bool hasCome_ = false;
};

/// The system's own function of that name.
template <class Function>
Function* systemFunction(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace KQTest

extern "C" int openat(int folder, const char* path, int flags, ...) {
  static auto* const real = KQTest::systemFunction<int(int, const char*, int, ...)>("openat");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  KQTest::AtFileMoment* const moment = KQTest::AtFileMoment::active();
  if (moment == nullptr) return real(folder, path, flags, mode);
  moment->beforeOpen(path);
  const int file = real(folder, path, flags, mode);
  moment->afterOpen(path, file);
  return file;
}

extern "C" ssize_t pread(int file, void* buffer, size_t length, off_t offset) {
  static auto* const real = KQTest::systemFunction<ssize_t(int, void*, size_t, off_t)>("pread");
  if (KQTest::AtFileMoment* const moment = KQTest::AtFileMoment::active()) moment->beforeRead(file, offset);
  return real(file, buffer, length, offset);
}

extern "C" ssize_t sendfile(int target, int source, off_t* offset, size_t length) noexcept {
  static auto* const real = KQTest::systemFunction<ssize_t(int, int, off_t*, size_t)>("sendfile");
  KQTest::AtFileMoment* const moment = KQTest::AtFileMoment::active();
  if (moment != nullptr && offset != nullptr) moment->beforeRead(source, *offset);
  return real(target, source, offset, length);
}

extern "C" int fstatat(int folder, const char* path, struct stat* status, int flags) noexcept {
  static auto* const real = KQTest::systemFunction<int(int, const char*, struct stat*, int)>("fstatat");
  if (KQTest::AtFileMoment* const moment = KQTest::AtFileMoment::active()) moment->beforeAttributes(path);
  return real(folder, path, status, flags);
}
