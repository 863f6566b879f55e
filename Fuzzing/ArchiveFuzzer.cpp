// Opens the input as an archive and uses everything that a reader offers, scans it as the tool does and
// prints what the tool would, verifies and unpacks it as a whole, then makes it interoperable.

#include <algorithm>

#include "ArchiveScan.h"
#include "DirectoryComparison.h"
#include "FuzzSupport.h"
#include "Json.h"
#include "List.h"
#include "StandardOutput.h"

using KQFuzz::require;

namespace {

// Longer entries are not read into memory: the sanitizer's own bookkeeping for a block that the archive only
// claims to need is an eighth of it.
constexpr std::uint64_t longestDataInMemory = 1 << 20;

// A name that leads out of the scratch folder is not extracted.
bool staysInside(const std::vector<std::string>& paths) {
  return std::none_of(paths.begin(), paths.end(),
                      [](const std::string& path) { return path.find("..") != std::string::npos; });
}

void useEntry(const KQZipFileReader& reader, const std::string& path) {
  const auto attributes = reader.attributesForRelativePath(path);
  require(attributes && attributes->NSFileSize && attributes->NSFileModificationDate,
          "a listed entry has attributes");
  const std::uint64_t length = *attributes->NSFileSize;
  require((length == 0) == (attributes->NSFileType == KQ::NSFileTypeDirectory),
          "only no data makes a folder");

  const auto stream = reader.streamForRelativePath(path);
  require(stream != nullptr, "a listed entry has a stream");
  std::string streamed(std::min(length, longestDataInMemory), '\0');
  const std::int64_t count = stream->read(reinterpret_cast<std::uint8_t*>(streamed.data()), streamed.size());
  require(count >= 0, "the archive can be read");
  if (length <= longestDataInMemory) {
    const auto data = reader.dataForRelativePath(path);
    require((data != nullptr) == (count > 0), "data stands where the stream does");
    if (data)
      require(KQFuzz::bytesOf(data) == streamed, "data and stream agree, and what is missing is zeros");
  }

  const std::string target = KQFuzz::scratch() / "entry";
  std::shared_ptr<const KQ::NSError> error;
  require(reader.writeDataForRelativePath(path, target, &error), "an entry can be extracted");
  require(std::filesystem::file_size(target) <= length, "no more is written than the entry holds");
  if (length <= longestDataInMemory)
    require(KQFuzz::readFile(target) == streamed.substr(0, static_cast<std::size_t>(count)),
            "what is written is the data");
}

// The scan decodes headers of the ordinary kind without their class, which must read the same.
void requireAsItsClassReadsIt(const Tool::ArchiveScan& scan, const Tool::ArchiveEntry& entry) {
  try {
    const auto header = scan.headerOf(entry);
    const auto zip64 = header->findZip64InfoField();
    const auto name = header->fileName();
    require(!name || *name == entry.name, "the name is the header's");
    require(header->offsetOfDataInArchive() == entry.dataAt(), "the data stands where the header says");
    require(header->dataLengthFromHeader() == entry.length(), "the length is the header's");
    require((zip64 ? zip64->uncompressedSize() : header->uncompressedSize()) == entry.uncompressedLength(),
            "the uncompressed length is the header's");
    require(header->crc32() == entry.crc32(), "the CRC is the header's");
    require(header->modificationDate() == entry.modificationDate(), "the date is the header's");
  } catch (const Tool::Failure&) {
    require(false, "a header that was decoded can be read");
  }
}

// What the tool says of an archive, in each form. Standard output is not where it goes.
void printAsTheTool(const Tool::ArchiveScan& scan) {
  KQFuzz::discardStandardOutput();
  Tool::StandardOutput output;
  for (const bool isLong : {false, true}) {
    for (const bool endsNull : {false, true}) {
      for (const bool isHuman : {false, true})
        Tool::printList({scan.path(), isLong, endsNull, false, isHuman}, scan, output);
    }
  }
  Tool::printList({scan.path(), false, false, true, false}, scan, output);

  std::vector<Tool::Problem> problems = Tool::differencesFromCentralDirectory(scan);
  if (scan.problem()) problems.push_back(*scan.problem());
  Tool::Json json(output);
  json.beginObject();
  json.beginArray("problems");
  for (const Tool::Problem& problem : problems) {
    problem.addTo(json);
    require(!problem.sentence().empty(), "a problem is told of");
    problem.nextStep();
  }
  json.endArray();
  json.endObject();
  output.flush();
}

void scanAsTheTool(const std::string& archive) {
  const auto work = KQ::NSProgress::progressWithTotalUnitCount(1);
  const Tool::ArchiveScan scan(archive, *work);
  const Tool::ArchiveScan skipping(archive, *work, Tool::ArchiveScan::DirectorySkipped);
  // A central header that cannot be read ends only the scan that reads it.
  const std::size_t found = scan.entries().size();
  require(scan.problem() ? found <= skipping.entries().size() : found == skipping.entries().size(),
          "the entries do not depend on the directory as long as it is right");
  std::uint64_t end = 0;
  for (const Tool::ArchiveEntry& entry : scan.entries()) {
    requireAsItsClassReadsIt(scan, entry);
    require(entry.localHeaderAt() >= end, "entries stand one behind the other");
    end = entry.dataAt() + entry.length();
  }
  require(end <= std::filesystem::file_size(archive), "every entry is whole");
  printAsTheTool(scan);
}

// Opens, verifies and unpacks the whole archive, whatever is wrong with it.
void useAsAWhole(const std::string& archive) {
  std::shared_ptr<const KQ::NSError> error;
  const auto whole = KQZipArchive::open(archive, &error);
  if (!whole) {
    require(error != nullptr, "what is no archive has a reason");
    return;
  }
  for (const KQZipArchiveEntry& entry : whole->entries())
    require(whole->find(entry.name()).has_value(), "an entry is found by its name");
  KQZipReport report;
  const bool isRight = whole->verify({.threads = 1}, report, &error);
  require(isRight == report.problems().empty(), "what is not right has a problem");
  const std::filesystem::path destination = KQFuzz::scratch() / "unpacked";
  KQFuzz::empty(destination);
  KQZipUnpackOptions options;
  options.threads = 1;
  if (whole->unpack(destination, options, report, &error))
    require(report.problems().empty(), "what is unpacked whole has no problem");
}

void makeInteroperable(const std::string& archive, const std::vector<std::string>& paths) {
  const std::string before = KQFuzz::readFile(archive);
  std::shared_ptr<const KQ::NSError> error;
  if (!KQZipMakeArchiveInteroperable(archive, &error)) {
    require(error != nullptr, "a refusal has a reason");
    require(KQFuzz::readFile(archive) == before, "what is refused is not changed");
    return;
  }
  const std::string after = KQFuzz::readFile(archive);
  require(KQZipMakeArchiveInteroperable(archive), "what was made interoperable is accepted");
  require(KQFuzz::readFile(archive) == after, "a second call changes nothing");
  const auto reader = KQZipFileReader::initWithZipPath(archive);
  require((reader ? reader->relativePaths() : std::vector<std::string>()) == paths,
          "the entries are the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  const std::string archive = KQFuzz::scratch() / "archive.zip";
  KQFuzz::writeFile(archive, bytes, length);
  scanAsTheTool(archive);
  useAsAWhole(archive);
  std::shared_ptr<const KQ::NSError> error;
  const auto reader = KQZipFileReader::initWithZipPath(archive, &error);
  if (!reader) {
    makeInteroperable(archive, {});
    return 0;
  }

  const std::vector<std::string> paths = reader->relativePaths();
  require(std::is_sorted(paths.begin(), paths.end(), KQ::NSStringLess()), "paths are sorted");
  for (const std::string& path : paths) useEntry(*reader, path);

  const std::filesystem::path destination = KQFuzz::scratch() / "out";
  KQFuzz::empty(destination);
  if (staysInside(paths)) KQZipFileReader::unzipFileAtPath(archive, destination, &error);
  makeInteroperable(archive, paths);
  return 0;
}
