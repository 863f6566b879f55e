// Packs a folder into a new archive and shows how far it has come: PackTree ARCHIVE FOLDER
#include <KQZip/KQZip.h>

#include <chrono>
#include <cstdio>
#include <future>

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
  while (packed.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready)
    std::fprintf(stderr, "\r%3.0f %%", 100 * progress->fractionCompleted());
  if (packed.get()) return 0;
  std::fprintf(stderr, "%s\n", error ? error->localizedDescription().c_str() : "a file could not be read");
  return 1;
}
