#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "../KQZipExtraField.h"
#include "../KQZipExtraFieldZip64ExtendedInfo.h"
#include "../Platform/KQExport.h"
#include "../Platform/NSAtomicProperty.h"
#include "../Platform/NSCalendar.h"
#include "../Platform/NSError.h"
#include "../Platform/NSFileManager.h"
#include "../Platform/NSProgress.h"
#include "../Platform/NSStream.h"

/// What the local and the central header of an entry share: the common fields, the extra fields, the source
/// file of an entry, and the preparation that computes the header's values from it.
///
/// The class itself reads and writes no bytes of an archive. An entry is used by one thread at a time, except
/// fileName() and sourceFilePath(), which are atomic, and its progress, which any thread may cancel.
///
/// A source must be a regular file, and must not change until it is written. Its size comes from the
/// attributes of the path, its CRC and its data from reading the file. The two do not match for
/// - a symbolic link, whose size is the link's own, while its target is read;
/// - a folder, which has a size but cannot be read;
/// - a file whose size is 0 but that has contents, as in /proc;
/// - a file that changes while it is written.
///
/// The write succeeds all the same, but the entry's header is wrong. A reader then gets wrong data for the
/// entry, and may not find the entries after it.
class KQZIP_EXPORT KQZipFileEntry {
 public:
  /// An entry with version 4.5, saturated 32-bit sizes, no name and no source, with nothing calculated yet.
  /// The sizes stay saturated: the library writes real sizes only in the Zip64 field.
  KQZipFileEntry() = default;
  virtual ~KQZipFileEntry();
  KQZipFileEntry(const KQZipFileEntry&) = delete;             ///< See copyPropertiesFromHeader().
  KQZipFileEntry& operator=(const KQZipFileEntry&) = delete;  ///< See copyPropertiesFromHeader().

  /// An entry for the file at `path`, which is also its name until another is set. Does not access the file.
  /// Both headers have their own versions of this operation and the next. Another subclass inherits these,
  /// which make an entry of this class.
  static std::shared_ptr<KQZipFileEntry> initWithSourceFile(const std::string& path);

  /// An entry parsed from `stream`. Nothing when the parse fails, with its error in the slot; logs "Failed to
  /// parse %@ from stream: %@".
  static std::shared_ptr<KQZipFileEntry> initWithStream(KQ::NSInputStream& stream,
                                                        KQ::NSErrorSlot error = nullptr);

  /// Copies the common fields, the name, the source path and the date, and replaces the extra fields by
  /// copies of the other's. The CRC then counts as calculated. Does not copy the offset, the size and the
  /// permissions of the source file, the position of the data, the progress and the two attribute flags.
  virtual void copyPropertiesFromHeader(const KQZipFileEntry& header);

  /// Sets offset() to the stream's current offset, or 0 if it has none, and prepares the entry for writing.
  /// Writes nothing itself. Fails with -50 "Source file doesn't exist: %@" (formatted with no path) when the
  /// entry has no source path; with -50 "Can't calculate CRC of %@" when computing the CRC fails or is
  /// cancelled.
  virtual bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Reads nothing and succeeds. The records override it.
  virtual bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// The extra fields, in their order on disk. The reference is to the entry's own list and is valid as long
  /// as the entry.
  const std::vector<std::shared_ptr<KQZipExtraField>>& extraFields() const { return extraFields_; }
  /// Appends a field; null is ignored.
  void addExtraField(std::shared_ptr<KQZipExtraField> field);
  /// Replaces the contents of the list; nulls are ignored.
  void setExtraFields(std::vector<std::shared_ptr<KQZipExtraField>> fields);

  /// The first extra field that has id 1 and is of the Zip64 class, or nothing.
  std::shared_ptr<KQZipExtraFieldZip64ExtendedInfo> findZip64InfoField() const;

  /// The entry's path inside the archive, which is its name.
  std::optional<std::string> relativePath() const { return fileName(); }
  /// Sets the name to `path` unchanged, a trailing "/" included, and fileNameLength() to its length.
  void setRelativePath(const std::optional<std::string>& path);

  /// Bytes of data after the local header: the Zip64 field's compressed size if there is such a field, or
  /// else the 32-bit compressed size.
  std::uint64_t dataLengthFromHeader() const;

  /// Offset in the archive of the first byte of data, once a local header is parsed.
  std::uint64_t offsetOfDataInArchive() const { return fileDataOffset_; }

  /// True when the entry has no data. By design, an empty file counts as a directory too.
  bool isDirectory() const { return dataLengthFromHeader() == 0; }

  /// The size of the entry as a local record with the data of its source file, in bytes.
  virtual std::uint64_t outputSize() const;

  /// Class, address, name and source in one line.
  std::string description() const;

  /// The modification time and date fields as a date in local time, to the even second.
  KQ::NSDate modificationDate() const;
  /// Sets the fields from a date in local time. An odd second becomes the even one before it; a year outside
  /// 1980 to 2107 wraps modulo 128. A write may still replace the date by that of the source file; see
  /// needsToSetModificationDate().
  void setModificationDate(KQ::NSDate date);

  /// Whether the CRC is still to be computed from the source file.
  bool needsToCalculateCRC() const { return needsToCalculateCRC_; }
  /// Whether the date is still to be taken from the source file.
  bool needsToSetModificationDate() const { return needsToSetModificationDate_; }
  /// Whether the size is still to be taken from the source file.
  bool needsToSetFileSize() const { return needsToSetFileSize_; }
  /// Whether the date or the size is still to be taken from the source file.
  bool needsToUpdateAttributesFromSourceFile() const {
    return needsToSetModificationDate_ || needsToSetFileSize_;
  }

  /// Reads the source file in blocks of 1 MiB and sets the CRC. Returns false, with the CRC unchanged, when
  /// the file cannot be opened, which is logged as "failed to calculate crc: failed to open stream at %@",
  /// and when progress() is cancelled. A read that fails counts as the end of the file.
  virtual bool calculateCRCOfSourceFile();

  /// Takes the date, the size and, of a regular file, the permissions from the source file. When its
  /// attributes cannot be read, changes nothing and logs "failed to get attributes for %@". The attributes
  /// are those of the path itself; see the class's description for the sources that this gives a wrong size.
  virtual void updateAttributesFromSourceFile();
  /// Takes the size from the source file, as updateAttributesFromSourceFile() does.
  virtual void updateFileSize();
  /// Takes the date from the source file, as updateAttributesFromSourceFile() does.
  virtual void updateModificationDate();

  /// Version needed to extract; 45 is 4.5.
  std::uint16_t versionNeeded() const { return versionNeeded_; }
  void setVersionNeeded(std::uint16_t value) { versionNeeded_ = value; }

  /// General purpose bit flags.
  std::uint16_t flags() const { return flags_; }
  void setFlags(std::uint16_t value) { flags_ = value; }

  /// Compression method; 0 is stored.
  std::uint16_t compression() const { return compression_; }
  void setCompression(std::uint16_t value) { compression_ = value; }

  /// MS-DOS time: seconds / 2 in bits 0 to 4, minutes in 5 to 10, hours in 11 to 15.
  std::uint16_t modTime() const { return modTime_; }
  void setModTime(std::uint16_t value) { modTime_ = value; }

  /// MS-DOS date: day in bits 0 to 4, month in 5 to 8, year - 1980 in 9 to 15.
  std::uint16_t modDate() const { return modDate_; }
  void setModDate(std::uint16_t value) { modDate_ = value; }

  /// CRC-32 of the data.
  std::uint32_t crc32() const { return crc32_; }
  /// Sets the CRC, which then counts as calculated.
  void setCrc32(std::uint32_t value);

  /// 32-bit compressed size; 0xFFFFFFFF when the Zip64 field holds it.
  std::uint32_t compressedSize() const { return compressedSize_; }
  void setCompressedSize(std::uint32_t value) { compressedSize_ = value; }

  /// 32-bit uncompressed size; 0xFFFFFFFF when the Zip64 field holds it.
  std::uint32_t uncompressedSize() const { return uncompressedSize_; }
  void setUncompressedSize(std::uint32_t value) { uncompressedSize_ = value; }

  /// Length of the name in UTF-8 bytes, modulo 65,536.
  std::uint16_t fileNameLength() const { return fileNameLength_; }
  void setFileNameLength(std::uint16_t value) { fileNameLength_ = value; }

  /// Bytes of all extra fields as written, modulo 65,536.
  std::uint16_t extraFieldLength() const { return extraFieldLength_; }
  void setExtraFieldLength(std::uint16_t value) { extraFieldLength_ = value; }

  /// The entry's path inside the archive. Atomic.
  std::optional<std::string> fileName() const;
  void setFileName(std::optional<std::string> value);

  /// The path of the file with the entry's data, for writing. Atomic. A write uses one path from its start to
  /// its end, even if another is set in between.
  std::optional<std::string> sourceFilePath() const;
  void setSourceFilePath(std::optional<std::string> value);

  /// The size of the source file in bytes, once it is taken from the file.
  std::uint64_t sourceFileSize() const { return sourceFileSize_; }
  void setSourceFileSize(std::uint64_t value) { sourceFileSize_ = value; }

  /// The lowest twelve bits of the source file's mode, taken by the last updateAttributesFromSourceFile().
  /// Nothing before, and for a source that is not a regular file. No record stores them.
  std::optional<std::uint16_t> sourceFilePermissions() const { return sourceFilePermissions_; }

  /// Offset of the signature after a write; of the byte following it after a parse.
  std::uint64_t offset() const { return offset_; }
  void setOffset(std::uint64_t value) { offset_ = value; }

  /// The progress of the current or last write; empty before the first. The CRC computation counts into it.
  /// Every write of a local header sets it.
  std::shared_ptr<KQ::NSProgress> progress() const { return progress_; }
  void setProgress(std::shared_ptr<KQ::NSProgress> value) { progress_ = std::move(value); }

 protected:
  /// The name of the object's class in log lines and in description().
  virtual const char* _className() const;

  /// Parses, and logs a failure as initWithStream() does.
  bool _parseLogged(KQ::NSInputStream& stream, KQ::NSErrorSlot error);

  /// Computes the missing values and sets those of the Zip64 field, which it creates if there is none. A
  /// repeated call keeps a calculated CRC and refreshes the rest.
  bool _prepareForWritingError(KQ::NSErrorSlot error);

  /// Sets the size from `attributes`.
  void _updateSourceFileSizeFromAttributes(const KQ::NSFileAttributes& attributes);
  /// Sets the date from `attributes`.
  void _updateModificationDateFromAttributes(const KQ::NSFileAttributes& attributes);

  /// A field of the header, the offset of the data or the progress, for a subclass's layout.
  /// @{
  std::uint16_t versionNeeded_ = 45;
  std::uint16_t flags_ = 0;
  std::uint16_t compression_ = 0;
  std::uint16_t modTime_ = 0;
  std::uint16_t modDate_ = 0;
  std::uint16_t fileNameLength_ = 0;
  std::uint32_t crc32_ = 0;
  std::uint32_t compressedSize_ = 0xFFFFFFFF;
  std::uint32_t uncompressedSize_ = 0xFFFFFFFF;
  std::uint64_t fileDataOffset_ = 0;
  std::uint64_t offset_ = 0;
  std::shared_ptr<KQ::NSProgress> progress_;
  std::uint16_t extraFieldLength_ = 0;
  /// @}

 private:
  // The two records, and the classes that share names with entries.
  friend class KQZipCentralDirectoryFileHeader;
  friend class KQZipFileLocalHeader;
  friend class KQZipSourceOfWrite;

  using Text = std::shared_ptr<const std::string>;

  // Sets the source path and the name.
  KQZIP_HIDDEN void _setSourceFile(const std::string& path);
  // Reads fileNameLength() bytes as the name, which is absent when they are not valid UTF-8.
  KQZIP_HIDDEN bool _parseFileName(KQ::NSInputStream& stream, KQ::NSErrorSlot error);
  // Reads extra fields until the stream has moved by at least extraFieldLength() bytes.
  KQZIP_HIDDEN bool _parseExtraFields(KQ::NSInputStream& stream, KQ::NSErrorSlot error);
  // Writes the name and the extra fields.
  KQZIP_HIDDEN bool _writeNameAndExtraFields(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) const;
  // Bytes of the name and all extra fields.
  KQZIP_HIDDEN std::uint64_t _sizeOfNameAndExtraFields() const;

  // The path of the current write, or else sourceFilePath(); null when there is none.
  Text _sourceOfWork() const { return sourceOfWrite_ != nullptr ? *sourceOfWrite_ : sourceFilePath_.get(); }
  KQZIP_HIDDEN std::optional<KQ::NSFileAttributes> _attributesOfSourceFile() const;

  bool needsToCalculateCRC_ = true;
  bool needsToSetModificationDate_ = true;
  bool needsToSetFileSize_ = true;
  std::optional<std::uint16_t> sourceFilePermissions_;
  std::uint64_t sourceFileSize_ = 0;
  KQ::NSAtomicProperty<Text> fileName_;
  KQ::NSAtomicProperty<Text> sourceFilePath_;
  std::vector<std::shared_ptr<KQZipExtraField>> extraFields_;
  // The path of the current write; null between writes.
  const Text* sourceOfWrite_ = nullptr;
};
