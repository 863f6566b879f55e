#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../Platform/NSError.h"
#include "KQZipArchiveWindow.h"
#include "KQZipFinding.h"
#include "KQZipHeaderCodec.h"

/// What stands after the central headers of an archive, and where it says that they are.
struct KQZipArchiveTail {
  bool isFound = false;            ///< Whether there is an end record.
  std::uint64_t endRecordAt = 0;   ///< Offset of the classic end record.
  KQZipEndRecordFields endRecord;  ///< The classic end record.
  std::string comment;             ///< The archive's comment, as far as it is there.
  bool isPadded = false;           ///< Whether nothing but zeros follows the comment, as programs pad blocks.
  std::uint64_t end = 0;           ///< After the comment.

  bool isZip64 = false;                   ///< Whether there is a Zip64 end record, with its locator.
  std::uint64_t zip64RecordAt = 0;        ///< Offset of the Zip64 end record.
  KQZipZip64EndRecordFields zip64Record;  ///< The Zip64 end record.
  KQZipZip64LocatorFields locator;        ///< The locator.

  std::uint64_t entries = 0;            ///< How many entries the records count.
  std::uint64_t sizeOfDirectory = 0;    ///< What they say its size is.
  std::uint64_t offsetOfDirectory = 0;  ///< Where they say it starts.

  bool isExact = false;            ///< Whether the size counts the end records, as the library writes it.
  std::uint64_t directoryAt = 0;   ///< Where it does start.
  std::uint64_t directoryEnd = 0;  ///< Where it does end.
  std::uint64_t base = 0;          ///< What has to be added to the offsets that are recorded.

  /// Offset of the first of the end records.
  std::uint64_t start() const { return isZip64 ? zip64RecordAt : endRecordAt; }

  /// Looks for the records at the end of the archive and for the directory that they lead to. True when they
  /// are there, agree with each other, and lead to one; else what is wrong is added to the findings, but for
  /// an archive that has no end record at all. `isRead` is false when reading failed.
  bool find(KQZipArchiveWindow& window, std::uint64_t length, std::vector<KQZipFinding>* findings,
            bool* isRead, KQ::NSErrorSlot error);

  /// Whether the numbers of the records may stand for the same. A classic field may be saturated, and the
  /// library's own counts are cut to 16 bits.
  bool recordsAgree() const;

 private:
  bool _findEndRecord(KQZipArchiveWindow& window, std::uint64_t length, KQ::NSErrorSlot error);
  bool _findZip64Record(KQZipArchiveWindow& window, bool* hasLocator, KQ::NSErrorSlot error);
  bool _readZip64Record(KQZipArchiveWindow& window, std::uint64_t offset, std::uint64_t locatorAt,
                        KQ::NSErrorSlot error);
  bool _hasHeaderInDirectory(KQZipArchiveWindow& window, std::uint64_t at, std::uint64_t shift,
                             bool* hasHeader, KQ::NSErrorSlot error) const;
  bool _findDirectory(KQZipArchiveWindow& window, bool* isThere, KQ::NSErrorSlot error);
  bool _isSplit() const;
};
