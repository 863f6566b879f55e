// Opens an archive once and reads entries of it at random, each whole and into memory: ReadEntries ARCHIVE
// COUNT
#include <KQZip/KQZip.h>

#include <cstdio>
#include <cstdlib>
#include <random>

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("ReadEntries ARCHIVE COUNT\n", stderr);
    return 2;
  }
  const auto reader = KQZipFileReader::initWithZipPath(argv[1]);
  if (!reader) return 1;
  const unsigned long count = std::strtoul(argv[2], nullptr, 10);
  if (count == 0) return 0;
  const std::vector<std::string> paths = reader->relativePaths();
  if (paths.empty()) return 1;
  std::minstd_rand random(1);
  for (unsigned long i = 0; i < count; ++i)
    if (!reader->dataForRelativePath(paths[random() % paths.size()])) return 1;
  return 0;
}
