// The examples do what they say, and the README shows them as they are.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "Support/Surroundings.h"
#include "Support/TemporaryDirectory.h"

namespace fs = std::filesystem;

namespace {

const fs::path sources = KQZIP_SOURCE_DIRECTORY;

TEST(Examples, PackTreePacksAFolderAndListAndExtractGivesItBack) {
  const KQTest::TemporaryDirectory directory;
  KQTest::writeFile(directory / "tree/a.txt", "hello");
  KQTest::writeFile(directory / "tree/deep/er/b.bin", KQTest::patternBytes(3 * 1048576 + 1));
  const std::string archive = directory / "tree.zip";

  const auto packed = KQTest::runProcess({KQZIP_PACK_TREE, archive, directory / "tree"});
  EXPECT_EQ(0, packed.exitStatus) << packed.errors;
  EXPECT_EQ("", packed.output);

  const auto extracted = KQTest::runProcess({KQZIP_LIST_AND_EXTRACT, archive, directory / "out"});
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

  const auto packed = KQTest::runProcess({KQZIP_PACK_TREE, directory / "taken.zip", directory / "tree"});
  EXPECT_EQ(1, packed.exitStatus);
  EXPECT_NE(std::string::npos,
            packed.errors.find("Could not write to zip path " + (directory / "taken.zip")));

  const auto extracted =
      KQTest::runProcess({KQZIP_LIST_AND_EXTRACT, directory / "taken.zip", directory / "out"});
  EXPECT_EQ(1, extracted.exitStatus);
  EXPECT_EQ("got unexpected bytes looking for known signatures: 46445025\n", extracted.errors);
}

TEST(Examples, TheReadmeShowsThemWordForWord) {
  const std::string readme = KQTest::readFile(sources / "README.md");
  for (const char* name : {"PackTree.cpp", "ListAndExtract.cpp"})
    EXPECT_NE(std::string::npos,
              readme.find("```cpp\n" + KQTest::readFile(sources / "Examples" / name) + "```"))
        << name;
}

}  // namespace
