#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "Support/FileMoment.h"

// Stands between a program and the system's calls that concern one file, so that something can be done at an
// exact moment of that file's reading. Program/SystemFunctions.cpp defines the functions that the library's
// calls go to.

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

}  // namespace KQTest
