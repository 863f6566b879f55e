#include "KQZipTextBlock.h"

#include "KQZipStreamPrimitives.h"
#include "Platform/NSString.h"

bool KQZipReadTextBlock(KQ::NSInputStream& stream, std::uint16_t length, std::optional<std::string>* text,
                        KQ::NSErrorSlot error) {
  std::string bytes(length, '\0');
  if (!KQZipReadBlockBytes(stream, bytes.data(), length, error)) return false;
  if (KQ::isValidUTF8(bytes)) {
    *text = std::move(bytes);
  } else {
    text->reset();
  }
  return true;
}
