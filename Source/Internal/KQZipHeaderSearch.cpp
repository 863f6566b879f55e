#include "KQZipHeaderSearch.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr std::uint32_t descriptorSignature = 0x08074b50;

// Bytes that are kept in front of the position for what has no signature of its own, and after it for a
// whole header.
constexpr std::uint64_t largestDescriptor = 24;
constexpr std::uint64_t largestHeader = KQZipLocalHeaderFields::size + 2 * std::uint64_t{0xFFFF};
constexpr std::uint64_t blockSize = 1048576;

bool isSignatureOfRecord(std::uint32_t signature) {
  return signature == KQZipLocalHeaderFields::signature || signature == KQZipCentralHeaderFields::signature ||
         signature == KQZipZip64EndRecordFields::signature || signature == KQZipEndRecordFields::signature;
}

}  // namespace

// Of real headers none is inside another one's data. So few are on their way at once, but for bytes that were
// made to look like headers.
KQZipHeaderSearch::KQZipHeaderSearch(const KQZipArchiveSource& source, std::uint64_t start)
    : source_(source),
      mostCandidates_(static_cast<std::size_t>(1024 + source.length() / 128)),
      bytesAt_(start),
      position_(start) {}

bool KQZipHeaderSearch::run(KQ::NSErrorSlot error) {
  const std::uint64_t length = source_.length();
  for (std::uint64_t searched = position_; searched < length;) {
    // Moves on, with what may still be looked back at.
    const std::uint64_t keep = searched - std::min(searched - bytesAt_, largestDescriptor);
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(keep - bytesAt_));
    bytesAt_ = keep;
    const std::uint64_t there = bytes_.size();
    bytes_.resize(
        static_cast<std::size_t>(std::min(largestDescriptor + blockSize + largestHeader, length - bytesAt_)));
    const std::int64_t count =
        source_.readAt(bytes_.data() + there, bytes_.size() - there, bytesAt_ + there, error);
    if (count < 0) return false;
    bytes_.resize(static_cast<std::size_t>(there) + static_cast<std::size_t>(count));
    const std::uint64_t end = bytesAt_ + bytes_.size();
    const std::uint64_t stop = end < length ? std::min(end, searched + blockSize) : end;
    if (stop <= searched) break;
    for (; searched < stop; ++searched) {
      const void* const first =
          std::memchr(bytes_.data() + (searched - bytesAt_), 'P', static_cast<std::size_t>(stop - searched));
      if (first == nullptr) break;
      searched =
          bytesAt_ + static_cast<std::uint64_t>(static_cast<const std::uint8_t*>(first) - bytes_.data());
      _takeSignature(searched, KQZipBytes(bytes_).subspan(static_cast<std::size_t>(searched - bytesAt_)));
    }
    searched = stop;
    // The last few bytes are left for a descriptor that ends after them.
    const std::uint64_t settled = end < length ? stop - std::min(stop - bytesAt_, largestDescriptor) : stop;
    _takeEvents(settled);
    _moveTo(settled);
  }
  std::sort(found_.begin(), found_.end(),
            [](const auto& left, const auto& right) { return left.headerAt < right.headerAt; });
  return true;
}

const KQZipFoundHeader* KQZipHeaderSearch::at(std::uint64_t offset) const {
  const KQZipFoundHeader* const header = next(offset);
  return header != nullptr && header->headerAt == offset ? header : nullptr;
}

const KQZipFoundHeader* KQZipHeaderSearch::next(std::uint64_t offset) const {
  const auto header = std::lower_bound(
      found_.begin(), found_.end(), offset,
      [](const KQZipFoundHeader& left, std::uint64_t right) { return left.headerAt < right; });
  return header == found_.end() ? nullptr : &*header;
}

void KQZipHeaderSearch::_takeSignature(std::uint64_t at, KQZipBytes bytes) {
  if (bytes.size() < KQZipSignatureSize) return;
  const auto signature = KQZipLoad<std::uint32_t>(bytes.data());
  if (signature == descriptorSignature) return _takeDescriptor(at, bytes);
  if (!isSignatureOfRecord(signature)) return;
  if (!waiting_.empty() || !candidates_.empty()) _takeFieldsInFrontOf(at);
  if (signature != KQZipLocalHeaderFields::signature) return;
  _takeEvents(at);
  _takeHeader(at, bytes);
}

void KQZipHeaderSearch::_takeHeader(std::uint64_t at, KQZipBytes bytes) {
  KQZipLocalHeader header;
  if (!header.decode(bytes) || !header.isPlausible()) return;
  Candidate candidate{};
  candidate.header.headerAt = at;
  candidate.header.crc32 = header.fields.crc32;
  candidate.header.length = header.values.compressedSize;
  candidate.header.uncompressedLength = header.values.uncompressedSize;
  candidate.dataAt = candidate.eventAt = at + header.fields.wholeSize();
  candidate.isReadable = header.fields.compression == 0 && (header.fields.flags & 1U) == 0;
  // Where a descriptor follows, the header need not know anything.
  candidate.awaitsDescriptor = (header.fields.flags & 8U) != 0;
  if (candidate.dataAt > source_.length() || candidate.header.length > source_.length() - candidate.dataAt)
    return;
  _add(candidate);
}

void KQZipHeaderSearch::_takeDescriptor(std::uint64_t at, KQZipBytes bytes) {
  constexpr std::size_t narrow = 16;
  constexpr std::size_t wide = 24;
  _takeEvents(at);
  if (waiting_.empty()) return;
  _moveTo(at);
  if (bytes.size() >= wide) _takeFields<std::uint64_t>(at, bytes.data() + KQZipSignatureSize, at + wide);
  if (bytes.size() >= narrow) _takeFields<std::uint32_t>(at, bytes.data() + KQZipSignatureSize, at + narrow);
}

// A descriptor need not have a signature; then it is known by what follows it.
void KQZipHeaderSearch::_takeFieldsInFrontOf(std::uint64_t at) {
  constexpr std::uint64_t narrow = 12;
  constexpr std::uint64_t wide = 20;
  for (const std::uint64_t size : {wide, narrow}) {
    if (at - bytesAt_ < size || at - size < position_) continue;
    _takeEvents(at - size);
    if (waiting_.empty()) continue;
    _moveTo(at - size);
    const std::uint8_t* const fields = bytes_.data() + (at - size - bytesAt_);
    if (size == wide)
      _takeFields<std::uint64_t>(at - size, fields, at);
    else
      _takeFields<std::uint32_t>(at - size, fields, at);
  }
}

// Takes the fields of a descriptor at the position, if there is a header whose data they fit.
template <class Size>
void KQZipHeaderSearch::_takeFields(std::uint64_t at, const std::uint8_t* fields, std::uint64_t end) {
  const auto crc = KQZipLoad<std::uint32_t>(fields);
  const std::uint64_t length = KQZipLoad<Size>(fields + sizeof(crc));
  const std::uint64_t uncompressed = KQZipLoad<Size>(fields + sizeof(crc) + sizeof(Size));
  const auto waiting = length <= at ? waiting_.find(at - length) : waiting_.end();
  if (waiting == waiting_.end()) return;
  const bool fits = !waiting->second.isReadable ||
                    (length == uncompressed && _crcSince(at - length, waiting->second.crcBefore) == crc);
  if (!fits) return;
  KQZipFoundHeader header = waiting->second.header;
  header.end = end;
  header.length = length;
  header.uncompressedLength = uncompressed;
  header.crc32 = crc;
  found_.push_back(header);
  waiting_.erase(waiting);
}

void KQZipHeaderSearch::_add(const Candidate& candidate) {
  if (candidates_.size() + waiting_.size() >= mostCandidates_) return;
  candidates_.push_back(candidate);
  std::push_heap(candidates_.begin(), candidates_.end(), _comesLater);
}

// Takes everything that happens at the offset or in front of it: data that begin or end.
void KQZipHeaderSearch::_takeEvents(std::uint64_t upTo) {
  while (!candidates_.empty() && candidates_.front().eventAt <= upTo) {
    std::pop_heap(candidates_.begin(), candidates_.end(), _comesLater);
    Candidate candidate = candidates_.back();
    candidates_.pop_back();
    _moveTo(candidate.eventAt);
    if (!candidate.isInside) {
      candidate.crcBefore = crc_;
      candidate.isInside = true;
      candidate.eventAt = candidate.header.end = candidate.dataAt + candidate.header.length;
      if (candidate.awaitsDescriptor)
        waiting_.insert({candidate.dataAt, {candidate.header, crc_, candidate.isReadable}});
      else
        _add(candidate);
    } else if (candidate.isReadable
                   ? _crcSince(candidate.dataAt, candidate.crcBefore) == candidate.header.crc32
                   : _recordBeginsAt(candidate.eventAt)) {
      found_.push_back(candidate.header);
    }
  }
}

void KQZipHeaderSearch::_moveTo(std::uint64_t offset) {
  if (offset <= position_) return;
  crc_ = static_cast<std::uint32_t>(
      ::crc32_z(crc_, bytes_.data() + (position_ - bytesAt_), static_cast<z_size_t>(offset - position_)));
  position_ = offset;
}

bool KQZipHeaderSearch::_recordBeginsAt(std::uint64_t offset) const {
  const auto start = static_cast<std::size_t>(offset - bytesAt_);
  return bytes_.size() - start >= KQZipSignatureSize &&
         isSignatureOfRecord(KQZipLoad<std::uint32_t>(bytes_.data() + start));
}

// The CRC-32 of what stands between the start of some data and the position.
std::uint32_t KQZipHeaderSearch::_crcSince(std::uint64_t dataAt, std::uint32_t crcBefore) const {
  const auto length = static_cast<z_off_t>(position_ - dataAt);
  return crc_ ^ static_cast<std::uint32_t>(::crc32_combine(crcBefore, 0, length));
}
