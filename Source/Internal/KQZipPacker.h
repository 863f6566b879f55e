#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "../Platform/NSProgress.h"
#include "KQZipEndRecords.h"
#include "KQZipPackingBlock.h"
#include "KQZipWorkers.h"

/// Packs a list into a target, in one pass. For the library's own use.
///
/// A job is a run of consecutive entries, whose records fill a block, or a piece of a large entry. A block
/// gets its place when its turn comes, so what comes before is known to the byte. A large entry then has its
/// place too: its length is known, its data comes in pieces, which several threads write where they belong,
/// and its header last of all.
///
/// When a large entry fails it leaves a gap that others have been placed behind. All from there on is then
/// packed once more, without it.
class KQZipPacker final : public KQZipJobs {
 public:
  /// Packs with at most so many threads. Every entry has its length if it is known.
  KQZipPacker(KQZipPackingJob& job, const KQZipPackingOptions& options, bool knowsLengths,
              KQ::NSProgress& progress);
  ~KQZipPacker() override;

  /// Packs everything, the central directory included.
  bool pack(KQ::NSErrorSlot error);

  /// Sets the progress to all that was done.
  void finishProgress();

  /// Bytes of the archive.
  std::uint64_t end() const { return position_; }

  /// What the records at the end say.
  const KQZipEndRecords& endRecords() const { return endRecords_; }

  /// Whether something was written after the archive's end.
  bool hasWrittenAfterEnd() const { return hasGap_; }

  bool prepare(std::size_t slot) override;
  void perform(std::size_t slot) override;
  bool finish(std::size_t slot) override;
  bool goOn() override;

 private:
  // A large entry whose pieces are on their way.
  struct Large {
    std::size_t index = 0;
    KQZipSourceFile file;
    const std::uint8_t* data = nullptr;  // For one that is in memory.
    std::uint64_t given = 0;             // Bytes of the pieces that were given to jobs,
    std::uint64_t done = 0;              // and of those that are finished.
    std::uint32_t crc32 = 0;
    bool hasFailed = false;
  };

  // What a slot has to do.
  struct Slot {
    enum class Task : std::uint8_t { Nothing, Run, Piece };

    explicit Slot(KQZipPackingJob& job) : block(job) {}

    Task task = Task::Nothing;
    KQZipPackingBlock block;

    // A run of entries, and the first that found no room in the block.
    std::size_t first = 0;
    std::size_t last = 0;
    std::size_t next = 0;

    // A piece of a large entry, and the numbers of its errors.
    std::shared_ptr<Large> large;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    std::uint32_t crc32 = 0;
    int readCode = 0;
    bool isShort = false;
    int writeCode = 0;
  };

  bool _packEntries();
  void _startAgain();
  void _prepareRun(Slot* slot);
  bool _preparePiece(Slot* slot);
  void _performRun(Slot* slot);
  void _performPiece(Slot* slot);
  bool _finishRun(Slot* slot);
  bool _finishPiece(Slot* slot);
  bool _writeBlock(Slot* slot, std::size_t first);
  bool _writeRecords(Slot* slot, std::uint64_t from, std::uint64_t to);
  bool _notePart(const KQZipPackingBlock& block);
  bool _placeLarge(std::size_t index);
  bool _startLarge();
  bool _completeLarge(Large* large);
  bool _failLarge(Large* large, int code);
  bool _leaveOut(KQZipPackingEntry& entry, int code);
  bool _writeHeader(KQZipPackingEntry& entry);
  bool _write(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t offset);

  // Entries that the calling thread packs by itself, in order.
  class InOrder;
  bool _packInOrder(KQZipPackingEntry& entry);
  bool _copyInOrder(const KQZipPackingEntry& entry, InOrder& source);
  bool _packStream(KQZipPackingEntry& entry);
  std::uint8_t* _scratch();

  bool _writeDirectory();
  bool _isCancelled() const;
  void _showProgress();
  void _setTotal();

  KQZipPackingJob& job_;
  std::deque<KQZipPackingEntry>& entries_;
  const bool atOnce_;
  const bool knowsLengths_;
  KQ::NSProgress& progress_;
  std::shared_ptr<const KQ::NSError> failure_;  // What ended the work.
  KQZipWorkers workers_;
  std::vector<std::unique_ptr<Slot>> slots_;

  std::size_t next_ = 0;        // The first entry that is in no run.
  std::uint64_t position_ = 0;  // Where the next record goes.
  std::size_t runsOnTheirWay_ = 0;
  std::uint64_t averageLength_;
  std::deque<std::size_t> waiting_;  // Large entries that have a place.
  std::shared_ptr<Large> large_;     // The one whose pieces are given out.
  std::size_t failed_;               // The first large entry that failed; none is the number of entries.
  bool hasGap_ = false;
  std::unique_ptr<std::uint8_t[]> scratch_;
  std::vector<std::uint8_t> header_;
  std::string path_;
  KQZipEndRecords endRecords_;
};
