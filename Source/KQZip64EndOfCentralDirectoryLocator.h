#pragma once

#include <cstdint>
#include <memory>

#include "Platform/KQExport.h"
#include "Platform/NSError.h"
#include "Platform/NSStream.h"

/// The Zip64 end of central directory locator: 20 bytes with the offset of the Zip64 end record. Used by one
/// thread at a time.
class KQZIP_EXPORT KQZip64EndOfCentralDirectoryLocator {
 public:
  /// The record's signature, 50 4B 06 07 on disk.
  static constexpr std::uint32_t signature = 0x07064b50;

  /// A locator for an archive on one disk with the Zip64 end record at offset 0.
  KQZip64EndOfCentralDirectoryLocator() = default;

  /// A locator parsed from `stream`. Nothing when parseFromStream() fails, with its error in the slot.
  static std::shared_ptr<KQZip64EndOfCentralDirectoryLocator> initWithStream(KQ::NSInputStream& stream,
                                                                             KQ::NSErrorSlot error = nullptr);

  /// Reads the fields after the signature, which the caller has consumed. Fails as the read primitives do;
  /// fields that were read keep their new values.
  bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Writes the record, signature included. Fails as the write primitives do.
  bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Always 20.
  std::uint64_t outputSize() const { return 20; }

  /// Number of the disk that holds the Zip64 end record.
  std::uint32_t diskNumberWithStartOfZip64EoCD() const { return diskNumberWithStartOfZip64EoCD_; }
  void setDiskNumberWithStartOfZip64EoCD(std::uint32_t value) { diskNumberWithStartOfZip64EoCD_ = value; }

  /// Total number of disks.
  std::uint32_t numberOfDisks() const { return numberOfDisks_; }
  void setNumberOfDisks(std::uint32_t value) { numberOfDisks_ = value; }

  /// Offset of the Zip64 end record from the start of the archive.
  std::uint64_t offsetOfZip64EoCD() const { return offsetOfZip64EoCD_; }
  void setOffsetOfZip64EoCD(std::uint64_t value) { offsetOfZip64EoCD_ = value; }

 private:
  std::uint32_t diskNumberWithStartOfZip64EoCD_ = 0;
  std::uint32_t numberOfDisks_ = 1;
  std::uint64_t offsetOfZip64EoCD_ = 0;
};
