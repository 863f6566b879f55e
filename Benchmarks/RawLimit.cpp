// What the machine allows: the system calls and the calls of crc32 without which the work cannot be done, and
// nothing besides. No order of names, no progress, no attributes, no dates.
//   RawLimit pack SOURCE ARCHIVE     two passes over each file, in blocks of 1 MiB: its CRC, then its bytes
//   RawLimit extract ARCHIVE FOLDER  one read and one write of the data
//   RawLimit list ARCHIVE            the names, from the local headers
// The archives have no Zip64 records, so they end at 4 GiB and at 65,535 entries.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace {

constexpr std::size_t blockSize = 1048576;
constexpr std::size_t localHeaderSize = 30;
constexpr std::uint32_t localHeaderSignature = 0x04034b50;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

// The result of a system call, or the end of the program.
template <class Result>
Result checked(Result result, const char* what) {
  if (result < 0) fail(what);
  return result;
}

void writeAll(int file, const std::uint8_t* bytes, std::size_t count) {
  while (count != 0) {
    const auto written = static_cast<std::size_t>(checked(::write(file, bytes, count), "write"));
    bytes += written;
    count -= written;
  }
}

template <class Integer>
void append(std::vector<std::uint8_t>& bytes, Integer value) {
  for (std::size_t i = 0; i < sizeof(Integer); ++i)
    bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

std::uint64_t littleEndian(const std::uint8_t* bytes, std::size_t count) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < count; ++i) value |= std::uint64_t{bytes[i]} << (8 * i);
  return value;
}

// Packing

class Packer {
 public:
  explicit Packer(const char* archive)
      : archive_(checked(::open(archive, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666), archive)) {
    pending_.reserve(2 * blockSize);
  }

  // The entry's name is the path as it stands.
  void add(const std::string& path) {
    const int file = checked(::open(path.c_str(), O_RDONLY | O_CLOEXEC), path.c_str());
    struct stat attributes {};
    checked(::fstat(file, &attributes), path.c_str());
    const auto size = static_cast<std::uint64_t>(attributes.st_size);
    uLong checksum = ::crc32(0, nullptr, 0);
    inBlocks(file, size, [&](std::size_t count) {
      checksum = ::crc32(checksum, block_.data(), static_cast<uInt>(count));
    });
    appendHeaders(path, static_cast<std::uint32_t>(checksum), static_cast<std::uint32_t>(size));
    inBlocks(file, size, [&](std::size_t count) { appendData(count); });
    ::close(file);
  }

  void finish() {
    const std::uint64_t start = offset_ + pending_.size();
    pending_.insert(pending_.end(), directory_.begin(), directory_.end());
    append(pending_, std::uint32_t{0x06054b50});
    append(pending_, std::uint32_t{0});
    append(pending_, count_);
    append(pending_, count_);
    append(pending_, static_cast<std::uint32_t>(directory_.size()));
    append(pending_, static_cast<std::uint32_t>(start));
    append(pending_, std::uint16_t{0});
    flush();
    ::close(archive_);
  }

 private:
  template <class Action>
  void inBlocks(int file, std::uint64_t size, Action action) {
    for (std::uint64_t position = 0; position < size;) {
      const auto count =
          checked(::pread(file, block_.data(), std::min<std::uint64_t>(blockSize, size - position),
                          static_cast<off_t>(position)),
                  "pread");
      if (count == 0) break;
      action(static_cast<std::size_t>(count));
      position += static_cast<std::uint64_t>(count);
    }
  }

  void appendHeaders(std::string_view name, std::uint32_t checksum, std::uint32_t size) {
    const std::uint64_t start = offset_ + pending_.size();
    append(pending_, localHeaderSignature);
    appendCommonFields(pending_, name, checksum, size);
    pending_.insert(pending_.end(), name.begin(), name.end());

    append(directory_, std::uint32_t{0x02014b50});
    append(directory_, std::uint16_t{0x0314});
    appendCommonFields(directory_, name, checksum, size);
    directory_.resize(directory_.size() + 10);
    append(directory_, static_cast<std::uint32_t>(start));
    directory_.insert(directory_.end(), name.begin(), name.end());
    ++count_;
  }

  static void appendCommonFields(std::vector<std::uint8_t>& bytes, std::string_view name,
                                 std::uint32_t checksum, std::uint32_t size) {
    append(bytes, std::uint16_t{20});
    append(bytes, std::uint32_t{0});
    append(bytes, std::uint32_t{0x00210000});
    append(bytes, checksum);
    append(bytes, size);
    append(bytes, size);
    append(bytes, static_cast<std::uint32_t>(name.size()));
  }

  // Small files are collected, and large ones go out as they come.
  void appendData(std::size_t count) {
    if (count == blockSize) {
      flush();
      writeAll(archive_, block_.data(), count);
      offset_ += count;
      return;
    }
    pending_.insert(pending_.end(), block_.begin(), block_.begin() + static_cast<std::ptrdiff_t>(count));
    if (pending_.size() >= blockSize) flush();
  }

  void flush() {
    writeAll(archive_, pending_.data(), pending_.size());
    offset_ += pending_.size();
    pending_.clear();
  }

  int archive_;
  std::uint64_t offset_ = 0;
  std::uint16_t count_ = 0;
  std::vector<std::uint8_t> block_ = std::vector<std::uint8_t>(blockSize);
  std::vector<std::uint8_t> pending_;
  std::vector<std::uint8_t> directory_;
};

int pack(const std::string& source, const char* archive) {
  Packer packer(archive);
  if (std::filesystem::is_directory(source)) {
    for (const auto& item : std::filesystem::recursive_directory_iterator(source))
      if (item.is_regular_file()) packer.add(item.path().native());
  } else {
    packer.add(source);
  }
  packer.finish();
  return 0;
}

// Reading

// The archive's bytes, 1 MiB at a time while the reading goes on where it stood, and little after a jump.
class Window {
 public:
  explicit Window(const char* archive) : file_(checked(::open(archive, O_RDONLY | O_CLOEXEC), archive)) {}

  // The `count` bytes at `offset`, at most 1 MiB, or null where the archive ends before.
  const std::uint8_t* at(std::uint64_t offset, std::size_t count) {
    const bool goesOn = offset <= end_ + 65536;
    end_ = offset + count;
    if (offset < start_ || offset + count > start_ + length_)
      load(offset, goesOn ? blockSize : std::max<std::size_t>(count, 4096));
    return offset + count <= start_ + length_ ? bytes_.data() + (offset - start_) : nullptr;
  }

 private:
  void load(std::uint64_t offset, std::size_t wanted) {
    start_ = offset;
    length_ = static_cast<std::size_t>(
        checked(::pread(file_, bytes_.data(), wanted, static_cast<off_t>(offset)), "pread"));
  }

  int file_;
  std::vector<std::uint8_t> bytes_ = std::vector<std::uint8_t>(blockSize);
  std::uint64_t start_ = 0;
  std::size_t length_ = 0;
  // Where the latest request ended.
  std::uint64_t end_ = 0;
};

struct Entry {
  std::string name;
  std::uint64_t data;
  std::uint64_t size;
};

// The size in a Zip64 field, which is the first extra field of every archive that is read here.
std::uint64_t sizeOf(const std::uint8_t* header, const std::uint8_t* extra) {
  const std::uint64_t size = littleEndian(header + 18, 4);
  return size == 0xFFFFFFFF && littleEndian(extra, 2) == 1 ? littleEndian(extra + 12, 8) : size;
}

template <class Action>
void forEachEntry(Window& window, Action action) {
  for (std::uint64_t offset = 0;;) {
    const std::uint8_t* header = window.at(offset, localHeaderSize);
    if (header == nullptr || littleEndian(header, 4) != localHeaderSignature) return;
    const auto nameLength = static_cast<std::size_t>(littleEndian(header + 26, 2));
    const auto extraLength = static_cast<std::size_t>(littleEndian(header + 28, 2));
    header = window.at(offset, localHeaderSize + nameLength + extraLength);
    if (header == nullptr) return;
    const std::uint8_t* name = header + localHeaderSize;
    const std::uint64_t data = offset + localHeaderSize + nameLength + extraLength;
    const Entry entry{std::string(reinterpret_cast<const char*>(name), nameLength), data,
                      sizeOf(header, name + nameLength)};
    action(entry);
    offset = data + entry.size;
  }
}

int extract(const char* archive, const std::string& folder) {
  Window window(archive);
  std::unordered_set<std::string> folders;
  std::filesystem::create_directories(folder);
  forEachEntry(window, [&](const Entry& entry) {
    const std::string path = folder + "/" + entry.name;
    const std::string parent = path.substr(0, path.rfind('/'));
    if (folders.insert(parent).second) std::filesystem::create_directories(parent);
    const int file =
        checked(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666), path.c_str());
    for (std::uint64_t done = 0; done < entry.size;) {
      const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(blockSize, entry.size - done));
      const std::uint8_t* data = window.at(entry.data + done, count);
      if (data == nullptr) break;
      writeAll(file, data, count);
      done += count;
    }
    ::close(file);
  });
  return 0;
}

int list(const char* archive) {
  Window window(archive);
  std::vector<std::uint8_t> output;
  output.reserve(2 * blockSize);
  const auto flush = [&output] {
    writeAll(STDOUT_FILENO, output.data(), output.size());
    output.clear();
  };
  forEachEntry(window, [&](const Entry& entry) {
    output.insert(output.end(), entry.name.begin(), entry.name.end());
    output.push_back('\n');
    if (output.size() >= blockSize) flush();
  });
  flush();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view command = argc > 1 ? argv[1] : "";
  if (command == "pack" && argc == 4) return pack(argv[2], argv[3]);
  if (command == "extract" && argc == 4) return extract(argv[2], argv[3]);
  if (command == "list" && argc == 3) return list(argv[2]);
  std::fputs("RawLimit pack SOURCE ARCHIVE | extract ARCHIVE FOLDER | list ARCHIVE\n", stderr);
  return 2;
}
