#pragma once

#include <cstdint>
#include <memory>

#include "Platform/KQExport.h"
#include "Platform/NSError.h"
#include "Platform/NSStream.h"

/// The Zip64 end of central directory record: 56 bytes, part of every archive that the library writes. An
/// extensible data sector is neither written nor read. Used by one thread at a time.
class KQZIP_EXPORT KQZip64EndOfCentralDirectoryRecord {
 public:
  /// The record's signature, 50 4B 06 06 on disk.
  static constexpr std::uint32_t signature = 0x06064b50;

  /// A record of zeros, except the two version fields.
  KQZip64EndOfCentralDirectoryRecord() = default;

  /// A record parsed from `stream`. Nothing when parseFromStream() fails, with its error in the slot.
  static std::shared_ptr<KQZip64EndOfCentralDirectoryRecord> initWithStream(KQ::NSInputStream& stream,
                                                                            KQ::NSErrorSlot error = nullptr);

  /// Reads the fields after the signature, which the caller has consumed. Reads 52 bytes, whatever size()
  /// says. Fails as the read primitives do; fields that were read keep their new values.
  bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Writes the record, signature included, after setting size() to sizeOfZip64EoCDRecord(). Fails as the
  /// write primitives do.
  bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Always 56.
  std::uint64_t outputSize() const { return 56; }

  /// The value of size() in a write: outputSize() without the signature and the size field itself, 44.
  std::uint64_t sizeOfZip64EoCDRecord() const { return outputSize() - 12; }

  /// Version made by; 0x031E is Unix, 3.0.
  std::uint16_t versionMadeBy() const { return versionMadeBy_; }
  void setVersionMadeBy(std::uint16_t value) { versionMadeBy_ = value; }

  /// Version needed to extract; 45 is 4.5.
  std::uint16_t versionNeeded() const { return versionNeeded_; }
  void setVersionNeeded(std::uint16_t value) { versionNeeded_ = value; }

  /// Number of this disk.
  std::uint32_t diskNumber() const { return diskNumber_; }
  void setDiskNumber(std::uint32_t value) { diskNumber_ = value; }

  /// Number of the disk on which the central directory starts.
  std::uint32_t diskNumberContainingCD() const { return diskNumberContainingCD_; }
  void setDiskNumberContainingCD(std::uint32_t value) { diskNumberContainingCD_ = value; }

  /// Bytes of the record after this field, as last parsed or written. Every write sets it.
  std::uint64_t size() const { return size_; }
  void setSize(std::uint64_t value) { size_ = value; }

  /// Central file headers on this disk.
  std::uint64_t entriesInCDOnThisDisk() const { return entriesInCDOnThisDisk_; }
  void setEntriesInCDOnThisDisk(std::uint64_t value) { entriesInCDOnThisDisk_ = value; }

  /// Central file headers in total.
  std::uint64_t entriesInCD() const { return entriesInCD_; }
  void setEntriesInCD(std::uint64_t value) { entriesInCD_ = value; }

  /// Size of the central directory in bytes.
  std::uint64_t sizeOfCD() const { return sizeOfCD_; }
  void setSizeOfCD(std::uint64_t value) { sizeOfCD_ = value; }

  /// Offset of the central directory in bytes.
  std::uint64_t offsetOfCD() const { return offsetOfCD_; }
  void setOffsetOfCD(std::uint64_t value) { offsetOfCD_ = value; }

 private:
  std::uint16_t versionMadeBy_ = 0x031E;
  std::uint16_t versionNeeded_ = 45;
  std::uint32_t diskNumber_ = 0;
  std::uint32_t diskNumberContainingCD_ = 0;
  std::uint64_t size_ = 0;
  std::uint64_t entriesInCDOnThisDisk_ = 0;
  std::uint64_t entriesInCD_ = 0;
  std::uint64_t sizeOfCD_ = 0;
  std::uint64_t offsetOfCD_ = 0;
};
