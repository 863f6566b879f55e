#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KQZipHeaderCodec.h"

// What is kept in memory of each entry of an archive. For the library's own use.

/// An entry. There can be millions, so each bit has a reason.
struct KQZipIndexRecord {
  /// How `date` is to be read.
  enum Date : unsigned { MSDOS, Seconds, Kept };
  /// How the name's bytes are to be read.
  enum Name : unsigned { UTF8, CodePage437, Unicode };
  /// What the entry becomes; in the order of KQZipEntryKind.
  enum Kind : unsigned { File, Folder, Link };

  std::uint64_t localHeaderAt = 0;       ///< Offset of the local header.
  std::uint64_t length = 0;              ///< Bytes of data.
  std::uint64_t uncompressedLength = 0;  ///< Bytes of data once unpacked.
  std::uint64_t nameAt : 48 = 0;         ///< Where the index keeps the name.
  std::uint64_t nameLength : 16 = 0;     ///< Bytes of the stored name.
  std::uint32_t crc32 = 0;               ///< CRC-32 of the unpacked data.
  std::uint32_t date = 0;                ///< MS-DOS date and time, or seconds since 1970, signed.
  std::uint16_t method = 0;              ///< Compression method.
  std::uint16_t flags = 0;               ///< General purpose flags.
  std::uint16_t mode = 0;                ///< Unix's mode; 0 where there is none.

  unsigned dateForm : 2 = MSDOS;       ///< One of Date; Kept: a 64-bit number follows the name.
  unsigned nameForm : 2 = UTF8;        ///< One of Name; Unicode: another name follows the stored one.
  unsigned kind : 2 = File;            ///< One of Kind.
  unsigned isShadowed : 1 = 0;         ///< A later entry has the same name.
  unsigned isOverlapping : 1 = 0;      ///< Bytes of its own belong to something else, too.
  unsigned isOnOtherPart : 1 = 0;      ///< It starts on another part of a split archive.
  unsigned isOutside : 1 = 0;          ///< Its data would end after the archive's entries.
  unsigned isNoEntry : 1 = 0;          ///< Its name alone is known, for a problem to show.
  unsigned isUnclaimed : 1 = 0;        ///< No header of its own is where it says; its offset is the largest.
  unsigned isIncomplete : 1 = 0;       ///< A saturated field has no value in the Zip64 field.
  unsigned hasBadExtraFields : 1 = 0;  ///< The extra fields do not fill their area.
};

/// What a header says of an entry, on its way into the index.
struct KQZipIndexEntry {
  KQZipIndexRecord record;       ///< All but what concerns the name and a kept date.
  std::string_view storedName;   ///< The bytes of the name.
  std::string_view unicodeName;  ///< From the Unicode path field, if it counts.
  std::int64_t keptDate = 0;     ///< Nanoseconds since 1970, if the record's `dateForm` is Kept.
};

/// The entries of an archive in the order in which they were added, and their names.
class KQZipArchiveIndex {
 public:
  /// Adds an entry. False when there are as many as an index can have.
  bool add(const KQZipIndexEntry& entry);

  /// Makes the last one no entry: its name is kept for a problem to show.
  void takeBackLast() {
    (*this)[size_ - 1].isNoEntry = 1;
    ++leftOut_;
  }

  /// How many entries there are.
  std::uint32_t size() const { return size_; }
  /// How many of them count: of several with one name the last.
  std::uint32_t sizeOfCounting() const { return size_ - leftOut_; }
  /// Whether an entry counts.
  bool counts(std::uint32_t index) const {
    const KQZipIndexRecord& record = (*this)[index];
    return record.isShadowed == 0 && record.isNoEntry == 0;
  }

  /// An entry.
  const KQZipIndexRecord& operator[](std::uint32_t index) const {
    return blocks_[index / recordsInBlock][index % recordsInBlock];
  }
  /// An entry that is still to be completed.
  KQZipIndexRecord& operator[](std::uint32_t index) {
    return blocks_[index / recordsInBlock][index % recordsInBlock];
  }

  /// The bytes of the name as stored.
  std::string_view storedName(const KQZipIndexRecord& record) const;
  /// The name in UTF-8: where it is stored, or made in `room`.
  std::string_view name(const KQZipIndexRecord& record, std::string& room) const;
  /// The date that follows the name of a record whose date is kept, in nanoseconds since 1970.
  std::int64_t keptDate(const KQZipIndexRecord& record) const;

  /// Marks of several entries with the same name all but the last, and entries that share bytes. To be called
  /// once, after the last add(). `end` is where the entries end.
  void settle(std::uint64_t end);

  /// Marks the entries that share bytes anew, after some were found to have none of their own.
  void markOverlaps(std::uint64_t end);

  /// The entry that counts of those with the name. Any thread.
  std::optional<std::uint32_t> find(std::string_view name) const;

  /// The last entry with the name of this one. It is the same one if it counts.
  std::uint32_t lastWithNameOf(std::uint32_t index) const;

  /// The entries in the order of their local headers, at equal ones in their own. Any thread.
  std::uint32_t inOrder(std::uint32_t place) const { return order_.empty() ? place : order_[place]; }

  /// The offset of the next local header after that of the entry at `place` in this order; `end` for the
  /// last one.
  std::uint64_t nextAfter(std::uint32_t place, std::uint64_t end) const {
    if (place + 1 >= size_) return end;
    const std::uint64_t next = (*this)[inOrder(place + 1)].localHeaderAt;
    return next < end ? next : end;
  }

  /// Where in this order the entry stands.
  std::uint32_t placeOf(std::uint32_t index) const;

 private:
  static constexpr std::uint32_t recordsInBlock = 512;
  static constexpr std::uint64_t nameBytesInBlock = std::uint64_t{1} << 18;
  static constexpr std::uint32_t none = 0xFFFFFFFF;

  char* _roomForName(std::uint64_t length, std::uint64_t* at);
  const char* _nameAt(std::uint64_t at) const;
  std::uint64_t _bytesAfterName(const KQZipIndexRecord& record) const;
  bool _namesAscend() const;
  void _makeTable(std::vector<std::uint32_t>* shadowed) const;
  void _markShadowed();
  std::uint32_t* _slotOf(std::string_view canonicalName) const;
  void _putInOrder();

  std::vector<std::unique_ptr<KQZipIndexRecord[]>> blocks_;
  std::uint32_t size_ = 0;
  std::uint32_t leftOut_ = 0;

  // A name never crosses from one block to the next.
  std::vector<std::unique_ptr<char[]>> nameBlocks_;
  std::uint64_t namesEnd_ = 0;
  std::uint64_t roomEnd_ = 0;

  // Entries by name, in open addressing, made when a name is first looked for. Two slots for an entry.
  mutable std::once_flag tableMade_;
  mutable std::vector<std::uint32_t> table_;

  // Empty where the entries stand in the order of their headers.
  std::vector<std::uint32_t> order_;
};
