#include "KQZipExtraFieldZip64ExtendedInfo.h"

#include <array>
#include <typeinfo>

#include "Internal/KQZipHeaderCodec.h"

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
  KQZipZip64Values values{uncompressedSize_, compressedSize_, offsetOfLocalHeaderRecord_};
  KQZipDecodeZip64InOrder({data->bytes(), data->length()}, &values);
  uncompressedSize_ = values.uncompressedSize;
  compressedSize_ = values.compressedSize;
  offsetOfLocalHeaderRecord_ = values.offsetOfLocalHeader;
  return true;
}

bool KQZipExtraFieldZip64ExtendedInfo::writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) {
  std::array<std::uint8_t, KQZipZip64Values::dataSize> bytes;
  KQZipEncodeZip64Data({uncompressedSize_, compressedSize_, offsetOfLocalHeaderRecord_}, bytes);
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
    // A class of a host. The copy is at least of this class, to hold the values.
    auto own = KQZipExtraField::_newInstance();
    if (dynamic_cast<KQZipExtraFieldZip64ExtendedInfo*>(own.get()) != nullptr) return own;
  }
  return std::make_shared<KQZipExtraFieldZip64ExtendedInfo>();
}
