// Packs a folder, lists the archive and reads it back, and writes to a stream of its own: Consumer FOLDER
#include <KQZip/KQZip.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

// A stream of the host's: it needs the class information that the library exports.
class CountingStream : public KQ::NSOutputStream {
 public:
  std::int64_t write(const std::uint8_t*, std::uint64_t maxLength) override {
    count += maxLength;
    return static_cast<std::int64_t>(maxLength);
  }

  std::uint64_t count = 0;
};

std::string textOf(const KQZipFileReader& reader, const std::string& path) {
  const auto data = reader.dataForRelativePath(path);
  return data ? std::string(reinterpret_cast<const char*>(data->bytes()), data->length()) : "(none)";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::filesystem::path folder = argv[1];
  const std::string archive = folder / "archive.zip";
  std::filesystem::create_directories(folder / "tree/sub");
  std::ofstream(folder / "tree/a.txt") << "first";
  std::ofstream(folder / "tree/sub/b.txt") << "second";

  std::shared_ptr<const KQ::NSError> error;
  if (!KQZipFileWriter::createZipFileAtPath(archive, folder / "tree", false, &error)) {
    std::printf("not packed: %s\n", error ? error->localizedDescription().c_str() : "no error");
    return 1;
  }
  const auto reader = KQZipFileReader::initWithZipPath(archive, &error);
  if (!reader) {
    std::printf("not read: %s\n", error ? error->localizedDescription().c_str() : "no error");
    return 1;
  }
  std::printf("KQZip %g\n", KQZipVersionNumber);
  for (const std::string& path : reader->relativePaths())
    std::printf("%s: %s\n", path.c_str(), textOf(*reader, path).c_str());

  KQZipFileWriter writer;
  writer.addFilePath(folder / "tree/a.txt", "a.txt");
  writer.addFilePath(folder / "tree/sub/b.txt", "sub/b.txt");
  CountingStream stream;
  const bool written = writer.writeToStream(stream, &error);
  std::printf("%s\n",
              written && stream.count == std::filesystem::file_size(archive) ? "same size" : "different");
  return 0;
}
