// Packs a folder into a new archive and shows a progress bar: PackTree ARCHIVE FOLDER
// Build: c++ -std=c++20 PackTree.cpp -pthread $(pkg-config --cflags --libs kqzip)
//        -Wl,-rpath,$(pkg-config --variable=libdir kqzip)
#include <KQZip/KQZip.h>

#include <chrono>
#include <cstdio>
#include <future>

static void showBar(double fraction) {
  std::fprintf(stderr, "\r[%-40.*s] %3.0f %%", static_cast<int>(40 * fraction), std::string(40, '#').c_str(),
               100 * fraction);
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(1);
  std::shared_ptr<const KQ::NSError> error;
  auto packed = std::async(std::launch::async, [&] {
    progress->becomeCurrentWithPendingUnitCount(1);  // what is packed below counts into `progress`
    const bool result = KQZipFileWriter::createZipFileAtPath(argv[1], argv[2], false, &error);
    progress->resignCurrent();
    return result;
  });
  // Any thread may look, and any may call progress->cancel().
  do {
    showBar(progress->fractionCompleted());
  } while (packed.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready);
  const bool result = packed.get();
  if (result) showBar(1);
  std::fprintf(stderr, "\n");
  if (!result)
    std::fprintf(stderr, "%s\n", error ? error->localizedDescription().c_str() : "a file could not be read");
  return result ? 0 : 1;
}
