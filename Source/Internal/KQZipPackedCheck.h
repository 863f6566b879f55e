#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "../Platform/NSProgress.h"
#include "KQZipPacker.h"

/// Compares every record of an archive that was packed, as it stands in the file, with what was meant. For
/// the library's own use.
class KQZipPackedCheck final : public KQZipJobs {
 public:
  /// For what the packer has packed into the archive. The list is as the packer left it.
  KQZipPackedCheck(const KQZipPackingJob& job, const KQZipNewArchive& archive, const KQZipPacker& packer,
                   unsigned threads, const KQ::NSProgress& progress);
  ~KQZipPackedCheck() override;

  /// True when everything is as it was meant. Fails with -51, -90, or the system's error.
  bool run(KQ::NSErrorSlot error);

  bool prepare(std::size_t slot) override;
  void perform(std::size_t slot) override;
  bool finish(std::size_t slot) override;
  bool goOn() override;

 private:
  // A part of the local headers, and what was found wrong.
  struct Slot {
    std::size_t first = 0;
    std::size_t last = 0;
    std::vector<std::uint8_t> bytes;
    std::vector<std::uint8_t> expected;
    int code = 0;
    bool differs = false;
  };

  void _compareLocalHeaders(Slot* slot, std::size_t* next) const;
  bool _compareDirectory();
  bool _compare(const std::vector<std::uint8_t>& expected, std::uint64_t offset);
  bool _failDifferent();

  const KQZipPackingJob& job_;
  const KQZipNewArchive& archive_;
  const KQZipPacker& packer_;
  const KQ::NSProgress& progress_;
  KQZipWorkers workers_;
  std::vector<Slot> slots_;
  std::size_t next_ = 0;
  std::shared_ptr<const KQ::NSError> failure_;  // What ended the work.
  std::vector<std::uint8_t> found_;
};
