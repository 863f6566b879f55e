#pragma once

#include <memory>
#include <optional>
#include <string>

#include "KQZipFileEntry.h"
#include "KQZipFileLocalHeader.h"

/// The central directory's record of an entry: 46 bytes, the name, the extra fields and a comment. One that
/// is written was copied from the local header that stands in the archive already, and stays linked to it for
/// its offset.
///
/// Used by one thread at a time, but for fileComment(); localHeader() may be read while the local header is
/// being released elsewhere.
class KQZIP_EXPORT KQZipCentralDirectoryFileHeader : public KQZipFileEntry {
 public:
  /// The record's signature, 50 4B 01 02 on disk.
  static constexpr std::uint32_t signature = 0x02014b50;

  /// A header made by Unix 3.0 with an empty comment, no attributes and the defaults of an entry.
  KQZipCentralDirectoryFileHeader();

  /// A header for the file at `path`, which is also its name until another is set. It has no extra field
  /// until a write adds its Zip64 field. The file is not looked at.
  static std::shared_ptr<KQZipCentralDirectoryFileHeader> initWithSourceFile(const std::string& path);

  /// A header parsed from `stream`. On failure nothing; the slot holds the parse's error and the line "Failed
  /// to parse %@ from stream: %@" is logged.
  static std::shared_ptr<KQZipCentralDirectoryFileHeader> initWithStream(KQ::NSInputStream& stream,
                                                                         KQ::NSErrorSlot error = nullptr);

  /// Parses a header as initWithStream() does, with all its failures, and lets it go.
  static bool skipWithStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// The base's copy; then offsetOfLocalHeader() becomes 0xFFFFFFFF when the other header's offset fits 32
  /// bits and its low 32 bits when it does not. The reversed choice is meant: the value only lives until a
  /// write, which sets the right one.
  void copyPropertiesFromHeader(const KQZipFileEntry& header) override;

  /// Prepares the entry, takes the offset of the linked local header, 0 without one, and writes the record.
  /// The offset goes into the last field with id 1, and into offsetOfLocalHeader() unless it is 0xFFFFFFFF or
  /// more. Fails with the preparation's or a write primitive's error.
  bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr) override;

  /// Reads a header whose signature the caller has consumed. offset() is then 4 bytes past the record's
  /// start. A name or comment that is not valid UTF-8 becomes absent. Fails with -101 "File uses unsupported
  /// compression method.", 8 bytes past the signature, for an entry that is compressed, or with the read
  /// primitives' error. A stream without an offset counts as standing at 0.
  bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr) override;

  /// Bytes that a write would produce: 46, the name, the comment and the extra fields.
  std::uint64_t outputSize() const override;

  /// The local header of the same entry, or nothing once it is gone. A weak link.
  std::shared_ptr<KQZipFileLocalHeader> localHeader() const { return localHeader_.lock(); }
  /// Links the header weakly.
  void setLocalHeader(const std::shared_ptr<KQZipFileLocalHeader>& header) { localHeader_ = header; }

  /// Version made by; 0x031E is Unix, 3.0.
  std::uint16_t versionMadeBy() const { return versionMadeBy_; }
  void setVersionMadeBy(std::uint16_t value) { versionMadeBy_ = value; }

  /// Byte length of the comment as last parsed or written, modulo 65,536.
  std::uint16_t fileCommentLength() const { return fileCommentLength_; }
  void setFileCommentLength(std::uint16_t value) { fileCommentLength_ = value; }

  /// Disk on which the entry starts.
  std::uint16_t diskNumberStart() const { return diskNumberStart_; }
  void setDiskNumberStart(std::uint16_t value) { diskNumberStart_ = value; }

  /// Internal attributes.
  std::uint16_t internalFileAttributes() const { return internalFileAttributes_; }
  void setInternalFileAttributes(std::uint16_t value) { internalFileAttributes_ = value; }

  /// External attributes; the library writes 0.
  std::uint32_t externalFileAttributes() const { return externalFileAttributes_; }
  void setExternalFileAttributes(std::uint32_t value) { externalFileAttributes_ = value; }

  /// Offset of the entry's local header; 0xFFFFFFFF when the Zip64 field holds it.
  std::uint32_t offsetOfLocalHeader() const { return offsetOfLocalHeader_; }
  void setOffsetOfLocalHeader(std::uint32_t value) { offsetOfLocalHeader_ = value; }

  /// The entry's comment. Atomic.
  std::optional<std::string> fileComment() const;
  void setFileComment(std::optional<std::string> value);

 protected:
  const char* _className() const override;

 private:
  KQZIP_HIDDEN void _takeOffsetOfLocalHeader();
  KQZIP_HIDDEN bool _parseFileComment(KQ::NSInputStream& stream, KQ::NSErrorSlot error);

  std::uint16_t versionMadeBy_ = 0x031E;
  std::uint16_t fileCommentLength_ = 0;
  std::uint16_t diskNumberStart_ = 0;
  std::uint16_t internalFileAttributes_ = 0;
  std::uint32_t externalFileAttributes_ = 0;
  std::uint32_t offsetOfLocalHeader_ = 0;
  KQ::NSAtomicProperty<std::shared_ptr<const std::string>> fileComment_;
  std::weak_ptr<KQZipFileLocalHeader> localHeader_;
};
