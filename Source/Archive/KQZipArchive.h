#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "../Platform/KQExport.h"
#include "../Platform/NSData.h"
#include "../Platform/NSError.h"
#include "../Platform/NSStream.h"
#include "KQZipArchiveEntry.h"
#include "KQZipReport.h"
#include "KQZipUnpackOptions.h"

/// How KQZipArchive::verify() works.
struct KQZipVerifyOptions {
  /// How many threads read and check. 0 is as many as the process may use processors, 1 the calling thread
  /// alone. An archive on a host's stream is read by the calling thread, whatever is said here.
  unsigned threads = 0;
};

/// An archive to read, as a whole: of any program, damaged or not. Opening reads the central directory, in
/// one go from the archive's end; where the end records are missing or contradict themselves, it goes from
/// local header to local header instead. Nothing is given back unchecked: the entry's local header has to
/// agree with the directory, and its data with their CRC-32.
///
///     std::shared_ptr<const KQ::NSError> error;
///     const auto archive = KQZipArchive::open("photos.zip", &error);
///     if (!archive) return fail(error);
///     for (const auto& entry : archive->entries()) std::puts(entry.name().c_str());
///
/// An archive that is open does not change, and any number of threads may use one that was opened by its
/// path. One on a host's stream is used by the thread that uses the stream. The file must not be changed as
/// long as it is in use; where that happens, data that do not fit are reported, never given back as right.
class KQZIP_EXPORT KQZipArchive {
 public:
  /// Opens the archive at `path`. Nothing, with the error in the slot, when the file cannot be opened or read
  /// (NSPOSIXErrorDomain; EISDIR for a folder, ESPIPE for what is no regular file), and with
  /// KQZipErrorNoArchive when no record of an archive is in it. A damaged archive is opened: problems() says
  /// what was found.
  static std::shared_ptr<KQZipArchive> open(const std::string& path, KQ::NSErrorSlot error = nullptr);

  /// Opens the archive that `stream` holds from its offset 0 to its end. The stream must be open and have an
  /// offset that can be set; it is used by this archive alone, and must outlive it. Fails as the other does,
  /// and with KQZipErrorReading for a stream that cannot be moved.
  static std::shared_ptr<KQZipArchive> open(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Use open() instead.
  explicit KQZipArchive(std::unique_ptr<const KQZipArchiveState> state);
  ~KQZipArchive();
  KQZipArchive(const KQZipArchive&) = delete;             ///< Entries refer to it.
  KQZipArchive& operator=(const KQZipArchive&) = delete;  ///< Entries refer to it.

  /// All entries that count, in the directory's order: of several with one name the directory's last.
  KQZipArchiveEntries entries() const;

  /// The entry with that name, in constant time. "a//b" and "a/./b" find "a/b", and the other way round.
  std::optional<KQZipArchiveEntry> find(std::string_view name) const;

  /// What opening found wrong, in the order of the archive. Empty for an archive that is sound as far as its
  /// directory goes; verify() looks at everything.
  std::vector<KQZipProblem> problems() const;

  /// The archive's comment as it is stored; empty when there is none.
  const std::string& comment() const;

  /// Bytes in front of the first record, as a self-extracting archive has.
  std::uint64_t prefixLength() const;

  /// The entry's data, checked. Nothing, with the error in the slot, with KQZipErrorEntryRefused for an entry
  /// that is compressed, encrypted, on another part of a split archive or overlaps another one, with
  /// KQZipErrorEntryDamaged when its local header does not agree with the directory or its data do not match
  /// their CRC-32, and when reading fails. Throws std::bad_alloc when there is no memory for the data.
  std::shared_ptr<const KQ::NSData> data(const KQZipArchiveEntry& entry,
                                         KQ::NSErrorSlot error = nullptr) const;

  /// A stream, open, that begins and ends where the entry's data do. Read from front to back it compares them
  /// with their CRC-32: when they do not match, the read that would meet the end fails with
  /// KQZipErrorEntryDamaged as the stream's error. After its offset was set nothing is compared. The archive
  /// must outlive it. Fails as data() does, but for the CRC-32.
  std::shared_ptr<KQ::NSInputStream> stream(const KQZipArchiveEntry& entry,
                                            KQ::NSErrorSlot error = nullptr) const;

  /// Reads up to `maxLength` bytes of the entry's data from `offset` on, without a look at their CRC-32.
  /// Returns how many were read, fewer only at the data's end, and a negative value on a failure, which is
  /// one of data()'s.
  std::int64_t read(const KQZipArchiveEntry& entry, std::uint8_t* buffer, std::uint64_t maxLength,
                    std::uint64_t offset, KQ::NSErrorSlot error = nullptr) const;

  /// Offset of the entry's first byte of data, for which the local header is read. Fails as stream() does.
  std::optional<std::uint64_t> dataOffset(const KQZipArchiveEntry& entry,
                                          KQ::NSErrorSlot error = nullptr) const;

  /// Looks at everything that any program goes by: each field of the end records and of both headers against
  /// each other, the order and the gaps of the records, and the CRC-32 of all data. True when there is no
  /// problem; then other programs that know ZIP accept the archive and see the same names and bytes in it.
  ///
  /// False with KQZipErrorProblemsFound when there are problems, which stand in the report, and with another
  /// error when the check itself could not go on: KQZipErrorCancelled when the thread's current progress was
  /// cancelled. Its progress, a child of that one, counts bytes.
  bool verify(const KQZipVerifyOptions& options, KQZipReport& report, KQ::NSErrorSlot error = nullptr) const;

  /// Gives the entries back into `folder`, which is made if it is not there, several at once. Every byte is
  /// compared with its CRC-32 on the way. What does not match, is damaged, or is refused by the system is not
  /// left under its name and stands in the report; the other entries go on. A file that is there is replaced
  /// in one step when the new one is whole, or as `options` say.
  ///
  /// Nothing leaves the folder, and nothing is written through a symbolic link that is found or put there.
  /// New folders are nobody else's until all is done; then they get their permissions and dates. Files are
  /// made with theirs, as far as the process's mask lets them. Folders that were there keep theirs. Links
  /// come last, and only those that stay inside.
  ///
  /// True when all that was asked for is there, whole. False, before anything is written, with
  /// KQZipErrorUnsafeName when a name is empty, is absolute or has a part "..", whether it is asked for or
  /// not; with KQZipErrorNoSuchEntry when one of the paths asks for nothing; with the system's error when the
  /// folder cannot be made or opened. False with KQZipErrorProblemsFound when there are problems, which stand
  /// in the report, and with KQZipErrorCancelled when the thread's current progress was cancelled: files that
  /// were not whole by then are gone. Its progress, a child of that one, counts bytes.
  bool unpack(const std::string& folder, const KQZipUnpackOptions& options, KQZipReport& report,
              KQ::NSErrorSlot error = nullptr) const;

 private:
  std::unique_ptr<const KQZipArchiveState> state_;
};
