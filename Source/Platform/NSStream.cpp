#include "NSStream.h"

namespace KQ {

NSStream::~NSStream() = default;

void NSStream::open() {}

void NSStream::close() {}

NSStreamStatus NSStream::streamStatus() const { return NSStreamStatusOpen; }

std::shared_ptr<const NSError> NSStream::streamError() const { return nullptr; }

std::optional<std::uint64_t> NSStream::NSStreamFileCurrentOffsetKey() const { return std::nullopt; }

bool NSStream::setNSStreamFileCurrentOffsetKey(std::uint64_t /*offset*/) { return false; }

NSInputStream::~NSInputStream() = default;

NSOutputStream::~NSOutputStream() = default;

bool NSOutputStream::flush() { return true; }

std::shared_ptr<const NSData> NSOutputStream::NSStreamDataWrittenToMemoryStreamKey() const { return nullptr; }

}  // namespace KQ
