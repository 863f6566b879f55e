#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string_view>
#include <vector>

/// What the answers of a reader need of an entry.
struct KQZipTableEntry {
  std::uint64_t dataOffset = 0;     ///< Position in the archive of the first byte of data.
  std::uint64_t dataLength = 0;     ///< Bytes of data.
  const char* nameBytes = nullptr;  ///< The name, in the table's memory.
  std::uint16_t nameLength = 0;     ///< Bytes of the name.
  std::uint16_t modTime = 0;        ///< MS-DOS time.
  std::uint16_t modDate = 0;        ///< MS-DOS date.
  bool isReplaced = false;          ///< Whether a later entry has the same name.

  /// The entry's name.
  std::string_view name() const { return {nameBytes, nameLength}; }
};

/// The entries of an archive, by name. They are added one after the other, then the table is finished; from
/// then on it does not change, and any number of threads may ask it. A million entries take little more than
/// their names: nothing is allocated for each.
class KQZipEntryTable {
 public:
  /// Adds an entry and copies its name, which has at most 65,535 bytes.
  void add(std::string_view name, KQZipTableEntry entry);

  /// Makes the entries ready to be found. Of several with one name the last counts.
  void finish();

  /// The entry of that name, byte for byte; null when there is none.
  const KQZipTableEntry* find(std::string_view name) const;

  /// All entries in the order in which they were added, the replaced ones too.
  const std::deque<KQZipTableEntry>& entries() const { return entries_; }

 private:
  std::size_t _slotOf(std::string_view name) const;
  const char* _keep(std::string_view name);

  // A deque, because a vector that grows to millions moves all of them again and again.
  std::deque<KQZipTableEntry> entries_;
  // The names, in blocks, and what is left of the last one.
  std::vector<std::unique_ptr<char[]>> names_;
  char* room_ = nullptr;
  std::size_t roomLength_ = 0;
  // A hash table: an entry is in the slot of its name's hash or in one of the next, without a gap. Their
  // number is a power of 2.
  std::vector<KQZipTableEntry*> slots_;
};
