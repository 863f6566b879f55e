#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/KQExport.h"
#include "Platform/NSData.h"
#include "Platform/NSError.h"
#include "Platform/NSFileManager.h"
#include "Platform/NSStream.h"

/// Opens an archive, finds its entries with one forward scan over the local headers, and gives access to them
/// by path. No answer depends on the central directory.
///
///     std::shared_ptr<const KQ::NSError> error;
///     auto reader = KQZipFileReader::initWithZipPath("backup.zip", &error);
///     if (!reader) ...
///     for (const std::string& path : reader->relativePaths()) ...
///
/// A reader is immutable and keeps no stream open: any number of threads may use one at once. It trusts the
/// archive: paths may be absolute or have "..", and data is not compared with its CRC.
class KQZIP_EXPORT KQZipFileReader {
 private:
  struct Key {
    explicit Key() = default;
  };

 public:
  KQZipFileReader() = delete;                                   ///< A reader is made from an archive.
  KQZipFileReader(const KQZipFileReader&) = delete;             ///< Owns its entries.
  KQZipFileReader& operator=(const KQZipFileReader&) = delete;  ///< Owns its entries.
  /// Use the static operations instead.
  KQZipFileReader(Key key, std::optional<std::string> zipPath);
  ~KQZipFileReader();

  /// A reader on the archive at `zipPath`. A file that does not exist, cannot be opened or is empty gives a
  /// reader without entries.
  ///
  /// Nothing, with the error in the slot, when a record cannot be read: -100 "got unexpected bytes looking
  /// for known signatures: %x" for an unknown signature, which includes the end records of an archive without
  /// entries; or else the error of the local header: -101 for a compressed entry, the stream's error for data
  /// that ends beyond any file offset, none where the archive ends inside the header. An archive that ends
  /// inside an entry's data opens, and so does one with up to three bytes after its last record.
  static std::shared_ptr<KQZipFileReader> initWithZipPath(const std::string& zipPath,
                                                          KQ::NSErrorSlot error = nullptr);

  /// A reader on an archive in `stream`, which is open, is at the archive's first byte and can set its
  /// offset. The stream stays open, at the offset where the scan ends. The reader lists entries and
  /// attributes. It has no file to reopen, so data and streams are nothing. Fails as initWithZipPath() does.
  static std::shared_ptr<KQZipFileReader> initWithStream(KQ::NSInputStream& stream,
                                                         KQ::NSErrorSlot error = nullptr);

  /// The paths of all entries, ordered by KQ::compare(). Of several entries with one path the last counts. An
  /// entry whose name is not valid UTF-8 has no path and is not listed.
  std::vector<std::string> relativePaths() const;

  /// The entry's data in memory. Nothing when no entry has that path, the entry has no data, or the archive
  /// cannot be opened. For an archive that ends early see KQZipFileLocalHeader::unarchivedDataWithStream().
  std::shared_ptr<const KQ::NSData> dataForRelativePath(const std::string& relativePath) const;

  /// A new, open stream on the archive at the entry's first byte of data. Nothing when no entry has that path
  /// or the archive cannot be opened. The stream continues after the entry's data: read at most as many bytes
  /// as the size in attributesForRelativePath(). The caller closes it.
  std::shared_ptr<KQ::NSInputStream> streamForRelativePath(const std::string& relativePath) const;

  /// Size, modification date and type of the entry, or nothing when no entry has that path. By design, an
  /// entry without data has the type of a folder, even if it is an empty file.
  std::optional<KQ::NSFileAttributes> attributesForRelativePath(const std::string& relativePath) const;

  /// Copies the entry's data to the file at `toPath`, in blocks of 1 MiB. Creates missing parent folders and
  /// replaces an existing file. Makes a progress in bytes and makes it current. Sets no attributes and checks
  /// no CRC.
  ///
  /// By design, an unknown path is a success that writes nothing, and an archive that ends early is a success
  /// with a short file. Fails with the file manager's error when the parent folder cannot be created; with
  /// -90 "Cancelled By User." when the progress is cancelled, which then stays current on the thread; without
  /// an error when a read or a write fails, or when the entry has data and the archive cannot be opened
  /// again. The file and what was written to it stay. A reader that was made from a stream has no file to
  /// read: it creates no file and fails without an error.
  bool writeDataForRelativePath(const std::string& relativePath, const std::string& toPath,
                                KQ::NSErrorSlot error = nullptr) const;

  /// Extracts all entries of an archive below the folder `toDestination`, in the order of relativePaths(). By
  /// design, an entry without data becomes a folder. Names are used unchanged: check them first if the
  /// archive is not yours. Makes a progress with one unit for each entry.
  ///
  /// A folder that cannot be created is logged ("failed to create directory at %@ for %@", "failed to create
  /// parent directory at %@ for %@") and skipped. Fails as initWithZipPath() does, as
  /// writeDataForRelativePath() does for the first file that cannot be written, and with -90 "Cancelled By
  /// User.", after which the progress stays current on the thread. What was written stays.
  static bool unzipFileAtPath(const std::string& zipPath, const std::string& toDestination,
                              KQ::NSErrorSlot error = nullptr);

 private:
  struct KQZIP_HIDDEN State;

  std::unique_ptr<State> state_;
};
