#include "KQZipExtraField.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "KQZipStreamPrimitives.h"

KQZipExtraField::~KQZipExtraField() = default;

bool KQZipExtraField::isValidForIdentifier(std::uint16_t /*identifier*/) { return false; }

std::shared_ptr<KQZipExtraField> KQZipExtraField::extraFieldWithStream(KQ::NSInputStream& stream,
                                                                       KQ::NSErrorSlot error) {
  return _extraFieldWithStream(KQZipExtraFieldClass::of<KQZipExtraField>(), stream, error);
}

std::shared_ptr<KQZipExtraField> KQZipExtraField::_extraFieldWithStream(const KQZipExtraFieldClass& receiver,
                                                                        KQ::NSInputStream& stream,
                                                                        KQ::NSErrorSlot error) {
  const std::uint64_t start = stream.NSStreamFileCurrentOffsetKey().value_or(0);
  std::uint16_t identifier = 0;
  if (!KQZipReadBlock16(stream, &identifier, error)) return nullptr;
  // The class's own parse reads the id again. That the stream moves back is relied on, not checked.
  stream.setNSStreamFileCurrentOffsetKey(start);

  const auto& classes = subclasses();
  const auto claiming = std::find_if(
      classes.begin(), classes.end(),
      [identifier](const KQZipExtraFieldClass& each) { return each.isValidForIdentifier(identifier); });
  auto field = claiming == classes.end() ? receiver.init() : claiming->init();
  return field->parseFromStream(stream, error) ? field : nullptr;
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
  // What the stream does not deliver reads as zeros, never as what the stack held.
  std::memset(bytes.data(), 0, fieldSize_);
  if (!KQZipReadBlockBytes(stream, bytes.data(), fieldSize_, error)) return false;
  _setFieldData(KQZipFieldData(bytes.data(), fieldSize_));
  return true;
}

bool KQZipExtraField::writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error) {
  const KQZipFieldData data = _fieldData();
  fieldSize_ = static_cast<std::uint16_t>(data.length());
  if (!KQZipWriteBlock16(stream, &fieldSignature_, error) || !KQZipWriteBlock16(stream, &fieldSize_, error))
    return false;
  // Meant: only the next write tells the caller that the data could not be written.
  KQZipWriteBlockBytes(stream, data.bytes(), fieldSize_, error);
  return true;
}

std::uint64_t KQZipExtraField::outputSize() const { return 4 + _fieldData().length(); }

std::shared_ptr<KQZipExtraField> KQZipExtraField::copyWithZone() const {
  auto copy = _newInstance();
  copy->setFieldSignature(fieldSignature_);
  copy->setFieldSize(fieldSize_);
  // The buffer itself, so that both have the same one.
  copy->setFieldData(fieldData());
  return copy;
}

std::shared_ptr<KQZipExtraField> KQZipExtraField::_newInstance() const {
  return std::make_shared<KQZipExtraField>();
}
