#include "KQZipArchiveScan.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

#include "KQZipHeaderSearch.h"

namespace {

using Code = KQZipFindingCode;

constexpr std::uint32_t descriptorSignature = 0x08074b50;
constexpr std::uint32_t temporarySplitSignature = 0x30304b50;
constexpr std::uint32_t digitalSignature = 0x05054b50;
constexpr std::uint64_t largestHeader = KQZipLocalHeaderFields::size + 2 * std::uint64_t{0xFFFF};

// Goes over an archive, record by record.
class Scan {
 public:
  explicit Scan(KQZipArchiveState& archive) : archive_(archive), window_(*archive.source) {}

  // Every step either moves on or ends the scan.
  bool run(KQ::NSErrorSlot error) {
    error_ = error;
    skipSplitMark();
    while (isRead_ && next_ < length() && readRecord()) continue;
    if (isRead_) tellWhereItEnds();
    archive_.entriesEnd = entriesEnd_;
    return isRead_;
  }

 private:
  std::uint64_t length() const { return archive_.source->length(); }

  void found(Code code, std::uint64_t first = 0, std::uint64_t second = 0) {
    archive_.findings.push_back({code, KQZipFinding::noEntry, first, second});
  }

  // A finding about an entry of which nothing but the name can be told.
  void foundOf(std::string_view name, Code code, std::uint64_t first = 0, std::uint64_t second = 0) {
    KQZipLocalHeader header;
    header.name = name;
    KQZipIndexEntry entry = KQZipIndexEntryOf(header, next_);
    entry.record.isNoEntry = 1;
    if (archive_.index.add(entry))
      archive_.findings.push_back({code, archive_.index.size() - 1, first, second});
  }

  bool look(std::uint64_t offset, std::uint64_t wanted, KQZipBytes* bytes) {
    if (isRead_) isRead_ = window_.look(offset, wanted, bytes, error_);
    return isRead_;
  }

  // The first part of a split archive, or one that was to be split, begins with a signature of its own.
  void skipSplitMark() {
    KQZipBytes bytes;
    if (!look(0, 2 * KQZipSignatureSize, &bytes) || bytes.size() < 2 * KQZipSignatureSize) return;
    const auto mark = KQZipLoad<std::uint32_t>(bytes.data());
    if (mark != descriptorSignature && mark != temporarySplitSignature) return;
    if (!KQZipHasSignature(bytes.subspan(KQZipSignatureSize), KQZipLocalHeaderFields::signature)) return;
    next_ = entriesEnd_ = KQZipSignatureSize;
    if (mark == descriptorSignature && !archive_.tail.isFound) found(Code::SplitArchive, 1);
  }

  // Reads one record. False at the end.
  bool readRecord() {
    KQZipBytes bytes;
    if (!look(next_, KQZipLocalHeaderFields::size, &bytes)) return false;
    const std::uint32_t signature =
        bytes.size() < KQZipSignatureSize ? 0 : KQZipLoad<std::uint32_t>(bytes.data());
    if (signature == KQZipLocalHeaderFields::signature && !isInTail_) return readLocalHeader();
    if (signature == KQZipCentralHeaderFields::signature) return readCentralHeader();
    if (signature == KQZipZip64EndRecordFields::signature || signature == digitalSignature ||
        signature == KQZipZip64LocatorFields::signature)
      return isInTail_ = true, skipTailRecord(signature, bytes);
    if (signature == KQZipEndRecordFields::signature) return readEndRecord();
    return isInTail_ ? searchTail() : goOnAfterUnknownBytes();
  }

  // Where nothing follows an entry whose data do not match its header either, the header is what is damaged.
  bool goOnAfterUnknownBytes() {
    const KQZipHeaderSearch* const search = searched();
    if (search == nullptr) return false;
    if (!hasLast_ || search->at(lastHeaderAt_) != nullptr) return searchHeader(next_);
    const std::uint32_t last = archive_.index.size() - 1;
    if (archive_.index[last].method != 0 || (archive_.index[last].flags & 1U) != 0)
      return searchHeader(next_);
    archive_.index.takeBackLast();
    archive_.findings.push_back({Code::HeaderDamaged, last, lastHeaderAt_});
    next_ = entriesEnd_ = lastHeaderAt_;
    hasLast_ = false;
    return searchHeader(next_ + 1);
  }

  bool readLocalHeader() {
    KQZipLocalHeader header;
    KQZipBytes bytes;
    const auto isThere = [&](std::uint64_t wanted) {
      return look(next_, wanted, &bytes) && header.decode(bytes);
    };
    if (!isThere(256) && !isThere(largestHeader)) return isRead_ && tellOfCutHeader(bytes);
    if (!header.isPlausible()) return searchHeader(next_);
    const std::uint64_t dataAt = next_ + header.fields.wholeSize();
    if (header.leavesLengthsToDescriptor()) return readEntryWithDescriptor(header, dataAt);
    if (header.values.compressedSize > length() - dataAt) {
      // Its lengths agree with each other, so they are taken for right, and the rest for its data.
      foundOf(header.name, Code::EndsInsideData, length() - dataAt, header.values.compressedSize);
      next_ = length();
      return false;
    }
    addEntry(header,
             KQZipFoundHeader{next_, dataAt + header.values.compressedSize, header.values.compressedSize,
                              header.values.uncompressedSize, header.fields.crc32});
    return (header.fields.flags & 8U) == 0 || skipDescriptor();
  }

  void addEntry(const KQZipLocalHeader& header, const KQZipFoundHeader& values) {
    KQZipIndexEntry entry = KQZipIndexEntryOf(header, next_);
    entry.record.length = values.length;
    entry.record.uncompressedLength = values.uncompressedLength;
    entry.record.crc32 = values.crc32;
    archive_.index.add(entry);
    hasLast_ = true;
    lastHeaderAt_ = next_;
    next_ = entriesEnd_ = values.end;
  }

  // Steps over the descriptor of an entry whose lengths are known without it.
  bool skipDescriptor() {
    KQZipIndexRecord& record = archive_.index[archive_.index.size() - 1];
    KQZipBytes bytes;
    if (!look(next_, 28, &bytes)) return false;
    const bool hasSignature = KQZipHasSignature(bytes, descriptorSignature);
    const std::size_t start = hasSignature ? KQZipSignatureSize : 0;
    for (const std::size_t width : {std::size_t{8}, std::size_t{4}}) {
      if (bytes.size() < start + 4 + 2 * width) continue;
      const std::uint8_t* const fields = bytes.data() + start;
      const auto value = [fields, width](std::size_t at) -> std::uint64_t {
        return width == 8 ? KQZipLoad<std::uint64_t>(fields + at) : KQZipLoad<std::uint32_t>(fields + at);
      };
      if (value(4) != record.length || value(4 + width) != record.uncompressedLength) continue;
      if (!hasSignature && KQZipLoad<std::uint32_t>(fields) != record.crc32) continue;
      // The header need not know the CRC-32 where it knows the lengths.
      if (hasSignature) record.crc32 = KQZipLoad<std::uint32_t>(fields);
      next_ = entriesEnd_ = next_ + start + 4 + 2 * width;
      break;
    }
    return true;
  }

  bool readEntryWithDescriptor(const KQZipLocalHeader& header, std::uint64_t dataAt) {
    const std::string name(header.name);
    const std::uint64_t size = header.fields.wholeSize();
    const KQZipHeaderSearch* const search = searched();
    if (search == nullptr) return false;
    const KQZipFoundHeader* const there = search->at(next_);
    if (there == nullptr) {
      foundOf(name, Code::NoDescriptor);
      return searchHeader(dataAt);
    }
    KQZipBytes bytes;
    KQZipLocalHeader again;
    if (!look(next_, size, &bytes) || !again.decode(bytes)) return false;
    addEntry(again, *there);
    return true;
  }

  // The headers that hold up, from the first place on where the way was lost.
  const KQZipHeaderSearch* searched() {
    if (!search_) {
      search_.emplace(*archive_.source, hasLast_ ? lastHeaderAt_ : next_);
      isRead_ = search_->run(error_);
    }
    return isRead_ ? &*search_ : nullptr;
  }

  // Goes on at the next header that holds up, at `from` or after it.
  bool searchHeader(std::uint64_t from) {
    const KQZipHeaderSearch* const search = searched();
    if (search == nullptr) return false;
    const KQZipFoundHeader* const header = search->next(from);
    if (header == nullptr) return searchTail();
    KQZipBytes bytes;
    if (!look(next_, KQZipSignatureSize, &bytes)) return false;
    // What stands in front of the first record need not belong to the archive.
    if (next_ != 0 || KQZipHasSignature(bytes, KQZipLocalHeaderFields::signature))
      found(Code::UnknownBytes, next_, header->headerAt);
    hasLast_ = false;
    next_ = header->headerAt;
    return true;
  }

  // Goes on at the next record of the tail.
  bool searchTail() {
    const std::uint64_t start = next_;
    isLost_ = true;
    if (archive_.index.size() == 0 && !archive_.tail.isFound) return false;
    for (std::uint64_t at = start + 1; isRead_ && at < length();) {
      KQZipBytes bytes;
      if (!look(at, KQZipEndRecordFields::size, &bytes) || bytes.size() < KQZipSignatureSize) break;
      const void* const first = std::memchr(bytes.data(), 'P', bytes.size() - KQZipSignatureSize + 1);
      if (first == nullptr) {
        at += bytes.size() - KQZipSignatureSize + 1;
        continue;
      }
      const auto skipped = static_cast<const std::uint8_t*>(first) - bytes.data();
      at += static_cast<std::uint64_t>(skipped);
      const KQZipBytes here = bytes.subspan(static_cast<std::size_t>(skipped));
      if (KQZipHasSignature(here, KQZipCentralHeaderFields::signature) ||
          (archive_.tail.isFound && at == archive_.tail.start())) {
        if (at != start) found(Code::UnknownBytes, start, at);
        isInTail_ = true;
        isLost_ = false;
        next_ = at;
        return true;
      }
      ++at;
    }
    if (isRead_) found(Code::UnknownBytes, start, length());
    return false;
  }

  bool readCentralHeader() {
    constexpr std::uint64_t largest = KQZipCentralHeaderFields::size + 3 * std::uint64_t{0xFFFF};
    KQZipCentralHeader header;
    KQZipBytes bytes;
    const auto isThere = [&](std::uint64_t wanted) {
      return look(next_, wanted, &bytes) && header.decode(bytes);
    };
    isInTail_ = true;
    if (!isThere(256) && !isThere(largest)) {
      if (isRead_ && !archive_.tail.isFound) found(Code::EndsInsideDirectory, next_);
      return isRead_ && archive_.tail.isFound && searchTail();
    }
    complete(header);
    next_ += header.fields.wholeSize();
    return true;
  }

  // Gives the entry that the central header is about what local headers do not have.
  void complete(const KQZipCentralHeader& header) {
    KQZipArchiveIndex& index = archive_.index;
    if (index.size() == 0) return;
    const std::uint64_t first = index[0].localHeaderAt;
    const KQZipIndexEntry entry = KQZipIndexEntryOf(header, 0);
    // The archive may have been moved as a whole.
    for (const std::uint64_t at : {entry.record.localHeaderAt, entry.record.localHeaderAt + first}) {
      const std::optional<std::uint32_t> place = headerAt(at);
      if (!place || index.storedName(index[*place]) != header.name) continue;
      KQZipIndexRecord& record = index[*place];
      record.mode = entry.record.mode;
      record.kind = entry.record.kind;
      return;
    }
  }

  // The entries have the order of their headers.
  std::optional<std::uint32_t> headerAt(std::uint64_t offset) const {
    const KQZipArchiveIndex& index = archive_.index;
    std::uint32_t low = 0;
    std::uint32_t high = index.size();
    while (low < high) {
      const std::uint32_t middle = low + (high - low) / 2;
      if (index[middle].localHeaderAt < offset)
        low = middle + 1;
      else
        high = middle;
    }
    return low < index.size() && index[low].localHeaderAt == offset ? std::optional(low) : std::nullopt;
  }

  bool skipTailRecord(std::uint32_t signature, KQZipBytes bytes) {
    KQZipZip64EndRecordFields record;
    std::uint64_t size = KQZipZip64LocatorFields::size;
    if (signature == KQZipZip64EndRecordFields::signature) {
      if (!look(next_, record.size, &bytes)) return false;
      size = KQZipDecode(bytes, &record) ? record.sizeOfRecord : 0;
      size = size > length() ? length() : size + record.uncounted;
    } else if (signature == digitalSignature) {
      size = bytes.size() < 6 ? 6 : 6U + KQZipLoad<std::uint16_t>(bytes.data() + KQZipSignatureSize);
    }
    if (size <= length() - next_) return next_ += size, true;
    found(Code::EndsInsideDirectory, next_);
    isLost_ = true;
    return false;
  }

  // What follows the end record may be anything, but no entries of this archive.
  bool readEndRecord() {
    KQZipEndRecordFields fields;
    KQZipBytes bytes;
    if (!look(next_, fields.size, &bytes)) return false;
    isLost_ = true;
    if (!KQZipDecode(bytes, &fields)) {
      found(Code::EndsInsideDirectory, next_);
    } else if (!archive_.tail.isFound) {
      archive_.tail.isFound = true;
      const std::uint64_t end = next_ + fields.size + fields.zipFileCommentLength;
      if (end < length()) found(Code::UnknownBytesAfterEnd, end);
    }
    return false;
  }

  bool tellOfCutHeader(KQZipBytes bytes) {
    KQZipLocalHeaderFields fields;
    if (!KQZipDecode(bytes, &fields) || fields.size + std::size_t{fields.fileNameLength} > bytes.size()) {
      found(Code::EndsInsideHeader, next_);
    } else {
      foundOf({reinterpret_cast<const char*>(bytes.data()) + fields.size, fields.fileNameLength},
              Code::LocalHeaderCutOff);
    }
    isLost_ = true;
    return false;
  }

  void tellWhereItEnds() {
    const bool isCutOff = next_ >= length() && !archive_.tail.isFound && archive_.findings.empty();
    if (isCutOff && !isLost_) found(Code::EndsEarly, length());
  }

  KQZipArchiveState& archive_;
  KQZipArchiveWindow window_;
  KQ::NSErrorSlot error_ = nullptr;
  std::optional<KQZipHeaderSearch> search_;
  std::uint64_t next_ = 0;
  std::uint64_t entriesEnd_ = 0;
  // Where the entry was found that ends at the next record, if one does.
  bool hasLast_ = false;
  std::uint64_t lastHeaderAt_ = 0;
  bool isRead_ = true;
  bool isInTail_ = false;
  bool isLost_ = false;
};

}  // namespace

bool KQZipScanArchive(KQZipArchiveState& archive, KQ::NSErrorSlot error) { return Scan(archive).run(error); }
