// Prints a part of an entry without extracting it: ReadInPlace ARCHIVE PATH OFFSET COUNT
// Build: c++ -std=c++20 ReadInPlace.cpp $(pkg-config --cflags --libs kqzip)
//        -Wl,-rpath,$(pkg-config --variable=libdir kqzip)
#include <KQZip/KQZip.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

static int fail(const char* reason) {
  std::fprintf(stderr, "%s\n", reason);
  return 1;
}

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const std::string path = argv[2];
  std::shared_ptr<const KQ::NSError> error;
  const auto reader = KQZipFileReader::initWithZipPath(argv[1], &error);
  if (!reader)
    return fail(error ? error->localizedDescription().c_str() : "the archive ends inside a header");
  const auto attributes = reader->attributesForRelativePath(path);
  const auto stream = reader->streamForRelativePath(path);  // open, and at the entry's first byte
  if (!attributes || !stream) return fail("there is no such entry");

  // The stream is one on the whole archive and runs on past the entry, so the limits are the caller's.
  const std::uint64_t size = *attributes->NSFileSize;
  const std::uint64_t offset = std::min<std::uint64_t>(std::strtoull(argv[3], nullptr, 10), size);
  std::uint64_t remaining = std::min<std::uint64_t>(std::strtoull(argv[4], nullptr, 10), size - offset);
  const std::uint64_t start = *stream->NSStreamFileCurrentOffsetKey();
  stream->setNSStreamFileCurrentOffsetKey(start + offset);

  std::array<std::uint8_t, 65536> block;
  while (remaining != 0) {
    const std::int64_t count = stream->read(block.data(), std::min<std::uint64_t>(remaining, block.size()));
    if (count < 0) return fail(stream->streamError()->localizedDescription().c_str());
    if (count == 0) return fail("the archive ends inside the entry");
    std::fwrite(block.data(), 1, static_cast<std::size_t>(count), stdout);
    remaining -= static_cast<std::uint64_t>(count);
  }
  stream->close();
  return 0;
}
