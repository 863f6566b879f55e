#include "KQZipHeaderCodec.h"

#include <algorithm>

bool KQZipExtraFieldWalk::next() {
  if (rest_.size() < fieldHeaderSize) return false;
  const std::size_t size = KQZipLoad<std::uint16_t>(rest_.data() + 2);
  if (size > rest_.size() - fieldHeaderSize) return false;
  identifier_ = KQZipLoad<std::uint16_t>(rest_.data());
  data_ = rest_.subspan(fieldHeaderSize, size);
  rest_ = rest_.subspan(fieldHeaderSize + size);
  return true;
}

bool KQZipFindZip64(KQZipBytes area, std::optional<KQZipBytes>* data) {
  data->reset();
  KQZipExtraFieldWalk walk(area);
  while (walk.next()) {
    if (!*data && walk.identifier() == KQZipZip64Values::identifier) *data = walk.data();
  }
  return walk.isWhole();
}

namespace {

bool findParts(std::size_t nameLength, std::size_t extraFieldLength, std::size_t commentLength,
               KQZipBytes bytes, KQZipHeaderParts* parts) {
  if (bytes.size() < nameLength + extraFieldLength + commentLength) return false;
  parts->name = {reinterpret_cast<const char*>(bytes.data()), nameLength};
  parts->extraFields = bytes.subspan(nameLength, extraFieldLength);
  parts->comment = bytes.subspan(nameLength + extraFieldLength, commentLength);
  return true;
}

// Sets the value from the first bytes of the data, as far as there are any, and removes these bytes.
void takeInOrder(KQZipBytes* data, std::uint64_t* value) {
  const std::size_t count = std::min(data->size(), sizeof(*value));
  if (count == sizeof(*value)) {
    *value = KQZipLoad<std::uint64_t>(data->data());
  } else {
    std::array<std::uint8_t, sizeof(*value)> bytes;
    KQZipStore(*value, bytes.data());
    std::copy_n(data->data(), count, bytes.begin());
    *value = KQZipLoad<std::uint64_t>(bytes.data());
  }
  *data = data->subspan(count);
}

// The wide value of a field: the field's own value, unless it is saturated and the data has one for it.
template <class Wide, class Narrow>
Wide takeIfSaturated(Narrow narrow, Narrow saturated, KQZipBytes* data, bool* isComplete) {
  if (narrow != saturated) return narrow;
  if (data->size() < sizeof(Wide)) {
    *isComplete = false;
    *data = {};
    return narrow;
  }
  const Wide wide = KQZipLoad<Wide>(data->data());
  *data = data->subspan(sizeof(Wide));
  return wide;
}

template <class Fields>
KQZipWideValues widenSizes(const Fields& header, KQZipBytes* data) {
  KQZipWideValues values;
  values.uncompressedSize =
      takeIfSaturated<std::uint64_t>(header.uncompressedSize, KQZipSaturated32, data, &values.isComplete);
  values.compressedSize =
      takeIfSaturated<std::uint64_t>(header.compressedSize, KQZipSaturated32, data, &values.isComplete);
  return values;
}

}  // namespace

bool KQZipFindParts(const KQZipLocalHeaderFields& header, KQZipBytes bytes, KQZipHeaderParts* parts) {
  return findParts(header.fileNameLength, header.extraFieldLength, 0, bytes, parts);
}

bool KQZipFindParts(const KQZipCentralHeaderFields& header, KQZipBytes bytes, KQZipHeaderParts* parts) {
  return findParts(header.fileNameLength, header.extraFieldLength, header.fileCommentLength, bytes, parts);
}

void KQZipDecodeZip64InOrder(KQZipBytes data, KQZipZip64Values* values) {
  takeInOrder(&data, &values->uncompressedSize);
  takeInOrder(&data, &values->compressedSize);
  takeInOrder(&data, &values->offsetOfLocalHeader);
}

void KQZipEncodeZip64Data(const KQZipZip64Values& values,
                          std::span<std::uint8_t, KQZipZip64Values::dataSize> room) {
  KQZipStore(values.uncompressedSize, room.data());
  KQZipStore(values.compressedSize, room.data() + KQZipZip64Values::width);
  KQZipStore(values.offsetOfLocalHeader, room.data() + 2 * KQZipZip64Values::width);
}

void KQZipEncodeZip64Field(const KQZipZip64Values& values,
                           std::span<std::uint8_t, KQZipZip64Values::fieldSize> room) {
  KQZipStore(KQZipZip64Values::identifier, room.data());
  KQZipStore(static_cast<std::uint16_t>(KQZipZip64Values::dataSize), room.data() + 2);
  KQZipEncodeZip64Data(values, room.subspan<KQZipExtraFieldWalk::fieldHeaderSize>());
}

KQZipWideValues KQZipWiden(const KQZipLocalHeaderFields& header, KQZipBytes zip64Data) {
  return widenSizes(header, &zip64Data);
}

KQZipWideValues KQZipWiden(const KQZipCentralHeaderFields& header, KQZipBytes zip64Data) {
  KQZipWideValues values = widenSizes(header, &zip64Data);
  values.offsetOfLocalHeader = takeIfSaturated<std::uint64_t>(header.offsetOfLocalHeader, KQZipSaturated32,
                                                              &zip64Data, &values.isComplete);
  values.diskNumberStart = takeIfSaturated<std::uint32_t>(header.diskNumberStart, KQZipSaturated16,
                                                          &zip64Data, &values.isComplete);
  return values;
}
