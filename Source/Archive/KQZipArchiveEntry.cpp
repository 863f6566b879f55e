#include "KQZipArchiveEntry.h"

#include <chrono>

#include "../FileHeader/KQZipFileEntry.h"
#include "../Internal/KQZipArchiveState.h"

namespace {

constexpr std::uint16_t permissionBits = 0777;
constexpr unsigned typeBits = 0170000;

// The type in Unix's mode of an entry of each kind.
constexpr unsigned typeOf(unsigned kind) {
  constexpr unsigned file = 0100000;
  constexpr unsigned folder = 0040000;
  constexpr unsigned link = 0120000;
  if (kind == KQZipIndexRecord::Link) return link;
  return kind == KQZipIndexRecord::Folder ? folder : file;
}

KQ::NSDate dateOfMSDOS(std::uint32_t dateAndTime) {
  KQZipFileEntry fields;
  fields.setModTime(static_cast<std::uint16_t>(dateAndTime));
  fields.setModDate(static_cast<std::uint16_t>(dateAndTime >> 16));
  return fields.modificationDate();
}

const KQZipIndexRecord& recordOf(const KQZipArchiveState& archive, std::uint32_t index) {
  return archive.index[index];
}

}  // namespace

std::string KQZipArchiveEntry::name() const {
  std::string room;
  return std::string(archive_->index.name(recordOf(*archive_, index_), room));
}

std::string_view KQZipArchiveEntry::storedName() const {
  return archive_->index.storedName(recordOf(*archive_, index_));
}

KQZipEntryKind KQZipArchiveEntry::kind() const {
  return static_cast<KQZipEntryKind>(recordOf(*archive_, index_).kind);
}

std::uint64_t KQZipArchiveEntry::length() const { return recordOf(*archive_, index_).length; }

std::uint64_t KQZipArchiveEntry::uncompressedLength() const {
  return recordOf(*archive_, index_).uncompressedLength;
}

std::uint32_t KQZipArchiveEntry::crc32() const { return recordOf(*archive_, index_).crc32; }

KQ::NSDate KQZipArchiveEntry::modificationDate() const {
  using std::chrono::duration_cast;
  const KQZipIndexRecord& record = recordOf(*archive_, index_);
  if (record.dateForm == KQZipIndexRecord::MSDOS) return dateOfMSDOS(record.date);
  const std::chrono::nanoseconds sinceEpoch =
      record.dateForm == KQZipIndexRecord::Kept
          ? std::chrono::nanoseconds(archive_->index.keptDate(record))
          : std::chrono::seconds(static_cast<std::int32_t>(record.date));
  return KQ::NSDate(duration_cast<KQ::NSDate::duration>(sinceEpoch));
}

std::optional<std::uint16_t> KQZipArchiveEntry::permissions() const {
  const KQZipIndexRecord& record = recordOf(*archive_, index_);
  const unsigned type = record.mode & typeBits;
  if (record.mode == 0 || (type != 0 && type != typeOf(record.kind))) return std::nullopt;
  return static_cast<std::uint16_t>(record.mode & permissionBits);
}

std::uint16_t KQZipArchiveEntry::method() const { return recordOf(*archive_, index_).method; }

std::uint16_t KQZipArchiveEntry::flags() const { return recordOf(*archive_, index_).flags; }

std::uint64_t KQZipArchiveEntry::localHeaderOffset() const {
  return recordOf(*archive_, index_).localHeaderAt;
}

KQZipArchiveEntries::Iterator::Iterator(const KQZipArchiveState* archive, std::uint32_t index)
    : archive_(archive), index_(index) {
  _passOver();
}

KQZipArchiveEntries::Iterator& KQZipArchiveEntries::Iterator::operator++() {
  ++index_;
  _passOver();
  return *this;
}

// Passes over what does not count.
void KQZipArchiveEntries::Iterator::_passOver() {
  while (index_ < archive_->index.size() && !archive_->index.counts(index_)) ++index_;
}

KQZipArchiveEntries::Iterator KQZipArchiveEntries::end() const { return {archive_, archive_->index.size()}; }

std::size_t KQZipArchiveEntries::size() const { return archive_->index.sizeOfCounting(); }
