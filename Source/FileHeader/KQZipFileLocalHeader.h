#pragma once

#include <memory>
#include <string>

#include "../Platform/NSData.h"
#include "KQZipFileEntry.h"

class KQZipCentralDirectoryFileHeader;

/// The local file header, the record before each entry's data: 30 bytes, the name and the extra fields. A
/// write also writes the data of the source file. A parse skips the data, which can then be read or exported.
///
/// Used by one thread at a time. While the header does not change, several threads may call
/// unarchivedDataWithStream() and exportFileToPath(), each with its own stream.
class KQZIP_EXPORT KQZipFileLocalHeader : public KQZipFileEntry {
 public:
  /// The record's signature, 50 4B 03 04 on disk.
  static constexpr std::uint32_t signature = 0x04034b50;

  /// A header for the file at `path`, which is also its name until another is set, with a Zip64 field of
  /// zeros. Does not access the file. KQZipFileEntry says which files are no good sources.
  static std::shared_ptr<KQZipFileLocalHeader> initWithSourceFile(const std::string& path);

  /// A header parsed from `stream`. Nothing when the parse fails, with its error in the slot; logs "Failed to
  /// parse %@ from stream: %@".
  static std::shared_ptr<KQZipFileLocalHeader> initWithStream(KQ::NSInputStream& stream,
                                                              KQ::NSErrorSlot error = nullptr);

  /// Writes the header and the contents of the source file, in blocks of 1 MiB. Makes a progress of twice the
  /// file's size in bytes, for the CRC and for the copy, and makes it current.
  ///
  /// Fails with the error of the preparation or of a write primitive; without an error, and with the log line
  /// "%@ failed to open file at %@", when the file cannot be opened for the copy; with -90 "Operation was
  /// cancelled." when the progress is cancelled during the copy. By design, a write of data that accepts
  /// nothing or fails ends the copy as a success, and a partial one is not completed: the stream, or the next
  /// write, reports it. After a failure of the preparation, of the header or of opening the file, and after a
  /// cancellation, the progress stays current on the thread.
  ///
  /// Succeeds too when the source has another size than its attributes say, or changes during the write; see
  /// KQZipFileEntry.
  bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr) override;

  /// Reads a header after its signature, which the caller has consumed, and moves the stream to the end of
  /// the entry's data. The 32-bit sizes are those of the header, whatever the Zip64 field says.
  ///
  /// Fails with -101 "File uses unsupported compression method." for a compressed entry, of which it reads
  /// nothing after the method; with the read primitives' error; with the stream's own error, logged as
  /// "failed to set stream offset: %@", when the stream cannot be moved or the end of the data does not fit a
  /// file offset. A stream without an offset counts as one at 0.
  bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr) override;

  /// Computes the CRC as the base class does, and sets it in the central header too.
  bool calculateCRCOfSourceFile() override;

  /// Updates the date as the base class does, and sets it in the central header too.
  void updateModificationDate() override;

  /// The central header that also gets the values computed by a write. A weak link, which the library itself
  /// never sets.
  std::shared_ptr<KQZipCentralDirectoryFileHeader> centralDirectoryHeader() const {
    return centralDirectoryHeader_.lock();
  }
  /// Sets the weak link.
  void setCentralDirectoryHeader(const std::shared_ptr<KQZipCentralDirectoryFileHeader>& header) {
    centralDirectoryHeader_ = header;
  }

  /// The entry's data in memory, for small entries; see exportFileToPath() for large ones. Moves `stream`, an
  /// open stream on the archive, and reads the data with one read.
  ///
  /// Nothing when the entry has no data, when the stream ends before it, or when there is not enough memory
  /// for the declared length. Otherwise the buffer has the declared length, even if the read delivers less or
  /// fails; the missing bytes are zeros, which take no memory until they are accessed. The CRC is not
  /// checked.
  std::shared_ptr<const KQ::NSData> unarchivedDataWithStream(KQ::NSInputStream& stream) const;

  /// Copies the entry's data from `stream`, an open stream on the archive, which it moves, to a file, in
  /// blocks of 1 MiB. Gives the file the entry's modification date. Replaces an existing file. Makes a
  /// progress in bytes, of kind NSProgressKindFile, and makes it current. Does not check the CRC.
  ///
  /// Fails with -50 "Failed to seek to offset %llu" when the stream cannot be moved (by design, the copy
  /// still runs, from the current offset, and sets no attributes); with -51 "Failed to write to stream at
  /// %@"; with the file manager's error when the attributes cannot be set; without an error when the progress
  /// is cancelled, which then stays current, or when a read fails. An archive that ends early gives a short
  /// file and success. A partly written file is never removed.
  bool exportFileToPath(const std::string& path, KQ::NSInputStream& stream,
                        KQ::NSErrorSlot error = nullptr) const;

 protected:
  const char* _className() const override;

 private:
  // Makes headers with their names.
  friend class KQZipFileWriter;

  KQZIP_HIDDEN static std::shared_ptr<KQZipFileLocalHeader> _initWithSourceFile(Text path, Text name);
  KQZIP_HIDDEN bool _writeHeader(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) const;
  KQZIP_HIDDEN bool _copySourceFile(KQ::NSInputStream& source, KQ::NSOutputStream& stream,
                                    KQ::NSErrorSlot error) const;
  KQZIP_HIDDEN bool _skipData(KQ::NSInputStream& stream, KQ::NSErrorSlot error);
  KQZIP_HIDDEN bool _exportData(const std::string& path, KQ::NSInputStream& stream,
                                KQ::NSOutputStream& output, KQ::NSProgress& progress,
                                KQ::NSErrorSlot error) const;

  std::weak_ptr<KQZipCentralDirectoryFileHeader> centralDirectoryHeader_;
};
