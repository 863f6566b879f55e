#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "KQZipLittleEndian.h"

// The layouts of the format's records, for code that has a record's bytes in memory and decodes or encodes
// them in one piece. The record classes read and write the same fields one by one through a stream. Nothing
// here allocates, throws, or reads past the given bytes.

/// Bytes of a record.
using KQZipBytes = std::span<const std::uint8_t>;

/// Room for a record's bytes.
using KQZipRoom = std::span<std::uint8_t>;

/// Bytes of the signature at the start of each record.
inline constexpr std::size_t KQZipSignatureSize = 4;

/// The 32-bit size or offset that refers to the Zip64 field.
inline constexpr std::uint32_t KQZipSaturated32 = 0xFFFFFFFF;

/// The 16-bit count or disk number that refers to a Zip64 record.
inline constexpr std::uint16_t KQZipSaturated16 = 0xFFFF;

/// The value in 16 or 32 bits, saturated if it does not fit.
template <std::unsigned_integral Narrow>
constexpr Narrow KQZipSaturate(std::uint64_t value) {
  return static_cast<Narrow>(value < static_cast<Narrow>(-1) ? value : static_cast<Narrow>(-1));
}

// The parts of fixed length. Each lists its fields once, in the order on disk. The defaults are those that a
// new object of the record's class writes.

/// The local header; the name and the extra fields follow, then the data.
struct KQZipLocalHeaderFields {
  static constexpr std::uint32_t signature = 0x04034b50;  ///< 50 4B 03 04 on disk.
  static constexpr std::size_t size = 30;                 ///< With the signature.

  std::uint16_t versionNeeded = 45;                   ///< Version needed to extract.
  std::uint16_t flags = 0;                            ///< General purpose bit flags.
  std::uint16_t compression = 0;                      ///< Compression method; 0 is stored.
  std::uint16_t modTime = 0;                          ///< MS-DOS time.
  std::uint16_t modDate = 0;                          ///< MS-DOS date.
  std::uint32_t crc32 = 0;                            ///< CRC-32 of the data.
  std::uint32_t compressedSize = KQZipSaturated32;    ///< Bytes of data in the archive.
  std::uint32_t uncompressedSize = KQZipSaturated32;  ///< Bytes of data once unpacked.
  std::uint16_t fileNameLength = 0;                   ///< Bytes of the name.
  std::uint16_t extraFieldLength = 0;                 ///< Bytes of the extra fields.

  /// Calls `visit` with each field.
  template <class Fields, class Visit>
  static constexpr void forEach(Fields& fields, const Visit& visit) {
    visit(fields.versionNeeded);
    visit(fields.flags);
    visit(fields.compression);
    visit(fields.modTime);
    visit(fields.modDate);
    visit(fields.crc32);
    visit(fields.compressedSize);
    visit(fields.uncompressedSize);
    visit(fields.fileNameLength);
    visit(fields.extraFieldLength);
  }

  /// Bytes of the whole header, up to the data.
  std::uint64_t wholeSize() const { return std::uint64_t{size} + fileNameLength + extraFieldLength; }
};

/// The central header; the name, the extra fields and the comment follow.
struct KQZipCentralHeaderFields {
  static constexpr std::uint32_t signature = 0x02014b50;  ///< 50 4B 01 02 on disk.
  static constexpr std::size_t size = 46;                 ///< With the signature.

  std::uint16_t versionMadeBy = 0x031E;               ///< Host system and version; this is Unix, 3.0.
  std::uint16_t versionNeeded = 45;                   ///< Version needed to extract.
  std::uint16_t flags = 0;                            ///< General purpose bit flags.
  std::uint16_t compression = 0;                      ///< Compression method; 0 is stored.
  std::uint16_t modTime = 0;                          ///< MS-DOS time.
  std::uint16_t modDate = 0;                          ///< MS-DOS date.
  std::uint32_t crc32 = 0;                            ///< CRC-32 of the data.
  std::uint32_t compressedSize = KQZipSaturated32;    ///< Bytes of data in the archive.
  std::uint32_t uncompressedSize = KQZipSaturated32;  ///< Bytes of data once unpacked.
  std::uint16_t fileNameLength = 0;                   ///< Bytes of the name.
  std::uint16_t extraFieldLength = 0;                 ///< Bytes of the extra fields.
  std::uint16_t fileCommentLength = 0;                ///< Bytes of the comment.
  std::uint16_t diskNumberStart = 0;                  ///< Disk on which the entry starts.
  std::uint16_t internalFileAttributes = 0;           ///< Internal attributes.
  std::uint32_t externalFileAttributes = 0;           ///< External attributes.
  std::uint32_t offsetOfLocalHeader = 0;              ///< Offset of the local header.

  /// Calls `visit` with each field.
  template <class Fields, class Visit>
  static constexpr void forEach(Fields& fields, const Visit& visit) {
    visit(fields.versionMadeBy);
    visit(fields.versionNeeded);
    visit(fields.flags);
    visit(fields.compression);
    visit(fields.modTime);
    visit(fields.modDate);
    visit(fields.crc32);
    visit(fields.compressedSize);
    visit(fields.uncompressedSize);
    visit(fields.fileNameLength);
    visit(fields.extraFieldLength);
    visit(fields.fileCommentLength);
    visit(fields.diskNumberStart);
    visit(fields.internalFileAttributes);
    visit(fields.externalFileAttributes);
    visit(fields.offsetOfLocalHeader);
  }

  /// Bytes of the whole header, up to the next one.
  std::uint64_t wholeSize() const {
    return std::uint64_t{size} + fileNameLength + extraFieldLength + fileCommentLength;
  }
};

/// The classic end record; the archive's comment follows.
struct KQZipEndRecordFields {
  static constexpr std::uint32_t signature = 0x06054b50;  ///< 50 4B 05 06 on disk.
  static constexpr std::size_t size = 22;                 ///< With the signature.

  std::uint16_t diskNumber = 0;               ///< Number of this disk.
  std::uint16_t diskNumberContainingCD = 0;   ///< Disk on which the directory starts.
  std::uint16_t entriesInCDOnThisDisk = 0;    ///< Central headers on this disk.
  std::uint16_t entriesInCD = 0;              ///< Central headers.
  std::uint32_t sizeOfCD = KQZipSaturated32;  ///< Bytes of the directory.
  std::uint32_t offsetOfCD = 0;               ///< Offset of the first central header.
  std::uint16_t zipFileCommentLength = 0;     ///< Bytes of the comment.

  /// Calls `visit` with each field.
  template <class Fields, class Visit>
  static constexpr void forEach(Fields& fields, const Visit& visit) {
    visit(fields.diskNumber);
    visit(fields.diskNumberContainingCD);
    visit(fields.entriesInCDOnThisDisk);
    visit(fields.entriesInCD);
    visit(fields.sizeOfCD);
    visit(fields.offsetOfCD);
    visit(fields.zipFileCommentLength);
  }
};

/// The Zip64 end record; extensible data may follow.
struct KQZipZip64EndRecordFields {
  static constexpr std::uint32_t signature = 0x06064b50;  ///< 50 4B 06 06 on disk.
  static constexpr std::size_t size = 56;                 ///< With the signature.
  static constexpr std::size_t uncounted = 12;            ///< Bytes that `sizeOfRecord` does not count.

  std::uint64_t sizeOfRecord = size - uncounted;  ///< Bytes after this field, extensible data included.
  std::uint16_t versionMadeBy = 0x031E;           ///< Host system and version; this is Unix, 3.0.
  std::uint16_t versionNeeded = 45;               ///< Version needed to extract.
  std::uint32_t diskNumber = 0;                   ///< Number of this disk.
  std::uint32_t diskNumberContainingCD = 0;       ///< Disk on which the directory starts.
  std::uint64_t entriesInCDOnThisDisk = 0;        ///< Central headers on this disk.
  std::uint64_t entriesInCD = 0;                  ///< Central headers.
  std::uint64_t sizeOfCD = 0;                     ///< Bytes of the directory.
  std::uint64_t offsetOfCD = 0;                   ///< Offset of the first central header.

  /// Calls `visit` with each field.
  template <class Fields, class Visit>
  static constexpr void forEach(Fields& fields, const Visit& visit) {
    visit(fields.sizeOfRecord);
    visit(fields.versionMadeBy);
    visit(fields.versionNeeded);
    visit(fields.diskNumber);
    visit(fields.diskNumberContainingCD);
    visit(fields.entriesInCDOnThisDisk);
    visit(fields.entriesInCD);
    visit(fields.sizeOfCD);
    visit(fields.offsetOfCD);
  }
};

/// The whole Zip64 locator.
struct KQZipZip64LocatorFields {
  static constexpr std::uint32_t signature = 0x07064b50;  ///< 50 4B 06 07 on disk.
  static constexpr std::size_t size = 20;                 ///< With the signature.

  std::uint32_t diskNumberWithStartOfZip64EoCD = 0;  ///< Disk on which the Zip64 end record starts.
  std::uint64_t offsetOfZip64EoCD = 0;               ///< Offset of the Zip64 end record.
  std::uint32_t numberOfDisks = 1;                   ///< Number of disks.

  /// Calls `visit` with each field.
  template <class Fields, class Visit>
  static constexpr void forEach(Fields& fields, const Visit& visit) {
    visit(fields.diskNumberWithStartOfZip64EoCD);
    visit(fields.offsetOfZip64EoCD);
    visit(fields.numberOfDisks);
  }
};

/// Whether the bytes begin with the signature.
inline bool KQZipHasSignature(KQZipBytes bytes, std::uint32_t signature) {
  return bytes.size() >= KQZipSignatureSize && KQZipLoad<std::uint32_t>(bytes.data()) == signature;
}

/// Decodes the fields from the bytes after the signature. False, with the fields unchanged, when there are
/// too few bytes.
template <class Fields>
[[nodiscard]] bool KQZipDecodeAfterSignature(KQZipBytes bytes, Fields* fields) {
  if (bytes.size() < Fields::size - KQZipSignatureSize) return false;
  const std::uint8_t* next = bytes.data();
  Fields::forEach(*fields, [&next]<class Value>(Value& value) {
    value = KQZipLoad<Value>(next);
    next += sizeof(Value);
  });
  return true;
}

/// Decodes the fields from a record's bytes. False, with the fields unchanged, when there are too few bytes
/// or another signature.
template <class Fields>
[[nodiscard]] bool KQZipDecode(KQZipBytes bytes, Fields* fields) {
  return KQZipHasSignature(bytes, Fields::signature) &&
         KQZipDecodeAfterSignature(bytes.subspan(KQZipSignatureSize), fields);
}

/// Encodes signature and fields at the start of the room. False, with nothing written, when the room is too
/// small.
template <class Fields>
bool KQZipEncode(const Fields& fields, KQZipRoom room) {
  if (room.size() < Fields::size) return false;
  KQZipStore(Fields::signature, room.data());
  std::uint8_t* next = room.data() + KQZipSignatureSize;
  Fields::forEach(fields, [&next]<class Value>(const Value& value) {
    KQZipStore(value, next);
    next += sizeof(Value);
  });
  return true;
}

/// The offset of a field from the start of its record, as in `KQZipOffsetOf(&KQZipLocalHeaderFields::flags)`.
template <class Fields, class Wanted>
consteval std::size_t KQZipOffsetOf(Wanted Fields::*field) {
  const Fields fields{};
  const void* const wanted = &(fields.*field);
  std::size_t next = KQZipSignatureSize;
  std::size_t found = 0;
  Fields::forEach(fields, [&]<class Value>(const Value& value) {
    if (static_cast<const void*>(&value) == wanted) found = next;
    next += sizeof(Value);
  });
  return found;
}

/// Iterates over an area of extra fields:
///
///     KQZipExtraFieldWalk walk(area);
///     while (walk.next()) use(walk.identifier(), walk.data());
///     if (!walk.isWhole()) ...
class KQZipExtraFieldWalk {
 public:
  /// Bytes of a field's id and size.
  static constexpr std::size_t fieldHeaderSize = 4;

  /// The bytes that are allowed after the last field.
  enum class Padding {
    None,         ///< Nothing.
    ToThreeBytes  ///< One to three bytes, which are too few for a field; some programs align data with them.
  };

  /// Starts before the first field.
  explicit KQZipExtraFieldWalk(KQZipBytes area) : rest_(area) {}

  /// Moves to the next field. False when no complete field is left.
  bool next();

  /// The field's id.
  std::uint16_t identifier() const { return identifier_; }

  /// The field's data, in the area's own memory.
  KQZipBytes data() const { return data_; }

  /// After the last field: whether the rest of the area is only allowed padding.
  bool isWhole(Padding padding = Padding::None) const {
    return rest_.empty() || (padding == Padding::ToThreeBytes && rest_.size() < fieldHeaderSize);
  }

 private:
  KQZipBytes rest_;
  std::uint16_t identifier_ = 0;
  KQZipBytes data_;
};

/// Finds the data of the first Zip64 field in an area of extra fields; nothing when it has none. Returns
/// whether the area is whole.
bool KQZipFindZip64(KQZipBytes area, std::optional<KQZipBytes>* data);

/// A header's parts of variable length, in the memory of its bytes.
struct KQZipHeaderParts {
  std::string_view name;   ///< The stored bytes of the name.
  KQZipBytes extraFields;  ///< All extra fields.
  KQZipBytes comment;      ///< The comment; none in a local header.
};

/// Finds the parts of a header in the bytes after its fixed part. False, with the parts unchanged, when there
/// are too few of them.
[[nodiscard]] bool KQZipFindParts(const KQZipLocalHeaderFields& header, KQZipBytes bytes,
                                  KQZipHeaderParts* parts);

/// The same for a central header.
[[nodiscard]] bool KQZipFindParts(const KQZipCentralHeaderFields& header, KQZipBytes bytes,
                                  KQZipHeaderParts* parts);

/// The values of Zip64 extended information.
struct KQZipZip64Values {
  static constexpr std::uint16_t identifier = 1;          ///< The field's id.
  static constexpr std::size_t width = 8;                 ///< Bytes of each value.
  static constexpr std::size_t dataSize = 3 * width;      ///< Bytes of data with all three.
  static constexpr std::size_t fieldSize = 4 + dataSize;  ///< Bytes of the field as the library writes it.

  std::uint64_t uncompressedSize = 0;     ///< Bytes of data once unpacked.
  std::uint64_t compressedSize = 0;       ///< Bytes of data in the archive.
  std::uint64_t offsetOfLocalHeader = 0;  ///< Offset of the local header.
};

/// Decodes the values as the library's own classes do: all three in fixed order, whichever 32-bit fields of
/// the header are saturated. If only a part of a value's bytes is there, they are its lowest; the other bytes
/// are unchanged. Further data is ignored.
void KQZipDecodeZip64InOrder(KQZipBytes data, KQZipZip64Values* values);

/// Encodes the data of a field, all three values.
void KQZipEncodeZip64Data(const KQZipZip64Values& values,
                          std::span<std::uint8_t, KQZipZip64Values::dataSize> room);

/// Encodes a whole field with all three values.
void KQZipEncodeZip64Field(const KQZipZip64Values& values,
                           std::span<std::uint8_t, KQZipZip64Values::fieldSize> room);

/// The values of a header, those of its Zip64 field included.
struct KQZipWideValues {
  std::uint64_t uncompressedSize = 0;     ///< Bytes of data once unpacked.
  std::uint64_t compressedSize = 0;       ///< Bytes of data in the archive.
  std::uint64_t offsetOfLocalHeader = 0;  ///< Offset of the local header; 0 from a local header.
  std::uint32_t diskNumberStart = 0;      ///< Disk on which the entry starts; 0 from a local header.

  /// False when a saturated field has no value in the Zip64 field; it then keeps its own.
  bool isComplete = true;
};

/// Decodes the values by the rule of the format: the data of the Zip64 field has values only for the
/// saturated fields of the header. Without data every field keeps its own value.
KQZipWideValues KQZipWiden(const KQZipLocalHeaderFields& header, KQZipBytes zip64Data);

/// The same for a central header.
KQZipWideValues KQZipWiden(const KQZipCentralHeaderFields& header, KQZipBytes zip64Data);
