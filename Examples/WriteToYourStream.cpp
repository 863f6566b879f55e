// Writes an archive to standard output and hashes it on the way: WriteToYourStream FILE...
// Build: c++ -std=c++20 WriteToYourStream.cpp $(pkg-config --cflags --libs kqzip)
//        -Wl,-rpath,$(pkg-config --variable=libdir kqzip)
#include <KQZip/KQZip.h>

#include <cinttypes>
#include <cstdio>

// Passes everything on to a C stream. The size and the hash are those of what has been passed on.
class HashingStream : public KQ::NSOutputStream {
 public:
  explicit HashingStream(std::FILE* file) : file_(file) {}

  // Takes everything or fails, and goes on failing: a part that is taken is not completed by the library.
  std::int64_t write(const std::uint8_t* buffer, std::uint64_t maxLength) override {
    if (failed_ || std::fwrite(buffer, 1, maxLength, file_) != maxLength) {
      failed_ = true;
      return -1;
    }
    for (std::uint64_t i = 0; i < maxLength; ++i) hash_ = (hash_ ^ buffer[i]) * 0x100000001B3;
    size_ += maxLength;
    return static_cast<std::int64_t>(maxLength);
  }

  // The library asks here for the offset of each record, counted from the archive's first byte.
  std::optional<std::uint64_t> NSStreamFileCurrentOffsetKey() const override { return size_; }

  // Called once, behind the last record: the archive counts as written only if this says so.
  bool flush() override { return !failed_ && std::fflush(file_) == 0; }

  std::uint64_t size() const { return size_; }
  std::uint64_t hash() const { return hash_; }

 private:
  std::FILE* file_;
  bool failed_ = false;
  std::uint64_t size_ = 0;
  std::uint64_t hash_ = 0xCBF29CE484222325;  // FNV-1a in 64 bits
};

int main(int argc, char** argv) {
  KQZipFileWriter writer;
  for (int i = 1; i < argc; ++i) writer.addFilePath(argv[i], KQ::lastPathComponent(argv[i]));
  HashingStream stream(stdout);
  std::shared_ptr<const KQ::NSError> error;
  if (!writer.writeToStream(stream, &error)) {
    std::fprintf(stderr, "%s\n", error ? error->localizedDescription().c_str() : "a file could not be read");
    return 1;
  }
  std::fprintf(stderr, "%" PRIu64 " bytes, FNV-1a %016" PRIx64 "\n", stream.size(), stream.hash());
  return 0;
}
