#include "KQZipPackingList.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "../Internal/KQZipError.h"
#include "../Internal/KQZipPackedCheck.h"
#include "../Internal/KQZipPacker.h"
#include "../Internal/KQZipPackingEntries.h"
#include "../Internal/KQZipPackingTarget.h"
#include "../Internal/KQZipTreeWalk.h"
#include "../Platform/NSProgress.h"
#include "../Platform/NSString.h"

namespace {

using Source = KQZipPackingSource;

constexpr std::uint16_t permissionsOfFile = 0644;
constexpr std::uint16_t permissionsOfFolder = 0755;
constexpr std::size_t longestName = 0xFFFF;

// A name that no archive's reader takes for another, or for a place outside of a folder.
bool isUsable(std::string_view name) {
  if (name.empty() || name.size() >= longestName) return false;
  if (!KQ::isValidUTF8(name) || name.find('\0') != std::string_view::npos) return false;
  for (std::size_t start = 0; start <= name.size();) {
    const std::size_t end = std::min(name.find('/', start), name.size());
    const std::string_view component = name.substr(start, end - start);
    if (component.empty() || component == "." || component == "..") return false;
    start = end + 1;
  }
  return true;
}

std::string_view withoutFinalSlash(std::string_view name) {
  if (name.ends_with('/')) name.remove_suffix(1);
  return name;
}

KQZipEntryAttributes completed(const KQZipEntryAttributes& attributes, std::uint16_t permissions) {
  return {attributes.date.value_or(std::chrono::system_clock::now()),
          attributes.permissions.value_or(permissions)};
}

}  // namespace

struct KQZipPackingList::State {
  Source& add(Source::Kind kind, std::string_view path, std::string_view name);
  Source::More& addMore(Source::Kind kind, std::string_view path, std::string_view name,
                        const KQZipEntryAttributes& attributes);
  Source::Rare& addRare(Source::Kind kind, std::string_view path, std::string_view name,
                        const KQZipEntryAttributes& attributes);
  bool areNamesUsable(KQ::NSErrorSlot error) const;
  bool find(const KQZipPackingOptions& options, bool measuring, const KQ::NSProgress* progress,
            KQ::NSErrorSlot error);
  void removeLeftOut();

  KQZipPackingEntries list;
};

Source& KQZipPackingList::State::add(Source::Kind kind, std::string_view path, std::string_view name) {
  name = withoutFinalSlash(name);
  Source& source = list.sources.emplace_back();
  source.kind = kind;
  source.path = list.sourceTexts.add(path);
  // The name is often the end of the path.
  source.name =
      path.ends_with(name) ? source.path.substr(path.size() - name.size()) : list.sourceTexts.add(name);
  return source;
}

Source::More& KQZipPackingList::State::addMore(Source::Kind kind, std::string_view path,
                                               std::string_view name,
                                               const KQZipEntryAttributes& attributes) {
  Source& source = add(kind, path, name);
  source.more = std::make_unique<Source::More>();
  source.more->attributes = attributes;
  return *source.more;
}

Source::Rare& KQZipPackingList::State::addRare(Source::Kind kind, std::string_view path,
                                               std::string_view name,
                                               const KQZipEntryAttributes& attributes) {
  Source::More& more = addMore(kind, path, name, attributes);
  more.rare = std::make_unique<Source::Rare>();
  return *more.rare;
}

bool KQZipPackingList::State::areNamesUsable(KQ::NSErrorSlot error) const {
  for (const Source& source : list.sources) {
    const bool isRootWithoutName = source.kind == Source::Kind::Tree && source.name.empty();
    if (!isRootWithoutName && !isUsable(source.name)) {
      return KQZipFail(error, KQZipErrorSourceRefused,
                       KQ::stringWithFormat("%@ cannot be the name of an entry",
                                            {KQ::stringByEscapingUnprintables(source.name)}));
    }
  }
  return true;
}

bool KQZipPackingList::State::find(const KQZipPackingOptions& options, bool measuring,
                                   const KQ::NSProgress* progress, KQ::NSErrorSlot error) {
  list.clear();
  if (!areNamesUsable(error)) return false;
  KQZipTreeWalk walk(list, options, measuring, progress);
  for (std::uint32_t i = 0; i < list.sources.size(); ++i) {
    if (!walk.add(i, error)) return false;
  }
  return list.order(error);
}

void KQZipPackingList::State::removeLeftOut() {
  std::erase_if(list.entries, [](const KQZipPackingEntry& entry) {
    return entry.state == KQZipPackingEntry::State::LeftOut;
  });
}

KQZipPackingList::KQZipPackingList() : state_(std::make_unique<State>()) {}

KQZipPackingList::~KQZipPackingList() = default;

void KQZipPackingList::addTree(const std::string& path, const KQZipTreeOptions& options) {
  state_->addRare(Source::Kind::Tree, path, options.name, {}).tree = options;
}

void KQZipPackingList::addItem(const std::string& path, const std::string& name, KQZipLinks links,
                               const KQZipEntryAttributes& attributes) {
  // There may be millions of items without attributes of their own.
  if (attributes.date || attributes.permissions) {
    state_->addMore(Source::Kind::Item, path, name, attributes);
    state_->list.sources.back().links = links;
  } else {
    state_->add(Source::Kind::Item, path, name).links = links;
  }
}

void KQZipPackingList::addData(std::shared_ptr<const KQ::NSData> data, const std::string& name,
                               const KQZipEntryAttributes& attributes) {
  state_->addMore(Source::Kind::Data, {}, name, completed(attributes, permissionsOfFile)).data =
      std::move(data);
}

void KQZipPackingList::addData(const std::string& bytes, const std::string& name,
                               const KQZipEntryAttributes& attributes) {
  addData(KQ::NSData::dataWithBytes(bytes.data(), bytes.size()), name, attributes);
}

void KQZipPackingList::addStream(std::shared_ptr<KQ::NSInputStream> stream, std::uint64_t length,
                                 const std::string& name, const KQZipEntryAttributes& attributes) {
  auto& rare = state_->addRare(Source::Kind::Stream, {}, name, completed(attributes, permissionsOfFile));
  rare.stream = std::move(stream);
  rare.length = length;
}

void KQZipPackingList::addFolder(const std::string& name, const KQZipEntryAttributes& attributes) {
  state_->addMore(Source::Kind::Folder, {}, name, completed(attributes, permissionsOfFolder));
}

void KQZipPackingList::addLink(const std::string& target, const std::string& name,
                               const KQZipEntryAttributes& attributes) {
  state_->addMore(Source::Kind::Link, target, name, completed(attributes, 0));
}

bool KQZipPackingList::pack(const std::string& zipPath, const KQZipPackingOptions& options,
                            KQ::NSErrorSlot error) {
  const bool isWatched = KQ::NSProgress::currentProgress() != nullptr;
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(-1);
  const bool measuring = options.measuring && isWatched;
  KQZipNewArchive archive(zipPath, options.replacing);
  if (!archive.prepare(error) || !state_->find(options, measuring, progress.get(), error) ||
      !archive.create(error))
    return false;
  KQZipPackingJob job(state_->list, archive, options.form);
  KQZipPacker packer(job, options, measuring, *progress);
  if (!packer.pack(error)) return false;
  if (packer.hasWrittenAfterEnd() && !archive.setLength(packer.end(), error)) return false;
  KQZipPackedCheck check(job, archive, packer, options.threads, *progress);
  if (!check.run(error) || !archive.appear(options.synchronising, error)) return false;
  state_->removeLeftOut();
  packer.finishProgress();
  return true;
}

bool KQZipPackingList::pack(KQ::NSOutputStream& stream, const KQZipPackingOptions& options,
                            KQ::NSErrorSlot error) {
  const bool isWatched = KQ::NSProgress::currentProgress() != nullptr;
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(-1);
  const bool measuring = options.measuring && isWatched;
  if (!state_->find(options, measuring, progress.get(), error)) return false;
  KQZipStreamTarget target(stream);
  KQZipPackingJob job(state_->list, target, options.form);
  KQZipPacker packer(job, options, measuring, *progress);
  if (!packer.pack(error) || !target.flush(error)) return false;
  state_->removeLeftOut();
  packer.finishProgress();
  return true;
}

bool KQZipPackingList::examine(const KQZipPackingOptions& options, KQ::NSErrorSlot error) {
  return state_->find(options, options.measuring, nullptr, error);
}

const std::vector<KQZipLeftOut>& KQZipPackingList::leftOut() const { return state_->list.leftOut; }

std::size_t KQZipPackingList::count() const { return state_->list.entries.size(); }

KQZipPackedItem KQZipPackingList::item(std::size_t index) const {
  const KQZipPackingEntry& entry = state_->list.entries[index];
  return {std::string(entry.name()), entry.length};
}
