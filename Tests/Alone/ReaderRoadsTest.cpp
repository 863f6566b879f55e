// A reader decodes headers in one piece as long as no host has registered extra fields of its own, and leaves
// them to their classes from then on. Nobody can tell by its answers. A class cannot be taken back, so this
// is a program of its own.

#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/TemporaryDirectory.h"
#include "Support/TestStreams.h"

using namespace KQTest;

namespace {

constexpr std::uint16_t hostIdentifier = 0x6B71;

int hostFieldsMade = 0;

class HostField : public KQZipExtraField {
 public:
  HostField() { ++hostFieldsMade; }
  static bool isValidForIdentifier(std::uint16_t identifier) { return identifier == hostIdentifier; }

 protected:
  std::shared_ptr<KQZipExtraField> _newInstance() const override { return std::make_shared<HostField>(); }
};

// Everything that opening an archive and asking its reader shows.
struct Answers {
  std::string error;
  std::vector<std::string> log;
  std::vector<std::string> entries;

  bool operator==(const Answers&) const = default;
};

void ask(const KQZipFileReader& reader, Answers* answers) {
  for (const std::string& path : reader.relativePaths()) {
    const auto attributes = reader.attributesForRelativePath(path);
    const std::uint64_t length = attributes->NSFileSize.value();
    const auto stream = reader.streamForRelativePath(path);
    // A length that lies may be larger than the memory.
    const auto data = length < 1000000 ? reader.dataForRelativePath(path) : nullptr;
    answers->entries.push_back(
        path + ": " + std::to_string(length) + ", " + localTime(*attributes->NSFileModificationDate) + ", " +
        (*attributes->NSFileType == KQ::NSFileTypeRegular ? "regular, " : "folder, ") +
        (stream ? hex(readFrom(*stream, 20)) : "no stream") + ", " + hex(bytesOf(data).value_or("no data")));
  }
}

Answers answersOf(const std::string& path) {
  Answers answers;
  const LogCapture log;
  std::shared_ptr<const KQ::NSError> error;
  const auto reader = KQZipFileReader::initWithZipPath(path, &error);
  answers.error = reader ? "opened" : errorText(error);
  if (reader) ask(*reader, &answers);
  answers.log = log.lines();
  return answers;
}

Answers answersFromStream(KQ::NSInputStream& stream) {
  Answers answers;
  const LogCapture log;
  std::shared_ptr<const KQ::NSError> error;
  const auto reader = KQZipFileReader::initWithStream(stream, &error);
  answers.error = reader ? "opened" : errorText(error);
  if (reader) ask(*reader, &answers);
  answers.error += ", at " + std::to_string(stream.NSStreamFileCurrentOffsetKey().value_or(0));
  answers.log = log.lines();
  return answers;
}

LocalRecord withExtra(const std::string& name, const std::string& extra) {
  LocalRecord record = plainRecord(name, "data of " + name);
  record.extra = extra;
  return record;
}

bool isBeyondAnyFile(const Answers& answers) {
  return std::any_of(answers.log.begin(), answers.log.end(), [](const std::string& line) {
    return line.find("failed to set stream offset") != std::string::npos;
  });
}

// Archives that hold headers of many kinds, whole, damaged and cut off.
std::vector<std::string> archives() {
  const std::string times = extraFieldBytes(0x5455, std::string(9, '\x5F'));
  std::vector<LocalRecord> records{
      zip64Record("a", "first"),
      withExtra("b/c", times),
      withExtra("", times + zip64FieldBytes(10, 8)),
      withExtra("d", extraFieldBytes(1, std::string("\x01\0\0\0\0\0\0\0\x09", 9))),
      withExtra("e", extraFieldBytes(1, "")),
      withExtra("twice", zip64FieldBytes(13, 13) + zip64FieldBytes(1, 2)),
      plainRecord("not \xFF UTF-8", "nobody asks for it"),
      plainRecord("\xC3\xBC", ""),
      plainRecord("twice", "another"),
      withExtra("host", extraFieldBytes(hostIdentifier, "of a host"))};
  // A Zip64 field without values says that there is no data.
  records[4].data.clear();
  const std::string whole = archiveBytes(records);
  std::vector<std::string> all{whole, ""};
  for (const std::string& extra : {std::string("x"), std::string("xyz"), extraFieldBytes(0xCAFE, "four", 6),
                                   extraFieldBytes(1, "", 0xFFFF), zip64FieldBytes(4, UINT64_MAX),
                                   zip64FieldBytes(4, INT64_MAX), zip64FieldBytes(4, INT64_MAX - 100)})
    all.push_back(archiveBytes({records[0], withExtra("odd", extra), records[1]}));
  LocalRecord compressed = plainRecord("compressed", "data");
  compressed.compression = 8;
  all.push_back(archiveBytes({records[0], compressed}));
  // More than the streams read ahead at once, so that headers cross the ends of what is at hand.
  std::vector<LocalRecord> many;
  for (std::size_t i = 0; i < 3000; ++i)
    many.push_back(zip64Record(std::to_string(i), std::string(i % 70, 'd')));
  all.push_back(archiveBytes(many));

  std::mt19937 random(20261121);
  for (int round = 0; round < 400; ++round) {
    std::string bytes = whole;
    for (auto changes = 1 + random() % 3; changes != 0; --changes)
      bytes[random() % bytes.size()] = static_cast<char>(random() % 2 == 0 ? random() % 4 : random());
    if (random() % 4 == 0) bytes.resize(random() % bytes.size());
    all.push_back(bytes);
  }
  return all;
}

TEST(ReaderRoads, TheAnswersAreTheSameOnceAHostHasRegisteredAClass) {
  const TemporaryDirectory folder;
  const std::vector<std::string> all = archives();
  std::vector<Answers> before;
  std::vector<Answers> beforeFromMemory;
  int opened = 0;
  const auto pathOf = [&folder](std::size_t i) { return folder / (std::to_string(i) + ".zip"); };
  const auto fromMemory = [](const std::string& bytes) {
    const auto stream =
        KQ::NSInputStream::inputStreamWithData(KQ::NSData::dataWithBytes(bytes.data(), bytes.size()));
    stream->open();
    return answersFromStream(*stream);
  };
  for (std::size_t i = 0; i < all.size(); ++i) {
    writeFile(pathOf(i), all[i]);
    before.push_back(answersOf(pathOf(i)));
    beforeFromMemory.push_back(fromMemory(all[i]));
    opened += before.back().error == "opened" ? 1 : 0;
    // What a host's own stream delivers is read by the classes at all times. This one goes where no file
    // does.
    TestInputStream stream(all[i]);
    const Answers fromHost = answersFromStream(stream);
    if (!isBeyondAnyFile(before.back())) {
      EXPECT_EQ(beforeFromMemory.back(), fromHost) << i;
    }
  }
  // Both must have been seen, or the changes tested nothing.
  EXPECT_LT(static_cast<int>(all.size()) / 5, opened);
  EXPECT_GT(static_cast<int>(all.size()) * 4 / 5, opened);
  EXPECT_EQ(0, hostFieldsMade);

  KQZipExtraField::registerSubclass<HostField>();
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(before[i], answersOf(pathOf(i))) << i;
    EXPECT_EQ(beforeFromMemory[i], fromMemory(all[i])) << i;
  }
  EXPECT_LT(0, hostFieldsMade);
}

}  // namespace
