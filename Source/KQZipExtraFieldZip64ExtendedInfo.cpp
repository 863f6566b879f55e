#include "KQZipExtraFieldZip64ExtendedInfo.h"

#include <array>
#include <cstddef>
#include <typeinfo>

namespace {

constexpr std::size_t width = 8;

// Sets the value's bytes from the data at `start`, low ones first; bytes for which no data remains stay.
void decode(const std::uint8_t* data, std::uint64_t length, std::uint64_t start, std::uint64_t* value) {
  if (start + width <= length) {
    // All of the value's bytes, which the compiler turns into one load.
    std::uint64_t whole = 0;
    for (std::size_t i = 0; i < width; ++i) whole |= static_cast<std::uint64_t>(data[start + i]) << (8 * i);
    *value = whole;
    return;
  }
  for (std::size_t i = 0; i < width && start + i < length; ++i) {
    const std::uint64_t mask = static_cast<std::uint64_t>(0xFF) << (8 * i);
    *value = (*value & ~mask) | static_cast<std::uint64_t>(data[start + i]) << (8 * i);
  }
}

void encode(std::uint64_t value, std::uint8_t* bytes) {
  for (std::size_t i = 0; i < width; ++i) bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

}  // namespace

KQZipExtraFieldZip64ExtendedInfo::KQZipExtraFieldZip64ExtendedInfo() { setFieldSignature(identifier); }

bool KQZipExtraFieldZip64ExtendedInfo::isValidForIdentifier(std::uint16_t candidate) {
  return candidate == identifier;
}

std::shared_ptr<KQZipExtraField> KQZipExtraFieldZip64ExtendedInfo::extraFieldWithStream(
    KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  return _extraFieldWithStream(KQZipExtraFieldClass::of<KQZipExtraFieldZip64ExtendedInfo>(), stream, error);
}

std::shared_ptr<KQZipExtraFieldZip64ExtendedInfo> KQZipExtraFieldZip64ExtendedInfo::initWithStream(
    KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  auto field = std::make_shared<KQZipExtraFieldZip64ExtendedInfo>();
  return field->parseFromStream(stream, error) ? field : nullptr;
}

bool KQZipExtraFieldZip64ExtendedInfo::parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  if (!KQZipExtraField::parseFromStream(stream, error)) return false;
  const auto data = fieldData();
  decode(data->bytes(), data->length(), 0, &uncompressedSize_);
  decode(data->bytes(), data->length(), 8, &compressedSize_);
  decode(data->bytes(), data->length(), 16, &offsetOfLocalHeaderRecord_);
  return true;
}

bool KQZipExtraFieldZip64ExtendedInfo::writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) {
  std::array<std::uint8_t, 24> bytes{};
  encode(uncompressedSize_, &bytes[0]);
  encode(compressedSize_, &bytes[8]);
  encode(offsetOfLocalHeaderRecord_, &bytes[16]);
  setFieldData(KQ::NSData::dataWithBytes(bytes.data(), bytes.size()));
  return KQZipExtraField::writeToStream(stream, error);
}

std::shared_ptr<KQZipExtraField> KQZipExtraFieldZip64ExtendedInfo::copyWithZone() const {
  auto copy = std::static_pointer_cast<KQZipExtraFieldZip64ExtendedInfo>(KQZipExtraField::copyWithZone());
  copy->uncompressedSize_ = uncompressedSize_;
  copy->compressedSize_ = compressedSize_;
  copy->offsetOfLocalHeaderRecord_ = offsetOfLocalHeaderRecord_;
  return copy;
}

std::shared_ptr<KQZipExtraField> KQZipExtraFieldZip64ExtendedInfo::_newInstance() const {
  if (typeid(*this) != typeid(KQZipExtraFieldZip64ExtendedInfo)) {
    // A class of a host. Its copy is of this class at least, for the values.
    auto own = KQZipExtraField::_newInstance();
    if (dynamic_cast<KQZipExtraFieldZip64ExtendedInfo*>(own.get()) != nullptr) return own;
  }
  return std::make_shared<KQZipExtraFieldZip64ExtendedInfo>();
}
