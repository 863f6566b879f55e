#pragma once

#include <utility>

#include "../FileHeader/KQZipFileEntry.h"
#include "KQZipTextBlock.h"

/// The source path of an entry's write, fixed from its start to its end: the code of a stream, of the log or
/// of a subclass may set another path in between.
class KQZipSourceOfWrite {
 public:
  /// Begins a write, or a part of the current write, whose path it shares.
  explicit KQZipSourceOfWrite(KQZipFileEntry& entry)
      : entry_(entry), path_(entry._sourceOfWork()), outer_(std::exchange(entry.sourceOfWrite_, &path_)) {}
  ~KQZipSourceOfWrite() { entry_.sourceOfWrite_ = outer_; }
  KQZipSourceOfWrite(const KQZipSourceOfWrite&) = delete;
  KQZipSourceOfWrite& operator=(const KQZipSourceOfWrite&) = delete;

  /// Null when the entry has no source.
  const KQZipText& path() const { return path_; }

 private:
  KQZipFileEntry& entry_;
  const KQZipText path_;
  const KQZipText* const outer_;
};
