#include "KQZipExtraFieldZip64ExtendedInfo.h"

#include "KQZipStreamPrimitives.h"

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
  const auto data = KQ::NSInputStream::inputStreamWithData(fieldData());
  data->open();
  if (data->hasBytesAvailable() && !KQZipReadBlock64(*data, &uncompressedSize_, error)) return false;
  if (data->hasBytesAvailable() && !KQZipReadBlock64(*data, &compressedSize_, error)) return false;
  if (data->hasBytesAvailable()) KQZipReadBlock64(*data, &offsetOfLocalHeaderRecord_, error);
  data->close();
  return true;
}

bool KQZipExtraFieldZip64ExtendedInfo::writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) {
  const auto data = KQ::NSOutputStream::outputStreamToMemory();
  data->open();
  const bool encoded = KQZipWriteBlock64(*data, &uncompressedSize_, error) &&
                       KQZipWriteBlock64(*data, &compressedSize_, error) &&
                       KQZipWriteBlock64(*data, &offsetOfLocalHeaderRecord_, error);
  if (!encoded) return false;
  data->close();
  setFieldData(data->NSStreamDataWrittenToMemoryStreamKey());
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
  return std::make_shared<KQZipExtraFieldZip64ExtendedInfo>();
}
