// The library itself, without the tool: packing, opening and listing, extracting, reading one entry,
// comparing names, and single records. Files lie in the folder for temporary files, so TMPDIR=/dev/shm takes
// the disk out.
#include <KQZip/KQZip.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

namespace {

// A folder that lives as long as the program.
class Scratch {
 public:
  Scratch() : folder_((std::filesystem::temp_directory_path() / "kqzip-library-XXXXXX").string()) {
    if (::mkdtemp(folder_.data()) == nullptr) std::abort();
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  std::string path(const std::string& name) const { return folder_ + "/" + name; }

 private:
  std::string folder_;
};

const Scratch& scratch() {
  static const Scratch folder;
  return folder;
}

// A file of that many zero bytes.
std::string sourceOfSize(std::int64_t size) {
  std::string path = scratch().path("source-" + std::to_string(size));
  if (!std::filesystem::exists(path)) {
    std::ofstream(path).close();
    std::filesystem::resize_file(path, static_cast<std::uintmax_t>(size));
  }
  return path;
}

// Names as they are in a tree: 100 folders, 30 bytes each.
std::string nameOfEntry(std::int64_t number) {
  char name[64];
  std::snprintf(name, sizeof name, "folder-%03d/entry-%09lld.dat", static_cast<int>(number % 100),
                static_cast<long long>(number));
  return name;
}

void addEntries(KQZipFileWriter& writer, std::int64_t count, std::int64_t size) {
  for (std::int64_t i = 0; i < count; ++i) writer.addFilePath(sourceOfSize(size), nameOfEntry(i));
}

// An archive of that many entries of that size.
std::string archiveOf(std::int64_t count, std::int64_t size) {
  std::string path = scratch().path("archive-" + std::to_string(count) + "-" + std::to_string(size) + ".zip");
  if (std::filesystem::exists(path)) return path;
  KQZipFileWriter writer;
  addEntries(writer, count, size);
  if (!writer.writeToZipPath(path)) std::abort();
  return path;
}

void countWork(benchmark::State& state, std::int64_t entries, std::int64_t size) {
  const auto rounds = static_cast<std::int64_t>(state.iterations());
  if (entries > 1) state.SetItemsProcessed(rounds * entries);
  if (size >= 1048576) state.SetBytesProcessed(rounds * entries * size);
}

// Entries, and bytes of each.
void pack(benchmark::State& state) {
  const std::string archive = scratch().path("packed.zip");
  for (auto _ : state) {
    KQZipFileWriter writer;
    addEntries(writer, state.range(0), state.range(1));
    if (!writer.writeToZipPath(archive)) state.SkipWithError("not packed");
    state.PauseTiming();
    std::filesystem::remove(archive);
    state.ResumeTiming();
  }
  countWork(state, state.range(0), state.range(1));
}
BENCHMARK(pack)->Args({1000, 1000})->Args({10000, 1000})->Args({1, 67108864})->Unit(benchmark::kMillisecond);

void extract(benchmark::State& state) {
  const std::string archive = archiveOf(state.range(0), state.range(1));
  const std::string folder = scratch().path("extracted");
  for (auto _ : state) {
    if (!KQZipFileReader::unzipFileAtPath(archive, folder)) state.SkipWithError("not extracted");
    state.PauseTiming();
    std::filesystem::remove_all(folder);
    state.ResumeTiming();
  }
  countWork(state, state.range(0), state.range(1));
}
BENCHMARK(extract)
    ->Args({1000, 1000})
    ->Args({10000, 1000})
    ->Args({1, 67108864})
    ->Unit(benchmark::kMillisecond);

void openReader(benchmark::State& state) {
  const std::string archive = archiveOf(state.range(0), state.range(1));
  for (auto _ : state) {
    const auto reader = KQZipFileReader::initWithZipPath(archive);
    if (!reader) state.SkipWithError("not opened");
    benchmark::DoNotOptimize(reader);
  }
  countWork(state, state.range(0), 0);
}
BENCHMARK(openReader)
    ->Args({1000, 16})
    ->Args({10000, 16})
    ->Args({100000, 16})
    ->Args({1000, 65536})
    ->Unit(benchmark::kMillisecond);

void listPaths(benchmark::State& state) {
  const auto reader = KQZipFileReader::initWithZipPath(archiveOf(state.range(0), 16));
  for (auto _ : state) benchmark::DoNotOptimize(reader->relativePaths());
  countWork(state, state.range(0), 0);
}
BENCHMARK(listPaths)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void readOneEntryAtRandom(benchmark::State& state) {
  const std::int64_t entries = 10000;
  const auto reader = KQZipFileReader::initWithZipPath(archiveOf(entries, state.range(0)));
  std::minstd_rand random(1);
  for (auto _ : state) {
    const auto data = reader->dataForRelativePath(nameOfEntry(static_cast<std::int64_t>(random() % entries)));
    if (!data) state.SkipWithError("not read");
    benchmark::DoNotOptimize(data);
  }
}
BENCHMARK(readOneEntryAtRandom)->Arg(100)->Arg(10000);

void compareNames(benchmark::State& state, const char* left, const char* right) {
  const std::string leftName = left;
  const std::string rightName = right;
  for (auto _ : state) benchmark::DoNotOptimize(KQ::compare(leftName, rightName));
}
BENCHMARK_CAPTURE(compareNames, ASCII, "folder-042/entry-000012345.dat", "folder-042/entry-000012346.dat");
BENCHMARK_CAPTURE(compareNames, composed,
                  "B\xC3\xBC"
                  "cher/\xC3\x9C"
                  "bung.dat",
                  "B\xC3\xBC"
                  "cher/\xC3\x9C"
                  "bung.dax");
BENCHMARK_CAPTURE(compareNames, decomposed,
                  "B\xC3\xBC"
                  "cher.dat",
                  "Bu\xCC\x88"
                  "cher.dat");

// The bytes of an archive in memory.
std::shared_ptr<const KQ::NSData> archiveInMemory(std::int64_t count) {
  KQZipFileWriter writer;
  addEntries(writer, count, 16);
  const auto stream = KQ::NSOutputStream::outputStreamToMemory();
  stream->open();
  if (!writer.writeToStream(*stream)) std::abort();
  return stream->NSStreamDataWrittenToMemoryStreamKey();
}

void parseLocalHeader(benchmark::State& state) {
  const auto stream = KQ::NSInputStream::inputStreamWithData(archiveInMemory(1));
  stream->open();
  for (auto _ : state) {
    stream->setNSStreamFileCurrentOffsetKey(4);
    const auto header = KQZipFileLocalHeader::initWithStream(*stream);
    if (!header) state.SkipWithError("not parsed");
    benchmark::DoNotOptimize(header);
  }
}
BENCHMARK(parseLocalHeader);

void parseCentralHeader(benchmark::State& state) {
  const auto stream = KQ::NSInputStream::inputStreamWithData(archiveInMemory(1));
  stream->open();
  // Behind one entry stand its central header's signature and the header.
  const std::uint64_t start = 30 + nameOfEntry(0).size() + 28 + 16 + 4;
  for (auto _ : state) {
    stream->setNSStreamFileCurrentOffsetKey(start);
    const auto header = KQZipCentralDirectoryFileHeader::initWithStream(*stream);
    if (!header) state.SkipWithError("not parsed");
    benchmark::DoNotOptimize(header);
  }
}
BENCHMARK(parseCentralHeader);

void writeLocalHeader(benchmark::State& state) {
  const auto header = KQZipFileLocalHeader::initWithSourceFile(sourceOfSize(16));
  header->setRelativePath(nameOfEntry(0));
  for (auto _ : state) {
    state.PauseTiming();
    const auto stream = KQ::NSOutputStream::outputStreamToMemory();
    stream->open();
    state.ResumeTiming();
    if (!header->writeToStream(*stream)) state.SkipWithError("not written");
  }
}
BENCHMARK(writeLocalHeader);

void writeCentralDirectory(benchmark::State& state) {
  std::vector<std::shared_ptr<KQZipFileLocalHeader>> entries;
  const auto archive = KQ::NSOutputStream::outputStreamToMemory();
  archive->open();
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    entries.push_back(KQZipFileLocalHeader::initWithSourceFile(sourceOfSize(16)));
    entries.back()->setRelativePath(nameOfEntry(i));
    if (!entries.back()->writeToStream(*archive)) state.SkipWithError("not written");
  }
  for (auto _ : state) {
    const auto stream = KQ::NSOutputStream::outputStreamToMemory();
    stream->open();
    if (!KQZipCentralDirectory::centralDirectoryWithFileEntries(entries)->writeToStream(*stream))
      state.SkipWithError("not written");
  }
  countWork(state, state.range(0), 0);
}
BENCHMARK(writeCentralDirectory)->Arg(1)->Arg(1000)->Unit(benchmark::kMicrosecond);

}  // namespace
