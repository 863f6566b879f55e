#pragma once

#include <memory>
#include <optional>
#include <string>

#include "KQZipPermissions.h"
#include "Platform/KQExport.h"
#include "Platform/NSError.h"
#include "Platform/NSStream.h"

/// Packs files into a new archive. Add each file with its path in the archive, then write:
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

  /// Adds the file at `filePath` under `relativePath`, and replaces an entry of that path. Does not access
  /// the file until it is written.
  ///
  /// It must be a regular file that does not change until then. A symbolic link, a folder, a file of size 0
  /// that has contents, as in /proc, and a file that changes are written without an error, but their headers
  /// do not match their data, and a reader may not find the entries after them; see KQZipFileEntry.
  void addFilePath(const std::string& filePath, const std::string& relativePath);

  /// Writes the archive to `stream`, which is open and stays open: all entries, ordered by KQ::compare() of
  /// their names, and the central directory. The stream's current offset must count from the archive's first
  /// byte. Entries added during the write, for instance by the stream's own code, are for the next write.
  ///
  /// Fails with -90 "Cancelled by user." when the progress is cancelled, which is tested after each entry,
  /// whatever the entry's own result; the progress then stays current on the thread. Fails with the error of
  /// the first entry that cannot be written, for instance because its source is missing (see
  /// KQZipFileLocalHeader::writeToStream()), or of the central directory; with -51 "Error writing file" when
  /// the stream's buffer cannot be flushed. What was written stays on the stream. The entries stay too: a
  /// writer may write again. An entry keeps the CRC, size, date and permissions from an earlier write: add a
  /// file again if it has changed.
  bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Writes the archive to a new file. Refuses a path at which an item exists, a dangling symbolic link
  /// included, or appears before the file is created, with -1 "Could not write to zip path %@"; the item does
  /// not change. Refuses a path whose parent is not an existing folder with -1 "Could not write to zip path
  /// %@ because parent directory doesn't exist". Logs both as "failed writing to path: %@ %@". Otherwise
  /// fails as writeToStream() does, or with -51 when closing the file fails, and logs "closing stream because
  /// writing failed: %@". The partly written file then stays on disk.
  bool writeToZipPath(const std::optional<std::string>& zipPath, KQ::NSErrorSlot error = nullptr);

  /// Adds the contents of the folder `directory`: every regular file whose own name does not begin with ".",
  /// under its path relative to the folder, with the folder's own name before it if `keepParentDirectory`. By
  /// design, this includes files in a hidden folder if their own names are not hidden. Folders, links and
  /// special files get no entry.
  ///
  /// Fails with the file manager's error when a folder, the given one included, or the attributes of an item
  /// cannot be read, or when the name of an item is not valid UTF-8; of several errors the last one. Adds the
  /// other files all the same.
  bool addContentsOfDirectory(const std::string& directory, bool keepParentDirectory,
                              KQ::NSErrorSlot error = nullptr);

  /// Packs the contents of the folder into a new archive, as addContentsOfDirectory() and writeToZipPath() of
  /// a new writer do, and fails as they do. When the first fails, no archive is created. A folder without
  /// files gives an archive without entries, which KQZipFileReader refuses with -100. An archive inside the
  /// folder is not one of its own entries.
  static bool createZipFileAtPath(const std::string& zipPath, const std::string& withContentsOfDirectory,
                                  bool keepParentDirectory, KQ::NSErrorSlot error = nullptr);

  /// The permissions that the files had when they were first written, to pass to
  /// KQZipMakeArchiveInteroperable():
  ///
  ///     writer.writeToZipPath("backup.zip", &error) &&
  ///         KQZipMakeArchiveInteroperable("backup.zip", writer.permissionsOfSources(), &error);
  ///
  /// A file that is not written yet, or was not a regular file then, has none. The result is valid until a
  /// file is added or the writer is destroyed. One thread uses it at a time.
  KQZipPermissions permissionsOfSources() const;

 private:
  struct KQZIP_HIDDEN State;

  std::unique_ptr<State> state_;
};
