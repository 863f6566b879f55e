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

/// What tells a class that says which ids it reads from one that inherits KQZipExtraField's answer, which is
/// none.
template <class Field, class Base = KQZipExtraField>
concept KQZipHasIdentifierTest = std::is_base_of_v<Base, Field> &&
    !std::is_same_v<std::integral_constant<bool (*)(std::uint16_t), &Field::isValidForIdentifier>,
                    std::integral_constant<bool (*)(std::uint16_t), &Base::isValidForIdentifier>>;

/// A class of extra fields as the registry knows it.
struct KQZipExtraFieldClass {
  const std::type_info* type;                   ///< Tells classes apart.
  bool (*isValidForIdentifier)(std::uint16_t);  ///< Whether the class reads fields with this id.
  std::shared_ptr<KQZipExtraField> (*init)();   ///< Makes an object with the class's defaults.

  /// The entry for `Field`, a class derived from KQZipExtraField with a default constructor and a static
  /// `bool isValidForIdentifier(std::uint16_t)` of its own; without one it does not compile.
  template <KQZipHasIdentifierTest Field>
  static KQZipExtraFieldClass of() {
    return {&typeid(Field), &Field::isValidForIdentifier,
            []() -> std::shared_ptr<KQZipExtraField> { return std::make_shared<Field>(); }};
  }

  /// A field of this class parsed from `stream`, whatever its id, or nothing. The class need not be
  /// registered.
  KQZIP_EXPORT std::shared_ptr<KQZipExtraField> initWithStream(KQ::NSInputStream& stream,
                                                               KQ::NSErrorSlot error = nullptr) const;

  /// KQZipExtraField::extraFieldWithStream() with this class for ids that no registered class claims.
  KQZIP_EXPORT std::shared_ptr<KQZipExtraField> extraFieldWithStream(KQ::NSInputStream& stream,
                                                                     KQ::NSErrorSlot error = nullptr) const;
};

/// An extra field of any kind: it keeps its id and its raw data and writes them back unchanged. The class
/// also owns the registry of its specialised subclasses and the factory that reads the next field of a header
/// as an object of the right class.
///
/// A field is used by one thread at a time, but for fieldData(). The registry is read by every parse:
/// register before the first archive is opened.
class KQZIP_EXPORT KQZipExtraField {
 public:
  /// A field with id 0, size 0 and no data.
  KQZipExtraField() = default;
  virtual ~KQZipExtraField();
  KQZipExtraField(const KQZipExtraField&) = delete;             ///< See copyWithZone().
  KQZipExtraField& operator=(const KQZipExtraField&) = delete;  ///< See copyWithZone().

  /// Appends a class to the registry unless it is already there. Classes are asked in the order of their
  /// registration and cannot be removed; the library's own, for Zip64, is always the first.
  static void registerSubclass(const KQZipExtraFieldClass& subclass);

  /// registerSubclass() for the class `Field`, which has a test of its own for ids.
  template <KQZipHasIdentifierTest Field>
  static void registerSubclass() {
    registerSubclass(KQZipExtraFieldClass::of<Field>());
  }

  /// The registered classes in the order of their registration.
  static const std::vector<KQZipExtraFieldClass>& subclasses();

  /// Whether the class reads fields with this id. The generic class claims none.
  static bool isValidForIdentifier(std::uint16_t identifier);

  /// Reads the next field, id, size and data, as an object of the first registered class that claims its
  /// id, else as a plain KQZipExtraField. Nothing when a read fails; the slot then holds what the read left.
  /// The stream must be able to set its offset: the id is read twice. One that cannot is not detected, and
  /// its field is then read two bytes late. As inherited by a class of a host it makes a plain field for ids
  /// that no class claims too; KQZipExtraFieldClass has the operation for that class.
  static std::shared_ptr<KQZipExtraField> extraFieldWithStream(KQ::NSInputStream& stream,
                                                               KQ::NSErrorSlot error = nullptr);

  /// A generic field parsed from `stream`, whatever its id, or nothing. A generic field also as inherited by
  /// a class of a host; KQZipExtraFieldClass has the operation for that class.
  static std::shared_ptr<KQZipExtraField> initWithStream(KQ::NSInputStream& stream,
                                                         KQ::NSErrorSlot error = nullptr);

  /// Reads id, size and data. When the stream ends inside the data, the missing bytes are zeros and the parse
  /// succeeds. When it fails, fieldData() is as before and the id and the size are as far as they were read.
  virtual bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Sets fieldSize() to the data's length modulo 65,536 and writes id, size and that many bytes of data. A
  /// failure to write the data is not reported here, which is meant: it shows at the next write.
  virtual bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// 4 and the data's full length, even where a write would cut it.
  virtual std::uint64_t outputSize() const;

  /// A new field of the same class with the same id and size, which shares the data. The class is registered
  /// or overrides _newInstance(); the copy of another is a plain field. A subclass with values of its own
  /// copies them in an override.
  virtual std::shared_ptr<KQZipExtraField> copyWithZone() const;

  /// The field's id.
  std::uint16_t fieldSignature() const { return fieldSignature_; }
  void setFieldSignature(std::uint16_t value) { fieldSignature_ = value; }

  /// Bytes of data behind the field's 4-byte header, as last parsed or written.
  std::uint16_t fieldSize() const { return fieldSize_; }
  void setFieldSize(std::uint16_t value) { fieldSize_ = value; }

  /// The field's data, empty when there is none. Atomic.
  std::shared_ptr<const KQ::NSData> fieldData() const { return fieldData_.get(); }
  void setFieldData(std::shared_ptr<const KQ::NSData> value) { fieldData_.set(std::move(value)); }

 protected:
  /// extraFieldWithStream() with `receiver` as the class for ids that no registered class claims.
  static std::shared_ptr<KQZipExtraField> _extraFieldWithStream(const KQZipExtraFieldClass& receiver,
                                                                KQ::NSInputStream& stream,
                                                                KQ::NSErrorSlot error);

  /// An object of the receiver's own class with its defaults; copyWithZone() starts from it. A registered
  /// class is made as the registry makes it, another one overrides this.
  virtual std::shared_ptr<KQZipExtraField> _newInstance() const;

 private:
  friend struct KQZipExtraFieldClass;

  std::uint16_t fieldSignature_ = 0;
  std::uint16_t fieldSize_ = 0;
  KQ::NSAtomicProperty<std::shared_ptr<const KQ::NSData>> fieldData_;
};
