#include <KQZip/KQZip.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/GoldenArchive.h"
#include "Support/InteroperableArchive.h"
#include "Support/LogCapture.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryDirectory.h"

namespace fs = std::filesystem;

using namespace KQTest;

namespace {

const std::string otherEnd = "it does not end with the records that KQZip writes";

GoldenEntry entry(const std::string& name, const std::string& data) {
  return {name, data, dosTime(12, 26, 40), dosDate(2020, 9, 13)};
}

/// Every kind of entry: a name of each sort, with and without data.
std::vector<GoldenEntry> mixedEntries() {
  return {entry("a.txt", "first"),
          entry("empty", ""),
          entry("folder/", ""),
          entry("folder/gr\xC3\xBC\xC3\x9F"
                "e.txt",
                "umlauts"),
          entry("\xE6\x97\xA5\xE6\x9C\xAC/", ""),
          entry("\xF0\x9F\x98\x80", patternBytes(3000)),
          entry("z", "last")};
}

std::string centralHeaderNotAsWritten(std::size_t offset) {
  return "the central header at offset " + std::to_string(offset) + " is not as KQZip writes it";
}

/// A file with these bytes, and what the operation does to it.
class ArchiveFile {
 public:
  explicit ArchiveFile(const std::string& bytes) { replace(bytes); }

  std::string path() const { return folder_ / "archive.zip"; }
  std::string bytes() const { return readFile(path()); }

  /// Makes the file's bytes these.
  void replace(const std::string& bytes) {
    bytes_ = bytes;
    // In place, which spares the disk much work in the tests with many archives.
    if (!fs::exists(path())) writeFile(path(), "");
    std::fstream(path(), std::ios::binary | std::ios::in | std::ios::out) << bytes;
    if (fs::file_size(path()) != bytes.size()) fs::resize_file(path(), bytes.size());
  }

  void expectMade(const std::string& expected, const KQZipPermissions& permissions = {}) const {
    Error error = earlierError();
    EXPECT_TRUE(KQZipMakeArchiveInteroperable(path(), permissions, &error)) << describe(error);
    EXPECT_EQ(describe(earlierError()), describe(error));
    expectSameBytes(expected, bytes());
  }

  void expectRefused(const std::string& reason) const {
    Error error;
    EXPECT_FALSE(KQZipMakeArchiveInteroperable(path(), &error));
    EXPECT_FALSE(KQZipMakeArchiveInteroperable(path()));
    expectError(error, "KQZipErrorDomain", -1, path() + " cannot be made interoperable: " + reason);
    expectSameBytes(bytes_, bytes(), "the refused archive");
  }

 private:
  TemporaryDirectory folder_;
  std::string bytes_;
};

/// All that the library's reader says of an archive.
std::vector<std::string> answersOf(const std::string& path) {
  Error error;
  const auto reader = KQZipFileReader::initWithZipPath(path, &error);
  if (!reader) return {describe(error)};
  std::vector<std::string> answers;
  for (const std::string& name : reader->relativePaths()) {
    answers.push_back(name);
    const auto attributes = reader->attributesForRelativePath(name);
    answers.push_back(std::to_string(attributes->NSFileSize.value()) + " " +
                      std::to_string(attributes->NSFileType.value()) + " " +
                      localTime(attributes->NSFileModificationDate.value()));
    answers.push_back(bytesOf(reader->dataForRelativePath(name)).value_or("no data"));
  }
  return answers;
}

std::optional<std::uint32_t> noPermissions(const std::string&) { return std::nullopt; }

}  // namespace

TEST(KQZipInteroperability, ChangesExactlyTheFieldsThatOtherProgramsStumbleOver) {
  const std::vector<GoldenEntry> entries{entry("a", "x"), entry("\xC3\xBC", "yz")};
  const std::string before = goldenArchive(entries);
  std::string after = before;
  // Local headers of 30 + 1 + 28 + 1 and 30 + 2 + 28 + 2 bytes; then central headers of 75 and 76.
  const std::size_t second = 60;
  const std::size_t directory = 122;
  const std::size_t end = directory + 75 + 76;
  setNumberAt(after, second + 6, 2, 0x0800);
  setNumberAt(after, directory + 38, 4, 0x81A40000);
  setNumberAt(after, directory + 75 + 8, 2, 0x0800);
  setNumberAt(after, directory + 75 + 38, 4, 0x81A40000);
  ASSERT_EQ(75U + 76 + 98, numberAt(before, end + 40, 8));
  setNumberAt(after, end + 40, 8, 75 + 76);
  ASSERT_EQ(75U + 76 + 98, numberAt(before, end + 76 + 12, 4));
  setNumberAt(after, end + 76 + 12, 4, 75 + 76);

  ArchiveFile(before).expectMade(after);
  EXPECT_EQ(after, interoperableArchive(before));
}

TEST(KQZipInteroperability, GivesFilesAndFoldersTheirAttributesAndMarksNamesOutsideASCII) {
  const std::string before = goldenArchive(mixedEntries());
  const ArchiveFile archive(before);
  archive.expectMade(interoperableArchive(before));

  const std::string after = archive.bytes();
  std::size_t header = ArchiveTail(after).startOfDirectory;
  for (const auto& [flags, attributes] :
       std::vector<std::pair<std::uint64_t, std::uint64_t>>{{0, 0100644U << 16},
                                                            {0, 0100644U << 16},
                                                            {0, (040755U << 16) | 0x10},
                                                            {0x800, 0100644U << 16},
                                                            {0x800, (040755U << 16) | 0x10},
                                                            {0x800, 0100644U << 16},
                                                            {0, 0100644U << 16}}) {
    EXPECT_EQ(flags, numberAt(after, header + 8, 2)) << header;
    EXPECT_EQ(attributes, numberAt(after, header + 38, 4)) << header;
    header += 46 + numberAt(after, header + 28, 2) + 28;
  }
}

TEST(KQZipInteroperability, EachFieldThatAloneIsNotInteroperableIsChanged) {
  const std::string before = goldenArchive(mixedEntries());
  const std::string after = interoperableArchive(before);
  const ArchiveTail tail(before);
  ArchiveFile archive(after);
  const auto expectChanged = [&](std::size_t position, std::size_t width) {
    SCOPED_TRACE(position);
    ASSERT_NE(before.substr(position, width), after.substr(position, width));
    std::string mixed = after;
    mixed.replace(position, width, before, position, width);
    archive.replace(mixed);
    archive.expectMade(after);
  };
  std::size_t local = 0;
  std::size_t central = tail.startOfDirectory;
  for (const GoldenEntry& each : mixedEntries()) {
    if (numberAt(after, local + 6, 2) != 0) {
      expectChanged(local + 6, 2);
      expectChanged(central + 8, 2);
    }
    expectChanged(central + 38, 4);
    local += 30 + each.name.size() + 28 + each.data.size();
    central += 46 + each.name.size() + 28;
  }
  expectChanged(tail.startOfEndRecords + 40, 8);
  expectChanged(tail.startOfEndRecords + 76 + 12, 4);
}

TEST(KQZipInteroperability, TakesWhatTheWriterWrites) {
  const SourceTree folder;
  folder.file("tree/a.txt", "text");
  folder.file("tree/sub/empty", "");
  folder.file("tree/sub/\xC3\xA9.bin", patternBytes(1048577));
  Error error;
  ASSERT_TRUE(KQZipFileWriter::createZipFileAtPath(folder / "a.zip", folder / "tree", true, &error));
  const std::string before = readFile(folder / "a.zip");
  ASSERT_TRUE(KQZipMakeArchiveInteroperable(folder / "a.zip", &error)) << describe(error);
  expectSameBytes(interoperableArchive(before), readFile(folder / "a.zip"));
}

TEST(KQZipInteroperability, WhatTheReaderAnswersIsTheSameBeforeAndAfter) {
  const ArchiveFile archive(goldenArchive(mixedEntries()));
  const std::vector<std::string> before = answersOf(archive.path());
  ASSERT_EQ(3 * mixedEntries().size(), before.size());
  ASSERT_TRUE(KQZipMakeArchiveInteroperable(archive.path()));
  EXPECT_EQ(before, answersOf(archive.path()));
}

TEST(KQZipInteroperability, AnArchiveWithoutEntriesGetsADirectoryOfNoBytes) {
  const std::string before = goldenArchive({});
  ASSERT_EQ(98U, before.size());
  std::string after = before;
  setNumberAt(after, 40, 8, 0);
  setNumberAt(after, 76 + 12, 4, 0);
  const ArchiveFile archive(before);
  archive.expectMade(after);
  archive.expectMade(after);
}

TEST(KQZipInteroperability, ANameThatIsNotUTF8IsNotMarkedAndItsEntryGetsItsAttributes) {
  const std::string before = goldenArchive({entry("bad\xFF", "x"), entry("bad\xC3/", "")});
  const std::string after = interoperableArchive(before);
  const std::size_t directory = ArchiveTail(after).startOfDirectory;
  ASSERT_EQ(0U, numberAt(after, directory + 8, 2));
  ASSERT_EQ(0100644U << 16, numberAt(after, directory + 38, 4));
  ArchiveFile(before).expectMade(after);
}

TEST(KQZipInteroperability, NamesOfEveryLengthPassWhereverTheyStandInABlock) {
  std::vector<GoldenEntry> entries{entry(std::string(65535, 'a'), "x"), entry("", "no name")};
  // More than two blocks of 1 MiB, no header at the same place in a block.
  for (int i = 0; i < 60; ++i)
    entries.push_back(entry("b" + std::string(40000 + static_cast<std::size_t>(i), 'c'), ""));
  const std::string before = goldenArchive(entries);
  ArchiveFile(before).expectMade(interoperableArchive(before));
}

TEST(KQZipInteroperability, ClassicCountsThatFitStay) {
  const std::string before = goldenArchive(std::vector<GoldenEntry>(65535, entry("", "")));
  const std::string after = interoperableArchive(before);
  const ArchiveFile archive(before);
  archive.expectMade(after);
  for (const std::size_t at : {14U, 12U}) EXPECT_EQ(65535U, numberAt(after, after.size() - at, 2));
}

TEST(KQZipInteroperability, ClassicCountsThatWrapAreSaturatedAlsoAfterAnInterruption) {
  // 4 becomes 0xFFFF.
  const std::string before = goldenArchive(std::vector<GoldenEntry>(65540, entry("", "")));
  const std::string after = interoperableArchive(before);
  const std::size_t start = before.size() - 22;
  ASSERT_EQ(4U, numberAt(before, start + 8, 2));
  ASSERT_EQ(65535U, numberAt(after, start + 8, 2));
  const ArchiveFile archive(before);
  archive.expectMade(after);
  // From the first byte of the counts to the last one of the size.
  for (std::size_t changed = start + 8; changed <= start + 16; ++changed) {
    SCOPED_TRACE(changed);
    std::fstream file(archive.path(), std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(changed));
    file << before.substr(changed) << std::flush;
    Error error;
    ASSERT_TRUE(KQZipMakeArchiveInteroperable(archive.path(), &error)) << describe(error);
    file.seekg(static_cast<std::streamoff>(start));
    std::string end(22, '\0');
    file.read(end.data(), 22);
    EXPECT_EQ(hex(after.substr(start)), hex(end));
  }
}

TEST(KQZipInteroperability, AnEntryBeyond4GiBKeepsItsPlace) {
  const std::uint64_t length = (std::uint64_t{5} << 30) + 7;
  GoldenEntry large = entry("large", "");
  large.localSize = large.centralSize = length;
  GoldenEntry behind = entry("\xC3\xA4 behind", "data");
  const std::uint64_t placeOfSecond = goldenLocalHeader(large, 0).size() + length;
  const std::string start = goldenLocalHeader(large, 0);
  const std::uint64_t directory =
      placeOfSecond + goldenLocalHeader(behind, placeOfSecond).size() + behind.data.size();
  const std::string headers = goldenCentralHeader(large, 0) + goldenCentralHeader(behind, placeOfSecond);
  const std::string tail = goldenLocalHeader(behind, placeOfSecond) + behind.data + headers +
                           goldenEndRecords(2, directory, headers.size());

  // A hole in the place of the data.
  const TemporaryDirectory folder;
  const std::string path = folder / "large.zip";
  writeFile(path, start);
  fs::resize_file(path, placeOfSecond);
  std::ofstream(path, std::ios::binary | std::ios::app) << tail;
  const std::vector<std::string> names = KQZipFileReader::initWithZipPath(path)->relativePaths();

  Error error;
  ASSERT_TRUE(KQZipMakeArchiveInteroperable(path, &error)) << describe(error);

  std::ifstream file(path, std::ios::binary);
  std::string found(start.size(), '\0');
  file.read(found.data(), static_cast<std::streamsize>(found.size()));
  expectSameBytes(start, found, "the first header");
  found.resize(tail.size());
  file.seekg(static_cast<std::streamoff>(placeOfSecond));
  file.read(found.data(), static_cast<std::streamsize>(found.size()));
  std::string expected = tail;
  const std::size_t firstHeader = directory - placeOfSecond;
  const std::size_t secondHeader = firstHeader + goldenCentralHeader(large, 0).size();
  setNumberAt(expected, 6, 2, 0x800);
  setNumberAt(expected, firstHeader + 38, 4, 0x81A40000);
  setNumberAt(expected, secondHeader + 8, 2, 0x800);
  setNumberAt(expected, secondHeader + 38, 4, 0x81A40000);
  setNumberAt(expected, expected.size() - 58, 8, headers.size());
  setNumberAt(expected, expected.size() - 10, 4, headers.size());
  expectSameBytes(expected, found, "all behind the data");
  EXPECT_EQ(0xFFFFFFFF, numberAt(found, found.size() - 6, 4)) << "the classic offset stays saturated";
  EXPECT_EQ(names, KQZipFileReader::initWithZipPath(path)->relativePaths());
}

TEST(KQZipInteroperability, PermissionsComeFromTheFunctionAsFarAsTheyArePermissions) {
  const std::string before = goldenArchive(mixedEntries());
  const std::map<std::string, std::uint32_t> given{
      {"a.txt", 0100755}, {"empty", 0}, {"folder/", 0700}, {"z", 07777}, {"\xF0\x9F\x98\x80", 0600}};
  std::vector<std::string> asked;
  const KQZipPermissions permissions = [&](const std::string& name) -> std::optional<std::uint32_t> {
    asked.push_back(name);
    const auto found = given.find(name);
    return found == given.end() ? std::nullopt : std::optional(found->second);
  };
  std::vector<std::string> names;
  for (const GoldenEntry& each : mixedEntries()) names.push_back(each.name);
  const std::map<std::string, unsigned> expected{
      {"a.txt", 0755}, {"empty", 0}, {"folder/", 0700}, {"z", 0777}, {"\xF0\x9F\x98\x80", 0600}};
  const ArchiveFile archive(before);
  archive.expectMade(interoperableArchive(before, expected), permissions);
  EXPECT_EQ(names, asked);

  // What is set stays, and is not asked for.
  asked.clear();
  archive.expectMade(interoperableArchive(before, expected), permissions);
  archive.expectMade(interoperableArchive(before, expected));
  EXPECT_EQ(std::vector<std::string>(), asked);
}

TEST(KQZipInteroperability, AttributesWithATypeStayAndTheBeginningOfWhatIsSetIsCompleted) {
  const std::string before = goldenArchive({entry("a", ""), entry("b", ""), entry("c/", "")});
  const std::size_t directory = ArchiveTail(before).startOfDirectory;
  std::string with = before;
  setNumberAt(with, directory + 38, 4, 0120777U << 16);
  setNumberAt(with, directory + 75 + 38, 4, 0xA4U << 16);
  setNumberAt(with, directory + 150 + 38, 4, 0x00ED0010U);
  std::string after = interoperableArchive(before);
  setNumberAt(after, directory + 38, 4, 0120777U << 16);
  ArchiveFile(with).expectMade(after);
}

TEST(KQZipInteroperability, AttributesThatNobodySetHereAreRefusedAndKept) {
  const std::string before = goldenArchive({entry("a", ""), entry("b/", "")});
  const std::size_t directory = ArchiveTail(before).startOfDirectory;
  // A file as MS-DOS has it, a folder's mark on a file, permissions without a type, other bits of MS-DOS.
  const std::vector<std::pair<std::size_t, std::uint32_t>> cases{{directory, 0x20},
                                                                 {directory, 0x10},
                                                                 {directory, 0000755U << 16},
                                                                 {directory + 75, 0x11},
                                                                 {directory + 75, 0x0110}};
  for (const auto& [header, attributes] : cases) {
    SCOPED_TRACE(attributes);
    std::string with = before;
    setNumberAt(with, header + 38, 4, attributes);
    const ArchiveFile archive(with);
    Error error;
    EXPECT_FALSE(KQZipMakeArchiveInteroperable(archive.path(), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(-1, error->code());
    expectSameBytes(with, archive.bytes());
  }
}

TEST(KQZipInteroperability, AnInteroperableArchiveIsNotWrittenToAndNeedNotBeWritable) {
  const std::string after = interoperableArchive(goldenArchive(mixedEntries()));
  const ArchiveFile archive(after);
  {
    const SystemCalls calls;
    archive.expectMade(after);
    for (const SystemCalls::Transfer& transfer : calls.transfers) EXPECT_FALSE(transfer.isWrite);
    EXPECT_FALSE(calls.transfers.empty());
  }
  fs::permissions(archive.path(), fs::perms::owner_read | fs::perms::others_read);
  fs::permissions(fs::path(archive.path()).parent_path(), fs::perms::all);
  inUnprivilegedChildProcess([&] { archive.expectMade(after); });
}

TEST(KQZipInteroperability, AnArchiveThatMayNotBeWrittenIsTheSystemsErrorAndStaysAsItIs) {
  const std::string before = goldenArchive(mixedEntries());
  const ArchiveFile archive(before);
  fs::permissions(archive.path(), fs::perms::owner_read | fs::perms::others_read);
  fs::permissions(fs::path(archive.path()).parent_path(), fs::perms::all);
  inUnprivilegedChildProcess([&] {
    Error error;
    EXPECT_FALSE(KQZipMakeArchiveInteroperable(archive.path(), &error));
    expectPOSIXError(EACCES, archive.path(), error);
    EXPECT_FALSE(KQZipMakeArchiveInteroperable(archive.path()));
  });
  expectSameBytes(before, archive.bytes());
}

TEST(KQZipInteroperability, WhatIsNoReadableFileIsTheSystemsError) {
  const TemporaryDirectory folder;
  const auto expectSystemError = [](const std::string& path, int code) {
    SCOPED_TRACE(path);
    Error error;
    EXPECT_FALSE(KQZipMakeArchiveInteroperable(path, &error));
    expectPOSIXCode(code, error);
    EXPECT_FALSE(KQZipMakeArchiveInteroperable(path));
  };
  expectSystemError(folder / "missing", ENOENT);
  EXPECT_FALSE(fs::exists(folder / "missing"));
  expectSystemError(folder.path().string(), EISDIR);
  expectSystemError("", EISDIR);
  expectSystemError(std::string("a\0b", 3), EINVAL);
  expectSystemError("a\xFF", EILSEQ);
  expectSystemError("/dev/null", ESPIPE);
  // A pipe that nobody writes to must not be waited for.
  ASSERT_EQ(0, mkfifo((folder / "pipe").c_str(), 0600));
  expectSystemError(folder / "pipe", ESPIPE);
}

TEST(KQZipInteroperability, ASymbolicLinkLeadsToTheArchive) {
  const std::string before = goldenArchive(mixedEntries());
  const ArchiveFile archive(before);
  const TemporaryDirectory folder;
  fs::create_symlink(archive.path(), folder / "link");
  ASSERT_TRUE(KQZipMakeArchiveInteroperable(folder / "link"));
  expectSameBytes(interoperableArchive(before), archive.bytes());
  EXPECT_TRUE(fs::is_symlink(folder / "link"));
}

TEST(KQZipInteroperability, AnArchiveCutAnywhereIsRefused) {
  const std::string bytes = goldenArchive(mixedEntries());
  ArchiveFile archive(bytes);
  for (std::size_t length = bytes.size(); length-- > 0;) {
    SCOPED_TRACE(length);
    archive.replace(bytes.substr(0, length));
    archive.expectRefused(otherEnd);
  }
}

TEST(KQZipInteroperability, BytesInFrontBehindOrBetweenAreRefused) {
  const std::string bytes = goldenArchive({entry("a", "x"), entry("b", "y")});
  const ArchiveTail tail(bytes);
  ArchiveFile(bytes + "x").expectRefused(otherEnd);
  ArchiveFile("x" + bytes).expectRefused(otherEnd);
  // An archive behind something else, with offsets that are right and with those of its own file.
  ArchiveFile("stub" + goldenArchive({entry("a", "x")}, 4)).expectRefused(centralHeaderNotAsWritten(4 + 60));
  ArchiveFile(bytes.substr(0, tail.startOfDirectory) + "gap" + bytes.substr(tail.startOfDirectory))
      .expectRefused(otherEnd);
  const std::string directory =
      goldenCentralHeader(entry("a", "x"), 0) + goldenCentralHeader(entry("b", "y"), 60);
  ArchiveFile(bytes.substr(0, tail.startOfDirectory) + "gap" + directory + goldenEndRecords(2, 123, 150))
      .expectRefused("its entries do not end where its central directory begins");
  std::string commented = bytes + "hello";
  setNumberAt(commented, bytes.size() - 2, 2, 5);
  ArchiveFile(commented).expectRefused(otherEnd);
}

TEST(KQZipInteroperability, ADirectoryThatDoesNotFitItsCountsIsRefused) {
  const GoldenEntry a = entry("a", "x");
  const GoldenEntry b = entry("b", "y");
  const std::string locals = goldenLocalHeader(a, 0) + "x" + goldenLocalHeader(b, 60) + "y";
  const std::string headers = goldenCentralHeader(a, 0) + goldenCentralHeader(b, 60);
  const std::string differently = "its central directory and its end records count differently";
  ASSERT_EQ(goldenArchive({a, b}), locals + headers + goldenEndRecords(2, 120, 150));
  ArchiveFile(locals + headers + goldenEndRecords(1, 120, 150)).expectRefused(differently);
  ArchiveFile(locals + headers + goldenEndRecords(3, 120, 150)).expectRefused(differently);
  ArchiveFile(locals + goldenCentralHeader(a, 0) + goldenEndRecords(1, 120, 75))
      .expectRefused("its entries do not end where its central directory begins");
  ArchiveFile(locals + goldenCentralHeader(b, 60) + goldenEndRecords(1, 120, 75))
      .expectRefused(centralHeaderNotAsWritten(120));
  ArchiveFile(locals + headers + goldenCentralHeader(b, 60) + goldenEndRecords(3, 120, 225))
      .expectRefused(centralHeaderNotAsWritten(270));
  // A digital signature has no place in what the writer writes.
  ArchiveFile(locals + headers + extraFieldBytes(7, "signed") + goldenEndRecords(2, 120, 160))
      .expectRefused(centralHeaderNotAsWritten(270));
}

TEST(KQZipInteroperability, EveryByteThatTheLibraryWouldWriteDifferentlyIsRefused) {
  const std::vector<GoldenEntry> entries{entry("a.txt", "first"), entry("\xC3\xBC/", "")};
  const std::string bytes = goldenArchive(entries);
  const ArchiveTail tail(bytes);
  const std::size_t second = tail.startOfDirectory + 46 + 5 + 28;
  const std::size_t local = 30 + 5 + 28 + 5;
  // Time, date and the CRC of an ASCII entry may be anything; a type, and permissions, may stand there
  // already.
  std::set<std::size_t> free;
  for (const std::size_t header : {tail.startOfDirectory, second}) {
    for (std::size_t i = 12; i < 16; ++i) free.insert(header + i);
    free.insert(header + 40);
  }
  for (std::size_t i = 16; i < 20; ++i) free.insert(tail.startOfDirectory + i);
  for (std::size_t i = 10; i < 14; ++i) free.insert(local + i);

  std::vector<std::size_t> positions;
  // All but the local header whose name is ASCII, which is not read, and the central headers' names, which
  // are only compared where the local ones are read.
  for (std::size_t i = local; i < local + 61; ++i) positions.push_back(i);
  for (std::size_t i = tail.startOfDirectory; i < bytes.size(); ++i) {
    const bool isName = (i >= tail.startOfDirectory + 46 && i < tail.startOfDirectory + 51) ||
                        (i >= second + 46 && i < second + 49);
    if (!isName) positions.push_back(i);
  }
  ArchiveFile archive(bytes);
  for (const std::size_t position : positions) {
    for (const int change : {0x01, 0x80, 0xFF}) {
      SCOPED_TRACE(std::to_string(position) + " changed by " + std::to_string(change));
      std::string changed = bytes;
      changed[position] = static_cast<char>(changed[position] ^ change);
      archive.replace(changed);
      Error error;
      const bool made = KQZipMakeArchiveInteroperable(archive.path(), &error);
      const bool setsType =
          (position == tail.startOfDirectory + 41 || position == second + 41) && (change & 0xF0) != 0;
      EXPECT_EQ(setsType || free.count(position) != 0, made);
      if (!made) {
        expectSameBytes(changed, archive.bytes());
        ASSERT_TRUE(error);
        EXPECT_EQ(-1, error->code());
      }
    }
  }
}

TEST(KQZipInteroperability, ALocalHeaderThatDiffersFromItsCentralHeaderIsRefused) {
  const std::string bytes = goldenArchive({entry("\xC3\xBC", "data")});
  const std::string differ = "the entry at offset 0 and its central header differ";
  // Signature, version, flags, method, CRC, lengths, name, extra field, size.
  for (const std::size_t position : {0U, 4U, 6U, 8U, 14U, 26U, 28U, 30U, 32U, 34U, 44U}) {
    SCOPED_TRACE(position);
    std::string changed = bytes;
    changed[position] = static_cast<char>(changed[position] ^ 1);
    ArchiveFile(changed).expectRefused(differ);
  }
}

TEST(KQZipInteroperability, ArchivesOfOtherPrograms) {
  // Without Zip64 records; encrypted; on more than one disk.
  ArchiveFile(archiveBytes({plainRecord("a", "text"), plainRecord("b", "")})).expectRefused(otherEnd);
  ArchiveFile(endRecordBytes()).expectRefused(otherEnd);
  std::string encrypted = goldenArchive({entry("a", "text")});
  const std::size_t directory = ArchiveTail(encrypted).startOfDirectory;
  setNumberAt(encrypted, 6, 2, 1);
  setNumberAt(encrypted, directory + 8, 2, 1);
  ArchiveFile(encrypted).expectRefused(centralHeaderNotAsWritten(directory));
  std::string split = goldenArchive({entry("a", "text")});
  setNumberAt(split, split.size() - 22 + 4, 2, 1);
  ArchiveFile(split).expectRefused(otherEnd);
  std::string secondDisk = goldenArchive({entry("a", "text")});
  setNumberAt(secondDisk, directory + 34, 2, 1);
  ArchiveFile(secondDisk).expectRefused(centralHeaderNotAsWritten(directory));
  std::string compressed = goldenArchive({entry("a", "text")});
  setNumberAt(compressed, directory + 10, 2, 8);
  ArchiveFile(compressed).expectRefused(centralHeaderNotAsWritten(directory));
  ArchiveFile(std::string(4096, '\0')).expectRefused(otherEnd);
  ArchiveFile("").expectRefused(otherEnd);
}

TEST(KQZipInteroperability, ARefusalLogsNothing) {
  const LogCapture log;
  const std::string bytes = goldenArchive({entry("\xC3\xBC", "data")});
  std::string changed = bytes;
  changed[8] = 8;
  ArchiveFile(changed).expectRefused("the entry at offset 0 and its central header differ");
  ArchiveFile(bytes.substr(1)).expectRefused(otherEnd);
  EXPECT_EQ(std::vector<std::string>(), log.lines());
}

namespace {

/// Stops the operation at its transfer `number`, of at most `longest` bytes each, and expects that the
/// archive is as good as before and that a second call finishes it. Returns false when there is no such
/// transfer.
bool expectResumableAfterStopping(ArchiveFile& archive, const std::string& before, const std::string& after,
                                  const KQZipPermissions& permissions, std::size_t longest,
                                  std::size_t number) {
  SCOPED_TRACE("transfers of " + std::to_string(longest) + " bytes, stopped at the " +
               std::to_string(number) + ".");
  archive.replace(before);
  const std::vector<std::string> answers = answersOf(archive.path());
  bool stoppedWriting = false;
  {
    SystemCalls calls;
    calls.longestTransfer = longest;
    calls.failAt = number;
    calls.failForGood = true;
    Error error = earlierError();
    if (KQZipMakeArchiveInteroperable(archive.path(), permissions, &error)) {
      EXPECT_LT(calls.transfers.size(), number);
      return false;
    }
    expectPOSIXError(EIO, archive.path(), error);
    stoppedWriting = calls.transfers.back().isWrite;
  }
  const std::string left = archive.bytes();
  if (!stoppedWriting) expectSameBytes(before, left, "after a read that failed");
  EXPECT_EQ(before.size(), left.size());
  EXPECT_EQ(answers, answersOf(archive.path()));
  // Nobody finds finished end records behind headers that are not.
  const std::size_t endRecords = ArchiveTail(before).startOfEndRecords;
  if (left.substr(endRecords) != before.substr(endRecords)) {
    EXPECT_EQ(after.substr(0, endRecords), left.substr(0, endRecords));
  }
  archive.expectMade(after, permissions);
  EXPECT_EQ(answers, answersOf(archive.path()));
  return true;
}

}  // namespace

TEST(KQZipInteroperability, StoppedAtAnyTransferOrByteTheArchiveIsWholeAndIsFinishedByASecondCall) {
  const std::string before =
      goldenArchive({entry("a", "x"), entry("d/", ""), entry("\xC3\xA9/", ""), entry("\xC3\xBC", "data")});
  const KQZipPermissions runnable = [](const std::string&) { return std::optional<std::uint32_t>(0751); };
  for (const KQZipPermissions& permissions : {KQZipPermissions(noPermissions), runnable}) {
    ArchiveFile archive(before);
    ASSERT_TRUE(KQZipMakeArchiveInteroperable(archive.path(), permissions));
    const std::string after = archive.bytes();
    for (const std::size_t longest : {SIZE_MAX, std::size_t{16}, std::size_t{1}}) {
      std::size_t number = 1;
      while (expectResumableAfterStopping(archive, before, after, permissions, longest, number)) ++number;
      // The end records and the directory, each read and written, and two local headers.
      EXPECT_LE(longest == SIZE_MAX ? 9U : before.size() / longest, number);
    }
  }
}

TEST(KQZipInteroperability, InterruptedSystemCallsAreRepeated) {
  const std::string before = goldenArchive(mixedEntries());
  const ArchiveFile archive(before);
  SystemCalls calls;
  calls.interruptEveryOther = true;
  calls.longestTransfer = 50;
  Error error;
  EXPECT_TRUE(KQZipMakeArchiveInteroperable(archive.path(), &error)) << describe(error);
  EXPECT_LT(0U, calls.interruptions);
  calls.interruptEveryOther = false;
  expectSameBytes(interoperableArchive(before), archive.bytes());
}

TEST(KQZipInteroperability, LocalHeadersComeBeforeTheDirectoryAndTheEndRecordsComeLast) {
  const std::string before = goldenArchive(mixedEntries());
  const ArchiveTail tail(before);
  const ArchiveFile archive(before);
  const SystemCalls calls;
  ASSERT_TRUE(KQZipMakeArchiveInteroperable(archive.path()));
  std::vector<std::pair<std::uint64_t, std::size_t>> writes;
  for (const SystemCalls::Transfer& transfer : calls.transfers) {
    if (transfer.isWrite) writes.emplace_back(transfer.offset, transfer.asked());
  }
  ASSERT_EQ(5U, writes.size());
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(2U, writes[i].second);
    EXPECT_GT(tail.startOfDirectory, writes[i].first);
  }
  EXPECT_EQ(std::pair(std::uint64_t{tail.startOfDirectory}, tail.startOfEndRecords - tail.startOfDirectory),
            writes[3]);
  EXPECT_EQ(std::pair(std::uint64_t{tail.startOfEndRecords}, std::size_t{98}), writes[4]);
}

TEST(KQZipInteroperability, TheDirectoryIsReadAndWrittenInLargeBlocksAndASCIIEntriesAreNotTouched) {
  std::vector<GoldenEntry> entries;
  for (int i = 0; i < 20000; ++i) entries.push_back(entry("folder/name-" + std::to_string(100000 + i), "d"));
  const std::string before = goldenArchive(entries);
  const ArchiveFile archive(before);
  const SystemCalls calls;
  ASSERT_TRUE(KQZipMakeArchiveInteroperable(archive.path()));
  EXPECT_GE(20U, calls.transfers.size()) << "0.001 for each entry";
  const ArchiveTail tail(before);
  for (const SystemCalls::Transfer& transfer : calls.transfers)
    EXPECT_LE(tail.startOfDirectory, static_cast<std::uint64_t>(transfer.offset));
}
