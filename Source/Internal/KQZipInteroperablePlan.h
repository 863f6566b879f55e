#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../Archive/KQZipInteroperability.h"
#include "../Platform/NSError.h"
#include "../Platform/NSFileHandle.h"
#include "KQZipEndRecords.h"
#include "KQZipHeaderCodec.h"

// The changes that make an archive interoperable, complete before anything is written.

/// The changes to one archive.
class KQZipInteroperablePlan {
 public:
  /// A plan for the archive at `path`, which `source` reads. Nothing is read yet.
  KQZipInteroperablePlan(std::string path, const KQ::NSFileHandle& source,
                         const KQZipPermissions& permissions);

  /// Reads and checks the archive. Fails with the error of a read, or with -1 for an archive of another form.
  bool make(KQ::NSErrorSlot error);

  /// True when there is nothing to change.
  bool isEmpty() const;

  /// Writes the changes: local headers, central headers, end records. Fails with the error of the first write
  /// that fails.
  bool carryOut(const KQ::NSFileHandle& archive, KQ::NSErrorSlot error) const;

 private:
  /// Central headers that change, together with the other headers of the same read.
  struct Block {
    std::uint64_t offset;
    std::unique_ptr<std::uint8_t[]> bytes;
    std::uint64_t length;
  };

  bool _readEndRecords(KQ::NSErrorSlot error);
  bool _readDirectory(KQ::NSErrorSlot error);
  std::uint64_t _convertBlock(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t offset,
                              KQ::NSErrorSlot error);
  bool _convertHeader(const std::uint8_t* bytes, std::uint8_t* converted, std::uint64_t length);
  std::uint32_t _externalAttributes(const std::string& name) const;
  bool _stepOverEntry(std::uint64_t lengthOfName, std::uint64_t lengthOfData);
  bool _readLocalHeader(KQZipBytes nameAndExtraField, std::uint64_t offset, KQ::NSErrorSlot error);
  bool _read(std::uint8_t* buffer, std::uint64_t length, std::uint64_t offset, KQ::NSErrorSlot error) const;
  bool _refuse(const std::string& reason, KQ::NSErrorSlot error) const;
  bool _refuseHeader(std::uint64_t offset, KQ::NSErrorSlot error) const;

  std::string path_;
  const KQ::NSFileHandle& source_;
  const KQZipPermissions& permissions_;

  // The archive's end records.
  KQZipEndRecords endRecords_;
  KQZipEndRecords::Bytes endRecordsFound_{};

  // The position in the directory: the number of entries so far, the offset of the next one, and the header
  // and name that were converted last.
  std::uint64_t entriesFound_ = 0;
  std::uint64_t nextEntry_ = 0;
  KQZipCentralHeaderFields header_;
  std::string name_;

  // The changes to write.
  std::vector<std::uint64_t> localFlags_;
  std::vector<Block> blocks_;
};
