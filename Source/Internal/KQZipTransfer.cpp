#include "KQZipTransfer.h"

#include <algorithm>
#include <cstdlib>

#include "../Platform/Internal/NSFileOutputStream.h"

KQZipCopyEnd KQZipCopyBlocks(KQ::NSInputStream& source, KQ::NSOutputStream& target,
                             const KQZipTransferBlock& block, std::uint64_t length, KQ::NSProgress& progress,
                             KQZipCopyOrder order) {
  const bool testsFirst = order == KQZipCopyOrder::TestReadCountWrite;
  for (std::uint64_t remaining = length; remaining != 0;) {
    if (testsFirst && progress.isCancelled()) return KQZipCopyEnd::Cancelled;
    const std::int64_t count = source.read(block.get(), std::min(remaining, KQZipBlockSize));
    if (count < 0) return KQZipCopyEnd::NotRead;
    // A source that ends early counts as copied, by design.
    if (count == 0) return KQZipCopyEnd::Complete;
    if (testsFirst) KQZipCount(progress, count);
    const std::int64_t written = target.write(block.get(), static_cast<std::uint64_t>(count));
    if (written <= 0) return KQZipCopyEnd::NotWritten;
    remaining -= static_cast<std::uint64_t>(count);
    if (!testsFirst) KQZipCount(progress, written);
    if (written == KQZipBlockSize) remaining -= KQZipMoveBlocks(source, target, remaining, progress);
    if (!testsFirst && progress.isCancelled()) return KQZipCopyEnd::Cancelled;
  }
  return KQZipCopyEnd::Complete;
}

std::uint64_t KQZipMoveBlocks(KQ::NSInputStream& source, KQ::NSOutputStream& target, std::uint64_t length,
                              KQ::NSProgress& progress) {
  std::uint64_t done = 0;
  while (done < length && !progress.isCancelled()) {
    const std::uint64_t moved = KQ::NSMoveBytes(source, target, std::min(length - done, KQZipBlockSize));
    if (moved == 0) break;
    KQZipCount(progress, static_cast<std::int64_t>(moved));
    done += moved;
  }
  return done;
}

std::shared_ptr<const KQ::NSData> KQZipReadStoredData(KQ::NSInputStream& archive, std::uint64_t offset,
                                                      std::uint64_t length) {
  archive.setNSStreamFileCurrentOffsetKey(offset);
  // Zeroed by the system when a page is first accessed: a false length costs no memory.
  KQ::NSData::Block bytes(static_cast<std::uint8_t*>(std::calloc(1, length)));
  if (!bytes || archive.read(bytes.get(), length) == 0) return nullptr;
  // One read delivers a whole entry. Where the archive ends early, or the read fails, the rest is zeros.
  return KQ::NSData::dataWithBytesNoCopy(std::move(bytes), length);
}
