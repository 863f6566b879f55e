// Keeps an author's name in an extra field of its own: OwnExtraField ARCHIVE FILE AUTHOR
// Build: c++ -std=c++20 OwnExtraField.cpp $(pkg-config --cflags --libs kqzip)
//        -Wl,-rpath,$(pkg-config --variable=libdir kqzip)
#include <KQZip/KQZip.h>

#include <cstdio>

// The name is kept in the field's data, so reading, writing and the size are the base class's.
class AuthorField : public KQZipExtraField {
 public:
  static constexpr std::uint16_t identifier = 0x514B;
  explicit AuthorField(const std::string& author = "") {
    setFieldSignature(identifier);
    setFieldData(KQ::NSData::dataWithBytes(author.data(), author.size()));
  }
  static bool isValidForIdentifier(std::uint16_t candidate) { return candidate == identifier; }

  std::string author() const {
    const auto data = fieldData();
    return std::string(data->bytes(), data->bytes() + data->length());
  }
};

// The facades choose the fields themselves; whoever wants others uses the records behind them.
static bool pack(const std::string& archive, const std::string& file, const std::string& author) {
  const auto entry = KQZipFileLocalHeader::initWithSourceFile(file);
  entry->setFileName(KQ::lastPathComponent(file));
  entry->addExtraField(std::make_shared<AuthorField>(author));

  if (KQ::NSFileManager::fileExistsAtPath(archive)) return false;  // the stream would empty it
  const auto stream = KQ::NSOutputStream::outputStreamToFileAtPath(archive);
  stream->open();
  const bool written =
      entry->writeToStream(*stream) &&
      KQZipCentralDirectory::centralDirectoryWithFileEntries({entry})->writeToStream(*stream) &&
      stream->flush();
  stream->close();
  return written && stream->streamStatus() != KQ::NSStreamStatusError;
}

static void list(const std::string& archive) {
  const auto stream = KQ::NSInputStream::inputStreamWithFileAtPath(archive);
  if (!stream) return;
  stream->open();
  std::uint32_t signature = 0;
  while (KQZipReadBlock32(*stream, &signature) && signature == KQZipFileLocalHeader::signature) {
    const auto entry = KQZipFileLocalHeader::initWithStream(*stream);
    if (!entry) return;
    for (const auto& field : entry->extraFields())
      if (const auto own = std::dynamic_pointer_cast<AuthorField>(field))
        std::printf("%s: %s\n", entry->relativePath().value_or("?").c_str(), own->author().c_str());
  }
}

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  KQZipExtraField::registerSubclass<AuthorField>();  // before the first archive is read
  const bool packed = pack(argv[1], argv[2], argv[3]);
  if (packed) list(argv[1]);
  if (!packed) std::fprintf(stderr, "the archive exists or could not be written\n");
  return packed ? 0 : 1;
}
