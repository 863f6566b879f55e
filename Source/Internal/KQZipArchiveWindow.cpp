#include "KQZipArchiveWindow.h"

#include <algorithm>
#include <cstring>

bool KQZipArchiveWindow::look(std::uint64_t offset, std::uint64_t wanted, KQZipBytes* bytes,
                              KQ::NSErrorSlot error) {
  const std::uint64_t left = offset < source_.length() ? source_.length() - offset : 0;
  wanted = std::min(wanted, left);
  const bool isInside = offset >= start_ && offset - start_ <= length_;
  if (!isInside || wanted > length_ - (offset - start_)) {
    nextRead_ = isInside && length_ != 0 ? std::min(nextRead_ * 2, largestRead) : smallestRead;
    _makeRoom(offset, std::min(std::max(wanted, nextRead_), left));
    const std::uint64_t missing = std::min(std::max(wanted, nextRead_), left) - length_;
    const std::int64_t count = source_.readAt(bytes_.get() + length_, missing, offset + length_, error);
    if (count < 0) {
      length_ = 0;
      return false;
    }
    length_ += static_cast<std::uint64_t>(count);
  }
  *bytes = {bytes_.get() + (offset - start_), static_cast<std::size_t>(length_ - (offset - start_))};
  return true;
}

// Begins at `offset`, with what is at hand from there on, and room for `length` bytes.
void KQZipArchiveWindow::_makeRoom(std::uint64_t offset, std::uint64_t length) {
  const bool isInside = offset >= start_ && offset - start_ <= length_;
  const std::uint64_t kept = isInside ? length_ - (offset - start_) : 0;
  const std::uint8_t* const first = isInside ? bytes_.get() + (offset - start_) : nullptr;
  if (length > room_) {
    auto larger = std::make_unique_for_overwrite<std::uint8_t[]>(length);
    std::copy_n(first, kept, larger.get());
    bytes_ = std::move(larger);
    room_ = length;
  } else if (kept != 0) {
    std::memmove(bytes_.get(), first, kept);
  }
  start_ = offset;
  length_ = kept;
}
