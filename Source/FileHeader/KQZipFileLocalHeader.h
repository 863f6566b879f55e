#pragma once

#include <memory>
#include <string>

#include "../Platform/NSData.h"
#include "KQZipFileEntry.h"

class KQZipCentralDirectoryFileHeader;

/// The local file header: the record in front of each entry's data, 30 bytes, the name and the extra fields.
/// Writing one writes the data of its source file behind it; parsing one steps over the data; and the data of
/// a parsed one can be read or exported.
///
/// Used by one thread at a time. While it is not changed, unarchivedDataWithStream() and exportFileToPath()
/// may run on several threads, each with a stream of its own.
class KQZIP_EXPORT KQZipFileLocalHeader : public KQZipFileEntry {
 public:
  /// The record's signature, 50 4B 03 04 on disk.
  static constexpr std::uint32_t signature = 0x04034b50;

  /// A header for the file at `path`, which is also its name until another is set, with a Zip64 field of
  /// zeros. The file is not looked at.
  static std::shared_ptr<KQZipFileLocalHeader> initWithSourceFile(const std::string& path);

  /// A header parsed from `stream`. On failure nothing; the slot holds the parse's error and the line "Failed
  /// to parse %@ from stream: %@" is logged.
  static std::shared_ptr<KQZipFileLocalHeader> initWithStream(KQ::NSInputStream& stream,
                                                              KQ::NSErrorSlot error = nullptr);

  /// Writes the header and the contents of the source file, in blocks of 1 MiB. The write makes a progress of
  /// its own, twice the file's size in bytes for the CRC and for the copy, and makes it current.
  ///
  /// Fails with the preparation's or a write primitive's error; without an error, and with the line "%@
  /// failed to open file at %@", when the file cannot be opened for the copy; with -90 "Operation was
  /// cancelled." when the progress is cancelled during the copy. A write of data that takes nothing or fails
  /// ends the copy as a success, and one that takes a part is not completed; that is meant: whoever owns the
  /// stream learns of it there or from the next write. After a failure of the preparation, of the header or
  /// of the opening, and after a cancellation, the progress stays current on the thread.
  bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr) override;

  /// Reads a header whose signature the caller has consumed and moves the stream behind the entry's data.
  /// offset() is then 4 bytes past the record's start. The 32-bit sizes keep what the header held.
  ///
  /// Fails with -101 "File uses unsupported compression method.", read no further than the method, for an
  /// entry that is compressed; with the read primitives' error; or with the stream's own error, logged as
  /// "failed to set stream offset: %@", when it cannot be moved, also when the end of the data does not fit a
  /// file offset. A stream without an offset counts as standing at 0.
  bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr) override;

  /// The base's computation; a CRC that it computed also goes to the central header.
  bool calculateCRCOfSourceFile() override;

  /// The base's update; date and time then also go to the central header.
  void updateModificationDate() override;

  /// The central header that values computed while writing are passed on to. A weak link that the library
  /// itself never sets.
  std::shared_ptr<KQZipCentralDirectoryFileHeader> centralDirectoryHeader() const {
    return centralDirectoryHeader_.lock();
  }
  /// Links the header weakly.
  void setCentralDirectoryHeader(const std::shared_ptr<KQZipCentralDirectoryFileHeader>& header) {
    centralDirectoryHeader_ = header;
  }

  /// The entry's data in memory, read with one read from `stream`, an open stream on the archive, which is
  /// moved. Meant for small entries; see exportFileToPath() for large ones.
  ///
  /// Nothing when the entry has no data, the stream is at its end there, or there is no memory for the
  /// declared length. Otherwise the buffer has the declared length even if the read delivered less or failed;
  /// what it did not deliver is zeros, which take no memory until they are touched. The CRC is not checked.
  std::shared_ptr<const KQ::NSData> unarchivedDataWithStream(KQ::NSInputStream& stream) const;

  /// Copies the entry's data from `stream`, an open stream on the archive, which is moved, into a file, in
  /// blocks of 1 MiB, and gives the file the entry's modification date. An existing file is replaced. The
  /// copy makes a progress of its own, of kind NSProgressKindFile and in bytes, and makes it current. The CRC
  /// is not checked.
  ///
  /// Fails with -50 "Failed to seek to offset %llu" when the stream cannot be moved (the copy still runs from
  /// where it stands, which is meant, and no attributes are set), with -51 "Failed to write to stream at %@",
  /// with the file manager's error when the attributes cannot be set; without an error when the progress is
  /// cancelled (it then stays current) or a read fails. An archive that ends early yields a short file and
  /// success. A partly written file is never removed.
  bool exportFileToPath(const std::string& path, KQ::NSInputStream& stream,
                        KQ::NSErrorSlot error = nullptr) const;

 protected:
  const char* _className() const override;

 private:
  // Makes headers that have their names from the start.
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
