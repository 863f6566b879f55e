#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "KQZip64EndOfCentralDirectoryLocator.h"
#include "KQZip64EndOfCentralDirectoryRecord.h"
#include "KQZipEndOfCentralDirectoryRecord.h"
#include "KQZipExtraField.h"
#include "Platform/KQExport.h"
#include "Platform/NSError.h"
#include "Platform/NSStream.h"

class KQZipCentralDirectoryFileHeader;
class KQZipFileLocalHeader;

/// The last part of an archive: the central headers, an optional digital signature and the three end records.
/// It is either built from written local headers and then written, or parsed. Used by one thread at a time.
class KQZIP_EXPORT KQZipCentralDirectory {
 public:
  /// The signature before a digital signature, 50 4B 05 05 on disk.
  static constexpr std::uint32_t digitalSignatureSignature = 0x05054b50;

  /// An empty directory without end records.
  KQZipCentralDirectory();
  virtual ~KQZipCentralDirectory();
  KQZipCentralDirectory(const KQZipCentralDirectory&) = delete;             ///< Owns its records.
  KQZipCentralDirectory& operator=(const KQZipCentralDirectory&) = delete;  ///< Owns its records.

  /// A directory with one central header for each entry, in the same order. Write the entries first. The
  /// directory links to them weakly and takes their offsets when it is written, so they must live until then.
  /// Computes the attributes and the CRC of an entry that lacks them.
  static std::shared_ptr<KQZipCentralDirectory> centralDirectoryWithFileEntries(
      const std::vector<std::shared_ptr<KQZipFileLocalHeader>>& entries);

  /// A directory parsed from `stream`. Nothing when parseFromStream() fails, with its error in the slot.
  static std::shared_ptr<KQZipCentralDirectory> initWithStream(KQ::NSInputStream& stream,
                                                               KQ::NSErrorSlot error = nullptr);

  /// Replaces the central headers by a copy of the list.
  void setFileHeaders(std::vector<std::shared_ptr<KQZipCentralDirectoryFileHeader>> headers);

  /// Scans `stream` to its end for records. It reads four bytes at a time. If they are the signature of a
  /// record, the record's class parses it; other values are skipped. After unknown bytes a record is
  /// therefore found only at a multiple of four bytes from there. Of several end records of one kind the last
  /// one counts. One to three bytes at the end are completed with the last bytes of the previous four. The
  /// end of the stream, and an error of the stream between records, are a success. A record that cannot be
  /// parsed fails the scan with its error; records found before are kept.
  bool parseFromStream(KQ::NSInputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Writes the central headers, the digital signature if there is one (without the signature before it), and
  /// always the Zip64 end record, the locator and the classic end record. Sets counts, sizes and offsets. By
  /// design, both end records give the total size of everything written here, themselves included, as the
  /// directory's size, and the classic record's counts are truncated to 16 bits. Fails with the error of the
  /// first record that fails; what was written stays on the stream.
  bool writeToStream(KQ::NSOutputStream& stream, KQ::NSErrorSlot error = nullptr);

  /// Total size of the records that exist. The end records exist after a write or a parse.
  std::uint64_t outputSize() const;

  /// The digital signature, as an extra field: id, size and data.
  std::shared_ptr<KQZipExtraField> digitalSignature() const { return digitalSignature_; }
  void setDigitalSignature(std::shared_ptr<KQZipExtraField> value) { digitalSignature_ = std::move(value); }

  /// The Zip64 end record.
  std::shared_ptr<KQZip64EndOfCentralDirectoryRecord> zip64EoCDRecord() const { return zip64EoCDRecord_; }
  void setZip64EoCDRecord(std::shared_ptr<KQZip64EndOfCentralDirectoryRecord> value) {
    zip64EoCDRecord_ = std::move(value);
  }

  /// The Zip64 locator.
  std::shared_ptr<KQZip64EndOfCentralDirectoryLocator> zip64EoCDLocator() const { return zip64EoCDLocator_; }
  void setZip64EoCDLocator(std::shared_ptr<KQZip64EndOfCentralDirectoryLocator> value) {
    zip64EoCDLocator_ = std::move(value);
  }

  /// The classic end record.
  std::shared_ptr<KQZipEndOfCentralDirectoryRecord> zipEoCDRecord() const { return zipEoCDRecord_; }
  void setZipEoCDRecord(std::shared_ptr<KQZipEndOfCentralDirectoryRecord> value) {
    zipEoCDRecord_ = std::move(value);
  }

 protected:
  /// Parses the next header and appends it to the headers parsed before.
  virtual bool _parseFileHeader(KQ::NSInputStream& stream, KQ::NSErrorSlot error);

 private:
  KQZIP_HIDDEN bool _parseRecord(std::uint32_t signature, KQ::NSInputStream& stream, KQ::NSErrorSlot error);
  KQZIP_HIDDEN void _createMissingEndRecords();
  KQZIP_HIDDEN void _fillEndRecords(std::uint64_t startOfDirectory);

  std::vector<std::shared_ptr<KQZipCentralDirectoryFileHeader>> fileHeaders_;
  std::shared_ptr<KQZipExtraField> digitalSignature_;
  std::shared_ptr<KQZip64EndOfCentralDirectoryRecord> zip64EoCDRecord_;
  std::shared_ptr<KQZip64EndOfCentralDirectoryLocator> zip64EoCDLocator_;
  std::shared_ptr<KQZipEndOfCentralDirectoryRecord> zipEoCDRecord_;
};
