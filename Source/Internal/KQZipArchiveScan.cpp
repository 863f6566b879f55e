#include "KQZipArchiveScan.h"

#include <algorithm>
#include <optional>

namespace {

using Code = KQZipFindingCode;

// Goes over an archive, record by record.
class Scan {
 public:
  explicit Scan(KQZipArchiveState& archive) : archive_(archive), window_(*archive.source) {}

  bool run(KQ::NSErrorSlot error) {
    while (next_ < length() && isRead_) {
      if (!readRecord(error)) break;
    }
    archive_.entriesEnd = entriesEnd_;
    return isRead_;
  }

 private:
  std::uint64_t length() const { return archive_.source->length(); }

  // Reads one record. False at the end of the entries.
  bool readRecord(KQ::NSErrorSlot error) {
    KQZipBytes bytes;
    isRead_ = window_.look(next_, KQZipLocalHeaderFields::size + 2 * 0xFFFFU, &bytes, error);
    KQZipLocalHeader header;
    if (!isRead_ || !header.decode(bytes)) return false;
    const std::uint64_t dataAt = next_ + header.fields.wholeSize();
    if (header.values.compressedSize > length() - dataAt) return false;
    archive_.index.add(KQZipIndexEntryOf(header, next_));
    next_ = entriesEnd_ = dataAt + header.values.compressedSize;
    return true;
  }

  KQZipArchiveState& archive_;
  KQZipArchiveWindow window_;
  std::uint64_t next_ = 0;
  std::uint64_t entriesEnd_ = 0;
  bool isRead_ = true;
};

}  // namespace

bool KQZipScanArchive(KQZipArchiveState& archive, KQ::NSErrorSlot error) { return Scan(archive).run(error); }
