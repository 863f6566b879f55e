// Parses the input as one record, writes the record, parses what was written and writes it again: the second
// parse must succeed and both writes must be the same. The input's first byte chooses the record.

#include <array>

#include "FuzzSupport.h"

using KQFuzz::openStream;
using KQFuzz::require;
using KQFuzz::written;

namespace {

constexpr std::size_t signatureLength = 4;

template <class Record>
void checkRecord(const std::string& input) {
  std::shared_ptr<const KQ::NSError> error;
  const auto record = Record::initWithStream(*openStream(input), &error);
  if (!record) return;
  const auto first = written(*record);
  require(first.has_value(), "a parsed record can be written");
  require(first->size() == record->outputSize(), "the size is as announced");
  const auto again = Record::initWithStream(*openStream(first->substr(signatureLength)), &error);
  require(again != nullptr, "a written record can be parsed");
  require(written(*again) == first, "both writes are the same");
}

void checkExtraField(const std::string& input) {
  std::shared_ptr<const KQ::NSError> error;
  const auto field = KQZipExtraField::extraFieldWithStream(*openStream(input), &error);
  if (!field) return;
  require(field->fieldData() && field->fieldData()->length() == field->fieldSize(),
          "the data is as long as it says");
  const auto first = written(*field);
  require(first.has_value() && first->size() == field->outputSize(), "the size is as announced");
  const auto copy = field->copyWithZone();
  require(written(*copy) == first, "a copy writes the same");
  const auto again = KQZipExtraField::extraFieldWithStream(*openStream(*first), &error);
  require(again != nullptr && written(*again) == first, "both writes are the same");
}

// A header is written from a source file; an empty one, so that the record is all that is written.
template <class Header>
void checkHeader(const std::string& input) {
  const std::string source = KQFuzz::scratch() / "source";
  if (!std::filesystem::exists(source)) KQFuzz::writeFile(source, "", 0);
  std::shared_ptr<const KQ::NSError> error;
  const auto header = Header::initWithStream(*openStream(input), &error);
  if (!header) return;
  require(!header->description().empty(), "a header describes itself");
  header->setSourceFilePath(source);
  const auto first = written(*header);
  require(first.has_value(), "a parsed header can be written");
  // Fields whose lengths together do not fit the header's own field cannot be read back.
  std::uint64_t fields = 0;
  for (const auto& field : header->extraFields()) fields += field->outputSize();
  if (fields > 0xFFFF) return;
  const auto again = Header::initWithStream(*openStream(first->substr(signatureLength)), &error);
  require(again != nullptr, "a written header can be parsed");
  require(again->fileName().value_or("") == header->fileName().value_or(""), "the name is the same");
  require(again->modTime() == header->modTime() && again->modDate() == header->modDate(),
          "the date is the same");
  require(again->extraFields().size() == header->extraFields().size(), "the fields are the same");
  again->setSourceFilePath(source);
  require(written(*again) == first, "both writes are the same");
}

constexpr std::array<void (*)(const std::string&), 7> checks{
    checkRecord<KQZipEndOfCentralDirectoryRecord>,
    checkRecord<KQZip64EndOfCentralDirectoryRecord>,
    checkRecord<KQZip64EndOfCentralDirectoryLocator>,
    checkExtraField,
    checkHeader<KQZipFileLocalHeader>,
    checkHeader<KQZipCentralDirectoryFileHeader>,
    [](const std::string& input) {
      KQ::stringByEscapingUnprintables(input);
      const std::size_t half = input.size() / 2;
      const auto order = KQ::compare(input.substr(0, half), input.substr(half));
      require(order == -KQ::compare(input.substr(half), input.substr(0, half)),
              "the order of strings is a total one");
    }};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  if (length == 0) return 0;
  KQFuzz::scratch();
  checks[bytes[0] % checks.size()](std::string(reinterpret_cast<const char*>(bytes) + 1, length - 1));
  return 0;
}
