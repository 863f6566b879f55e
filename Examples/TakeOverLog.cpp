// Packs files and keeps the log lines in a journal: TakeOverLog ARCHIVE FILE...
// Build: c++ -std=c++20 TakeOverLog.cpp $(pkg-config --cflags --libs kqzip)
//        -Wl,-rpath,$(pkg-config --variable=libdir kqzip)
#include <KQZip/KQZip.h>

#include <cstdio>
#include <mutex>
#include <utility>
#include <vector>

// Takes the place of the system log and standard error while it exists.
class Journal {
 public:
  Journal() : previous_(KQ::NSSetLogSink([this](const std::string& line) { add(line); })) {}
  ~Journal() { KQ::NSSetLogSink(previous_); }
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  std::vector<std::string> lines() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
  }

 private:
  // Any thread that works with the library may log.
  void add(const std::string& line) {
    const std::lock_guard<std::mutex> guard(mutex_);
    lines_.push_back(line);
  }

  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  KQ::NSLogSink previous_;
};

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  KQZipFileWriter writer;
  for (int i = 2; i < argc; ++i) writer.addFilePath(argv[i], KQ::lastPathComponent(argv[i]));

  const Journal journal;
  const bool packed = writer.writeToZipPath(argv[1]);  // without a slot: the journal has the reasons
  std::printf("%s\n", packed ? "packed" : "failed");
  for (const std::string& line : journal.lines()) std::printf("log: %s\n", line.c_str());
  return packed ? 0 : 1;
}
