#pragma once

#include <cstdint>
#include <string_view>

#include "../Archive/KQZipPackingOptions.h"
#include "KQZipEndRecords.h"
#include "KQZipPackingEntries.h"

/// The headers of packed entries, in one form or the other. Any thread may use it. For the library's own use.
class KQZipRecordForm {
 public:
  explicit KQZipRecordForm(KQZipForm form) : isExact_(form == KQZipForm::Exact) {}

  /// Bytes of the local header. The entry's name, kind and time are known.
  std::uint64_t sizeOfLocalHeader(const KQZipPackingEntry& entry) const;

  /// Bytes of the central header.
  std::uint64_t sizeOfCentralHeader(const KQZipPackingEntry& entry) const;

  /// No central header takes more.
  static constexpr std::uint64_t largestHeader = 46 + 0xFFFF + 28 + 36;

  /// Takes over the time as the old field says it.
  void setTime(KQZipPackingEntry* entry) const;

  /// Writes the local header with all that the entry says, its offset as it stands included.
  void encodeLocalHeader(const KQZipPackingEntry& entry, std::uint8_t* room) const;

  /// Changes the offset in a local header.
  static void setOffset(const KQZipPackingEntry& entry, std::uint8_t* localHeader);

  /// Writes the central header.
  void encodeCentralHeader(const KQZipPackingEntry& entry, std::uint8_t* room) const;

  /// The three records at the end.
  KQZipEndRecords::Bytes encode(const KQZipEndRecords& records) const;

 private:
  std::uint16_t _sizeOfExtraFields(const KQZipPackingEntry& entry) const;
  std::uint16_t _flags(std::string_view name) const;
  void _encodeNameAndFields(const KQZipPackingEntry& entry, std::uint8_t* room) const;
  std::uint32_t _externalAttributes(const KQZipPackingEntry& entry) const;

  bool isExact_;
};
