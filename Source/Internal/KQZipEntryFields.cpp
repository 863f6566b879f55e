#include "KQZipEntryFields.h"

#include <zlib.h>

#include <optional>

#include "../Platform/NSString.h"

namespace {

constexpr std::uint16_t nameIsUTF8 = 0x0800;

std::string_view textAt(KQZipBytes bytes, std::size_t start, std::size_t length) {
  return {reinterpret_cast<const char*>(bytes.data()) + start, length};
}

// Decodes what both headers have, up to the extra fields.
template <class Header>
bool decodeHeader(KQZipBytes bytes, Header* header) {
  if (!KQZipDecode(bytes, &header->fields) || header->fields.wholeSize() > bytes.size()) return false;
  constexpr std::size_t fixed = decltype(header->fields)::size;
  header->name = textAt(bytes, fixed, header->fields.fileNameLength);
  header->extraFields = bytes.subspan(fixed + header->fields.fileNameLength, header->fields.extraFieldLength);
  header->zip64 = {};
  for (KQZipExtraFieldWalk walk(header->extraFields); header->zip64.empty() && walk.next();)
    if (walk.identifier() == KQZipZip64Values::identifier) header->zip64 = walk.data();
  header->values = KQZipWiden(header->fields, header->zip64);
  return true;
}

// The modification time of the 64-bit time field, in nanoseconds since 1970; nothing for one that a date
// cannot hold.
std::optional<std::int64_t> timeOfWideField(KQZipBytes data) {
  constexpr std::size_t reserved = 4;
  constexpr std::uint16_t times = 1;
  constexpr std::int64_t from1601To1970 = 116444736000000000;
  constexpr std::int64_t largest = INT64_MAX / 100;
  if (data.size() < reserved) return std::nullopt;
  for (KQZipExtraFieldWalk walk(data.subspan(reserved)); walk.next();) {
    if (walk.identifier() != times || walk.data().size() < sizeof(std::uint64_t)) continue;
    const auto ticks = static_cast<std::int64_t>(KQZipLoad<std::uint64_t>(walk.data().data()));
    if (ticks <= 0 || ticks - from1601To1970 > largest || ticks - from1601To1970 < -largest)
      return std::nullopt;
    return (ticks - from1601To1970) * 100;
  }
  return std::nullopt;
}

// The modification time of the extended timestamp field, in seconds since 1970.
std::optional<std::uint32_t> timeOfTimestampField(KQZipBytes data) {
  constexpr std::size_t size = 5;
  if (data.size() < size || (data[0] & 1U) == 0) return std::nullopt;
  return KQZipLoad<std::uint32_t>(data.data() + 1);
}

// The name of the Unicode path field; nothing when it is another name's.
std::string_view nameOfUnicodeField(KQZipBytes data, std::string_view stored) {
  constexpr std::size_t nameAt = 5;
  if (data.size() < nameAt || data[0] != 1) return {};
  const auto* const bytes = reinterpret_cast<const Bytef*>(stored.data());
  const uLong crc = ::crc32(::crc32(0, nullptr, 0), bytes, static_cast<uInt>(stored.size()));
  const std::string_view name = textAt(data, nameAt, data.size() - nameAt);
  const bool isOfThisName = crc == KQZipLoad<std::uint32_t>(data.data() + 1);
  return isOfThisName && KQ::isValidUTF8(name) ? name : std::string_view();
}

// Takes times and names from the extra fields.
void takeExtraFields(KQZipBytes area, KQZipIndexEntry* entry) {
  constexpr std::uint16_t wideTime = 0x000A;
  constexpr std::uint16_t timestamp = 0x5455;
  constexpr std::uint16_t unicodePath = 0x7075;
  std::optional<std::uint32_t> seconds;
  std::optional<std::int64_t> nanoseconds;
  KQZipExtraFieldWalk walk(area);
  while (walk.next()) {
    if (walk.identifier() == wideTime && !nanoseconds) nanoseconds = timeOfWideField(walk.data());
    if (walk.identifier() == timestamp && !seconds) seconds = timeOfTimestampField(walk.data());
    if (walk.identifier() == unicodePath && entry->unicodeName.empty())
      entry->unicodeName = nameOfUnicodeField(walk.data(), entry->storedName);
  }
  entry->record.hasBadExtraFields = walk.isWhole(KQZipExtraFieldWalk::Padding::ToThreeBytes) ? 0 : 1;
  if (nanoseconds) {
    entry->record.dateForm = KQZipIndexRecord::Kept;
    entry->keptDate = *nanoseconds;
  } else if (seconds) {
    entry->record.dateForm = KQZipIndexRecord::Seconds;
    entry->record.date = *seconds;
  }
}

unsigned formOfName(std::uint16_t flags, std::string_view stored, std::string_view unicode) {
  if ((flags & nameIsUTF8) == 0 && !unicode.empty()) return KQZipIndexRecord::Unicode;
  if (KQ::isValidUTF8(stored)) return KQZipIndexRecord::UTF8;
  return unicode.empty() ? KQZipIndexRecord::CodePage437 : KQZipIndexRecord::Unicode;
}

// The kind and Unix's mode, which is there when the header was made by Unix.
void takeAttributes(const KQZipCentralHeaderFields& fields, KQZipIndexRecord* record) {
  constexpr int unixHost = 3;
  constexpr int darwinHost = 19;
  constexpr unsigned typeBits = 0170000;
  constexpr unsigned link = 0120000;
  const int host = fields.versionMadeBy >> 8;
  if (host != unixHost && host != darwinHost) return;
  record->mode = static_cast<std::uint16_t>(fields.externalFileAttributes >> 16);
  if (record->kind == KQZipIndexRecord::File && (record->mode & typeBits) == link)
    record->kind = KQZipIndexRecord::Link;
}

// What both headers say.
template <class Header>
KQZipIndexEntry commonEntry(const Header& header, std::uint64_t localHeaderAt) {
  KQZipIndexEntry entry;
  entry.storedName = header.name;
  KQZipIndexRecord& record = entry.record;
  record.localHeaderAt = localHeaderAt;
  record.length = header.values.compressedSize;
  record.uncompressedLength = header.values.uncompressedSize;
  record.crc32 = header.fields.crc32;
  record.date = static_cast<std::uint32_t>(header.fields.modDate) << 16 | header.fields.modTime;
  record.method = header.fields.compression;
  record.flags = header.fields.flags;
  record.isIncomplete = header.values.isComplete ? 0 : 1;
  if (!header.extraFields.empty()) takeExtraFields(header.extraFields, &entry);
  record.nameLength = static_cast<std::uint16_t>(header.name.size());
  record.nameForm = formOfName(header.fields.flags, header.name, entry.unicodeName) & 3U;
  const std::string_view name =
      record.nameForm == KQZipIndexRecord::Unicode ? entry.unicodeName : entry.storedName;
  record.kind = !name.empty() && name.back() == '/' ? KQZipIndexRecord::Folder : KQZipIndexRecord::File;
  return entry;
}

}  // namespace

bool KQZipLocalHeader::decode(KQZipBytes bytes) { return decodeHeader(bytes, this); }

bool KQZipLocalHeader::isPlausible() const {
  KQZipExtraFieldWalk walk(extraFields);
  while (walk.next()) continue;
  const bool isStored = fields.compression == 0 && (fields.flags & 1U) == 0;
  return values.isComplete && walk.isWhole(KQZipExtraFieldWalk::Padding::ToThreeBytes) &&
         (!isStored || values.compressedSize == values.uncompressedSize);
}

bool KQZipCentralHeader::decode(KQZipBytes bytes) { return decodeHeader(bytes, this); }

KQZipIndexEntry KQZipIndexEntryOf(const KQZipCentralHeader& header, std::uint64_t base) {
  // An offset that does not fit lies outside of the archive, wherever it is.
  const std::uint64_t offset = header.values.offsetOfLocalHeader;
  KQZipIndexEntry entry = commonEntry(header, offset > UINT64_MAX - base ? UINT64_MAX : offset + base);
  takeAttributes(header.fields, &entry.record);
  return entry;
}

KQZipIndexEntry KQZipIndexEntryOf(const KQZipLocalHeader& header, std::uint64_t offset) {
  return commonEntry(header, offset);
}
