#pragma once

#include <cstdint>
#include <string_view>

#include "KQZipArchiveIndex.h"
#include "KQZipHeaderCodec.h"

// What the two headers of an entry say, taken together from their fields and extra fields. For the library's
// own use.

/// A local header.
struct KQZipLocalHeader {
  KQZipLocalHeaderFields fields;  ///< The part of fixed length.
  std::string_view name;          ///< The bytes of the name, in the memory that was decoded.
  KQZipBytes extraFields;         ///< The area of the extra fields, in the same memory.
  KQZipBytes zip64;        ///< The data of the Zip64 field, in the same memory; empty if there is none.
  KQZipWideValues values;  ///< The lengths.

  /// Decodes one from the first of the bytes. False when it is none, or not there to its end.
  bool decode(KQZipBytes bytes);

  /// Whether it can be one as it stands, as far as that shows: the lengths of stored data are equal, the
  /// extra fields fill their area, and Zip64 values are there where they have to be.
  bool isPlausible() const;

  /// Whether its lengths follow its data, and it says nothing of them.
  bool leavesLengthsToDescriptor() const {
    return (fields.flags & 8U) != 0 && values.compressedSize == 0 && values.uncompressedSize == 0;
  }
};

/// A central header.
struct KQZipCentralHeader {
  KQZipCentralHeaderFields fields;  ///< The part of fixed length.
  std::string_view name;            ///< The bytes of the name, in the memory that was decoded.
  KQZipBytes extraFields;           ///< The area of the extra fields, in the same memory.
  KQZipBytes zip64;        ///< The data of the Zip64 field, in the same memory; empty if there is none.
  KQZipWideValues values;  ///< The lengths and the offset.

  /// Decodes one from the first of the bytes. False when it is none, or not there to its end.
  bool decode(KQZipBytes bytes);
};

/// What the index keeps of a central header, whose offsets count from `base`. The names are in the header's
/// memory.
KQZipIndexEntry KQZipIndexEntryOf(const KQZipCentralHeader& header, std::uint64_t base);

/// What the index keeps of a local header at `offset`.
KQZipIndexEntry KQZipIndexEntryOf(const KQZipLocalHeader& header, std::uint64_t offset);
