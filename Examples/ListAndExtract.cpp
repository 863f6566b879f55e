// Lists an archive and extracts it, until Return is pressed: ListAndExtract ARCHIVE FOLDER
// Build: c++ -std=c++20 ListAndExtract.cpp -pthread $(pkg-config --cflags --libs kqzip)
//        -Wl,-rpath,$(pkg-config --variable=libdir kqzip)
#include <KQZip/KQZip.h>

#include <cstdio>
#include <thread>

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  std::shared_ptr<const KQ::NSError> error;
  const auto fail = [&error](const char* otherwise) {
    std::fprintf(stderr, "%s\n", error ? error->localizedDescription().c_str() : otherwise);
    return 1;
  };
  const auto reader = KQZipFileReader::initWithZipPath(argv[1], &error);
  if (!reader) return fail("the archive ends inside a header");
  for (const std::string& path : reader->relativePaths())
    std::printf("%12llu  %s\n",
                static_cast<unsigned long long>(*reader->attributesForRelativePath(path)->NSFileSize),
                path.c_str());

  const auto progress = KQ::NSProgress::progressWithTotalUnitCount(1);
  std::thread([progress] {
    if (std::getchar() == '\n') progress->cancel();
  }).detach();
  progress->becomeCurrentWithPendingUnitCount(1);  // what is extracted below counts into `progress`
  const bool extracted = KQZipFileReader::unzipFileAtPath(argv[1], argv[2], &error);
  progress->resignCurrent();
  if (!extracted) return fail("a file could not be read or written");
  std::printf("%.0f %% extracted\n", 100 * progress->fractionCompleted());
  return 0;
}
