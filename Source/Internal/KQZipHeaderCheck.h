#pragma once

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "KQZipArchiveState.h"

// What a verification looks at beside the data. For the library's own use.

/// What is found, in order.
using KQZipFindings = std::vector<KQZipFinding>;

/// What is wrong with the end records beyond what opening found.
KQZipFindings KQZipFindingsOfTail(const KQZipArchiveState& archive);

/// The central headers, read once more for what the index does not keep of them.
class KQZipDirectoryCheck {
 public:
  /// Checks nothing yet.
  explicit KQZipDirectoryCheck(const KQZipArchiveState& archive) : archive_(archive) {}

  /// Reads and checks them all; without a directory that is none. False with the error in the slot when
  /// reading fails.
  bool run(KQ::NSErrorSlot error);

  /// What was found of the entry, and why it cannot be given back.
  KQZipFindings findingsOf(std::uint32_t index) const;

  /// The MS-DOS date and time of the entry; nothing when there is no directory.
  std::optional<std::uint32_t> dateOf(std::uint32_t index) const;

 private:
  const KQZipArchiveState& archive_;
  std::vector<std::uint32_t> dates_;
  std::vector<std::pair<std::uint32_t, KQZipFindings>> findings_;
};

/// The local headers and what follows the data. Any thread.
class KQZipLocalCheck {
 public:
  /// Compares with the archive's directory.
  KQZipLocalCheck(const KQZipArchiveState& archive, const KQZipDirectoryCheck& directory)
      : archive_(archive), directory_(directory) {}

  /// Compares a header with the directory in everything. `bytes` are what stands at its offset. The result's
  /// data offset is 0 if no header is there.
  KQZipLocated check(std::uint32_t index, KQZipBytes bytes) const;

  /// Looks at what stands between the data and the next record, from `at` to `end`: a descriptor if there has
  /// to be one. `bytes` are as many of these as a descriptor can have, or all.
  void checkRest(std::uint32_t index, std::uint64_t at, std::uint64_t end, KQZipBytes bytes,
                 KQZipFindings* findings) const;

 private:
  const KQZipArchiveState& archive_;
  const KQZipDirectoryCheck& directory_;
};

/// Bytes of the largest data descriptor.
inline constexpr std::uint64_t KQZipLargestDescriptor = 24;
