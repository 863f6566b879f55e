#include "ExtractionPlan.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "Advice.h"
#include "Message.h"
#include "PathSelection.h"

namespace Tool {

namespace {

// Calls `visit` with each component of the name, empty ones too, until it returns false.
template <class Visit>
bool allComponents(std::string_view name, Visit visit) {
  while (!name.empty()) {
    const std::size_t length = std::min(name.find('/'), name.size());
    if (!visit(name.substr(0, length))) return false;
    name.remove_prefix(std::min(length + 1, name.size()));
  }
  return true;
}

std::optional<std::string> whyUnsafe(std::string_view name) {
  if (name.empty()) return "is empty";
  if (name.front() == '/') return "is absolute";
  if (!allComponents(name, [](std::string_view component) { return component != ".."; }))
    return "has a \"..\" component";
  return std::nullopt;
}

std::string targetOf(std::string_view name) {
  std::string target;
  target.reserve(name.size());
  allComponents(name, [&target](std::string_view component) {
    if (component.empty() || component == ".") return true;
    if (!target.empty()) target += '/';
    target += component;
    return true;
  });
  return target;
}

constexpr char catGivesIt[] = "kqzip cat gives its data";

std::optional<Problem> whyNotExtractable(const ArchiveEntry& entry) {
  if (entry.isEncrypted()) return Problem{entry.nameText(), "is encrypted", otherProgramNeeded};
  if (!KQ::isValidUTF8(entry.name)) return Problem{entry.nameText(), "is not valid UTF-8", catGivesIt};
  if (entry.isFolder() && entry.length() != 0)
    return Problem{entry.nameText(), "is a folder, but has data", catGivesIt};
  return std::nullopt;
}

using FilesByTarget = std::unordered_map<std::string_view, const ArchiveEntry*>;

void requireNoFileAt(std::string_view target, const ExtractionItem& item, const FilesByTarget& files) {
  const auto found = files.find(target);
  if (found == files.end()) return;
  const std::string text =
      inQuotes(found->second->name) + " is a file where " + inQuotes(item.entry->name) + " needs a folder";
  throw Failure(
      withRemarks(text, {"extract what is below the folder by its PATH, and the file with kqzip cat"}));
}

void refuseFilesInTheWay(const std::vector<ExtractionItem>& items) {
  FilesByTarget files;
  files.reserve(items.size());
  for (const ExtractionItem& item : items) {
    if (!item.entry->isFolder()) files.emplace(item.target, item.entry);
  }
  std::string_view lastFolder;
  for (const ExtractionItem& item : items) {
    const std::string_view target = item.target;
    if (item.entry->isFolder()) requireNoFileAt(target, item, files);
    // What stands together in a folder needs the same ones.
    const std::size_t lastSlash = target.rfind('/');
    if (lastSlash == std::string_view::npos) continue;
    const std::string_view folder = target.substr(0, lastSlash);
    if (folder == std::exchange(lastFolder, folder)) continue;
    for (std::size_t slash = target.find('/'); slash != std::string_view::npos;
         slash = target.find('/', slash + 1))
      requireNoFileAt(target.substr(0, slash), item, files);
  }
}

// Whether every target is its entry's name, of which nothing was left out.
bool areNames(const std::vector<ExtractionItem>& items) {
  return std::all_of(items.begin(), items.end(), [](const ExtractionItem& item) {
    return item.target.size() == item.entry->name.size();
  });
}

void keepLastOfEachTarget(std::vector<ExtractionItem>& items) {
  std::unordered_map<std::string_view, const ArchiveEntry*> lastAt;
  lastAt.reserve(items.size());
  for (const ExtractionItem& item : items) lastAt[item.target] = item.entry;
  // Marked first: the targets are what the map goes by.
  for (ExtractionItem& item : items) {
    if (lastAt.at(item.target) != item.entry) item.entry = nullptr;
  }
  std::erase_if(items, [](const ExtractionItem& item) { return item.entry == nullptr; });
}

}  // namespace

void refuseUnsafeNames(const ArchiveScan& archive, bool unsafePaths) {
  for (const ArchiveEntry& entry : archive.entries()) {
    const auto refusal = [&] { return "unsafe name " + inQuotes(entry.name) + ": it "; };
    if (entry.name.find('\0') != std::string::npos)
      throw Failure(withRemarks(refusal() + "has a NUL", {"kqzip cat gives the other entries"}));
    const auto reason = unsafePaths ? std::nullopt : whyUnsafe(entry.name);
    if (reason) throw Failure(withRemarks(refusal() + *reason, {"--unsafe-paths takes names as they stand"}));
  }
}

ExtractionPlan planExtraction(const ArchiveScan& archive, const std::vector<std::string>& paths) {
  ExtractionPlan plan;
  PathSelection selection(paths);
  for (const ArchiveEntry* entry : archive.currentEntries()) {
    if (!selection.includes(entry->name)) continue;
    const std::optional<Problem> problem = whyNotExtractable(*entry);
    if (problem)
      plan.leftOut.push_back(*problem);
    else
      plan.items.push_back({entry, targetOf(entry->name)});
  }
  if (const auto path = selection.unmatched()) throw archive.missing(*path);
  refuseFilesInTheWay(plan.items);
  if (!archive.namesAscend() || !areNames(plan.items)) keepLastOfEachTarget(plan.items);
  return plan;
}

}  // namespace Tool
