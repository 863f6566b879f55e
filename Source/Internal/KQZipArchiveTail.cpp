#include "KQZipArchiveTail.h"

#include <algorithm>
#include <array>
#include <optional>

#include "KQZipEntryFields.h"

namespace {

constexpr std::uint64_t largestComment = 0xFFFF;

// Bytes of the three end records without parts of variable length.
constexpr std::uint64_t sizeOfEndRecords =
    KQZipZip64EndRecordFields::size + KQZipZip64LocatorFields::size + KQZipEndRecordFields::size;

// Where an end record stands, and how well its comment fits what follows it.
struct Candidate {
  enum Fit { CutOff, BytesFollow, Exact };
  std::size_t at;
  Fit fit;
};

// The best end record in the bytes at the end of an archive: the last one of those whose comments end where
// the archive does, else of those after whose comments more follows, else of the others.
std::optional<Candidate> endRecordIn(KQZipBytes bytes) {
  std::optional<Candidate> best;
  KQZipEndRecordFields fields;
  for (std::size_t at = bytes.size() - std::min<std::size_t>(bytes.size(), fields.size) + 1; at-- > 0;) {
    if (bytes[at] != 'P' || !KQZipDecode(bytes.subspan(at), &fields)) continue;
    const std::size_t end = at + KQZipEndRecordFields::size + fields.zipFileCommentLength;
    if (end == bytes.size()) return Candidate{at, Candidate::Exact};
    // What records follow is the end of an archive inside the archive.
    const KQZipBytes after = bytes.subspan(std::min(end, bytes.size()));
    if (KQZipHasSignature(after, KQZipLocalHeaderFields::signature) ||
        KQZipHasSignature(after, KQZipCentralHeaderFields::signature))
      continue;
    const Candidate::Fit fit = end < bytes.size() ? Candidate::BytesFollow : Candidate::CutOff;
    if (!best || fit > best->fit) best = Candidate{at, fit};
  }
  return best;
}

template <class Narrow, class Wide>
bool agree(Narrow narrow, Wide wide) {
  constexpr auto saturated = static_cast<Narrow>(-1);
  return narrow == wide || narrow == saturated;
}

}  // namespace

bool KQZipArchiveTail::find(KQZipArchiveWindow& window, std::uint64_t length,
                            std::vector<KQZipFinding>* findings, bool* isRead, KQ::NSErrorSlot error) {
  using Code = KQZipFindingCode;
  const auto found = [findings](Code code, std::uint64_t first = 0, std::uint64_t second = 0) {
    findings->push_back({code, KQZipFinding::noEntry, first, second});
    return false;
  };
  *isRead = _findEndRecord(window, length, error);
  if (!*isRead || !isFound) return false;
  bool hasLocator = false;
  *isRead = _findZip64Record(window, &hasLocator, error);
  if (!*isRead) return false;
  if (comment.size() != endRecord.zipFileCommentLength)
    found(Code::CommentCutOff, comment.size(), endRecord.zipFileCommentLength);
  if (end < length && !isPadded) found(Code::UnknownBytesAfterEnd, end);
  if (_isSplit()) found(Code::SplitArchive, std::uint64_t{endRecord.diskNumber} + 1);
  if (hasLocator && !isZip64) return found(Code::NoZip64Record, endRecordAt - KQZipZip64LocatorFields::size);
  if (!recordsAgree()) return found(Code::EndRecordsDiffer);
  bool isThere = false;
  *isRead = _findDirectory(window, &isThere, error);
  return *isRead && (isThere || found(Code::NoDirectoryThere, offsetOfDirectory));
}

bool KQZipArchiveTail::recordsAgree() const {
  if (endRecord.entriesInCD != endRecord.entriesInCDOnThisDisk && !_isSplit()) return false;
  if (!isZip64) return true;
  const auto countAgrees = [](std::uint16_t classic, std::uint64_t count) {
    return agree(classic, count) || classic == (count & KQZipSaturated16);
  };
  return (zip64Record.entriesInCD == zip64Record.entriesInCDOnThisDisk || _isSplit()) &&
         countAgrees(endRecord.entriesInCD, zip64Record.entriesInCD) &&
         countAgrees(endRecord.entriesInCDOnThisDisk, zip64Record.entriesInCDOnThisDisk) &&
         agree(endRecord.sizeOfCD, zip64Record.sizeOfCD) &&
         agree(endRecord.offsetOfCD, zip64Record.offsetOfCD);
}

bool KQZipArchiveTail::_findEndRecord(KQZipArchiveWindow& window, std::uint64_t length,
                                      KQ::NSErrorSlot error) {
  constexpr std::uint64_t mostBytes = KQZipEndRecordFields::size + largestComment;
  // As a rule there is no comment, and the little that stands there is at hand for what comes next.
  for (const std::uint64_t wanted : {std::uint64_t{1024}, mostBytes}) {
    const std::uint64_t start = length - std::min(length, wanted);
    KQZipBytes bytes;
    if (!window.look(start, wanted, &bytes, error)) return false;
    const std::optional<Candidate> candidate = endRecordIn(bytes);
    if (!candidate || (candidate->fit != Candidate::Exact && start != 0 && wanted != mostBytes)) continue;
    isFound = true;
    endRecordAt = start + candidate->at;
    (void)KQZipDecode(bytes.subspan(candidate->at), &endRecord);
    const KQZipBytes rest = bytes.subspan(candidate->at + KQZipEndRecordFields::size);
    const std::size_t size = std::min<std::size_t>(rest.size(), endRecord.zipFileCommentLength);
    comment.assign(reinterpret_cast<const char*>(rest.data()), size);
    end = endRecordAt + KQZipEndRecordFields::size + size;
    isPadded = size < rest.size() && std::all_of(rest.begin() + static_cast<std::ptrdiff_t>(size), rest.end(),
                                                 [](std::uint8_t byte) { return byte == 0; });
    entries = endRecord.entriesInCD;
    sizeOfDirectory = endRecord.sizeOfCD;
    offsetOfDirectory = endRecord.offsetOfCD;
    return true;
  }
  return true;
}

bool KQZipArchiveTail::_findZip64Record(KQZipArchiveWindow& window, bool* hasLocator, KQ::NSErrorSlot error) {
  if (endRecordAt < KQZipZip64LocatorFields::size) return true;
  const std::uint64_t locatorAt = endRecordAt - KQZipZip64LocatorFields::size;
  KQZipBytes bytes;
  if (!window.look(locatorAt, KQZipZip64LocatorFields::size, &bytes, error)) return false;
  *hasLocator = KQZipDecode(bytes, &locator);
  if (!*hasLocator) return true;
  // Where it says, unless something was put in front of the archive: then as a rule right in front of here.
  if (!_readZip64Record(window, locator.offsetOfZip64EoCD, locatorAt, error)) return false;
  if (isZip64 || locatorAt < KQZipZip64EndRecordFields::size) return true;
  return _readZip64Record(window, locatorAt - KQZipZip64EndRecordFields::size, locatorAt, error);
}

// Takes the Zip64 end record at the offset if there is one that ends where the locator begins.
bool KQZipArchiveTail::_readZip64Record(KQZipArchiveWindow& window, std::uint64_t offset,
                                        std::uint64_t locatorAt, KQ::NSErrorSlot error) {
  KQZipZip64EndRecordFields fields;
  if (offset > locatorAt || locatorAt - offset < fields.size) return true;
  KQZipBytes bytes;
  if (!window.look(offset, fields.size, &bytes, error)) return false;
  if (!KQZipDecode(bytes, &fields) || fields.sizeOfRecord != locatorAt - offset - fields.uncounted)
    return true;
  isZip64 = true;
  zip64RecordAt = offset;
  zip64Record = fields;
  entries = fields.entriesInCD;
  sizeOfDirectory = fields.sizeOfCD;
  offsetOfDirectory = fields.offsetOfCD;
  return true;
}

// The directory ends where the end records begin, and starts as many bytes before as they say. Where that is
// not the offset that they say, something was put in front of the archive.
bool KQZipArchiveTail::_findDirectory(KQZipArchiveWindow& window, bool* isThere, KQ::NSErrorSlot error) {
  const bool mayBeExact = isZip64 && zip64Record.sizeOfRecord == KQZipZip64EndRecordFields::size -
                                                                     KQZipZip64EndRecordFields::uncounted;
  for (const bool isShifted : {false, true}) {
    for (const std::uint64_t counted : {std::uint64_t{0}, sizeOfEndRecords}) {
      if ((counted != 0 && !mayBeExact) || sizeOfDirectory < counted || sizeOfDirectory - counted > start())
        continue;
      const std::uint64_t at = start() - (sizeOfDirectory - counted);
      if (at < offsetOfDirectory || (at != offsetOfDirectory) != isShifted) continue;
      const bool isEmpty = at == start();
      bool hasHeader = isEmpty;
      if (!isEmpty && !_hasHeaderInDirectory(window, at, at - offsetOfDirectory, &hasHeader, error))
        return false;
      if (isEmpty != (entries == 0) || !hasHeader) continue;
      isExact = counted != 0;
      directoryAt = at;
      directoryEnd = start();
      base = at - offsetOfDirectory;
      *isThere = true;
      return true;
    }
  }
  return true;
}

// Whether a central header begins there. If the offsets are shifted, it has to lead to a local one, too: else
// it is the directory's offset that is wrong.
bool KQZipArchiveTail::_hasHeaderInDirectory(KQZipArchiveWindow& window, std::uint64_t at,
                                             std::uint64_t shift, bool* hasHeader,
                                             KQ::NSErrorSlot error) const {
  constexpr std::uint64_t largestHeader = KQZipCentralHeaderFields::size + 3 * std::uint64_t{0xFFFF};
  KQZipBytes bytes;
  if (!window.look(at, shift == 0 ? KQZipSignatureSize : largestHeader, &bytes, error)) return false;
  *hasHeader = KQZipHasSignature(bytes, KQZipCentralHeaderFields::signature);
  KQZipCentralHeader header;
  if (!*hasHeader || shift == 0 || _isSplit()) return true;
  *hasHeader = header.decode(bytes) && header.values.offsetOfLocalHeader < at - shift;
  if (!*hasHeader) return true;
  if (!window.look(header.values.offsetOfLocalHeader + shift, KQZipSignatureSize, &bytes, error))
    return false;
  *hasHeader = KQZipHasSignature(bytes, KQZipLocalHeaderFields::signature);
  return true;
}

bool KQZipArchiveTail::_isSplit() const {
  if (isZip64 && (zip64Record.diskNumber != 0 || zip64Record.diskNumberContainingCD != 0)) return true;
  const auto isOther = [this](std::uint16_t disk) {
    return disk != 0 && !(isZip64 && disk == KQZipSaturated16);
  };
  return isOther(endRecord.diskNumber) || isOther(endRecord.diskNumberContainingCD);
}
