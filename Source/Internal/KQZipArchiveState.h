#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../Archive/KQZipReport.h"
#include "../Platform/NSError.h"
#include "KQZipArchiveIndex.h"
#include "KQZipArchiveSource.h"
#include "KQZipArchiveTail.h"
#include "KQZipEntryFields.h"
#include "KQZipFinding.h"

// What is known of an archive that is open. For the library's own use.

/// An open archive. Nothing in it changes once it is open.
struct KQZipArchiveState {
  std::unique_ptr<KQZipArchiveSource> source;  ///< Its bytes.
  KQZipArchiveIndex index;                     ///< Its entries.
  KQZipArchiveTail tail;                       ///< What stands at its end; without meaning after a scan.
  bool isFromDirectory = false;                ///< Whether the directory was followed, or the local headers.
  std::uint64_t entriesEnd = 0;        ///< Where the entries end: the directory's start, if it has one.
  std::uint64_t prefix = 0;            ///< Bytes in front of the first record.
  std::vector<KQZipFinding> findings;  ///< What opening found, in order.

  /// Opens the archive that `source` holds, on the one way or the other. Nothing with the error in the slot
  /// when reading fails or there is no record in it; `name` is what the error calls it.
  static std::unique_ptr<const KQZipArchiveState> open(std::unique_ptr<KQZipArchiveSource> source,
                                                       const std::string& name, KQ::NSErrorSlot error);
};

/// Where the local header of an entry was found, and whether it agrees.
struct KQZipLocated {
  std::uint64_t dataAt = 0;            ///< Offset of the data's first byte.
  std::vector<KQZipFinding> findings;  ///< Why the entry cannot be given back; empty for one that can.
};

/// Why the entry cannot be given back, whatever its local header says: its kind. Nothing for one that can.
std::vector<KQZipFinding> KQZipRefusals(const KQZipArchiveState& archive, std::uint32_t index);

/// Compares the local header with the directory's record. `bytes` are what stands at its offset, to the end
/// of its extra fields at least; it is called cut off if there are fewer.
KQZipLocated KQZipCompareLocalHeader(const KQZipArchiveState& archive, std::uint32_t index, KQZipBytes bytes);

/// Reads the local header and compares it. False with the error in the slot when reading fails.
bool KQZipLocate(const KQZipArchiveState& archive, std::uint32_t index, KQZipLocated* located,
                 KQ::NSErrorSlot error);

/// Stores the error of an entry that cannot be given back, for the first of the findings. Returns false.
bool KQZipFailOnFinding(const KQZipArchiveState& archive, const KQZipFinding& finding, KQ::NSErrorSlot error);
