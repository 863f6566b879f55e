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
/// file that an entry is built from, and the preparation that turns a source file into header values.
///
/// The class itself moves no bytes. An entry is used by one thread at a time; fileName() and sourceFilePath()
/// are atomic, and its progress may be cancelled from anywhere.
class KQZIP_EXPORT KQZipFileEntry {
 public:
  /// An entry with version 4.5, saturated 32-bit sizes, no name, no source and nothing calculated yet. The
  /// saturated sizes stay: real sizes are only ever written in the Zip64 field.
  KQZipFileEntry() = default;
  virtual ~KQZipFileEntry();
  KQZipFileEntry(const KQZipFileEntry&) = delete;             ///< See copyPropertiesFromHeader().
  KQZipFileEntry& operator=(const KQZipFileEntry&) = delete;  ///< See copyPropertiesFromHeader().

  /// An entry for the file at `path`, which is also its name until another is set. The file is not looked at.
  /// Both headers have operations of their own for this and for the next; as inherited by another subclass
  /// they make an entry of this class.
  static std::shared_ptr<KQZipFileEntry> initWithSourceFile(const std::string& path);

  /// An entry parsed from `stream`. On failure nothing; the slot holds the parse's error and the line "Failed
  /// to parse %@ from stream: %@" is logged.
  static std::shared_ptr<KQZipFileEntry> initWithStream(KQ::NSInputStream& stream,
                                                        KQ::NSErrorSlot error = nullptr);

  /// Copies the common fields, the name, the source path, copies of the extra fields and the date. The CRC
  /// counts as calculated afterwards; the offset, the size and the permissions of the source file, the
  /// position of the data, the progress and the two attribute flags are not copied.
  virtual void copyPropertiesFromHeader(const KQZipFileEntry& header);

  /// Records where the record starts, the stream's current offset or 0 if it has none, and prepares the
  /// entry for writing. Writes nothing itself. Fails with -50 "Source file doesn't exist: %@" (which names
  /// nothing) when the entry has no source path, with -50 "Can't calculate CRC of %@" when its CRC cannot be
  /// computed or that was cancelled.
  virtual bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Reads nothing and succeeds; a record overrides it.
  virtual bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// The extra fields in the order in which they stand on disk. A reference to the entry's own list, which
  /// stays the same as long as the entry lives.
  const std::vector<std::shared_ptr<KQZipExtraField>>& extraFields() const { return extraFields_; }
  /// Appends a field; null is ignored.
  void addExtraField(std::shared_ptr<KQZipExtraField> field);
  /// Replaces the contents of the list; nulls are ignored.
  void setExtraFields(std::vector<std::shared_ptr<KQZipExtraField>> fields);

  /// The first extra field whose id is 1 and that is of the Zip64 class, or nothing.
  std::shared_ptr<KQZipExtraFieldZip64ExtendedInfo> findZip64InfoField() const;

  /// The entry's path inside the archive, which is its name.
  std::optional<std::string> relativePath() const { return fileName(); }
  /// Sets the name as it stands, a trailing "/" included, and fileNameLength() to its length.
  void setRelativePath(const std::optional<std::string>& path);

  /// Bytes of data behind the local header: the Zip64 field's compressed size if there is such a field, else
  /// the 32-bit one.
  std::uint64_t dataLengthFromHeader() const;

  /// Position in the archive of the first byte of data, once a local header was parsed.
  std::uint64_t offsetOfDataInArchive() const { return fileDataOffset_; }

  /// True when the entry has no data. An empty file counts as a directory too; that is meant.
  bool isDirectory() const { return dataLengthFromHeader() == 0; }

  /// Bytes that the entry takes as a local record with the data of its source file.
  virtual std::uint64_t outputSize() const;

  /// Class, identity, name and source in one line.
  std::string description() const;

  /// The modification time and date fields as a date in local time, to the even second.
  KQ::NSDate modificationDate() const;
  /// Sets the fields from a date in local time. An odd second loses its low bit and a year outside 1980 to
  /// 2107 wraps modulo 128. The source file's date still replaces it when the entry is written.
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

  /// Reads the source file in blocks of 1 MiB and sets the CRC. False when it cannot be opened, which is
  /// logged as "failed to calculate crc: failed to open stream at %@", or when progress() is cancelled; the
  /// CRC is then as before. A read that fails ends the computation like the end of the file.
  virtual bool calculateCRCOfSourceFile();

  /// Takes date, size and, of a regular file, permissions from the source file. When its attributes cannot be
  /// read, nothing changes and "failed to get attributes for %@" is logged. They are those of the path
  /// itself, so a source should not be a symbolic link: the size would be the link's own.
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
  /// Stores the CRC, which then counts as calculated.
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

  /// The path of the file that the entry's data comes from, for writing. Atomic. A write uses the path that
  /// stands when it begins, whatever is set meanwhile.
  std::optional<std::string> sourceFilePath() const;
  void setSourceFilePath(std::optional<std::string> value);

  /// Size of the source file in bytes, once taken from it.
  std::uint64_t sourceFileSize() const { return sourceFileSize_; }
  void setSourceFileSize(std::uint64_t value) { sourceFileSize_ = value; }

  /// The permissions of the source file, the lowest twelve bits of its mode, when its size and date were last
  /// taken together; nothing before, and for a source that was no regular file. No record has them.
  std::optional<std::uint16_t> sourceFilePermissions() const { return sourceFilePermissions_; }

  /// Where the record stands: its first byte when it was written, 4 bytes further when it was parsed.
  std::uint64_t offset() const { return offset_; }
  void setOffset(std::uint64_t value) { offset_ = value; }

  /// The progress of the current or last write, empty before the first; the CRC computation counts into it.
  std::shared_ptr<KQ::NSProgress> progress() const { return progress_; }
  /// Stored as it is; a local header replaces it when it is written.
  void setProgress(std::shared_ptr<KQ::NSProgress> value) { progress_ = std::move(value); }

 protected:
  /// The name that log lines and description() show for the object's class.
  virtual const char* _className() const;

  /// Parses, and logs a failure the way initWithStream() does.
  bool _parseLogged(KQ::NSInputStream& stream, KQ::NSErrorSlot error);

  /// Computes what the entry lacks and fills its Zip64 field, which it creates if there is none. May be
  /// called again: a CRC that stands is kept, the rest is refreshed.
  bool _prepareForWritingError(KQ::NSErrorSlot error);

  /// Sets the size from `attributes`.
  void _updateSourceFileSizeFromAttributes(const KQ::NSFileAttributes& attributes);
  /// Sets the date from `attributes`.
  void _updateModificationDateFromAttributes(const KQ::NSFileAttributes& attributes);

  /// A field of the header, the position of the data or the progress, for a subclass's layout.
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
  // The two records, which lay an entry out, and what shares names with entries.
  friend class KQZipCentralDirectoryFileHeader;
  friend class KQZipFileLocalHeader;
  friend class KQZipFileReader;
  friend class KQZipSourceOfWrite;

  using Text = std::shared_ptr<const std::string>;

  // What initWithSourceFile() does to a fresh object.
  KQZIP_HIDDEN void _setSourceFile(const std::string& path);
  // Reads fileNameLength() bytes and makes them the name, absent when they are not valid UTF-8.
  KQZIP_HIDDEN bool _parseFileName(KQ::NSInputStream& stream, KQ::NSErrorSlot error);
  // Reads extra fields until the stream stands extraFieldLength() bytes from here or further.
  KQZIP_HIDDEN bool _parseExtraFields(KQ::NSInputStream& stream, KQ::NSErrorSlot error);
  // Writes the name's bytes, then every extra field.
  KQZIP_HIDDEN bool _writeNameAndExtraFields(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) const;
  // Sum of the sizes of the name and all extra fields.
  KQZIP_HIDDEN std::uint64_t _sizeOfNameAndExtraFields() const;

  // The path of the write that goes on, else sourceFilePath(); null when there is none.
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
  // The path of the write that goes on; null while there is none.
  const Text* sourceOfWrite_ = nullptr;
};
