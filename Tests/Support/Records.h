#pragma once

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/TestStreams.h"

namespace KQTest {

/// The line that a read primitive logs with `error` in the slot.
inline std::vector<std::string> readingFailedLine(const Error& error) {
  return {"stream reading failed: " + describe(error)};
}

/// The line that a write primitive logs with `error` in the slot.
inline std::vector<std::string> writingFailedLine(const Error& error) {
  return {"stream writing failed: " + describe(error)};
}

/// A buffer with these bytes.
inline std::shared_ptr<const KQ::NSData> dataOf(const std::string& bytes) {
  return KQ::NSData::dataWithBytes(bytes.data(), bytes.size());
}

/// The bytes of a buffer.
inline std::string contentsOf(const std::shared_ptr<const KQ::NSData>& data) {
  if (!data || data->length() == 0) return {};
  return {reinterpret_cast<const char*>(data->bytes()), static_cast<std::size_t>(data->length())};
}

/// How an error slot can stand before a call.
enum class Slot { none, empty, filled };

inline std::string nameOf(Slot slot) {
  return slot == Slot::none ? "no slot" : slot == Slot::empty ? "an empty slot" : "a filled slot";
}

/// The number of bytes of the first `count` transfers.
inline std::size_t sumOfFirst(const std::vector<std::uint64_t>& widths, std::size_t count) {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < count; ++i) sum += widths[i];
  return static_cast<std::size_t>(sum);
}

/// Makes each write of a record fail in turn, with an error and by taking nothing, with every kind of slot,
/// and expects that the record stops there, with the bytes before on the stream and nothing touched behind.
/// `make` gives a fresh record, `bytes` are those of a whole write and `widths` the lengths of its writes.
template <class Make>
void expectEachFailingWriteStops(const Make& make, const std::string& bytes,
                                 const std::vector<std::uint64_t>& widths) {
  ASSERT_EQ(bytes.size(), sumOfFirst(widths, widths.size()));
  for (std::size_t failing = 1; failing <= widths.size(); ++failing) {
    for (const std::int64_t result : {-1, 0}) {
      for (const Slot slot : {Slot::none, Slot::empty, Slot::filled}) {
        SCOPED_TRACE("write " + std::to_string(failing) + " returns " + std::to_string(result) + ", " +
                     nameOf(slot));
        const LogCapture log;
        const Error earlier = slot == Slot::filled ? earlierError() : nullptr;
        Error error = earlier;
        TestOutputStream stream;
        stream.failAtWrite = static_cast<std::int64_t>(failing);
        stream.failResult = result;

        EXPECT_FALSE(make()->writeToStream(stream, slot == Slot::none ? nullptr : &error));

        EXPECT_EQ(
            std::vector<std::uint64_t>(widths.begin(), widths.begin() + static_cast<std::ptrdiff_t>(failing)),
            stream.writes);
        EXPECT_EQ(hex(bytes.substr(0, sumOfFirst(widths, failing - 1))), hex(stream.bytes));
        if (result == 0) {
          EXPECT_EQ(earlier, error);
          EXPECT_EQ(std::vector<std::string>(), log.lines());
        } else {
          if (slot != Slot::none) expectKQZipError(error, -51, "Error writing file");
          EXPECT_EQ(writingFailedLine(error), log.lines());
        }
      }
    }
  }
}

/// Cuts each write of a record in turn to one byte and expects that the record goes on and succeeds.
template <class Make>
void expectEachPartialWriteIsASuccess(const Make& make, const std::string& bytes,
                                      const std::vector<std::uint64_t>& widths) {
  for (std::size_t partial = 1; partial <= widths.size(); ++partial) {
    SCOPED_TRACE("write " + std::to_string(partial) + " takes one byte");
    const LogCapture log;
    Error error;
    TestOutputStream stream;
    stream.shortenAtWrite = static_cast<std::int64_t>(partial);

    EXPECT_TRUE(make()->writeToStream(stream, &error));

    std::string expected = bytes;
    expected.erase(sumOfFirst(widths, partial - 1) + 1, static_cast<std::size_t>(widths[partial - 1]) - 1);
    EXPECT_EQ(hex(expected), hex(stream.bytes));
    EXPECT_EQ(widths, stream.writes);
    EXPECT_EQ(nullptr, error);
    EXPECT_EQ(std::vector<std::string>(), log.lines());
  }
}

/// Makes each read of a record fail in turn, with every kind of slot, and expects that the record stops
/// there. `expectParsed(record, count)` checks that exactly the first `count` transfers have reached the
/// record. `bytes` are those behind the signature and `widths` the lengths of the reads.
template <class Make, class ExpectParsed>
void expectEachFailingReadStops(const Make& make, const std::string& bytes,
                                const std::vector<std::uint64_t>& widths, const ExpectParsed& expectParsed) {
  ASSERT_EQ(bytes.size(), sumOfFirst(widths, widths.size()));
  for (std::size_t failing = 1; failing <= widths.size(); ++failing) {
    for (const Slot slot : {Slot::none, Slot::empty, Slot::filled}) {
      SCOPED_TRACE("read " + std::to_string(failing) + " fails, " + nameOf(slot));
      const LogCapture log;
      Error error = slot == Slot::filled ? earlierError() : nullptr;
      TestInputStream stream(bytes);
      stream.failAtRead = static_cast<std::int64_t>(failing);
      const auto record = make();

      EXPECT_FALSE(record->parseFromStream(stream, slot == Slot::none ? nullptr : &error));

      EXPECT_EQ(
          std::vector<std::uint64_t>(widths.begin(), widths.begin() + static_cast<std::ptrdiff_t>(failing)),
          stream.reads);
      EXPECT_EQ(sumOfFirst(widths, failing - 1), stream.position);
      expectParsed(*record, failing - 1);
      if (slot == Slot::filled)
        expectKQZipError(error, -50, "Error reading file");
      else
        EXPECT_EQ(nullptr, error);
      EXPECT_EQ(readingFailedLine(error), log.lines());
    }
  }
}

/// Ends the stream before each read of a record in turn and expects that the record stops there, without an
/// error and without a log line. See expectEachFailingReadStops().
template <class Make, class ExpectParsed>
void expectEachEndOfStreamStops(const Make& make, const std::string& bytes,
                                const std::vector<std::uint64_t>& widths, const ExpectParsed& expectParsed) {
  ASSERT_EQ(bytes.size(), sumOfFirst(widths, widths.size()));
  for (std::size_t missing = 1; missing <= widths.size(); ++missing) {
    for (const Slot slot : {Slot::none, Slot::empty, Slot::filled}) {
      SCOPED_TRACE("the stream ends before read " + std::to_string(missing) + ", " + nameOf(slot));
      const LogCapture log;
      const Error earlier = slot == Slot::filled ? earlierError() : nullptr;
      Error error = earlier;
      TestInputStream stream(bytes.substr(0, sumOfFirst(widths, missing - 1)));
      const auto record = make();

      EXPECT_FALSE(record->parseFromStream(stream, slot == Slot::none ? nullptr : &error));

      EXPECT_EQ(
          std::vector<std::uint64_t>(widths.begin(), widths.begin() + static_cast<std::ptrdiff_t>(missing)),
          stream.reads);
      expectParsed(*record, missing - 1);
      EXPECT_EQ(earlier, error);
      EXPECT_EQ(std::vector<std::string>(), log.lines());
    }
  }
}

/// Expects that `Record::initWithStream` gives no record when the stream ends early or fails, and hands out
/// what the parse left in the slot. `bytes` are those behind the signature, `reads` the number of reads.
template <class Record>
void expectFailedParseGivesNoRecord(const std::string& bytes, std::size_t reads) {
  const LogCapture log;
  Error error;
  TestInputStream empty{std::string()};
  EXPECT_EQ(nullptr, Record::initWithStream(empty, &error));
  EXPECT_EQ(nullptr, error);
  const Error earlier = earlierError();
  error = earlier;
  TestInputStream emptyAgain{std::string()};
  EXPECT_EQ(nullptr, Record::initWithStream(emptyAgain, &error));
  EXPECT_EQ(earlier, error);
  EXPECT_EQ(std::vector<std::string>(), log.lines());

  TestInputStream failing(bytes);
  failing.failAtRead = static_cast<std::int64_t>(reads);
  EXPECT_EQ(nullptr, Record::initWithStream(failing, &error));
  expectKQZipError(error, -50, "Error reading file");
  EXPECT_EQ(readingFailedLine(error), log.lines());

  TestInputStream withoutSlot(bytes);
  withoutSlot.failAtRead = 1;
  EXPECT_EQ(nullptr, Record::initWithStream(withoutSlot));
}

}  // namespace KQTest
