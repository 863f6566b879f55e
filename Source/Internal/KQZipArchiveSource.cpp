#include "KQZipArchiveSource.h"

#include <cerrno>
#include <utility>

#include "KQZipError.h"

namespace {

class FileSource final : public KQZipArchiveSource {
 public:
  explicit FileSource(std::string path) : path_(std::move(path)) {}

  bool open(KQ::NSErrorSlot error) {
    if (!file_.openInPlace(path_, false)) return fail(error);
    const std::int64_t length = file_.length();
    if (length < 0) return fail(error);
    length_ = static_cast<std::uint64_t>(length);
    return true;
  }

  std::int64_t readAt(void* buffer, std::uint64_t length, std::uint64_t offset,
                      KQ::NSErrorSlot error) const override {
    auto* const bytes = static_cast<std::uint8_t*>(buffer);
    std::uint64_t done = 0;
    while (done < length) {
      const std::int64_t count = file_.readAt(bytes + done, length - done, offset + done);
      if (count < 0) return fail(error), -1;
      if (count == 0) break;
      done += static_cast<std::uint64_t>(count);
    }
    return static_cast<std::int64_t>(done);
  }

  const KQ::NSFileDescriptor* file() const override { return &file_; }

 private:
  bool fail(KQ::NSErrorSlot error) const {
    if (error != nullptr) *error = KQ::NSError::errorWithPOSIXCode(errno, path_);
    return false;
  }

  std::string path_;
  KQ::NSFileDescriptor file_;
};

class StreamSource final : public KQZipArchiveSource {
 public:
  explicit StreamSource(KQ::NSInputStream& stream) : stream_(stream) {}

  bool open(KQ::NSErrorSlot error) {
    // A stream does not tell its length. The search doubles its step, then halves it.
    std::uint64_t step = 1;
    int isThere = hasByteAt(0, error);
    while (isThere == 1 && step < largestStep) {
      length_ = step;
      step *= 2;
      isThere = hasByteAt(step - 1, error);
    }
    for (step = length_ / 2; isThere >= 0 && step > 0; step /= 2) {
      isThere = hasByteAt(length_ + step - 1, error);
      if (isThere == 1) length_ += step;
    }
    return isThere >= 0;
  }

  std::int64_t readAt(void* buffer, std::uint64_t length, std::uint64_t offset,
                      KQ::NSErrorSlot error) const override {
    if (!stream_.setNSStreamFileCurrentOffsetKey(offset)) return fail(error);
    auto* const bytes = static_cast<std::uint8_t*>(buffer);
    std::uint64_t done = 0;
    while (done < length) {
      const std::int64_t count = stream_.read(bytes + done, length - done);
      if (count < 0) return fail(error);
      if (count == 0) break;
      done += static_cast<std::uint64_t>(count);
    }
    return static_cast<std::int64_t>(done);
  }

 private:
  // Beyond it no offset fits the system's.
  static constexpr std::uint64_t largestStep = std::uint64_t{1} << 62;

  // 1 or 0; negative on an error.
  int hasByteAt(std::uint64_t offset, KQ::NSErrorSlot error) const {
    std::uint8_t byte = 0;
    return static_cast<int>(readAt(&byte, 1, offset, error));
  }

  std::int64_t fail(KQ::NSErrorSlot error) const {
    if (error == nullptr) return -1;
    *error = stream_.streamError();
    if (!*error) *error = KQZipMakeError(KQZipErrorReading, "Error reading file");
    return -1;
  }

  KQ::NSInputStream& stream_;
};

template <class Source, class Argument>
std::unique_ptr<KQZipArchiveSource> opened(Argument& argument, KQ::NSErrorSlot error) {
  auto source = std::make_unique<Source>(argument);
  if (!source->open(error)) return nullptr;
  return source;
}

}  // namespace

std::unique_ptr<KQZipArchiveSource> KQZipArchiveSource::onFile(const std::string& path,
                                                               KQ::NSErrorSlot error) {
  return opened<FileSource>(path, error);
}

std::unique_ptr<KQZipArchiveSource> KQZipArchiveSource::onStream(KQ::NSInputStream& stream,
                                                                 KQ::NSErrorSlot error) {
  return opened<StreamSource>(stream, error);
}
