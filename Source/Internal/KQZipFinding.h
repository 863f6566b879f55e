#pragma once

#include <cstdint>
#include <string>

#include "../Archive/KQZipReport.h"
#include "KQZipArchiveIndex.h"

// What can be wrong with an archive, in few bytes: a damaged one can have as many findings as entries. For
// the library's own use.

/// Each thing that can be found. The texts stand in the source file, in this order.
enum class KQZipFindingCode : std::uint8_t {
  // Of the archive.
  EndsEarly,
  EndsInsideHeader,
  EndsInsideDirectory,
  CommentCutOff,
  NoZip64Record,
  EndRecordsDiffer,
  NoDirectoryThere,
  CountDiffers,
  CentralHeaderDamaged,
  SplitArchive,
  UnknownBytes,
  UnknownBytesAfterEnd,
  DiskNumbers,
  LocatorDiffers,
  ClassicCountCut,
  EndRecordInComment,
  ExtensibleData,
  // Of an entry.
  Compressed,
  Encrypted,
  OnOtherPart,
  Overlaps,
  OutOfArchive,
  SameName,
  NoLocalHeader,
  NoHeaderOfItsOwn,
  LocalHeaderCutOff,
  EndsInsideData,
  NoDescriptor,
  HeaderDamaged,
  OtherName,
  OtherLength,
  OtherUncompressedLength,
  OtherMethod,
  OtherFlags,
  OtherCRC,
  DataDoNotMatch,
  NotInDirectory,
  NameDiffersFromUTF8,
  NameHasNUL,
  NoName,
  UnknownFlags,
  NeedsVersion,
  BadExtraFields,
  NoZip64Value,
  Zip64ValueDiffers,
  OtherDate,
  DescriptorDiffers,
  // Of the archive, and no problem.
  Prefix,
  Padding
};

/// A finding. What the numbers mean depends on its code.
struct KQZipFinding {
  static constexpr std::uint32_t noEntry = 0xFFFFFFFF;  ///< In place of an entry.

  KQZipFindingCode code;          ///< What was found.
  std::uint32_t entry = noEntry;  ///< The entry that is concerned.
  std::uint64_t first = 0;        ///< An offset, a length or another number.
  std::uint64_t second = 0;       ///< Another one.
};

/// What the finding says, to go on from the entry's name where there is one.
std::string KQZipTextOf(const KQZipFinding& finding);

/// The finding as callers get it.
KQZipProblem KQZipProblemOf(const KQZipFinding& finding, const KQZipArchiveIndex& index);
