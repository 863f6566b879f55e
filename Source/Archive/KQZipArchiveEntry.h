#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

#include "../Platform/KQExport.h"
#include "../Platform/NSCalendar.h"

struct KQZipArchiveState;

/// What an entry becomes when it is given back.
enum class KQZipEntryKind : std::uint8_t {
  File,    ///< A regular file.
  Folder,  ///< A folder: its name ends in "/".
  Link     ///< A symbolic link, whose target is the data.
};

/// What an archive says of one of its entries. It is a view: as cheap to copy as a pointer, and valid as long
/// as the archive that it came from. Nothing here reads the archive. Any thread may ask.
class KQZIP_EXPORT KQZipArchiveEntry {
 public:
  /// An entry comes from KQZipArchive::entries() or find().
  KQZipArchiveEntry(const KQZipArchiveState& archive, std::uint32_t index)
      : archive_(&archive), index_(index) {}

  /// The name, with "/" between its parts and never normalised. It is UTF-8 if the archive says so, or has it
  /// in its Unicode path field, or if its bytes are valid UTF-8; other bytes are taken for code page 437, so
  /// that every name is valid UTF-8.
  std::string name() const;

  /// The bytes of the name as they stand in the archive.
  std::string_view storedName() const;

  /// File, folder or link.
  KQZipEntryKind kind() const;
  bool isFolder() const { return kind() == KQZipEntryKind::Folder; }  ///< Short for the kind.
  bool isLink() const { return kind() == KQZipEntryKind::Link; }      ///< Short for the kind.

  /// Bytes of data in the archive.
  std::uint64_t length() const;

  /// Bytes of data once it is unpacked; length() for an entry that is stored.
  std::uint64_t uncompressedLength() const;

  /// CRC-32 of the unpacked data.
  std::uint32_t crc32() const;

  /// When the contents were last changed: what the 64-bit time field 0x000A says, else the field 0x5455, else
  /// the MS-DOS date, which is local time.
  KQ::NSDate modificationDate() const;

  /// Unix's permission bits, the lowest nine; nothing when the archive has none for the entry.
  std::optional<std::uint16_t> permissions() const;

  /// The compression method; 0 is stored.
  std::uint16_t method() const;
  bool isCompressed() const { return method() != 0; }  ///< Then it is listed, and cannot be given back.

  /// The general purpose flags.
  std::uint16_t flags() const;
  bool isEncrypted() const { return (flags() & 1U) != 0; }        ///< Then it cannot be given back.
  bool hasDataDescriptor() const { return (flags() & 8U) != 0; }  ///< Its lengths follow its data.

  /// Offset of the local header from the archive's first byte.
  std::uint64_t localHeaderOffset() const;

  /// The place among the archive's records. It tells entries of one archive apart.
  std::uint32_t index() const { return index_; }

 private:
  const KQZipArchiveState* archive_;
  std::uint32_t index_;
};

/// The entries of an archive, in its directory's order, to go over with `for`. Valid as long as the archive.
class KQZIP_EXPORT KQZipArchiveEntries {
 public:
  /// Goes from entry to entry.
  class KQZIP_EXPORT Iterator {
   public:
    using iterator_category = std::input_iterator_tag;  ///< For the standard algorithms.
    using value_type = KQZipArchiveEntry;               ///< For the standard algorithms.
    using difference_type = std::ptrdiff_t;             ///< For the standard algorithms.
    using pointer = const KQZipArchiveEntry*;           ///< For the standard algorithms.
    using reference = KQZipArchiveEntry;                ///< For the standard algorithms.

    /// Stands at the first entry that counts, from `index` on.
    Iterator(const KQZipArchiveState* archive, std::uint32_t index);

    KQZipArchiveEntry operator*() const { return {*archive_, index_}; }  ///< The entry.
    Iterator& operator++();                                              ///< Moves to the next one.
    Iterator operator++(int) {                                           ///< Moves to the next one.
      const Iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const Iterator& other) const { return index_ == other.index_; }  ///< The same place.

   private:
    KQZIP_HIDDEN void _passOver();

    const KQZipArchiveState* archive_;
    std::uint32_t index_;
  };

  /// Comes from KQZipArchive::entries().
  explicit KQZipArchiveEntries(const KQZipArchiveState& archive) : archive_(&archive) {}

  Iterator begin() const { return {archive_, 0}; }  ///< The first entry.
  Iterator end() const;                             ///< After the last one.
  std::size_t size() const;                         ///< How many there are.
  bool empty() const { return size() == 0; }        ///< Whether there is none.

 private:
  const KQZipArchiveState* archive_;
};
