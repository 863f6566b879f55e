// The examples do what they say, and the README shows them as they are.

#include <KQZip/KQZip.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <string>

#include "Support/GoldenArchive.h"
#include "Support/NamedPipe.h"
#include "Support/RunningProgram.h"
#include "Support/SourceTree.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

namespace fs = std::filesystem;

namespace {

const fs::path sources = KQZIP_SOURCE_DIRECTORY;

std::string example(const std::string& name) { return KQZIP_EXAMPLES "/" + name; }

TEST(Examples, PackTreePacksAFolderAndListAndExtractGivesItBack) {
  const KQTest::TemporaryDirectory directory;
  KQTest::writeFile(directory / "tree/a.txt", "hello");
  KQTest::writeFile(directory / "tree/deep/er/b.bin", KQTest::patternBytes(3 * 1048576 + 1));
  const std::string archive = directory / "tree.zip";

  const auto packed = KQTest::runProcess({example("PackTree"), archive, directory / "tree"});
  EXPECT_EQ(0, packed.exitStatus) << packed.errors;
  EXPECT_EQ("", packed.output);
  const std::string bar = "\r[" + std::string(40, '#') + "] 100 %";
  const std::string full = bar + "\n";
  EXPECT_EQ('\r', packed.errors.front());
  ASSERT_LE(bar.size() + full.size(), packed.errors.size());
  EXPECT_EQ(full, packed.errors.substr(packed.errors.size() - full.size()));
  EXPECT_EQ(0U, (packed.errors.size() - full.size()) % bar.size()) << "every bar is as wide";

  const auto extracted = KQTest::runProcess({example("ListAndExtract"), archive, directory / "out"});
  EXPECT_EQ("           5  a.txt\n     3145729  deep/er/b.bin\n",
            extracted.output.substr(0, extracted.output.find('%') - 4));
  for (const char* name : {"a.txt", "deep/er/b.bin"}) {
    const std::string path(name);
    EXPECT_TRUE(KQTest::readFile(directory / ("tree/" + path)) ==
                KQTest::readFile(directory / ("out/" + path)))
        << name;
  }
}

TEST(Examples, AFailureIsToldWithItsReason) {
  const KQTest::TemporaryDirectory directory;
  KQTest::writeFile(directory / "tree/a.txt", "hello");
  KQTest::writeFile(directory / "taken.zip", "%PDF");

  const auto packed = KQTest::runProcess({example("PackTree"), directory / "taken.zip", directory / "tree"});
  EXPECT_EQ(1, packed.exitStatus);
  EXPECT_NE(std::string::npos,
            packed.errors.find("\nCould not write to zip path " + (directory / "taken.zip") + "\n"));

  const auto extracted =
      KQTest::runProcess({example("ListAndExtract"), directory / "taken.zip", directory / "out"});
  EXPECT_EQ(1, extracted.exitStatus);
  EXPECT_EQ("got unexpected bytes looking for known signatures: 46445025\n", extracted.errors);
}

TEST(Examples, ListAndExtractStopsAtTheNextBlockWhenReturnIsPressed) {
  const KQTest::SourceTree tree;
  const std::string large = KQTest::patternBytes(3 * 1048576);
  KQZipFileWriter writer;
  writer.addFilePath(tree.file("in/a", large), "a");
  writer.addFilePath(tree.file("in/b", "hello"), "b");
  ASSERT_TRUE(writer.writeToZipPath(tree / "two.zip"));
  fs::create_directory(tree / "out");
  KQTest::NamedPipe target(tree / "out/a");
  const std::string keyboard = tree / "keyboard";
  ASSERT_EQ(0, mkfifo(keyboard.c_str(), 0600));
  const int keys = open(keyboard.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(keys, 0);

  std::string extracted;
  const auto result =
      KQTest::runProcess({"sh", "-c", "exec \"$0\" two.zip out < keyboard", example("ListAndExtract")},
                         tree.path().string(), [&](int process) {
                           const auto threads = [process] {
                             const fs::directory_iterator list("/proc/" + std::to_string(process) + "/task");
                             return std::distance(begin(list), end(list));
                           };
                           // In the first block, and it cannot go on; so the thread that waits for Return is
                           // there.
                           extracted = target.read(1);
                           const auto before = threads();
                           EXPECT_EQ(1, write(keys, "\n", 1));
                           // That thread has cancelled when it is gone.
                           KQTest::waitUntil([&] { return threads() < before; });
                           extracted += target.readToEnd();
                         });
  close(keys);

  EXPECT_EQ(1, result.exitStatus);
  EXPECT_EQ("     3145728  a\n           5  b\n", result.output);
  EXPECT_EQ("Cancelled By User.\n", result.errors);
  EXPECT_TRUE(large.substr(0, 1048576) == extracted) << extracted.size();
  EXPECT_FALSE(fs::exists(tree / "out/b"));
}

TEST(Examples, ReadInPlacePrintsThePartAskedForAndNothingBehindTheEntry) {
  const KQTest::SourceTree tree;
  // Longer than the example's block, and followed by another entry.
  const std::string contents = KQTest::patternBytes(200001);
  KQZipFileWriter writer;
  writer.addFilePath(tree.file("a", contents), "deep/a");
  writer.addFilePath(tree.file("b", "what comes behind"), "deep/b");
  ASSERT_TRUE(writer.writeToZipPath(tree / "two.zip"));

  const auto part = [&](const char* offset, const char* count) {
    return KQTest::runProcess({example("ReadInPlace"), tree / "two.zip", "deep/a", offset, count});
  };
  EXPECT_TRUE(contents == part("0", "200001").output) << "all";
  EXPECT_TRUE(contents.substr(65530, 70000) == part("65530", "70000").output) << "from the middle";
  EXPECT_TRUE(contents.substr(200000) == part("200000", "1000000").output) << "the last byte";
  EXPECT_EQ("", part("200001", "5").output);
  EXPECT_EQ("", part("99999999999", "5").output);
  EXPECT_EQ(0, part("0", "0").exitStatus);
}

TEST(Examples, ReadInPlaceSaysWhatItCannotRead) {
  const KQTest::SourceTree tree;
  KQZipFileWriter writer;
  writer.addFilePath(tree.file("a", "hello"), "a");
  ASSERT_TRUE(writer.writeToZipPath(tree / "one.zip"));
  KQTest::writeFile(tree / "cut.zip", KQTest::readFile(tree / "one.zip").substr(0, 30 + 1 + 28 + 3));

  const auto absent = KQTest::runProcess({example("ReadInPlace"), tree / "one.zip", "b", "0", "1"});
  EXPECT_EQ(1, absent.exitStatus);
  EXPECT_EQ("there is no such entry\n", absent.errors);
  const auto cut = KQTest::runProcess({example("ReadInPlace"), tree / "cut.zip", "a", "0", "5"});
  EXPECT_EQ(1, cut.exitStatus);
  EXPECT_EQ("hel", cut.output);
  EXPECT_EQ("the archive ends inside the entry\n", cut.errors);
}

TEST(Examples, WriteToYourStreamGivesTheArchiveAndItsHash) {
  const KQTest::SourceTree tree;
  const std::string large = KQTest::patternBytes(1048577);
  const std::string archive = KQTest::goldenArchive(
      {KQTest::SourceTree::entry("a.txt", "hello"), KQTest::SourceTree::entry("b", large)});
  const auto written = KQTest::runProcess(
      {example("WriteToYourStream"), tree.file("in/b", large), tree.file("a.txt", "hello")});

  EXPECT_EQ(0, written.exitStatus);
  KQTest::expectSameBytes(archive, written.output);
  std::uint64_t hash = 0xCBF29CE484222325;
  for (const char byte : archive) hash = (hash ^ static_cast<std::uint8_t>(byte)) * 0x100000001B3;
  std::array<char, 17> digits{};
  std::snprintf(digits.data(), digits.size(), "%016" PRIx64, hash);
  EXPECT_EQ(std::to_string(archive.size()) + " bytes, FNV-1a " + digits.data() + "\n", written.errors);
}

TEST(Examples, WriteToYourStreamFailsWhenItsStreamTakesNothingMore) {
  const KQTest::SourceTree tree;
  // A device that is always full.
  const auto written = KQTest::runProcess(
      {"sh", "-c", "\"$1\" \"$2\" > /dev/full", "sh", example("WriteToYourStream"), tree.file("a", "hello")});
  EXPECT_EQ(1, written.exitStatus);
  EXPECT_EQ(
      "stream writing failed: Error Domain=KQZipErrorDomain Code=-51 \"Error writing file\"\n"
      "Error writing file\n",
      written.errors);
}

TEST(Examples, OwnExtraFieldReadsItsFieldBackAndLeavesAnArchiveLikeAnyOther) {
  const KQTest::SourceTree tree;
  const auto written = KQTest::runProcess(
      {example("OwnExtraField"), tree / "one.zip", tree.file("a.txt", "hello"), "Ada Lovelace"});
  EXPECT_EQ(0, written.exitStatus) << written.errors;
  EXPECT_EQ("a.txt: Ada Lovelace\n", written.output);
  EXPECT_EQ("", written.errors);

  const std::string archive = KQTest::readFile(tree / "one.zip");
  // Behind the Zip64 field of the local header, and again behind that of the central one.
  const std::string field = std::string("KQ\x0C\0", 4) + "Ada Lovelace";
  const std::size_t local = 30 + 5 + 28;
  EXPECT_EQ(field, archive.substr(local, field.size()));
  const std::size_t central = local + field.size() + 5 + 46 + 5 + 28;
  EXPECT_EQ(field, archive.substr(central, field.size()));
  EXPECT_EQ(central + field.size() + 56 + 20 + 22, archive.size());

  const auto reader = KQZipFileReader::initWithZipPath(tree / "one.zip");
  ASSERT_NE(nullptr, reader);
  const auto data = reader->dataForRelativePath("a.txt");
  ASSERT_NE(nullptr, data);
  EXPECT_EQ("hello", std::string(data->bytes(), data->bytes() + data->length()));
}

TEST(Examples, OwnExtraFieldSaysThatItFailed) {
  const KQTest::SourceTree tree;
  const auto failed = KQTest::runProcess(
      {example("OwnExtraField"), tree / "none/one.zip", tree.file("a.txt", "hello"), "Ada Lovelace"});
  EXPECT_EQ(1, failed.exitStatus);
  EXPECT_EQ("", failed.output);
  EXPECT_NE(std::string::npos, failed.errors.find("the archive exists or could not be written\n"));
}

TEST(Examples, OwnExtraFieldLeavesAnArchiveThatExistsAsItIs) {
  const KQTest::SourceTree tree;
  tree.file("one.zip", "precious");
  const auto refused = KQTest::runProcess(
      {example("OwnExtraField"), tree / "one.zip", tree.file("a.txt", "hello"), "Ada Lovelace"});
  EXPECT_EQ(1, refused.exitStatus);
  EXPECT_EQ("", refused.output);
  EXPECT_EQ("the archive exists or could not be written\n", refused.errors);
  EXPECT_EQ("precious", KQTest::readFile(tree / "one.zip"));
}

TEST(Examples, TakeOverLogKeepsTheLinesToItself) {
  const KQTest::SourceTree tree;
  tree.file("a.txt", "hello");
  const auto packed = KQTest::runProcess({example("TakeOverLog"), "good.zip", "a.txt"}, tree.path().string());
  EXPECT_EQ(0, packed.exitStatus);
  EXPECT_EQ("packed\n", packed.output);
  EXPECT_EQ("", packed.errors);

  const auto failed =
      KQTest::runProcess({example("TakeOverLog"), "bad.zip", "a.txt", "gone.txt"}, tree.path().string());
  EXPECT_EQ(1, failed.exitStatus);
  EXPECT_EQ(
      "failed\n"
      "log: failed to calculate crc: failed to open stream at gone.txt\n"
      "log: closing stream because writing failed: (null)\n",
      failed.output);
  EXPECT_EQ("", failed.errors);
}

TEST(Examples, EachFitsOnAScreenAndStandsOnOneInclude) {
  std::size_t examples = 0;
  for (const auto& file : fs::directory_iterator(sources / "Examples")) {
    if (file.path().extension() != ".cpp") continue;
    ++examples;
    const std::string text = KQTest::readFile(file.path());
    EXPECT_GE(65, std::count(text.begin(), text.end(), '\n')) << file.path();
    EXPECT_NE(std::string::npos, text.find("#include <KQZip/KQZip.h>\n")) << file.path();
    EXPECT_EQ(text.find("KQZip/"), text.rfind("KQZip/")) << file.path();
    EXPECT_EQ(std::string::npos, text.find("#include \"")) << file.path();
  }
  EXPECT_EQ(6U, examples);
}

TEST(Examples, TheReadmeShowsThemWordForWord) {
  const std::string readme = KQTest::readFile(sources / "README.md");
  for (const char* name : {"PackTree.cpp", "ListAndExtract.cpp"})
    EXPECT_NE(std::string::npos,
              readme.find("```cpp\n" + KQTest::readFile(sources / "Examples" / name) + "```"))
        << name;
}

}  // namespace
