#include "List.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "ArchiveScan.h"
#include "Json.h"
#include "Message.h"
#include "StandardOutput.h"

namespace Tool {

namespace {

std::vector<const ArchiveEntry*> sortedEntries(const ArchiveScan& archive) {
  std::vector<const ArchiveEntry*> entries = archive.currentEntries();
  const auto precedes = [](const ArchiveEntry* left, const ArchiveEntry* right) {
    return KQ::NSStringLess()(left->name, right->name);
  };
  if (!archive.namesAscend()) std::sort(entries.begin(), entries.end(), precedes);
  return entries;
}

using Word = std::uint64_t;

constexpr Word repeated(unsigned char byte) { return byte * Word{0x0101010101010101}; }

// Whether all eight characters are printable ASCII and none is a backslash. Where bytes are below a bound or
// are a character shows in their highest bits.
bool isPlain(Word characters) {
  const auto below = [](Word word, unsigned char bound) { return (word - repeated(bound)) & ~word; };
  const Word unusual = characters | below(characters, ' ') | below(characters ^ repeated(0x7F), 1) |
                       below(characters ^ repeated('\\'), 1);
  return (unusual & repeated(0x80)) == 0;
}

// A name that is printed as it is, as nearly all are.
bool isPlain(std::string_view name) {
  Word word = 0;
  for (; name.size() >= sizeof(word); name.remove_prefix(sizeof(word))) {
    std::memcpy(&word, name.data(), sizeof(word));
    if (!isPlain(word)) return false;
  }
  word = repeated(' ');
  // An empty name has no address, which memcpy() does not take.
  name.copy(reinterpret_cast<char*>(&word), sizeof(word));
  return isPlain(word);
}

std::string sizeText(std::uint64_t size, bool isHuman) {
  return isHuman ? readableSize(size) : std::to_string(size);
}

// The largest size has the most digits, but not the longest text in units.
std::size_t widthOfSizes(const std::vector<const ArchiveEntry*>& entries, bool isHuman) {
  std::size_t width = 0;
  for (const ArchiveEntry* entry : entries)
    width = std::max(width, sizeText(entry->length(), isHuman).size());
  return width;
}

std::string dateText(KQ::NSDate date) {
  const auto fields = KQ::NSCalendar::componentsFromDate(date);
  const auto two = [](int number) { return padded(static_cast<std::uint64_t>(number), 2, '0'); };
  return std::to_string(fields.year) + "-" + two(fields.month) + "-" + two(fields.day) + " " +
         two(fields.hour) + ":" + two(fields.minute) + ":" + two(fields.second);
}

// Type, size and date, with a blank behind each.
std::string details(const ArchiveEntry& entry, std::size_t sizeWidth, bool isHuman) {
  const std::string type = entry.isFolder() ? "d " : "- ";
  return type + rightAligned(sizeText(entry.length(), isHuman), sizeWidth) + " " +
         dateText(entry.modificationDate()) + " ";
}

// How far local time was ahead of UTC at that date, "+01:00".
std::string zoneText(KQ::NSDate date, const KQ::NSDateComponents& local) {
  using namespace std::chrono;
  const auto day = sys_days(year(local.year) / month(static_cast<unsigned>(local.month)) /
                            std::chrono::day(static_cast<unsigned>(local.day)));
  const auto asUTC = day + hours(local.hour) + minutes(local.minute) + seconds(local.second);
  const auto ahead = duration_cast<minutes>(asUTC - floor<seconds>(date)).count();
  const auto size = static_cast<std::uint64_t>(std::abs(ahead));
  std::string text(1, ahead < 0 ? '-' : '+');
  return text.append(padded(size / 60, 2, '0')).append(":").append(padded(size % 60, 2, '0'));
}

std::string isoDate(KQ::NSDate date) {
  std::string text = dateText(date);
  text[text.find(' ')] = 'T';
  return text + zoneText(date, KQ::NSCalendar::componentsFromDate(date));
}

void addEntry(Json& json, const ArchiveEntry& entry) {
  json.beginObject();
  json.addName("name", entry.name);
  json.addText("type", entry.isFolder() ? "folder" : "file");
  json.addNumber("size", entry.length());
  json.addText("modified", isoDate(entry.modificationDate()));
  json.addText("crc32", hexadecimal(entry.crc32()));
  json.addNumber("offset", entry.localHeaderAt());
  json.addNumber("dataOffset", entry.dataAt());
  json.endObject();
}

void printDocument(const ArchiveScan& archive, StandardOutput& output) {
  Json json(output);
  json.beginObject();
  json.addText("archive", archive.path());
  json.beginArray("entries");
  for (const ArchiveEntry* entry : sortedEntries(archive)) addEntry(json, *entry);
  json.endArray();
  json.beginArray("problems");
  if (archive.problem()) archive.problem()->addTo(json);
  json.endArray();
  json.endObject();
}

void printLines(const ListOptions& options, const ArchiveScan& archive, StandardOutput& output) {
  const std::vector<const ArchiveEntry*> entries = sortedEntries(archive);
  const std::size_t sizeWidth = options.isLong ? widthOfSizes(entries, options.isHuman) : 0;
  const std::string_view end = options.endsNull ? std::string_view("\0", 1) : "\n";
  for (const ArchiveEntry* entry : entries) {
    if (options.isLong) output.write(details(*entry, sizeWidth, options.isHuman));
    if (options.endsNull || isPlain(entry->name))
      output.write(entry->name);
    else
      output.write(escapedName(entry->name));
    output.write(end);
  }
}

}  // namespace

void list(const ListOptions& options, const KQ::NSProgress& work) {
  if (options.isJson && (options.isLong || options.endsNull || options.isHuman))
    throw Failure("--json goes without --long, --null and --human-readable", WrongUsage);
  const ArchiveScan archive(options.archive, work, ArchiveScan::DirectorySkipped);
  StandardOutput output;
  printList(options, archive, output);
  output.flush();
  archive.requireNoProblem();
}

void printList(const ListOptions& options, const ArchiveScan& archive, StandardOutput& output) {
  if (options.isJson)
    printDocument(archive, output);
  else
    printLines(options, archive, output);
}

}  // namespace Tool
