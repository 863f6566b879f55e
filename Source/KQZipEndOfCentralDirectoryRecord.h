#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/KQExport.h"
#include "Platform/NSAtomicProperty.h"
#include "Platform/NSError.h"
#include "Platform/NSStream.h"

/// The classic end of central directory record, the last record of every archive: 22 bytes and a comment.
/// This class reads and writes the fields; KQZipCentralDirectory sets counts, size and offset. Used by one
/// thread at a time, except zipFileComment().
class KQZIP_EXPORT KQZipEndOfCentralDirectoryRecord {
 public:
  /// The record's signature, 50 4B 05 06 on disk.
  static constexpr std::uint32_t signature = 0x06054b50;

  /// A record of zeros without a comment, except that sizeOfCD() is 0xFFFFFFFF.
  KQZipEndOfCentralDirectoryRecord() = default;

  /// A record parsed from `stream`. Nothing when parseFromStream() fails, with its error in the slot.
  static std::shared_ptr<KQZipEndOfCentralDirectoryRecord> initWithStream(KQ::NSInputStream& stream,
                                                                          KQ::NSErrorSlot error = nullptr);

  /// Reads the fields after the signature, which the caller has consumed. A comment that is not valid UTF-8
  /// becomes absent; that is a success. Fails as the read primitives do; fields that were read keep their new
  /// values.
  bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Sets zipFileCommentLength() to the comment's length modulo 65,536, and writes the record, signature
  /// included, with that many bytes of the comment. Fails as the write primitives do.
  bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// 22 and the comment's full length in bytes, even if a write truncates it.
  std::uint64_t outputSize() const;

  /// Number of this disk.
  std::uint16_t diskNumber() const { return diskNumber_; }
  void setDiskNumber(std::uint16_t value) { diskNumber_ = value; }

  /// Number of the disk on which the central directory starts.
  std::uint16_t diskNumberContainingCD() const { return diskNumberContainingCD_; }
  void setDiskNumberContainingCD(std::uint16_t value) { diskNumberContainingCD_ = value; }

  /// Central file headers on this disk, modulo 65,536.
  std::uint16_t entriesInCDOnThisDisk() const { return entriesInCDOnThisDisk_; }
  void setEntriesInCDOnThisDisk(std::uint16_t value) { entriesInCDOnThisDisk_ = value; }

  /// Central file headers in total, modulo 65,536.
  std::uint16_t entriesInCD() const { return entriesInCD_; }
  void setEntriesInCD(std::uint16_t value) { entriesInCD_ = value; }

  /// Byte length of the comment as last parsed or written.
  std::uint16_t zipFileCommentLength() const { return zipFileCommentLength_; }
  void setZipFileCommentLength(std::uint16_t value) { zipFileCommentLength_ = value; }

  /// Size of the central directory in bytes, 0xFFFFFFFF when the Zip64 record holds it.
  std::uint32_t sizeOfCD() const { return sizeOfCD_; }
  void setSizeOfCD(std::uint32_t value) { sizeOfCD_ = value; }

  /// Offset of the central directory, 0xFFFFFFFF when the Zip64 record holds it.
  std::uint32_t offsetOfCD() const { return offsetOfCD_; }
  void setOffsetOfCD(std::uint32_t value) { offsetOfCD_ = value; }

  /// The archive's comment. Atomic.
  std::optional<std::string> zipFileComment() const { return zipFileComment_.get(); }
  void setZipFileComment(std::optional<std::string> value) { zipFileComment_.set(std::move(value)); }

 private:
  std::uint16_t diskNumber_ = 0;
  std::uint16_t diskNumberContainingCD_ = 0;
  std::uint16_t entriesInCDOnThisDisk_ = 0;
  std::uint16_t entriesInCD_ = 0;
  std::uint16_t zipFileCommentLength_ = 0;
  // The size starts out saturated, the offset does not; the central directory sets both before a write.
  std::uint32_t sizeOfCD_ = 0xFFFFFFFF;
  std::uint32_t offsetOfCD_ = 0;
  KQ::NSAtomicProperty<std::optional<std::string>> zipFileComment_;
};
