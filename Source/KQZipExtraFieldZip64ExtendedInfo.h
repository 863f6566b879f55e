#pragma once

#include <cstdint>
#include <memory>

#include "KQZipExtraField.h"

/// The Zip64 extended information field, id 1: the two sizes and the local header's offset in 64 bits. Every
/// entry that the library writes has one. The three values are authoritative; fieldData() and fieldSize()
/// describe the bytes of the last parse or write.
class KQZIP_EXPORT KQZipExtraFieldZip64ExtendedInfo : public KQZipExtraField {
 public:
  /// The field's id.
  static constexpr std::uint16_t identifier = 1;

  /// A field with id 1 and all three values 0.
  KQZipExtraFieldZip64ExtendedInfo();

  /// True for id 1 only.
  static bool isValidForIdentifier(std::uint16_t candidate);

  /// KQZipExtraField::extraFieldWithStream(), with this class for ids that no registered class reads.
  static std::shared_ptr<KQZipExtraField> extraFieldWithStream(KQ::NSInputStream& stream,
                                                               KQ::NSErrorSlot error = nullptr);

  /// A field parsed from `stream`, or nothing on failure.
  static std::shared_ptr<KQZipExtraFieldZip64ExtendedInfo> initWithStream(KQ::NSInputStream& stream,
                                                                          KQ::NSErrorSlot error = nullptr);

  /// Reads the field, then the values from its data: uncompressed size, compressed size, offset. By design
  /// this order is fixed and does not depend on which of the header's 32-bit fields are saturated. A value
  /// without data is unchanged. Data after the third value is ignored.
  bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr) override;

  /// Writes all three values, 28 bytes with the field's header, whatever the last parse read.
  bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr) override;

  /// Always 28.
  std::uint64_t outputSize() const override { return 28; }

  /// The generic copy and the three values.
  std::shared_ptr<KQZipExtraField> copyWithZone() const override;

  /// Uncompressed size of the entry's data in bytes.
  std::uint64_t uncompressedSize() const { return uncompressedSize_; }
  void setUncompressedSize(std::uint64_t value) { uncompressedSize_ = value; }

  /// Compressed size of the entry's data in bytes; the same, because nothing is compressed.
  std::uint64_t compressedSize() const { return compressedSize_; }
  void setCompressedSize(std::uint64_t value) { compressedSize_ = value; }

  /// Offset of the entry's local header from the start of the archive.
  std::uint64_t offsetOfLocalHeaderRecord() const { return offsetOfLocalHeaderRecord_; }
  void setOffsetOfLocalHeaderRecord(std::uint64_t value) { offsetOfLocalHeaderRecord_ = value; }

 protected:
  std::shared_ptr<KQZipExtraField> _newInstance() const override;

 private:
  std::uint64_t uncompressedSize_ = 0;
  std::uint64_t compressedSize_ = 0;
  std::uint64_t offsetOfLocalHeaderRecord_ = 0;
};
