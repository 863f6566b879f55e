#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "Platform/KQExport.h"
#include "Platform/NSAtomicProperty.h"
#include "Platform/NSData.h"
#include "Platform/NSError.h"
#include "Platform/NSStream.h"

class KQZipExtraField;

/// A class with an isValidForIdentifier() of its own, and not just the one that it inherits from
/// KQZipExtraField, which accepts no id.
template <class Field, class Base = KQZipExtraField>
concept KQZipHasIdentifierTest = std::is_base_of_v<Base, Field> &&
    !std::is_same_v<std::integral_constant<bool (*)(std::uint16_t), &Field::isValidForIdentifier>,
                    std::integral_constant<bool (*)(std::uint16_t), &Base::isValidForIdentifier>>;

/// A class of extra fields, as the registry keeps it.
struct KQZipExtraFieldClass {
  const std::type_info* type;                   ///< The class.
  bool (*isValidForIdentifier)(std::uint16_t);  ///< Whether the class reads fields with this id.
  std::shared_ptr<KQZipExtraField> (*init)();   ///< Makes an object with the class's defaults.

  /// The entry for `Field`, a class derived from KQZipExtraField. It has a default constructor and a static
  /// `bool isValidForIdentifier(std::uint16_t)` of its own, without which this does not compile.
  template <KQZipHasIdentifierTest Field>
  static KQZipExtraFieldClass of() {
    return {&typeid(Field), &Field::isValidForIdentifier,
            []() -> std::shared_ptr<KQZipExtraField> { return std::make_shared<Field>(); }};
  }

  /// A field of this class parsed from `stream`, whatever its id; nothing when the parse fails. The class
  /// need not be registered.
  KQZIP_EXPORT std::shared_ptr<KQZipExtraField> initWithStream(KQ::NSInputStream& stream,
                                                               KQ::NSErrorSlot error = nullptr) const;

  /// KQZipExtraField::extraFieldWithStream(), with this class for ids that no registered class reads.
  KQZIP_EXPORT std::shared_ptr<KQZipExtraField> extraFieldWithStream(KQ::NSInputStream& stream,
                                                                     KQ::NSErrorSlot error = nullptr) const;
};

/// An extra field of any kind. It keeps the id and the raw data and writes them unchanged. The class also has
/// the registry of its subclasses, and the factory that reads the next field of a header as an object of the
/// right class.
///
/// A field is used by one thread at a time, except fieldData(). Every parse reads the registry: register
/// classes before the first archive is opened.
class KQZIP_EXPORT KQZipExtraField {
 public:
  /// A field with id 0, size 0 and no data.
  KQZipExtraField() = default;
  virtual ~KQZipExtraField();
  KQZipExtraField(const KQZipExtraField&) = delete;             ///< See copyWithZone().
  KQZipExtraField& operator=(const KQZipExtraField&) = delete;  ///< See copyWithZone().

  /// Appends a class to the registry, unless it is already there. Classes are tried in the order of
  /// registration and cannot be removed. The library's own class, for Zip64, is always the first.
  static void registerSubclass(const KQZipExtraFieldClass& subclass);

  /// registerSubclass() for the class `Field`, which has its own isValidForIdentifier().
  template <KQZipHasIdentifierTest Field>
  static void registerSubclass() {
    registerSubclass(KQZipExtraFieldClass::of<Field>());
  }

  /// The registered classes, in the order of registration.
  static const std::vector<KQZipExtraFieldClass>& subclasses();

  /// Whether the class reads fields with this id. The generic class reads none.
  static bool isValidForIdentifier(std::uint16_t identifier);

  /// Reads the next field (id, size and data) as an object of the first registered class that reads its id,
  /// or else as a plain KQZipExtraField. Nothing when a read fails, with the read's error in the slot. The id
  /// is read twice, so the stream must be able to set its offset. If it cannot, that is not detected, and the
  /// field is read two bytes too late. A class of a host inherits this operation as it is: an id that no
  /// class reads gives a plain field. For its own class see KQZipExtraFieldClass::extraFieldWithStream().
  static std::shared_ptr<KQZipExtraField> extraFieldWithStream(KQ::NSInputStream& stream,
                                                               KQ::NSErrorSlot error = nullptr);

  /// A plain field parsed from `stream`, whatever its id; nothing when the parse fails. A class of a host
  /// inherits this operation as it is: it makes a plain field. For its own class see
  /// KQZipExtraFieldClass::initWithStream().
  static std::shared_ptr<KQZipExtraField> initWithStream(KQ::NSInputStream& stream,
                                                         KQ::NSErrorSlot error = nullptr);

  /// Reads id, size and data. When the stream ends inside the data, the missing bytes are zeros and the parse
  /// succeeds. When the parse fails, fieldData() is unchanged; id and size have the bytes that were read.
  virtual bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Sets fieldSize() to the data's length modulo 65,536 and writes id, size and that many bytes of data. By
  /// design, a failure to write the data is not reported here; it shows at the next write.
  virtual bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// 4 and the data's full length, even if a write truncates it.
  virtual std::uint64_t outputSize() const;

  /// A new field of the same class with the same id and size. Both share the data. The class must be
  /// registered or override _newInstance(); otherwise the copy is a plain field. A subclass with values of
  /// its own overrides this and copies them.
  virtual std::shared_ptr<KQZipExtraField> copyWithZone() const;

  /// The field's id.
  std::uint16_t fieldSignature() const { return fieldSignature_; }
  void setFieldSignature(std::uint16_t value) { fieldSignature_ = value; }

  /// Bytes of data after the field's 4-byte header, as last parsed or written.
  std::uint16_t fieldSize() const { return fieldSize_; }
  void setFieldSize(std::uint16_t value) { fieldSize_ = value; }

  /// The field's data, or empty. Atomic.
  std::shared_ptr<const KQ::NSData> fieldData() const { return fieldData_.get(); }
  void setFieldData(std::shared_ptr<const KQ::NSData> value) { fieldData_.set(std::move(value)); }

 protected:
  /// extraFieldWithStream(), with `receiver` as the class for ids that no registered class reads.
  static std::shared_ptr<KQZipExtraField> _extraFieldWithStream(const KQZipExtraFieldClass& receiver,
                                                                KQ::NSInputStream& stream,
                                                                KQ::NSErrorSlot error);

  /// An object of the receiver's own class with its defaults, from which copyWithZone() starts. For a
  /// registered class, the registry makes it; another class overrides this.
  virtual std::shared_ptr<KQZipExtraField> _newInstance() const;

 private:
  friend struct KQZipExtraFieldClass;

  std::uint16_t fieldSignature_ = 0;
  std::uint16_t fieldSize_ = 0;
  KQ::NSAtomicProperty<std::shared_ptr<const KQ::NSData>> fieldData_;
};
