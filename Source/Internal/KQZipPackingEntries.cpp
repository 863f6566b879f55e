#include "KQZipPackingEntries.h"

#include <algorithm>
#include <cstring>
#include <system_error>
#include <utility>

#include "../Platform/NSString.h"
#include "KQZipError.h"

namespace {

constexpr std::size_t chunkSize = 65536;

std::string_view withoutFinalSlash(std::string_view name) {
  if (name.ends_with('/')) name.remove_suffix(1);
  return name;
}

bool isBefore(const KQZipPackingEntry& left, const KQZipPackingEntry& right) {
  return KQ::compare(left.name(), right.name()) == KQ::NSOrderedAscending;
}

bool refuseName(std::string_view name, KQ::NSErrorSlot error) {
  return KQZipFail(error, KQZipErrorSourceRefused,
                   KQ::stringWithFormat("%@ is the name of two sources",
                                        {KQ::stringByEscapingUnprintables(withoutFinalSlash(name))}));
}

const KQZipPackingEntry* entryWithName(const std::deque<KQZipPackingEntry>& entries, std::string_view name) {
  const auto found = std::lower_bound(entries.begin(), entries.end(), name,
                                      [](const KQZipPackingEntry& entry, std::string_view wanted) {
                                        return KQ::compare(entry.name(), wanted) == KQ::NSOrderedAscending;
                                      });
  return found != entries.end() && found->name() == name ? &*found : nullptr;
}

}  // namespace

std::string_view KQZipTextPool::add(std::string_view text) {
  if (text.empty()) return {};
  if (text.size() > left_) {
    const std::size_t size = std::max(chunkSize, text.size());
    chunks_.push_back(std::make_unique_for_overwrite<char[]>(size));
    next_ = chunks_.back().get();
    left_ = size;
  }
  std::memcpy(next_, text.data(), text.size());
  const std::string_view copy(next_, text.size());
  next_ += text.size();
  left_ -= text.size();
  return copy;
}

void KQZipPackingEntries::clear() {
  entries.clear();
  names = std::make_unique<KQZipTextPool>();
  leftOut.clear();
}

bool KQZipPackingEntries::order(KQ::NSErrorSlot error) {
  // A tree comes in its order already, but for names that are not ASCII.
  if (!std::is_sorted(entries.begin(), entries.end(), isBefore))
    std::sort(entries.begin(), entries.end(), isBefore);
  const auto twice =
      std::adjacent_find(entries.begin(), entries.end(),
                         [](const auto& left, const auto& right) { return left.name() == right.name(); });
  if (twice != entries.end()) return refuseName(twice->name(), error);
  // In the file system, from which a single source comes, a name is either a folder's or a file's.
  if (sources.size() < 2) return true;
  for (const KQZipPackingEntry& entry : entries) {
    const std::string_view name = entry.name();
    for (std::size_t end = name.find('/'); end != std::string_view::npos; end = name.find('/', end + 1)) {
      if (entryWithName(entries, name.substr(0, end)) != nullptr)
        return refuseName(name.substr(0, end), error);
    }
  }
  return true;
}

void KQZipPackingEntries::getPath(const KQZipPackingEntry& entry, std::string* path) const {
  const KQZipPackingSource& source = sources[entry.source];
  if (source.kind == KQZipPackingSource::Kind::Item) {
    path->assign(source.path);
  } else if (source.kind == KQZipPackingSource::Kind::Tree) {
    std::string_view rest = withoutFinalSlash(entry.name());
    rest.remove_prefix(std::min(source.name.size(), rest.size()));
    if (rest.starts_with('/')) rest.remove_prefix(1);
    path->assign(source.path);
    if (!rest.empty() && !path->empty() && path->back() != '/') *path += '/';
    path->append(rest);
  } else {
    path->assign(entry.name());
  }
}

const KQZipEntryAttributes& KQZipPackingEntries::attributesOf(const KQZipPackingEntry& entry) const {
  static const KQZipEntryAttributes none;
  const auto& more = sources[entry.source].more;
  return more ? more->attributes : none;
}

void KQZipPackingEntries::leaveOut(std::string path, KQZipLeftOut::Why why, const char* reason) {
  leftOut.push_back({std::move(path), reason, why});
}

bool KQZipPackingEntries::leaveOutFailed(const std::string& path, int code, bool atOnce,
                                         KQ::NSErrorSlot error) {
  if (code == 0) {
    if (atOnce) {
      return KQZipFail(
          error, KQZipErrorReading,
          KQ::stringWithFormat("%@ changed while it was packed", {KQ::stringByEscapingUnprintables(path)}));
    }
    leaveOut(path, KQZipLeftOut::Why::Failed, "it changed while it was packed");
    return true;
  }
  if (atOnce) {
    KQ::NSStoreError(error, KQ::NSError::errorWithPOSIXCode(code, path));
    return false;
  }
  leaveOut(path, KQZipLeftOut::Why::Failed, std::generic_category().message(code).c_str());
  return true;
}
