#include "KQZipExtraField.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "KQZipStreamPrimitives.h"

std::shared_ptr<KQZipExtraField> KQZipExtraFieldClass::initWithStream(KQ::NSInputStream& stream,
                                                                      KQ::NSErrorSlot error) const {
  auto field = init();
  return field->parseFromStream(stream, error) ? field : nullptr;
}

std::shared_ptr<KQZipExtraField> KQZipExtraFieldClass::extraFieldWithStream(KQ::NSInputStream& stream,
                                                                            KQ::NSErrorSlot error) const {
  return KQZipExtraField::_extraFieldWithStream(*this, stream, error);
}

KQZipExtraField::~KQZipExtraField() = default;

bool KQZipExtraField::isValidForIdentifier(std::uint16_t /*identifier*/) { return false; }

std::shared_ptr<KQZipExtraField> KQZipExtraField::extraFieldWithStream(KQ::NSInputStream& stream,
                                                                       KQ::NSErrorSlot error) {
  const KQZipExtraFieldClass generic{
      &typeid(KQZipExtraField), &isValidForIdentifier,
      []() -> std::shared_ptr<KQZipExtraField> { return std::make_shared<KQZipExtraField>(); }};
  return generic.extraFieldWithStream(stream, error);
}

std::shared_ptr<KQZipExtraField> KQZipExtraField::_extraFieldWithStream(const KQZipExtraFieldClass& receiver,
                                                                        KQ::NSInputStream& stream,
                                                                        KQ::NSErrorSlot error) {
  const std::uint64_t start = stream.NSStreamFileCurrentOffsetKey().value_or(0);
  std::uint16_t identifier = 0;
  if (!KQZipReadBlock16(stream, &identifier, error)) return nullptr;
  // The class's own parse reads the id again. The result of moving the stream back is not checked, by design.
  stream.setNSStreamFileCurrentOffsetKey(start);

  const auto& classes = subclasses();
  const auto claiming = std::find_if(
      classes.begin(), classes.end(),
      [identifier](const KQZipExtraFieldClass& each) { return each.isValidForIdentifier(identifier); });
  return (claiming == classes.end() ? receiver : *claiming).initWithStream(stream, error);
}

std::shared_ptr<KQZipExtraField> KQZipExtraField::initWithStream(KQ::NSInputStream& stream,
                                                                 KQ::NSErrorSlot error) {
  auto field = std::make_shared<KQZipExtraField>();
  return field->parseFromStream(stream, error) ? field : nullptr;
}

bool KQZipExtraField::parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  if (!KQZipReadBlock16(stream, &fieldSignature_, error) || !KQZipReadBlock16(stream, &fieldSize_, error))
    return false;
  std::array<std::uint8_t, 0xFFFF> bytes;
  // Bytes that the stream does not deliver are zeros, never leftovers of the stack.
  std::memset(bytes.data(), 0, fieldSize_);
  if (!KQZipReadBlockBytes(stream, bytes.data(), fieldSize_, error)) return false;
  setFieldData(KQ::NSData::dataWithBytes(bytes.data(), fieldSize_));
  return true;
}

bool KQZipExtraField::writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) {
  const auto data = fieldData();
  fieldSize_ = static_cast<std::uint16_t>(data ? data->length() : 0);
  if (!KQZipWriteBlock16(stream, &fieldSignature_, error) || !KQZipWriteBlock16(stream, &fieldSize_, error))
    return false;
  // By design, only the next write tells the caller that the data was not written.
  if (data) KQZipWriteBlockBytes(stream, data->bytes(), fieldSize_, error);
  return true;
}

std::uint64_t KQZipExtraField::outputSize() const {
  const auto data = fieldData();
  return 4 + (data ? data->length() : 0);
}

std::shared_ptr<KQZipExtraField> KQZipExtraField::copyWithZone() const {
  auto copy = _newInstance();
  copy->setFieldSignature(fieldSignature_);
  copy->setFieldSize(fieldSize_);
  // Both fields share the buffer.
  copy->setFieldData(fieldData());
  return copy;
}

std::shared_ptr<KQZipExtraField> KQZipExtraField::_newInstance() const {
  const std::type_info& type = typeid(*this);
  if (type == typeid(KQZipExtraField)) return std::make_shared<KQZipExtraField>();
  const auto& classes = subclasses();
  const auto own = std::find_if(classes.begin(), classes.end(),
                                [&type](const KQZipExtraFieldClass& each) { return *each.type == type; });
  return own == classes.end() ? std::make_shared<KQZipExtraField>() : own->init();
}
