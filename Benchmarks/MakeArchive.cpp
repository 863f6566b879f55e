// Makes an archive of many entries, each the same number of zero bytes under a name of 20 bytes, without as
// many files on the disk: MakeArchive ARCHIVE COUNT SIZE
#include <KQZip/KQZip.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("MakeArchive ARCHIVE COUNT SIZE\n", stderr);
    return 2;
  }
  const std::string archive = argv[1];
  const unsigned long count = std::strtoul(argv[2], nullptr, 10);
  const std::string source = archive + ".source";
  std::ofstream(source).close();
  std::filesystem::resize_file(source, std::strtoul(argv[3], nullptr, 10));

  KQZipFileWriter writer;
  for (unsigned long i = 0; i < count; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "entry-%010lu.bin", i);
    writer.addFilePath(source, name);
  }
  std::shared_ptr<const KQ::NSError> error;
  const bool written = writer.writeToZipPath(archive, &error);
  std::filesystem::remove(source);
  if (!written) std::fprintf(stderr, "%s\n", error ? error->localizedDescription().c_str() : archive.c_str());
  return written ? 0 : 1;
}
