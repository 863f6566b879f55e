#pragma once

#include <KQZip/KQZip.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CentralRecord.h"
#include "Message.h"

namespace Tool {

/// An entry that is whole: its header and all of its data are in the archive.
struct ArchiveEntry {
  std::string name;                              ///< The bytes of the name as stored, valid UTF-8 or not.
  std::shared_ptr<KQZipFileLocalHeader> header;  ///< Everything else.

  /// Offset of the local header's first byte; a parsed header's own offset is 4 bytes past it.
  std::uint64_t localHeaderAt() const { return header->offset() - 4; }
  /// Bytes of data.
  std::uint64_t length() const { return header->dataLengthFromHeader(); }
  /// True for a name that ends in "/".
  bool isFolder() const { return !name.empty() && name.back() == '/'; }
  /// True when the data is no use without a password.
  bool isEncrypted() const { return (header->flags() & 1U) != 0; }
};

/// What is wrong with an archive, or with one entry of it.
struct Problem {
  std::optional<std::string> entry;  ///< The entry's name, if one is concerned and its name is known.
  std::string text;                  ///< What is wrong; goes on from the name where there is one.

  /// As one sentence.
  std::string sentence() const;
};

/// Reads an archive's records from its first byte to its last, as the library's reader does, but keeps what
/// it found when the archive is damaged or ends early. So an archive cut off anywhere gives back every entry
/// that is whole.
///
/// Unlike the reader it takes the records of the archive's tail in any order, it keeps every one of several
/// entries with one name, and it keeps entries whose name is not valid UTF-8.
class ArchiveScan {
 public:
  /// Scans the archive at `path`. Throws a Failure when there is none, it cannot be opened or it is no file,
  /// and when `work` is cancelled.
  ArchiveScan(std::string path, const KQ::NSProgress& work);

  /// The archive's path as given.
  const std::string& path() const { return path_; }

  /// Every entry that is whole, in the order of the archive.
  const std::vector<ArchiveEntry>& entries() const { return entries_; }

  /// The entries that count, in the order of the archive: of several with one name the last.
  std::vector<const ArchiveEntry*> currentEntries() const;

  /// The archive's central directory as far as it was read.
  const std::vector<CentralRecord>& centralRecords() const { return centralRecords_; }

  /// Why the scan stopped before the end of the archive; nothing when it did not.
  const std::optional<Problem>& problem() const { return problem_; }

  /// Where bytes begin that follow the end record; nothing when there are none.
  const std::optional<std::uint64_t>& trailingBytes() const { return trailingBytes_; }

  /// Throws the problem if there is one.
  void requireNoProblem() const;

  /// The error of a name that is not in the archive, with the reason if the archive is damaged.
  Failure missing(const std::string& name) const;

  /// The open archive, for reading data; see KQZipFileLocalHeader.
  KQ::NSInputStream& stream() const { return *stream_; }

 private:
  void scan(const KQ::NSProgress& work);
  std::optional<std::uint32_t> readSignature(std::uint64_t start);
  bool readRecord(std::uint32_t signature, std::uint64_t start);
  bool readLocalHeader(std::uint64_t start);
  bool readCentralHeader(std::uint64_t start);
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

  std::uint64_t offset() const { return stream_->NSStreamFileCurrentOffsetKey().value_or(0); }
  std::string readBytes(std::uint64_t start, std::uint64_t length);

  std::string path_;
  std::uint64_t fileSize_ = 0;
  std::shared_ptr<KQ::NSInputStream> stream_;
  std::vector<ArchiveEntry> entries_;
  std::vector<CentralRecord> centralRecords_;
  bool endRecordSeen_ = false;
  std::optional<std::uint64_t> trailingBytes_;
  std::optional<Problem> problem_;
};

}  // namespace Tool
