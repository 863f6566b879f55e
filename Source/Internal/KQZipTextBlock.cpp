#include "KQZipTextBlock.h"

#include "../KQZipStreamPrimitives.h"
#include "../Platform/NSString.h"

bool KQZipReadTextBlock(KQ::NSInputStream& stream, std::uint16_t length, KQZipText* text,
                        KQ::NSErrorSlot error) {
  std::string bytes(length, '\0');
  if (!KQZipReadBlockBytes(stream, bytes.data(), length, error)) return false;
  *text = KQ::isValidUTF8(bytes) ? std::make_shared<const std::string>(std::move(bytes)) : nullptr;
  return true;
}
