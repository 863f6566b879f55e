// A host that links the library statically, drops every section that nothing refers to, and only parses one
// extra field: the class for Zip64 fields must be there, and registered, without any action of the host.
// Nothing here may refer to that class, for the reference alone would link it; so it is known by its name,
// and its values by the bytes that it writes.

#include <KQZip/KQZipExtraField.h>
#include <KQZip/Platform/NSData.h>
#include <KQZip/Platform/NSStream.h>

#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <typeinfo>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

// Id 1 and 12 bytes of data: the first value and the low half of the second.
const Bytes parsed{1, 0, 12, 0, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C};

// A Zip64 field always writes three values of 8 bytes; a generic one would write back what it was.
const Bytes written{1,    0,    24, 0, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A,
                    0x0B, 0x0C, 0,  0, 0,    0,    0,    0,    0,    0,    0,    0,    0,    0};

int complain(const char* what) {
  std::cerr << what << '\n';
  return 1;
}

}  // namespace

int main() {
  const auto input =
      KQ::NSInputStream::inputStreamWithData(KQ::NSData::dataWithBytes(parsed.data(), parsed.size()));
  input->open();
  const auto field = KQZipExtraField::extraFieldWithStream(*input);
  if (!field) return complain("the field was not parsed");
  if (input->NSStreamFileCurrentOffsetKey() != parsed.size())
    return complain("the stream does not stand behind the field");

  const KQZipExtraField& object = *field;
  if (std::string(typeid(object).name()).find("KQZipExtraFieldZip64ExtendedInfo") == std::string::npos)
    return complain("the field is not a Zip64 field");
  if (field->outputSize() != written.size()) return complain("the field is not 28 bytes long");

  const auto output = KQ::NSOutputStream::outputStreamToMemory();
  output->open();
  if (!field->writeToStream(*output)) return complain("the field was not written");
  output->close();
  const auto data = output->NSStreamDataWrittenToMemoryStreamKey();
  if (!data || Bytes(data->bytes(), data->bytes() + data->length()) != written)
    return complain("the Zip64 field has other values");
  return 0;
}
