#include "KQZipTextBlock.h"

#include "../KQZipStreamPrimitives.h"
#include "../Platform/NSString.h"

bool KQZipReadTextBlock(KQ::NSInputStream& stream, std::uint16_t length, KQ::NSSharedString* text,
                        KQ::NSErrorSlot error) {
  auto bytes = KQ::NSSharedString::textFilledBy(
      length, [&](char* first) { return KQZipReadBlockBytes(stream, first, length, error); });
  if (!bytes.isPresent()) return false;
  *text = KQ::isValidUTF8(bytes.view()) ? std::move(bytes) : KQ::NSSharedString();
  return true;
}
