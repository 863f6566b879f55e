#include "KQZipEntryStream.h"

#include <zlib.h>

#include <algorithm>
#include <cerrno>

void KQZipEntryStream::close() {
  if (status_ != KQ::NSStreamStatusError) status_ = KQ::NSStreamStatusClosed;
}

bool KQZipEntryStream::setNSStreamFileCurrentOffsetKey(std::uint64_t offset) {
  if (offset > static_cast<std::uint64_t>(INT64_MAX)) {
    error_ = KQ::NSError::errorWithPOSIXCode(EOVERFLOW, "");
    return false;
  }
  if (offset != position_) crc_.reset();
  position_ = offset;
  if (status_ == KQ::NSStreamStatusAtEnd) status_ = KQ::NSStreamStatusOpen;
  return true;
}

std::int64_t KQZipEntryStream::read(std::uint8_t* buffer, std::uint64_t maxLength) {
  if (status_ == KQ::NSStreamStatusError || status_ == KQ::NSStreamStatusClosed) return -1;
  const std::uint64_t wanted = position_ < _length() ? std::min(maxLength, _length() - position_) : 0;
  if (wanted == 0) return maxLength == 0 ? 0 : _end();
  const std::int64_t count = archive_.source->readAt(buffer, wanted, dataAt_ + position_, &error_);
  if (count < 0) return _fail();
  position_ += static_cast<std::uint64_t>(count);
  if (static_cast<std::uint64_t>(count) != wanted) {
    KQZipFailOnFinding(archive_, {KQZipFindingCode::EndsInsideData, index_, position_, _length()}, &error_);
    return _fail();
  }
  if (crc_) crc_ = static_cast<std::uint32_t>(::crc32_z(*crc_, buffer, wanted));
  return count;
}

// What a read at the end gives.
std::int64_t KQZipEntryStream::_end() {
  const std::uint32_t expected = archive_.index[index_].crc32;
  if (crc_ && *crc_ != expected) {
    KQZipFailOnFinding(archive_, {KQZipFindingCode::DataDoNotMatch, index_, *crc_, expected}, &error_);
    return _fail();
  }
  status_ = KQ::NSStreamStatusAtEnd;
  return 0;
}

std::int64_t KQZipEntryStream::_fail() {
  status_ = KQ::NSStreamStatusError;
  return -1;
}
