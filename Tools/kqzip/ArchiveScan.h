#pragma once

#include <KQZip/KQZip.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <memory_resource>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CentralRecord.h"
#include "Message.h"
#include "RecordsAtHand.h"

namespace Tool {

/// An entry that is whole: its header and all of its data are in the archive. It keeps of the header what the
/// commands need, which takes a fraction of the header's memory.
class ArchiveEntry {
 public:
  /// An entry whose local header starts at `localHeaderAt`.
  ArchiveEntry(std::string_view nameAsStored, std::uint64_t localHeaderAt, const LocalFields& fields)
      : name(nameAsStored), localHeaderAt_(localHeaderAt), fields_(fields) {}

  std::string_view name;  ///< The bytes of the name as stored, valid UTF-8 or not. The scan keeps them.

  /// The name as a string of its own.
  std::string nameText() const { return std::string(name); }
  /// Offset of the local header's first byte.
  std::uint64_t localHeaderAt() const { return localHeaderAt_; }
  /// Offset of the data's first byte.
  std::uint64_t dataAt() const { return fields_.dataAt; }
  /// Bytes of data.
  std::uint64_t length() const { return fields_.length; }
  /// What the header says the data's length is once it is unpacked.
  std::uint64_t uncompressedLength() const { return fields_.uncompressedLength; }
  /// The CRC-32 that the header gives.
  std::uint32_t crc32() const { return fields_.crc32; }
  /// The header's date, in local time.
  KQ::NSDate modificationDate() const;
  /// True for a name that ends in "/".
  bool isFolder() const { return !name.empty() && name.back() == '/'; }
  /// True when the data is no use without a password.
  bool isEncrypted() const { return (fields_.flags & 1U) != 0; }
  /// True when the sizes stand behind the data.
  bool hasDataDescriptor() const { return (fields_.flags & 8U) != 0; }

 private:
  std::uint64_t localHeaderAt_;
  LocalFields fields_;
};

class Json;

/// What is wrong with an archive, or with one entry of it.
struct Problem {
  std::optional<std::string> entry;  ///< The entry's name, if one is concerned and its name is known.
  std::string text;                  ///< What is wrong; goes on from the name where there is one.
  std::string advice = {};           ///< What to do about it, where that is not to verify the archive.

  /// As one sentence.
  std::string sentence() const;

  /// What to do about it, for the end of a message.
  std::string nextStep() const;

  /// As an object of the array that is open: "entry", null where there is none, and "problem".
  void addTo(Json& json) const;
};

/// Reads an archive's records from its first byte to its last, as the library's reader does, but keeps what
/// it found when the archive is damaged or ends early. So an archive cut off anywhere gives back every entry
/// that is whole.
///
/// Unlike the reader it takes the records of the archive's tail in any order, it keeps every one of several
/// entries with one name, and it keeps entries whose name is not valid UTF-8.
class ArchiveScan {
 public:
  /// What becomes of the central directory's headers.
  enum Directory {
    DirectoryRead,    ///< They are read and kept.
    DirectorySkipped  ///< They are stepped over, for a command that only needs to know that they are there:
                      ///< one that cannot be read does not end the scan then.
  };

  /// Scans the archive at `path`. Throws a Failure when there is none, it cannot be opened or it is no file,
  /// and when `work` is cancelled.
  ArchiveScan(std::string path, const KQ::NSProgress& work, Directory directory = DirectoryRead);

  /// The archive's path as given.
  const std::string& path() const { return path_; }

  /// Every entry that is whole, in the order of the archive.
  const std::deque<ArchiveEntry>& entries() const { return entries_; }

  /// Whether their names ascend, as KQZip writes them: then they are sorted, and no two are the same.
  bool namesAscend() const { return namesAscend_; }

  /// The entries that count, in the order of the archive: of several with one name the last.
  std::vector<const ArchiveEntry*> currentEntries() const;

  /// Bytes of data of all entries together.
  std::uint64_t totalLength() const;

  /// The archive's central directory as far as it was read; empty when it was skipped.
  const std::deque<CentralRecord>& centralRecords() const { return centralRecords_; }

  /// Why the scan stopped before the end of the archive; nothing when it did not.
  const std::optional<Problem>& problem() const { return problem_; }

  /// Where bytes begin that follow the end record; nothing when there are none.
  const std::optional<std::uint64_t>& trailingBytes() const { return trailingBytes_; }

  /// Throws the problem if there is one.
  void requireNoProblem() const;

  /// The error of a name that is not in the archive, with the reason if the archive is damaged.
  Failure missing(const std::string& name) const;

  /// Reads an entry's header again. Throws a Failure when that fails, because the archive has changed.
  std::shared_ptr<KQZipFileLocalHeader> headerOf(const ArchiveEntry& entry) const;

  /// The open archive, for reading data; see KQZipFileLocalHeader.
  KQ::NSInputStream& stream() const { return *stream_; }

 private:
  void scan(const KQ::NSProgress& work);
  std::optional<std::uint32_t> readSignature(std::uint64_t start);
  bool readRecord(std::uint32_t signature, std::uint64_t start);
  bool readLocalHeader(std::uint64_t start);
  bool parseLocalHeader(std::uint64_t start);
  bool readCentralHeader(std::uint64_t start);
  bool parseCentralHeader(std::uint64_t start);
  bool skipCentralHeader(std::uint64_t start);
  bool readZip64EndRecord(std::uint64_t start);
  bool readZip64Locator(std::uint64_t start);
  bool readEndRecord(std::uint64_t start);
  bool readDigitalSignature(std::uint64_t start);

  // How a scan goes on or stops; what returns a bool returns whether it goes on, or false.
  bool skipTo(std::uint64_t end);
  bool skipTailRecord(std::uint64_t start, std::uint64_t size);
  bool stop(Problem problem);
  bool stopInsideLocalHeader(std::uint64_t start, const std::shared_ptr<const KQ::NSError>& error);
  bool stopInsideTail(std::uint64_t start, const std::shared_ptr<const KQ::NSError>& error);
  bool stopAtUnknownBytes(std::uint32_t signature, std::uint64_t start);
  bool stopBehindEntryWithoutSize(std::uint64_t start);
  void stopBetweenRecords(std::uint64_t start, std::int64_t bytesRead);

  bool addEntry(std::string_view name, std::uint64_t start, const LocalFields& fields);
  bool addCentralRecord(CentralRecord record, std::uint64_t start, std::uint64_t size);
  std::string readBytes(std::uint64_t start, std::uint64_t length);
  std::string_view keep(std::string_view name);

  std::string path_;
  Directory directory_;
  std::uint64_t fileSize_ = 0;
  std::shared_ptr<KQ::NSInputStream> stream_;
  std::uint64_t next_ = 0;  // Where the next record begins.
  std::pmr::monotonic_buffer_resource names_;
  // Deques, because a vector that grows to millions moves all of them again and again.
  std::deque<ArchiveEntry> entries_;
  std::deque<CentralRecord> centralRecords_;
  bool namesAscend_ = true;
  bool endRecordSeen_ = false;
  std::optional<std::uint64_t> trailingBytes_;
  std::optional<Problem> problem_;
};

}  // namespace Tool
