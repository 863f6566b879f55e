#include "KQZipHeaderCheck.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "../Platform/NSString.h"

namespace {

using Code = KQZipFindingCode;

constexpr std::uint16_t isEncrypted = 0x0001;
constexpr std::uint16_t hasDescriptor = 0x0008;
constexpr std::uint16_t compressionLevel = 0x0006;
constexpr std::uint16_t nameIsUTF8 = 0x0800;

// What the programs that people have can do, 4.6.
constexpr std::uint16_t newestVersion = 46;

// Extra fields that do not fit, and Zip64 values that contradict the header or the entry's place.
template <class Header>
void addFindingsOfExtraFields(const Header& header, std::uint32_t index, std::uint64_t at,
                              std::uint64_t offset, KQZipFindings* findings) {
  KQZipExtraFieldWalk walk(header.extraFields);
  // No field has the id 0: where one seems to, the field in front of it is too short.
  bool areFields = true;
  while (walk.next()) areFields = areFields && walk.identifier() != 0;
  if (!areFields || !walk.isWhole(KQZipExtraFieldWalk::Padding::ToThreeBytes))
    findings->push_back({Code::BadExtraFields, index, at});
  if (!header.values.isComplete) findings->push_back({Code::NoZip64Value, index, at});
  // Some programs, the library among them, give more values than the header asks for.
  KQZipZip64Values values{header.values.uncompressedSize, header.values.compressedSize, offset};
  const KQZipZip64Values expected = values;
  std::size_t asked = 0;
  if (header.fields.uncompressedSize == KQZipSaturated32) asked += KQZipZip64Values::width;
  if (header.fields.compressedSize == KQZipSaturated32) asked += KQZipZip64Values::width;
  if (asked != 2 * KQZipZip64Values::width || header.zip64.size() <= asked) return;
  KQZipDecodeZip64InOrder(header.zip64, &values);
  if (values.uncompressedSize != expected.uncompressedSize ||
      values.compressedSize != expected.compressedSize ||
      values.offsetOfLocalHeader != expected.offsetOfLocalHeader)
    findings->push_back({Code::Zip64ValueDiffers, index, at});
}

// What can be said of the entry without its local header.
KQZipFindings findingsOfCentralHeader(const KQZipArchiveState& archive, const KQZipCentralHeader& header,
                                      std::uint32_t index, std::uint64_t at) {
  KQZipFindings findings;
  const auto found = [&](Code code, std::uint64_t first = 0) { findings.push_back({code, index, first}); };
  const KQZipIndexRecord& record = archive.index[index];
  if (record.isShadowed != 0) found(Code::SameName);
  if (header.values.diskNumberStart != 0 && record.isOnOtherPart == 0) found(Code::OnOtherPart);
  if (header.name.empty()) found(Code::NoName);
  if (header.name.find('\0') != std::string_view::npos) found(Code::NameHasNUL);
  if ((header.fields.flags & nameIsUTF8) != 0 && !KQ::isValidUTF8(header.name))
    found(Code::NameDiffersFromUTF8);
  const std::uint16_t known =
      isEncrypted | hasDescriptor | nameIsUTF8 | (record.method != 0 ? compressionLevel : std::uint16_t{0});
  const auto unknown = static_cast<std::uint16_t>(header.fields.flags & ~known);
  if (unknown != 0) found(Code::UnknownFlags, unknown);
  if (record.method == 0 && header.fields.versionNeeded > newestVersion)
    found(Code::NeedsVersion, header.fields.versionNeeded);
  const bool isReadable = record.method == 0 && (record.flags & isEncrypted) == 0;
  if (isReadable && record.length != record.uncompressedLength)
    findings.push_back({Code::OtherUncompressedLength, index, record.length, record.uncompressedLength});
  addFindingsOfExtraFields(header, index, at, header.values.offsetOfLocalHeader, &findings);
  for (const KQZipFinding& refusal : KQZipRefusals(archive, index)) findings.push_back(refusal);
  return findings;
}

// Whether the bytes are a descriptor's values, which are of 32 or of 64 bits.
template <class Size>
bool hasValues(const KQZipIndexRecord& record, KQZipBytes fields) {
  return fields.size() == sizeof(std::uint32_t) + 2 * sizeof(Size) &&
         KQZipLoad<std::uint32_t>(fields.data()) == record.crc32 &&
         KQZipLoad<Size>(fields.data() + sizeof(std::uint32_t)) == record.length &&
         KQZipLoad<Size>(fields.data() + sizeof(std::uint32_t) + sizeof(Size)) == record.uncompressedLength;
}

// Whether the bytes are the entry's descriptor, with a signature or without.
bool isDescriptor(const KQZipIndexRecord& record, KQZipBytes bytes) {
  constexpr std::uint32_t signature = 0x08074b50;
  for (const std::size_t start : {std::size_t{0}, KQZipSignatureSize}) {
    if (start != 0 && !KQZipHasSignature(bytes, signature)) continue;
    const KQZipBytes fields = bytes.subspan(start);
    if (hasValues<std::uint32_t>(record, fields) || hasValues<std::uint64_t>(record, fields)) return true;
  }
  return false;
}

}  // namespace

KQZipFindings KQZipFindingsOfTail(const KQZipArchiveState& archive) {
  const KQZipArchiveTail& tail = archive.tail;
  KQZipFindings findings;
  const auto found = [&findings](Code code, std::uint64_t first = 0, std::uint64_t second = 0) {
    findings.push_back({code, KQZipFinding::noEntry, first, second});
  };
  const std::size_t inComment = tail.comment.find("PK\5\6");
  if (inComment != std::string::npos)
    found(Code::EndRecordInComment, tail.endRecordAt + tail.endRecord.size + inComment);
  if (!archive.isFromDirectory) return findings;
  const bool hasOtherDisks =
      tail.endRecord.diskNumber != 0 || tail.endRecord.diskNumberContainingCD != 0 ||
      (tail.isZip64 && (tail.zip64Record.diskNumber != 0 || tail.zip64Record.diskNumberContainingCD != 0 ||
                        tail.locator.diskNumberWithStartOfZip64EoCD != 0 || tail.locator.numberOfDisks != 1));
  if (hasOtherDisks) found(Code::DiskNumbers);
  if (!tail.isZip64) return findings;
  if (tail.locator.offsetOfZip64EoCD + tail.base != tail.zip64RecordAt)
    found(Code::LocatorDiffers, tail.zip64RecordAt, tail.locator.offsetOfZip64EoCD);
  const std::uint64_t sizeOfFields = tail.zip64Record.size - tail.zip64Record.uncounted;
  if (tail.zip64Record.sizeOfRecord != sizeOfFields)
    found(Code::ExtensibleData, tail.zip64Record.sizeOfRecord - sizeOfFields);
  // Counts that are cut go with the size that counts the end records: the library's own form.
  const std::uint16_t classic = tail.endRecord.entriesInCD;
  const bool mayBeCut = tail.isExact || tail.entries == classic;
  if (!mayBeCut && classic != KQZipSaturated16) found(Code::ClassicCountCut, classic, tail.entries);
  return findings;
}

bool KQZipDirectoryCheck::run(KQ::NSErrorSlot error) {
  if (!archive_.isFromDirectory) return true;
  dates_.reserve(archive_.index.size());
  KQZipArchiveWindow window(*archive_.source);
  KQZipCentralHeader header;
  std::uint64_t at = archive_.tail.directoryAt;
  for (std::uint32_t index = 0; index < archive_.index.size(); ++index, at += header.fields.wholeSize()) {
    KQZipBytes bytes;
    constexpr std::uint64_t largest = KQZipCentralHeaderFields::size + 3 * std::uint64_t{0xFFFF};
    if (!window.look(at, 256, &bytes, error)) return false;
    if (!header.decode(bytes) && (!window.look(at, largest, &bytes, error) || !header.decode(bytes)))
      return true;
    dates_.push_back(static_cast<std::uint32_t>(header.fields.modDate) << 16 | header.fields.modTime);
    KQZipFindings found = findingsOfCentralHeader(archive_, header, index, at);
    if (!found.empty()) findings_.emplace_back(index, std::move(found));
  }
  return true;
}

KQZipFindings KQZipDirectoryCheck::findingsOf(std::uint32_t index) const {
  if (!archive_.isFromDirectory) return KQZipRefusals(archive_, index);
  const auto found =
      std::lower_bound(findings_.begin(), findings_.end(), index,
                       [](const auto& entry, std::uint32_t wanted) { return entry.first < wanted; });
  return found != findings_.end() && found->first == index ? found->second : KQZipFindings();
}

std::optional<std::uint32_t> KQZipDirectoryCheck::dateOf(std::uint32_t index) const {
  return index < dates_.size() ? std::optional(dates_[index]) : std::nullopt;
}

KQZipLocated KQZipLocalCheck::check(std::uint32_t index, KQZipBytes bytes) const {
  const KQZipIndexRecord& record = archive_.index[index];
  KQZipLocated located = KQZipCompareLocalHeader(archive_, index, bytes);
  KQZipLocalHeader header;
  if (!header.decode(bytes)) return located;
  KQZipFindings& findings = located.findings;
  const auto has = [&findings](Code code) {
    return std::any_of(findings.begin(), findings.end(),
                       [code](const auto& one) { return one.code == code; });
  };
  if (header.fields.flags != record.flags && !has(Code::OtherFlags))
    findings.push_back({Code::OtherFlags, index, record.flags, header.fields.flags});
  const std::uint32_t date = static_cast<std::uint32_t>(header.fields.modDate) << 16 | header.fields.modTime;
  if (directory_.dateOf(index).value_or(date) != date) findings.push_back({Code::OtherDate, index});
  addFindingsOfExtraFields(header, index, record.localHeaderAt, record.localHeaderAt - archive_.tail.base,
                           &findings);
  // The stored names are equal, but what counts may stand in a field of its own.
  std::string room;
  const KQZipIndexEntry entry = KQZipIndexEntryOf(header, record.localHeaderAt);
  const bool hasUnicodeName = entry.record.nameForm == KQZipIndexRecord::Unicode;
  if (!has(Code::OtherName) && (entry.record.nameForm != record.nameForm ||
                                (hasUnicodeName && entry.unicodeName != archive_.index.name(record, room))))
    findings.push_back({Code::OtherName, index, record.localHeaderAt});
  // Where a descriptor follows, the header may leave open the CRC-32, or both lengths.
  const bool hasDescriptorAfter = (header.fields.flags & hasDescriptor) != 0;
  if (header.fields.crc32 != record.crc32 && !(hasDescriptorAfter && header.fields.crc32 == 0))
    findings.push_back({Code::OtherCRC, index, record.crc32, header.fields.crc32});
  if (hasDescriptorAfter && !header.leavesLengthsToDescriptor()) {
    if (header.values.compressedSize != record.length)
      findings.push_back({Code::OtherLength, index, record.length, header.values.compressedSize});
    if (header.values.uncompressedSize != record.uncompressedLength)
      findings.push_back(
          {Code::OtherUncompressedLength, index, record.uncompressedLength, header.values.uncompressedSize});
  }
  return located;
}

void KQZipLocalCheck::checkRest(std::uint32_t index, std::uint64_t at, std::uint64_t end, KQZipBytes bytes,
                                KQZipFindings* findings) const {
  if (!archive_.isFromDirectory) return;
  const KQZipIndexRecord& record = archive_.index[index];
  if ((record.flags & hasDescriptor) == 0) {
    if (at != end) findings->push_back({Code::UnknownBytes, KQZipFinding::noEntry, at, end});
  } else if (end - at > KQZipLargestDescriptor || !isDescriptor(record, bytes)) {
    findings->push_back({at == end ? Code::NoDescriptor : Code::DescriptorDiffers, index, at});
  }
}
