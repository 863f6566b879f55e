#pragma once

#include <memory>
#include <optional>
#include <string>

#include "KQZipPermissions.h"
#include "Platform/KQExport.h"
#include "Platform/NSError.h"
#include "Platform/NSStream.h"

/// Packs files into a new archive. Add each file under the path that it is to have in the archive, then
/// write:
///
///     KQZipFileWriter writer;
///     writer.addFilePath("out/report.pdf", "report.pdf");
///     std::shared_ptr<const KQ::NSError> error;
///     if (!writer.writeToZipPath("backup.zip", &error))
///       std::cerr << (error ? error->localizedDescription() : "a file could not be read");
///
/// All work happens on the calling thread; a writer is used by one thread at a time, and several writers may
/// work at once. A write makes a progress with one unit for each entry: to watch it or to cancel it from any
/// thread, make a progress of your own current before the call (see KQ::NSProgress).
class KQZIP_EXPORT KQZipFileWriter {
 public:
  /// A writer without entries.
  KQZipFileWriter();
  ~KQZipFileWriter();
  KQZipFileWriter(const KQZipFileWriter&) = delete;             ///< Owns its entries.
  KQZipFileWriter& operator=(const KQZipFileWriter&) = delete;  ///< Owns its entries.

  /// Adds the file at `filePath` under `relativePath`, replacing an entry of that path. The file is first
  /// looked at when it is written. Give the path of the file itself and not of a symbolic link to it: the
  /// entry's size is taken from the path as it stands, which for a link is the size of the link.
  void addFilePath(const std::string& filePath, const std::string& relativePath);

  /// Writes the archive to `stream`, which is open and stays so: every entry, ordered by KQ::compare() of the
  /// names, and the central directory. The stream's current offset must count from the archive's first byte.
  /// What is added while it writes, by the stream's own code for instance, is for the next write.
  ///
  /// Fails with -90 "Cancelled by user." once the progress is cancelled, tested after each entry, whatever
  /// that entry's own result; the progress then stays current on the thread. Fails with the error of the
  /// first entry that cannot be written (see KQZipFileLocalHeader::writeToStream(), a vanished source among
  /// them) or of the central directory, and with -51 "Error writing file" when what the stream has buffered
  /// cannot be written. What reached the stream stays there. Entries stay too: a writer may write again.
  /// CRC, size, date and permissions that an entry has from an earlier write stay as they are: add a file
  /// that has changed since once more.
  bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Writes the archive to a new file. Refuses a path at which anything exists, a symbolic link that leads
  /// nowhere included, or comes into being before the file is created; it is left as it is, with
  /// -1 "Could not write to zip path %@", and one whose parent is not an existing folder with
  /// -1 "Could not write to zip path %@ because parent directory doesn't exist"; both are logged as
  /// "failed writing to path: %@ %@". Otherwise fails as writeToStream() does, also with -51 when closing the
  /// file fails, and logs "closing stream because writing failed: %@". The partly written file then stays on
  /// disk.
  bool writeToZipPath(const std::optional<std::string>& zipPath, KQ::NSErrorSlot error = nullptr);

  /// Adds the contents of the folder `directory`: every regular file whose own name does not begin with ".",
  /// under its path relative to the folder, with the folder's own name in front if `keepParentDirectory`.
  /// Files in a hidden folder are included when their own names are not hidden, which is meant. Folders,
  /// links and special files get no entry.
  ///
  /// Fails with the file manager's error when a folder, the given one included, or the attributes of an item
  /// cannot be read, or the name of an item is not valid UTF-8; of several the last one. The other files are
  /// added all the same.
  bool addContentsOfDirectory(const std::string& directory, bool keepParentDirectory,
                              KQ::NSErrorSlot error = nullptr);

  /// Packs the contents of the folder into a new archive, as addContentsOfDirectory() and writeToZipPath() of
  /// a new writer do, and fails as they do; no archive is made when the first fails. A folder without files
  /// gives an archive without entries, which KQZipFileReader refuses with -100. An archive inside the folder
  /// is not among its own entries.
  static bool createZipFileAtPath(const std::string& zipPath, const std::string& withContentsOfDirectory,
                                  bool keepParentDirectory, KQ::NSErrorSlot error = nullptr);

  /// The permissions that the files had when they were first written, for who makes the archive
  /// interoperable:
  ///
  ///     writer.writeToZipPath("backup.zip", &error) &&
  ///         KQZipMakeArchiveInteroperable("backup.zip", writer.permissionsOfSources(), &error);
  ///
  /// There are none for a file that has not been written or was not a regular one then. What is returned is
  /// good until a file is added or the writer is gone, and is used by one thread at a time.
  KQZipPermissions permissionsOfSources() const;

 private:
  struct KQZIP_HIDDEN State;

  std::unique_ptr<State> state_;
};
