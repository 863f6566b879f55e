#include "KQZipArchiveState.h"

#include <algorithm>
#include <utility>

#include "../Platform/NSString.h"
#include "KQZipArchiveScan.h"
#include "KQZipError.h"

namespace {

using Code = KQZipFindingCode;

// Reads the whole directory into the index. False when it is damaged, and where that is goes into
// `damagedAt`.
bool readDirectory(KQZipArchiveState& archive, KQZipArchiveWindow& window, std::uint64_t* damagedAt,
                   bool* isRead, KQ::NSErrorSlot error) {
  const KQZipArchiveTail& tail = archive.tail;
  KQZipCentralHeader header;
  for (std::uint64_t at = tail.directoryAt; at < tail.directoryEnd; at += header.fields.wholeSize()) {
    *damagedAt = at;
    constexpr std::uint64_t largestHeader = KQZipCentralHeaderFields::size + 3 * std::uint64_t{0xFFFF};
    const std::uint64_t left = tail.directoryEnd - at;
    KQZipBytes bytes;
    *isRead = window.look(at, std::min(left, KQZipCentralHeaderFields{}.wholeSize()), &bytes, error);
    if (!*isRead) return false;
    if (!header.decode(bytes)) {
      *isRead = window.look(at, std::min(left, largestHeader), &bytes, error);
      if (!*isRead || !header.decode(bytes)) return false;
    }
    if (header.fields.wholeSize() > left) return false;
    KQZipIndexEntry entry = KQZipIndexEntryOf(header, tail.base);
    const std::uint32_t disk = header.values.diskNumberStart;
    const std::uint32_t thisDisk = tail.isZip64 ? tail.zip64Record.diskNumber : tail.endRecord.diskNumber;
    entry.record.isOnOtherPart = disk != thisDisk ? 1 : 0;
    if (!archive.index.add(entry)) return false;
  }
  return true;
}

// Whether the directory that was found is that of an archive inside this one, whose own directory is missing:
// where it is shifted, and an entry at the very beginning, or one that follows it, has it in its data.
bool isInsideEntry(const KQZipArchiveTail& tail, KQZipArchiveWindow& window, bool* isRead,
                   KQ::NSErrorSlot error) {
  constexpr std::uint64_t largestHeader = KQZipLocalHeaderFields::size + 2 * std::uint64_t{0xFFFF};
  std::uint64_t at = 0;
  while (tail.base != 0 && at < tail.directoryAt) {
    KQZipBytes bytes;
    KQZipLocalHeader header;
    *isRead = window.look(at, largestHeader, &bytes, error);
    if (!*isRead || !header.decode(bytes) || !header.isPlausible()) return false;
    const std::uint64_t dataAt = at + header.fields.wholeSize();
    if (dataAt > tail.directoryAt || header.values.compressedSize > tail.directoryAt - dataAt) return true;
    at = dataAt + header.values.compressedSize;
  }
  return false;
}

// Opens by the directory. False when it cannot be followed; then what is wrong is among the findings.
bool openByDirectory(KQZipArchiveState& archive, KQZipArchiveWindow& window, bool* isRead,
                     KQ::NSErrorSlot error) {
  if (!archive.tail.find(window, archive.source->length(), &archive.findings, isRead, error)) return false;
  if (isInsideEntry(archive.tail, window, isRead, error)) {
    archive.tail = {};
    archive.findings.clear();
  }
  if (!*isRead || !archive.tail.isFound) return false;
  std::uint64_t damagedAt = 0;
  if (!readDirectory(archive, window, &damagedAt, isRead, error)) {
    if (*isRead) archive.findings.push_back({Code::CentralHeaderDamaged, KQZipFinding::noEntry, damagedAt});
    return false;
  }
  if (archive.index.size() != archive.tail.entries) {
    archive.findings.push_back(
        {Code::CountDiffers, KQZipFinding::noEntry, archive.tail.entries, archive.index.size()});
    return false;
  }
  archive.isFromDirectory = true;
  archive.entriesEnd = archive.tail.directoryAt;
  return true;
}

// Whether the entry's local header is where the directory says, and is its own.
bool hasOwnHeader(const KQZipArchiveState& archive, std::uint32_t index, bool* isRead, std::uint64_t* cost,
                  KQ::NSErrorSlot error) {
  KQZipLocated located;
  *isRead = KQZipLocate(archive, index, &located, error);
  *cost = located.dataAt == 0 ? 256 : located.dataAt - archive.index[index].localHeaderAt;
  return std::all_of(located.findings.begin(), located.findings.end(),
                     [](const KQZipFinding& finding) { return finding.code == Code::OutOfArchive; });
}

// Where entries share bytes, a damaged record may be the reason: it then costs its own entry alone. The same
// holds for one that seems to be on another part. No more is read for it than the archive has bytes.
bool settleClaims(KQZipArchiveState& archive, KQ::NSErrorSlot error) {
  std::uint64_t budget = archive.source->length();
  bool hasChanged = false;
  for (std::uint32_t index = 0; index < archive.index.size(); ++index) {
    KQZipIndexRecord& record = archive.index[index];
    if (record.isNoEntry != 0 || (record.isOverlapping == 0 && record.isOnOtherPart == 0)) continue;
    bool isRead = true;
    std::uint64_t cost = 0;
    const bool isItsOwn = hasOwnHeader(archive, index, &isRead, &cost, error);
    if (!isRead) return false;
    if (isItsOwn && record.isOnOtherPart != 0) {
      record.isOnOtherPart = 0;
      hasChanged = true;
    } else if (!isItsOwn && record.isOverlapping != 0) {
      record.isUnclaimed = 1;
      record.localHeaderAt = UINT64_MAX;
      hasChanged = true;
    }
    if (cost >= budget) break;
    budget -= cost;
  }
  if (hasChanged) archive.index.markOverlaps(archive.entriesEnd);
  return true;
}

std::uint64_t firstRecord(const KQZipArchiveState& archive) {
  if (archive.index.size() == 0) return archive.isFromDirectory ? archive.tail.directoryAt : 0;
  return std::min(archive.index[archive.index.inOrder(0)].localHeaderAt, archive.entriesEnd);
}

}  // namespace

std::unique_ptr<const KQZipArchiveState> KQZipArchiveState::open(std::unique_ptr<KQZipArchiveSource> source,
                                                                 const std::string& name,
                                                                 KQ::NSErrorSlot error) {
  if (!source) return nullptr;
  auto archive = std::make_unique<KQZipArchiveState>();
  archive->source = std::move(source);
  KQZipArchiveWindow window(*archive->source);
  bool isRead = true;
  const bool isEmpty = archive->source->length() == 0;
  if (!isEmpty && !openByDirectory(*archive, window, &isRead, error)) {
    if (!isRead) return nullptr;
    // What the directory gave before it broke off is found again.
    auto scanned = std::make_unique<KQZipArchiveState>();
    scanned->source = std::move(archive->source);
    scanned->tail = std::move(archive->tail);
    scanned->findings = std::move(archive->findings);
    archive = std::move(scanned);
    const std::size_t ofTail = archive->findings.size();
    if (!KQZipScanArchive(*archive, error)) return nullptr;
    // What is wrong at the end comes last.
    std::rotate(archive->findings.begin(), archive->findings.begin() + static_cast<std::ptrdiff_t>(ofTail),
                archive->findings.end());
  }
  if (isEmpty || (archive->index.size() == 0 && !archive->tail.isFound)) {
    KQZipFail(error, KQZipErrorNoArchive, KQ::stringWithFormat("%@ is no archive", {name}));
    return nullptr;
  }
  archive->index.settle(archive->entriesEnd);
  if (archive->isFromDirectory && !settleClaims(*archive, error)) return nullptr;
  archive->prefix = firstRecord(*archive);
  return archive;
}

std::vector<KQZipFinding> KQZipRefusals(const KQZipArchiveState& archive, std::uint32_t index) {
  const KQZipIndexRecord& record = archive.index[index];
  std::vector<KQZipFinding> findings;
  if (record.isOnOtherPart != 0) findings.push_back({Code::OnOtherPart, index});
  if (record.method != 0) findings.push_back({Code::Compressed, index});
  if ((record.flags & 1U) != 0) findings.push_back({Code::Encrypted, index});
  if (record.isOverlapping != 0) findings.push_back({Code::Overlaps, index});
  return findings;
}

KQZipLocated KQZipCompareLocalHeader(const KQZipArchiveState& archive, std::uint32_t index,
                                     KQZipBytes bytes) {
  constexpr std::uint16_t decisiveFlags = 0x0009;
  const KQZipIndexRecord& record = archive.index[index];
  KQZipLocated located;
  const auto found = [&](Code code, std::uint64_t first = 0, std::uint64_t second = 0) {
    located.findings.push_back({code, index, first, second});
  };
  KQZipLocalHeader header;
  if (!header.decode(bytes)) {
    found(KQZipHasSignature(bytes, KQZipLocalHeaderFields::signature) ? Code::LocalHeaderCutOff
                                                                      : Code::NoLocalHeader,
          record.localHeaderAt);
    return located;
  }
  located.dataAt = record.localHeaderAt + header.fields.wholeSize();
  if (header.name != archive.index.storedName(record)) found(Code::OtherName, record.localHeaderAt);
  if (header.fields.compression != record.method)
    found(Code::OtherMethod, record.method, header.fields.compression);
  if (((header.fields.flags ^ record.flags) & decisiveFlags) != 0)
    found(Code::OtherFlags, record.flags, header.fields.flags);
  // Where a descriptor follows the data, the header need not know the lengths.
  if ((header.fields.flags & 8U) == 0) {
    if (header.values.compressedSize != record.length)
      found(Code::OtherLength, record.length, header.values.compressedSize);
    if (header.values.uncompressedSize != record.uncompressedLength)
      found(Code::OtherUncompressedLength, record.uncompressedLength, header.values.uncompressedSize);
  }
  const std::uint64_t next = archive.index.nextAfter(archive.index.placeOf(index), archive.entriesEnd);
  if (record.isOverlapping == 0 && (located.dataAt > next || record.length > next - located.dataAt))
    found(Code::OutOfArchive, next);
  return located;
}

bool KQZipLocate(const KQZipArchiveState& archive, std::uint32_t index, KQZipLocated* located,
                 KQ::NSErrorSlot error) {
  // As a rule the extra fields are few.
  constexpr std::uint64_t likelyExtraFields = 64;
  const KQZipIndexRecord& record = archive.index[index];
  if (record.isUnclaimed != 0 || record.isOutside != 0) {
    const Code code = record.isUnclaimed != 0 ? Code::NoHeaderOfItsOwn : Code::OutOfArchive;
    located->findings.assign({{code, index, archive.entriesEnd}});
    return true;
  }
  std::uint64_t wanted = KQZipLocalHeaderFields::size + std::uint64_t{record.nameLength} + likelyExtraFields;
  std::vector<std::uint8_t> bytes;
  for (;;) {
    bytes.resize(wanted);
    const std::int64_t count = archive.source->readAt(bytes.data(), wanted, record.localHeaderAt, error);
    if (count < 0) return false;
    bytes.resize(static_cast<std::size_t>(count));
    KQZipLocalHeaderFields fields;
    if (bytes.size() < wanted || !KQZipDecode(bytes, &fields) || fields.wholeSize() <= wanted) break;
    wanted = fields.wholeSize();
  }
  *located = KQZipCompareLocalHeader(archive, index, bytes);
  return true;
}

bool KQZipFailOnFinding(const KQZipArchiveState& archive, const KQZipFinding& finding,
                        KQ::NSErrorSlot error) {
  if (error == nullptr) return false;
  const KQZipProblem problem = KQZipProblemOf(finding, archive.index);
  const bool isRefused = finding.code >= Code::Compressed && finding.code <= Code::Overlaps;
  return KQZipFail(error, isRefused ? KQZipErrorEntryRefused : KQZipErrorEntryDamaged,
                   KQ::stringWithFormat("%@ is not given back: %@", {problem.entry, problem.text}));
}
