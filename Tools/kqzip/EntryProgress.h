#pragma once

#include <KQZip/KQZip.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "ArchiveScan.h"
#include "ProgressLine.h"

namespace Tool {

/// How far a command has come that takes one entry after the other. Its units are the entries and their
/// bytes, so that a large entry counts for more than a small one.
class EntryProgress {
 public:
  /// For so many entries that have so many bytes together. A child of the thread's current progress.
  EntryProgress(std::uint64_t entries, std::uint64_t bytes);

  /// Makes what is reported until end() this entry's.
  void begin(const ArchiveEntry& entry);
  void end();

  /// The progress, for being cancelled.
  const KQ::NSProgress& work() const { return *work_; }

  /// For a progress line, which must not outlive the object: "3/7 entries".
  ProgressLine::Measure measure() const;

 private:
  const std::uint64_t entries_;
  const std::shared_ptr<KQ::NSProgress> work_;
  std::int64_t unitsWithEntry_ = 0;
  std::atomic<std::uint64_t> done_{0};
};

}  // namespace Tool
