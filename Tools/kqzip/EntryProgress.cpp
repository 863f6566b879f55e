#include "EntryProgress.h"

#include <string>

namespace Tool {

EntryProgress::EntryProgress(std::uint64_t entries, std::uint64_t bytes)
    : entries_(entries),
      work_(KQ::NSProgress::progressWithTotalUnitCount(KQ::NSUnitCount(entries + bytes))) {}

void EntryProgress::begin(const ArchiveEntry& entry) {
  const std::int64_t units = KQ::NSUnitCount(entry.length()) + 1;
  unitsWithEntry_ += units;
  work_->becomeCurrentWithPendingUnitCount(units);
}

void EntryProgress::end() {
  work_->resignCurrent();
  // Of a folder, and of an entry that cannot be read, nothing was reported.
  work_->setCompletedUnitCount(unitsWithEntry_);
  ++done_;
}

ProgressLine::Measure EntryProgress::measure() const {
  return [this] {
    const double units = work_->fractionCompleted() * static_cast<double>(work_->totalUnitCount());
    return ProgressLine::Amount{std::to_string(done_) + "/" + std::to_string(entries_) + " entries",
                                static_cast<std::uint64_t>(units)};
  };
}

}  // namespace Tool
