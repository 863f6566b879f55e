// Scans the input as the tail of an archive, from the start and from within, and writes what an end record
// can be written from.

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  KQFuzz::scratch();
  const std::string input(reinterpret_cast<const char*>(bytes), length);
  std::shared_ptr<const KQ::NSError> error;

  KQZipCentralDirectory directory;
  const bool parsed = directory.parseFromStream(*KQFuzz::openStream(input), &error);
  KQFuzz::require(
      parsed == (KQZipCentralDirectory::initWithStream(*KQFuzz::openStream(input), &error) != nullptr),
      "both ways of parsing agree");

  // The headers of a parsed directory have no source, so it can only be written without them.
  directory.setFileHeaders({});
  const auto written = KQFuzz::written(directory);
  KQFuzz::require(written.has_value(), "the end records can be written");
  if (!directory.digitalSignature())
    KQFuzz::require(written->size() <= directory.outputSize(), "the size is not more than announced");

  // As a reader hands a directory over: behind the first signature.
  if (length >= 4) KQZipCentralDirectory::initWithStream(*KQFuzz::openStream(input.substr(4)), &error);
  return 0;
}
