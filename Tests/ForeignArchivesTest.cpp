#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Support/ArchiveRecords.h"
#include "Support/ErrorExpectations.h"
#include "Support/InteroperableArchive.h"
#include "Support/LogCapture.h"
#include "Support/OtherPrograms.h"
#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;

using KQTest::bytesOf;
using KQTest::Error;
using KQTest::errorText;
using KQTest::numberAt;
using KQTest::patternBytes;
using KQTest::readFile;
using KQTest::readFrom;
using KQTest::TemporaryDirectory;
using KQTest::writeFile;

using Reader = std::shared_ptr<KQZipFileReader>;
using Arguments = std::vector<std::string>;

const std::string compressionMessage = "-101 File uses unsupported compression method.";

/// An even second, far from any change to daylight saving.
constexpr long long date = 1592224496;

/// Skips the test when the machine does not have the program.
#define NEED(program)                                                                \
  do {                                                                               \
    if (!KQTest::isHere(program)) GTEST_SKIP() << program " is not on this machine"; \
  } while (false)

/// Keeps Java from leaving a folder among the temporary files.
const std::string noStatistics = "-J-XX:-UsePerfData";

/// What another program's archive is to hold, by path; a path that ends in "/" is a folder.
using Files = std::map<std::string, std::string, KQ::NSStringLess>;

/// Runs a program that must succeed, in `folder`.
void run(const Arguments& arguments, const std::string& folder) {
  const KQTest::ProcessResult result = KQTest::runOtherProgram(arguments, folder);
  ASSERT_EQ(0, result.exitStatus) << arguments.front() << ": " << result.errors << result.output;
}

/// What a walk over an archive's local records meets, found without the library. Programs differ, and change,
/// in whether they put an entry's sizes in front of its data or behind it, so each archive says itself what
/// is to be expected of it.
struct Walk {
  bool hasDescriptor = false;              ///< Some entry's sizes stand behind its data.
  std::optional<std::string> unsupported;  ///< What stops a reader of stored entries, as errorText() says it.
  std::vector<std::string> names;
};

Walk walk(const std::string& bytes) {
  Walk result;
  for (std::size_t at = 0; at + 4 <= bytes.size();) {
    const std::uint64_t signature = numberAt(bytes, at, 4);
    if (signature == 0x02014b50) return result;
    if (signature != 0x04034b50) {
      char text[16];
      std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(signature));
      result.unsupported = std::string("-100 got unexpected bytes looking for known signatures: ") + text;
      return result;
    }
    if (numberAt(bytes, at + 8, 2) != 0) {
      result.unsupported = compressionMessage;
      return result;
    }
    if ((numberAt(bytes, at + 6, 2) & 8) != 0) result.hasDescriptor = true;
    const std::uint64_t nameLength = numberAt(bytes, at + 26, 2);
    const std::uint64_t extraLength = numberAt(bytes, at + 28, 2);
    result.names.push_back(bytes.substr(at + 30, nameLength));
    std::uint64_t length = numberAt(bytes, at + 18, 4);
    const std::size_t extra = at + 30 + nameLength;
    for (std::size_t field = extra; field < extra + extraLength; field += 4 + numberAt(bytes, field + 2, 2)) {
      if (numberAt(bytes, field, 2) == 1) length = numberAt(bytes, field + 12, 8);
    }
    at = extra + extraLength + length;
  }
  return result;
}

/// A tree of files for other programs to pack, all with one date, with names that every one of them can hold.
Files makeTree(const fs::path& folder) {
  Files files = {{"a.txt", "hello"},
                 {"empty", ""},
                 {"folder/", ""},
                 {"folder/b.bin", patternBytes(100000, 1)},
                 {"folder/nothing inside/", ""},
                 {"folder/with space/", ""},
                 {"folder/with space/c", "c"},
                 {"folder/with space/\xC3\xBC.txt", "\xC3\xBC"},
                 {"large.bin", patternBytes(1048577, 2)}};
  for (const auto& [path, contents] : files) {
    if (path.back() == '/')
      fs::create_directories(folder / path);
    else
      writeFile(folder / path, contents);
  }
  for (const auto& [path, contents] : files) {
    const std::string item = (folder / path).string();
    KQTest::setModificationDate(item.back() == '/' ? item.substr(0, item.size() - 1) : item, date);
  }
  return files;
}

Files withoutFolders(Files files) {
  std::erase_if(files, [](const auto& item) { return item.first.back() == '/'; });
  return files;
}

/// The archive must open and hold exactly these entries.
void expectHolds(const std::string& archive, const Files& expected, bool withDates = true) {
  ASSERT_EQ(std::nullopt, walk(readFile(archive)).unsupported);
  Error error;
  const Reader reader = KQZipFileReader::initWithZipPath(archive, &error);
  ASSERT_TRUE(reader) << errorText(error);
  std::vector<std::string> paths;
  for (const auto& [path, contents] : expected) paths.push_back(path);
  EXPECT_EQ(paths, reader->relativePaths());
  for (const auto& [path, contents] : expected) {
    const auto attributes = reader->attributesForRelativePath(path);
    ASSERT_TRUE(attributes) << path;
    EXPECT_EQ(contents.size(), attributes->NSFileSize) << path;
    if (withDates) {
      EXPECT_EQ(KQTest::localTime(std::chrono::system_clock::from_time_t(date)),
                KQTest::localTime(*attributes->NSFileModificationDate))
          << path;
    }
    EXPECT_TRUE(bytesOf(reader->dataForRelativePath(path)).value_or("") == contents) << path;
    const auto stream = reader->streamForRelativePath(path);
    ASSERT_TRUE(stream);
    EXPECT_TRUE(readFrom(*stream, contents.size()) == contents) << path;
  }
}

/// The archive must also come out of an extraction as it went in, an empty file as a folder.
void expectExtracts(const std::string& archive, const fs::path& destination, const Files& expected) {
  KQTest::LogCapture log;
  Error error;
  EXPECT_TRUE(KQZipFileReader::unzipFileAtPath(archive, destination.string(), &error)) << errorText(error);
  for (const auto& [path, contents] : expected) {
    if (contents.empty())
      EXPECT_TRUE(fs::is_directory(destination / path)) << path;
    else
      EXPECT_TRUE(readFile(destination / path) == contents) << path;
  }
  EXPECT_EQ(std::vector<std::string>(), log.lines());
}

/// The archive must fail to open with what its own bytes say, and extract to nothing.
void expectFails(const std::string& archive, const std::string& text, const std::string& destination) {
  KQTest::LogCapture log;
  Error error;
  EXPECT_FALSE(KQZipFileReader::initWithZipPath(archive, &error));
  EXPECT_EQ(text, errorText(error));
  ASSERT_TRUE(error);
  EXPECT_EQ("KQZipErrorDomain", error->domain());
  error = nullptr;
  EXPECT_FALSE(KQZipFileReader::unzipFileAtPath(archive, destination, &error));
  EXPECT_EQ(text, errorText(error));
  EXPECT_FALSE(fs::exists(destination));
}

/// An archive whose entries may have their sizes behind the data: where one does, it must fail cleanly, with
/// the signature that its own bytes show; otherwise it must hold everything.
void expectHoldsUnlessSizesFollowTheData(const std::string& archive, const std::string& destination,
                                         const Files& expected) {
  const Walk found = walk(readFile(archive));
  EXPECT_FALSE(found.names.empty());
  if (found.hasDescriptor) {
    ASSERT_TRUE(found.unsupported);
    EXPECT_EQ(0U, found.unsupported->find("-100 "));
    expectFails(archive, *found.unsupported, destination);
  } else {
    expectHolds(archive, expected);
    expectExtracts(archive, destination, expected);
  }
}

class ForeignArchives : public ::testing::Test {
 protected:
  void SetUp() override {
    // Programs take file names in the encoding of the locale.
    setenv("LC_ALL", "C.UTF-8", 1);
    files = makeTree(tree);
  }

  TemporaryDirectory folder;
  const std::string tree = folder / "tree";
  const std::string archive = folder / "a.zip";
  const std::string out = folder / "out";
  Files files;
};

// Stored, with the sizes in front of the data.

TEST_F(ForeignArchives, ZipStoresWhatCanBeRead) {
  NEED("zip");
  run({"zip", "-q", "-0", "-r", archive, "a.txt", "empty", "folder", "large.bin"}, tree);
  expectHolds(archive, files);
  expectExtracts(archive, out, files);
}

TEST_F(ForeignArchives, ZipWithoutFoldersAndExtraFieldsStoresWhatCanBeRead) {
  NEED("zip");
  run({"zip", "-q", "-0", "-r", "-X", "-D", archive, "."}, tree);
  expectHolds(archive, withoutFolders(files));
  expectExtracts(archive, out, withoutFolders(files));
}

TEST_F(ForeignArchives, ZipFromItsStandardInputStoresASizeInTheZip64Field) {
  NEED("zip");
  run({"sh", "-c", "cat large.bin | zip -q -0 \"$0\" -", archive}, tree);
  ASSERT_FALSE(walk(readFile(archive)).hasDescriptor);
  expectHolds(archive, {{"-", files["large.bin"]}}, false);
}

TEST_F(ForeignArchives, ZipWithCommentsStoresWhatCanBeRead) {
  NEED("zip");
  run({"sh", "-c", "printf 'a comment\\n.\\n' | zip -q -0 -z \"$0\" a.txt large.bin", archive}, tree);
  expectHolds(archive, {{"a.txt", files["a.txt"]}, {"large.bin", files["large.bin"]}});
}

TEST_F(ForeignArchives, SevenZipStoresWhatCanBeRead) {
  NEED("7zz");
  run({"7zz", "a", "-bd", "-tzip", "-mx0", archive, "a.txt", "empty", "folder", "large.bin"}, tree);
  expectHolds(archive, files);
  expectExtracts(archive, out, files);
}

TEST_F(ForeignArchives, SevenZipFromItsStandardInputStoresASizeInTheZip64Field) {
  NEED("7zz");
  run({"sh", "-c", "cat large.bin | 7zz a -bd -tzip -mx0 -siname.bin \"$0\"", archive}, tree);
  ASSERT_FALSE(walk(readFile(archive)).hasDescriptor);
  expectHolds(archive, {{"name.bin", files["large.bin"]}}, false);
}

TEST_F(ForeignArchives, JarStoresWhatCanBeRead) {
  NEED("jar");
  run({"jar", noStatistics, "c0fM", archive, "a.txt", "empty", "folder", "large.bin"}, tree);
  expectHolds(archive, files);
  expectExtracts(archive, out, files);
}

TEST_F(ForeignArchives, JarStoresItsManifestToo) {
  NEED("jar");
  run({"jar", noStatistics, "c0f", archive, "a.txt"}, tree);
  ASSERT_EQ(std::nullopt, walk(readFile(archive)).unsupported);
  const Reader reader = KQZipFileReader::initWithZipPath(archive);
  ASSERT_TRUE(reader);
  EXPECT_EQ((std::vector<std::string>{"META-INF/", "META-INF/MANIFEST.MF", "a.txt"}),
            reader->relativePaths());
  EXPECT_EQ(0U, bytesOf(reader->dataForRelativePath("META-INF/MANIFEST.MF"))->find("Manifest-Version: 1.0"));
  EXPECT_EQ("hello", bytesOf(reader->dataForRelativePath("a.txt")));
}

/// Packs the tree with Python's zipfile: `method` is one of its constants, `target` an expression for the
/// file to write.
void runPython(const std::string& method, const std::string& target, const std::string& archive,
               const std::string& tree) {
  const std::string program =
      "import os, sys, zipfile\n"
      "class Pipe:\n"
      "    def __init__(self, path): self.file = open(path, 'wb')\n"
      "    def write(self, data): return self.file.write(data)\n"
      "    def flush(self): self.file.flush()\n"
      "with zipfile.ZipFile(" +
      target + ", 'w', zipfile." + method +
      ") as archive:\n"
      "    for folder, folders, names in sorted(os.walk('.')):\n"
      "        if folder != '.': archive.write(folder)\n"
      "        for name in sorted(names): archive.write(os.path.join(folder, name))\n";
  run({"python3", "-c", program, archive}, tree);
}

TEST_F(ForeignArchives, PythonStoresWhatCanBeRead) {
  NEED("python3");
  runPython("ZIP_STORED", "sys.argv[1]", archive, tree);
  expectHolds(archive, files);
  expectExtracts(archive, out, files);
}

TEST_F(ForeignArchives, PythonWithALargeFileInMindStoresASizeInTheZip64Field) {
  NEED("python3");
  run({"python3", "-c",
       "import sys, zipfile\n"
       "with zipfile.ZipFile(sys.argv[1], 'w') as archive:\n"
       "    with archive.open('large.bin', 'w', force_zip64=True) as entry:\n"
       "        entry.write(open('large.bin', 'rb').read())\n"
       "    archive.write('a.txt')\n",
       archive},
      tree);
  ASSERT_FALSE(walk(readFile(archive)).hasDescriptor);
  expectHolds(archive, {{"a.txt", files["a.txt"]}, {"large.bin", files["large.bin"]}}, false);
}

TEST_F(ForeignArchives, OfAnEntryThatPythonAppendedUnderTheSameNameTheLaterOneCounts) {
  NEED("python3");
  run({"python3", "-W", "ignore", "-c",
       "import sys, zipfile\n"
       "with zipfile.ZipFile(sys.argv[1], 'w') as archive:\n"
       "    archive.writestr('twice', 'the longer first one')\n"
       "    archive.writestr('twice', 'later')\n",
       archive},
      tree);
  expectHolds(archive, {{"twice", "later"}}, false);
}

TEST_F(ForeignArchives, BsdtarStoresFoldersThatCanBeRead) {
  NEED("bsdtar");
  run({"bsdtar", "--format", "zip", "--options", "zip:compression=store", "-cf", archive,
       "folder/nothing inside"},
      tree);
  expectHolds(archive, {{"folder/nothing inside/", ""}});
  expectExtracts(archive, out, {{"folder/nothing inside", ""}});
}

// Compressed.

TEST_F(ForeignArchives, WhatZipCompressesIsRefused) {
  NEED("zip");
  writeFile(tree + "/text", std::string(10000, 'x'));
  run({"zip", "-q", "-9", archive, "a.txt", "text"}, tree);
  expectFails(archive, compressionMessage, out);
}

TEST_F(ForeignArchives, WhatSevenZipCompressesIsRefused) {
  NEED("7zz");
  writeFile(tree + "/text", std::string(10000, 'x'));
  for (const char* method : {"Deflate", "BZip2", "LZMA"}) {
    fs::remove(archive);
    run({"7zz", "a", "-bd", "-tzip", "-mx5", std::string("-mm=") + method, archive, "a.txt", "text"}, tree);
    expectFails(archive, compressionMessage, out);
  }
}

TEST_F(ForeignArchives, WhatPythonCompressesIsRefused) {
  NEED("python3");
  writeFile(tree + "/text", std::string(10000, 'x'));
  for (const char* method : {"ZIP_DEFLATED", "ZIP_BZIP2", "ZIP_LZMA"}) {
    fs::remove(archive);
    runPython(method, "sys.argv[1]", archive, tree);
    expectFails(archive, compressionMessage, out);
  }
}

TEST_F(ForeignArchives, WhatBsdtarCompressesIsRefused) {
  NEED("bsdtar");
  run({"bsdtar", "--format", "zip", "--options", "zip:compression=deflate", "-cf", archive, "large.bin"},
      tree);
  expectFails(archive, compressionMessage, out);
}

TEST_F(ForeignArchives, WhatJarCompressesIsRefused) {
  NEED("jar");
  run({"jar", noStatistics, "cfM", archive, "large.bin"}, tree);
  expectFails(archive, compressionMessage, out);
}

// Stored, with the sizes behind the data.

TEST_F(ForeignArchives, ZipIntoAPipeFailsCleanlyWhereSizesFollowTheData) {
  NEED("zip");
  run({"sh", "-c", "zip -q -0 -r - . | cat > \"$0\"", archive}, tree);
  expectHoldsUnlessSizesFollowTheData(archive, out, files);
}

TEST_F(ForeignArchives, ZipToldToPutSizesBehindTheDataFailsCleanly) {
  NEED("zip");
  run({"zip", "-q", "-0", "-fd", archive, "a.txt", "large.bin"}, tree);
  ASSERT_TRUE(walk(readFile(archive)).hasDescriptor);
  // The size is known in front as well, so the scan meets the signature of what stands behind the data.
  expectFails(archive, "-100 got unexpected bytes looking for known signatures: 8074b50", out);
}

TEST_F(ForeignArchives, PythonIntoWhatCannotSeekFailsCleanly) {
  NEED("python3");
  runPython("ZIP_STORED", "Pipe(sys.argv[1])", archive, tree);
  ASSERT_TRUE(walk(readFile(archive)).hasDescriptor);
  // The header in front says nothing of the size, so the data itself is taken for the next signature.
  expectFails(archive, "-100 got unexpected bytes looking for known signatures: 6c6c6568", out);
}

TEST_F(ForeignArchives, BsdtarFailsCleanlyWhereSizesFollowTheData) {
  NEED("bsdtar");
  run({"bsdtar", "--format", "zip", "--options", "zip:compression=store", "-cf", archive, "a.txt",
       "large.bin"},
      tree);
  expectHoldsUnlessSizesFollowTheData(archive, out,
                                      {{"a.txt", files["a.txt"]}, {"large.bin", files["large.bin"]}});
}

TEST_F(ForeignArchives, BsdtarIntoAPipeFailsCleanlyWhereSizesFollowTheData) {
  NEED("bsdtar");
  run({"sh", "-c", "bsdtar --format zip --options zip:compression=store -cf - a.txt large.bin | cat > \"$0\"",
       archive},
      tree);
  expectHoldsUnlessSizesFollowTheData(archive, out,
                                      {{"a.txt", files["a.txt"]}, {"large.bin", files["large.bin"]}});
}

TEST_F(ForeignArchives, JarIntoAPipeCanBeReadOrFailsCleanly) {
  NEED("jar");
  run({"sh", "-c", "jar -J-XX:-UsePerfData c0M a.txt large.bin | cat > \"$0\"", archive}, tree);
  expectHoldsUnlessSizesFollowTheData(archive, out,
                                      {{"a.txt", files["a.txt"]}, {"large.bin", files["large.bin"]}});
}

// Not archives.

TEST_F(ForeignArchives, OtherKindsOfFilesFailWithTheirFirstBytes) {
  NEED("bsdtar");
  run({"bsdtar", "--format", "ustar", "-cf", archive, "a.txt"}, tree);
  expectFails(archive, "-100 got unexpected bytes looking for known signatures: 78742e61", out);
}

TEST_F(ForeignArchives, AnArchiveWithAProgramInFrontFailsWithTheProgramsFirstBytes) {
  NEED("zip");
  run({"zip", "-q", "-0", archive, "a.txt"}, tree);
  writeFile(archive, "#!/bin/sh\n" + readFile(archive));
  expectFails(archive, "-100 got unexpected bytes looking for known signatures: 622f2123", out);
}

}  // namespace
