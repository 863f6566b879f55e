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

/// Opens an archive, finds its entries with one forward scan over the local headers, and answers by the
/// entries' paths. No answer depends on the central directory.
///
///     std::shared_ptr<const KQ::NSError> error;
///     auto reader = KQZipFileReader::initWithZipPath("backup.zip", &error);
///     if (!reader) ...
///     for (const std::string& path : reader->relativePaths()) ...
///
/// A reader does not change once it is made and keeps no stream open: any number of threads may use one at
/// once. What the archive's author chose is not checked: paths may be absolute or hold "..", and data is not
/// compared with its CRC.
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
  /// for known signatures: %x" for an unknown signature, which for the reader the end records of an archive
  /// without entries have too, otherwise the error of the local header (-101 for an entry that is compressed,
  /// the stream's for data that ends beyond any file offset, none where the archive ends inside the header).
  /// An archive cut off inside an entry's data opens; so does one with up to three bytes behind its last
  /// record.
  static std::shared_ptr<KQZipFileReader> initWithZipPath(const std::string& zipPath,
                                                          KQ::NSErrorSlot error = nullptr);

  /// A reader on an archive in `stream`, which is open, stands at the archive's first byte, has an offset
  /// that can be set, and stays open, standing where the scan stopped. Such a reader lists entries and
  /// attributes; it has no file to reopen, so data and streams are "nothing". Fails as initWithZipPath()
  /// does.
  static std::shared_ptr<KQZipFileReader> initWithStream(KQ::NSInputStream& stream,
                                                         KQ::NSErrorSlot error = nullptr);

  /// The paths of all entries, ordered by KQ::compare(). Of several entries with one path the last counts. An
  /// entry whose name is not valid UTF-8 has no path and is not listed.
  std::vector<std::string> relativePaths() const;

  /// The entry's data in memory, or nothing when no entry has that path, the entry has no data or the archive
  /// cannot be opened; see KQZipFileLocalHeader::unarchivedDataWithStream() for an archive that ends early.
  std::shared_ptr<const KQ::NSData> dataForRelativePath(const std::string& relativePath) const;

  /// A new, open stream on the archive that stands at the entry's first byte, or nothing when no entry has
  /// that path or the archive cannot be opened. It runs on past the entry's data: read at most as many bytes
  /// as the size in attributesForRelativePath(). The caller closes it.
  std::shared_ptr<KQ::NSInputStream> streamForRelativePath(const std::string& relativePath) const;

  /// Size, modification date and type of the entry, or nothing when no entry has that path. The type is a
  /// folder when there is no data, so an empty file shows as one, which is meant.
  std::optional<KQ::NSFileAttributes> attributesForRelativePath(const std::string& relativePath) const;

  /// Copies the entry's data to the file at `toPath`, in blocks of 1 MiB, creating the parent folder with all
  /// above it and replacing an existing file. The copy makes a progress in bytes and makes it current. No
  /// attributes are set, no CRC is checked.
  ///
  /// An unknown path is a success that writes nothing, and an archive that ends early a success with a short
  /// file; both are meant. Fails with the file manager's error when the parent folder cannot be created; with
  /// -90 "Cancelled By User." when the progress is cancelled, which then stays current on the thread; without
  /// an error when reading or writing fails, or when there is data and the archive cannot be opened any more.
  /// What was written stays, and so does the file that was made to write to. A reader that was made from a
  /// stream has nothing to read data from: it makes no file and fails without an error.
  bool writeDataForRelativePath(const std::string& relativePath, const std::string& toPath,
                                KQ::NSErrorSlot error = nullptr) const;

  /// Recreates all entries of an archive below the folder `toDestination`, in the order of relativePaths().
  /// An entry without data becomes a folder, which is meant. Names are used as they stand: check them first
  /// if the archive is not yours. The extraction makes a progress with one unit for each entry.
  ///
  /// A folder that cannot be created is logged ("failed to create directory at %@ for %@", "failed to create
  /// parent directory at %@ for %@") and passed over. Fails as initWithZipPath() does, as
  /// writeDataForRelativePath() does for the first file that cannot be written, and with -90 "Cancelled By
  /// User.", after which the progress stays current on the thread. What was written stays.
  static bool unzipFileAtPath(const std::string& zipPath, const std::string& toDestination,
                              KQ::NSErrorSlot error = nullptr);

 private:
  struct KQZIP_HIDDEN State;

  std::unique_ptr<State> state_;
};
