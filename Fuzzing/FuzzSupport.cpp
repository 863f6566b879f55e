#include "FuzzSupport.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace KQFuzz {

namespace {

struct Scratch {
  Scratch() {
    KQ::NSSetLogSink([](const std::string&) {});
    const fs::path parent = fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
    path = parent / ("kqzip-fuzz-" + std::to_string(getpid()));
    fs::create_directories(path);
  }
  ~Scratch() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
  fs::path path;
};

}  // namespace

const fs::path& scratch() {
  static const Scratch instance;
  return instance.path;
}

void discardStandardOutput() {
  static const int discarding = [] {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    require(nowhere >= 0, "there is a /dev/null");
    return dup2(nowhere, STDOUT_FILENO);
  }();
  require(discarding == STDOUT_FILENO, "standard output goes nowhere");
}

void empty(const fs::path& folder) {
  fs::remove_all(folder);
  fs::create_directories(folder);
}

void writeFile(const fs::path& path, const void* bytes, std::size_t length) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(length));
}

std::string readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

std::string bytesOf(const std::shared_ptr<const KQ::NSData>& data) {
  if (!data || data->length() == 0) return {};
  return {reinterpret_cast<const char*>(data->bytes()), static_cast<std::size_t>(data->length())};
}

std::shared_ptr<KQ::NSInputStream> openStream(const std::string& bytes) {
  auto stream = KQ::NSInputStream::inputStreamWithData(KQ::NSData::dataWithBytes(bytes.data(), bytes.size()));
  stream->open();
  return stream;
}

}  // namespace KQFuzz
