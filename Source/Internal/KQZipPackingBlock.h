#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../Platform/Internal/NSSystem.h"
#include "KQZipPackingEntries.h"
#include "KQZipPackingTarget.h"
#include "KQZipRecordForm.h"

/// What packing needs to know everywhere. For the library's own use.
struct KQZipPackingJob {
  KQZipPackingJob(KQZipPackingEntries& entries, KQZipPackingTarget& archive, KQZipForm wanted)
      : list(entries), target(archive), form(wanted) {}

  KQZipPackingEntries& list;
  KQZipPackingTarget& target;
  KQZipRecordForm form;
  /// Bytes of data that are packed; with a target that takes them in order, those of large files count twice.
  std::atomic<std::uint64_t> done{0};
};

/// An open file that is read. For the library's own use.
class KQZipSourceFile {
 public:
  KQZipSourceFile() = default;
  ~KQZipSourceFile();
  KQZipSourceFile(const KQZipSourceFile&) = delete;
  KQZipSourceFile& operator=(const KQZipSourceFile&) = delete;

  /// Opens the entry's file and looks at it. 0, or the number of an error.
  int open(const KQZipPackingEntry& entry, const std::string& path);

  /// Looks at it again.
  int look();

  /// What it was when it was looked at last.
  const KQ::NSItemStatus& status() const { return status_; }

  /// Reads at an offset until the room is full or the file ends. How many bytes, or the negative of the
  /// number of an error.
  std::int64_t readAt(std::uint8_t* room, std::uint64_t length, std::uint64_t offset) const;

  /// Reads a whole file that seems to be smaller than the room, with a single call where it is.
  std::int64_t readAll(std::uint8_t* room, std::uint64_t length) const;

 private:
  KQ::NSHandle file_ = -1;
  KQ::NSItemStatus status_;
};

/// A block of whole records, which one thread fills. For the library's own use.
class KQZipPackingBlock {
 public:
  /// Bytes of a block. What does not fit into one with its header is large.
  static constexpr std::uint64_t size = 1048576;

  /// An entry that could not be packed.
  struct Failure {
    const KQZipPackingEntry* entry;
    KQZipLeftOut::Why why;
    int code;  // 0 when it changed.
  };

  explicit KQZipPackingBlock(KQZipPackingJob& job) : job_(job) {}

  /// Forgets what the block holds.
  void clear();

  /// Adds the record of the entry. A large one, and a stream, gets its place only: its state says so, and its
  /// offset is where its record belongs among those of the block. One that cannot be packed is noted. False
  /// when there is no room left in the block; the entry is then as it was.
  bool append(KQZipPackingEntry& entry);

  /// The first of the bytes.
  std::uint8_t* bytes();

  /// How many bytes are taken.
  std::uint64_t used() const { return used_; }

  /// What could not be packed, in order.
  const std::vector<Failure>& failures() const { return failures_; }

 private:
  bool _appendFile(KQZipPackingEntry& entry);
  bool _appendOpenFile(KQZipPackingEntry& entry, KQZipSourceFile& file);
  bool _appendLink(KQZipPackingEntry& entry);
  bool _appendBytes(KQZipPackingEntry& entry, const std::uint8_t* bytes, std::uint64_t length);
  void _finish(KQZipPackingEntry& entry);
  bool _giveLargePlace(KQZipPackingEntry& entry, std::uint64_t length);
  bool _leaveOut(KQZipPackingEntry& entry, int code, KQZipLeftOut::Why why = KQZipLeftOut::Why::Failed);
  void _takeAttributes(KQZipPackingEntry& entry, const KQ::NSItemStatus& status) const;

  KQZipPackingJob& job_;
  std::unique_ptr<std::uint8_t[]> bytes_;
  std::uint64_t used_ = 0;
  std::vector<Failure> failures_;
  std::string path_;
};
