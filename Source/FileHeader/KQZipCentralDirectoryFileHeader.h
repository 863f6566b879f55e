#pragma once

#include <memory>
#include <optional>
#include <string>

#include "KQZipFileEntry.h"
#include "KQZipFileLocalHeader.h"

/// The central directory's record of an entry: 46 bytes, the name, the extra fields and a comment. For a
/// write, it is copied from the entry's local header, which is written first, and linked to it for its
/// offset.
///
/// Used by one thread at a time, except fileComment(). localHeader() may be called while another thread
/// releases the local header.
class KQZIP_EXPORT KQZipCentralDirectoryFileHeader : public KQZipFileEntry {
 public:
  /// The record's signature, 50 4B 01 02 on disk.
  static constexpr std::uint32_t signature = 0x02014b50;

  /// A header made by Unix 3.0 with an empty comment, no attributes and the defaults of an entry.
  KQZipCentralDirectoryFileHeader();

  /// A header for the file at `path`, which is also its name until another is set. It has no extra field
  /// until a write adds its Zip64 field. Does not access the file. KQZipFileEntry says which files are no
  /// good sources.
  static std::shared_ptr<KQZipCentralDirectoryFileHeader> initWithSourceFile(const std::string& path);

  /// A header parsed from `stream`. Nothing when the parse fails, with its error in the slot; logs "Failed to
  /// parse %@ from stream: %@".
  static std::shared_ptr<KQZipCentralDirectoryFileHeader> initWithStream(KQ::NSInputStream& stream,
                                                                         KQ::NSErrorSlot error = nullptr);

  /// Parses a header as initWithStream() does, with the same failures, and discards it.
  static bool skipWithStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Copies as the base class does, and sets offsetOfLocalHeader() to 0xFFFFFFFF when the other header's
  /// offset fits 32 bits, and to its low 32 bits when it does not. The reversed choice is by design: the
  /// value is valid until a write, which sets the right one.
  void copyPropertiesFromHeader(const KQZipFileEntry& header) override;

  /// Prepares the entry, takes the offset of the linked local header (0 without one) and writes the record.
  /// Sets the offset in the last field with id 1, and in offsetOfLocalHeader() unless it is 0xFFFFFFFF or
  /// more. Fails with the error of the preparation or of a write primitive.
  bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr) override;

  /// Reads a header after its signature, which the caller has consumed. A name or comment that is not valid
  /// UTF-8 becomes absent. Fails with -101 "File uses unsupported compression method." for a compressed
  /// entry, of which it reads nothing after the method; or with the read primitives' error. A stream without
  /// an offset counts as one at 0.
  bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr) override;

  /// The size of the record in bytes: 46, the name, the comment and the extra fields.
  std::uint64_t outputSize() const override;

  /// The local header of the same entry, or nothing once it is destroyed. A weak link.
  std::shared_ptr<KQZipFileLocalHeader> localHeader() const { return localHeader_.lock(); }
  /// Sets the weak link.
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
