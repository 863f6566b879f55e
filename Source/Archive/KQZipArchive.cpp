#include "KQZipArchive.h"

#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

#include "../Internal/KQZipArchiveState.h"
#include "../Internal/KQZipArchiveVerifier.h"
#include "../Internal/KQZipEntryStream.h"
#include "../Internal/KQZipError.h"
#include "../Internal/KQZipUnpacking.h"
#include "../Platform/NSString.h"

namespace {

std::shared_ptr<KQZipArchive> opened(std::unique_ptr<KQZipArchiveSource> source, const std::string& name,
                                     KQ::NSErrorSlot error) {
  auto state = KQZipArchiveState::open(std::move(source), name, error);
  return state ? std::make_shared<KQZipArchive>(std::move(state)) : nullptr;
}

// Where the data of an entry begin that can be given back.
std::optional<std::uint64_t> dataOf(const KQZipArchiveState& archive, std::uint32_t index,
                                    KQ::NSErrorSlot error) {
  KQZipLocated located;
  located.findings = KQZipRefusals(archive, index);
  if (located.findings.empty() && !KQZipLocate(archive, index, &located, error)) return std::nullopt;
  if (located.findings.empty()) return located.dataAt;
  KQZipFailOnFinding(archive, located.findings.front(), error);
  return std::nullopt;
}

}  // namespace

std::shared_ptr<KQZipArchive> KQZipArchive::open(const std::string& path, KQ::NSErrorSlot error) {
  return opened(KQZipArchiveSource::onFile(path, error), path, error);
}

std::shared_ptr<KQZipArchive> KQZipArchive::open(KQ::NSInputStream& stream, KQ::NSErrorSlot error) {
  return opened(KQZipArchiveSource::onStream(stream, error), "the stream", error);
}

KQZipArchive::KQZipArchive(std::unique_ptr<const KQZipArchiveState> state) : state_(std::move(state)) {}
KQZipArchive::~KQZipArchive() = default;

KQZipArchiveEntries KQZipArchive::entries() const { return KQZipArchiveEntries(*state_); }

std::optional<KQZipArchiveEntry> KQZipArchive::find(std::string_view name) const {
  const std::optional<std::uint32_t> index = state_->index.find(name);
  return index ? std::optional(KQZipArchiveEntry(*state_, *index)) : std::nullopt;
}

std::vector<KQZipProblem> KQZipArchive::problems() const {
  std::vector<KQZipProblem> problems;
  problems.reserve(state_->findings.size());
  for (const KQZipFinding& finding : state_->findings)
    problems.push_back(KQZipProblemOf(finding, state_->index));
  return problems;
}

const std::string& KQZipArchive::comment() const { return state_->tail.comment; }

std::uint64_t KQZipArchive::prefixLength() const { return state_->prefix; }

std::shared_ptr<const KQ::NSData> KQZipArchive::data(const KQZipArchiveEntry& entry,
                                                     KQ::NSErrorSlot error) const {
  const std::optional<std::uint64_t> at = dataOf(*state_, entry.index(), error);
  if (!at) return nullptr;
  const std::uint64_t length = entry.length();
  if (length > SIZE_MAX) throw std::bad_alloc();
  KQ::NSData::Block block(static_cast<std::uint8_t*>(std::malloc(std::max<std::size_t>(length, 1))));
  if (!block) throw std::bad_alloc();
  const std::int64_t count = state_->source->readAt(block.get(), length, *at, error);
  if (count < 0) return nullptr;
  const auto bytes = static_cast<std::uint64_t>(count);
  const auto crc = static_cast<std::uint32_t>(::crc32_z(0, block.get(), bytes));
  if (bytes != length || crc != entry.crc32()) {
    const KQZipFinding ends{KQZipFindingCode::EndsInsideData, entry.index(), bytes, length};
    const KQZipFinding differs{KQZipFindingCode::DataDoNotMatch, entry.index(), crc, entry.crc32()};
    return KQZipFailOnFinding(*state_, bytes != length ? ends : differs, error), nullptr;
  }
  return KQ::NSData::dataWithBytesNoCopy(std::move(block), length);
}

std::shared_ptr<KQ::NSInputStream> KQZipArchive::stream(const KQZipArchiveEntry& entry,
                                                        KQ::NSErrorSlot error) const {
  const std::optional<std::uint64_t> at = dataOf(*state_, entry.index(), error);
  return at ? std::make_shared<KQZipEntryStream>(*state_, entry.index(), *at) : nullptr;
}

std::int64_t KQZipArchive::read(const KQZipArchiveEntry& entry, std::uint8_t* buffer, std::uint64_t maxLength,
                                std::uint64_t offset, KQ::NSErrorSlot error) const {
  const std::optional<std::uint64_t> at = dataOf(*state_, entry.index(), error);
  if (!at) return -1;
  const std::uint64_t left = offset < entry.length() ? entry.length() - offset : 0;
  const std::uint64_t wanted = std::min(maxLength, left);
  const std::int64_t count = state_->source->readAt(buffer, wanted, *at + offset, error);
  if (count < 0 || static_cast<std::uint64_t>(count) == wanted) return count;
  const auto there = offset + static_cast<std::uint64_t>(count);
  KQZipFailOnFinding(*state_, {KQZipFindingCode::EndsInsideData, entry.index(), there, entry.length()},
                     error);
  return -1;
}

std::optional<std::uint64_t> KQZipArchive::dataOffset(const KQZipArchiveEntry& entry,
                                                      KQ::NSErrorSlot error) const {
  return dataOf(*state_, entry.index(), error);
}

bool KQZipArchive::verify(const KQZipVerifyOptions& options, KQZipReport& report,
                          KQ::NSErrorSlot error) const {
  return KQZipVerifyArchive(*state_, options, report, error);
}

bool KQZipArchive::unpack(const std::string& folder, const KQZipUnpackOptions& options, KQZipReport& report,
                          KQ::NSErrorSlot error) const {
  return KQZipUnpackArchive(*state_, folder, options, report, error);
}
