#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "../Platform/NSError.h"
#include "KQZipArchiveSource.h"
#include "KQZipEntryFields.h"

/// A local header that holds up: its lengths fit, and its CRC-32 is that of the data that it claims. Where
/// the data cannot be read, being compressed or encrypted, a record has to follow them instead.
struct KQZipFoundHeader {
  std::uint64_t headerAt = 0;            ///< Offset of the header.
  std::uint64_t end = 0;                 ///< After the data, and their descriptor if there is one.
  std::uint64_t length = 0;              ///< Bytes of data.
  std::uint64_t uncompressedLength = 0;  ///< Bytes of data once unpacked.
  std::uint32_t crc32 = 0;               ///< CRC-32 of the unpacked data.
};

/// Searches an archive, or the rest of one, for such headers. It is read once, from front to back, however
/// many bytes look like headers and whatever they claim: the CRC-32 of a stretch follows from those of all
/// that stands in front of its start and in front of its end.
class KQZipHeaderSearch {
 public:
  /// Searches from `start` on. Nothing is read yet.
  KQZipHeaderSearch(const KQZipArchiveSource& source, std::uint64_t start);

  /// Reads and finds. False with the error in the slot when reading fails.
  bool run(KQ::NSErrorSlot error);

  /// The header at the offset, if it holds up.
  const KQZipFoundHeader* at(std::uint64_t offset) const;

  /// The first one at the offset or after it.
  const KQZipFoundHeader* next(std::uint64_t offset) const;

 private:
  // Something that looks like a header, whose data begin or end at an offset that lies ahead.
  struct Candidate {
    std::uint64_t eventAt;
    KQZipFoundHeader header;
    std::uint64_t dataAt;
    std::uint32_t crcBefore;
    bool isInside;
    bool isReadable;
    bool awaitsDescriptor;
  };
  // The same, waiting for its descriptor.
  struct Waiting {
    KQZipFoundHeader header;
    std::uint32_t crcBefore;
    bool isReadable;
  };

  static bool _comesLater(const Candidate& left, const Candidate& right) {
    return left.eventAt > right.eventAt;
  }
  void _takeSignature(std::uint64_t at, KQZipBytes bytes);
  void _takeHeader(std::uint64_t at, KQZipBytes bytes);
  void _takeDescriptor(std::uint64_t at, KQZipBytes bytes);
  template <class Size>
  void _takeFields(std::uint64_t at, const std::uint8_t* fields, std::uint64_t end);
  void _takeFieldsInFrontOf(std::uint64_t at);
  void _add(const Candidate& candidate);
  void _takeEvents(std::uint64_t upTo);
  void _moveTo(std::uint64_t offset);
  bool _recordBeginsAt(std::uint64_t offset) const;
  std::uint32_t _crcSince(std::uint64_t dataAt, std::uint32_t crcBefore) const;

  const KQZipArchiveSource& source_;
  std::size_t mostCandidates_;
  std::vector<KQZipFoundHeader> found_;
  // The candidates, the one whose event comes first at the front: a heap.
  std::vector<Candidate> candidates_;
  std::unordered_map<std::uint64_t, Waiting> waiting_;

  // What was read last, and how far it was taken into account.
  std::vector<std::uint8_t> bytes_;
  std::uint64_t bytesAt_ = 0;
  std::uint64_t position_;
  std::uint32_t crc_ = 0;
};
