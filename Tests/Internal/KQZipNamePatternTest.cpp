#include <KQZip/Internal/KQZipNamePattern.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "../Source/Internal/KQZipNamePattern.h"

namespace {

bool matches(std::string_view name, std::string_view pattern) { return KQZipMatchesPattern(name, pattern); }

TEST(KQZipNamePattern, APatternWithoutSpecialCharactersMatchesItself) {
  EXPECT_TRUE(matches("a/b.txt", "a/b.txt"));
  EXPECT_FALSE(matches("a/b.txt", "a/b.tx"));
  EXPECT_FALSE(matches("a/b.tx", "a/b.txt"));
  EXPECT_FALSE(matches("xa", "a"));
  EXPECT_TRUE(matches("", ""));
  EXPECT_FALSE(matches("", "a"));
}

TEST(KQZipNamePattern, AStarMatchesAnythingSlashesIncluded) {
  EXPECT_TRUE(matches("", "*"));
  EXPECT_TRUE(matches("a/b/c.txt", "*.txt"));
  EXPECT_TRUE(matches("a/b/c.txt", "a*c*"));
  EXPECT_TRUE(matches("aXbXb", "a*b"));
  EXPECT_TRUE(matches("abc", "*a**b*c*"));
  EXPECT_FALSE(matches("a/b/c.txt", "*.tx"));
  EXPECT_FALSE(matches("ba", "a*"));
}

TEST(KQZipNamePattern, AQuestionMarkMatchesOneCharacter) {
  EXPECT_TRUE(matches("a/b", "a?b"));
  EXPECT_TRUE(matches("\xC3\xA9", "?"));
  EXPECT_TRUE(matches("\xF0\x9F\x98\x80", "?"));
  EXPECT_FALSE(matches("", "?"));
  EXPECT_FALSE(matches("ab", "?"));
}

TEST(KQZipNamePattern, ASetMatchesOneOfItsCharacters) {
  EXPECT_TRUE(matches("b", "[abc]"));
  EXPECT_FALSE(matches("d", "[abc]"));
  EXPECT_TRUE(matches("x7", "x[0-9]"));
  EXPECT_FALSE(matches("xa", "x[0-9]"));
  EXPECT_TRUE(matches("xa", "x[!0-9]"));
  EXPECT_TRUE(matches("xa", "x[^0-9]"));
  EXPECT_FALSE(matches("x5", "x[!0-9]"));
  EXPECT_TRUE(matches("]", "[]]"));
  EXPECT_TRUE(matches("-", "[a-]"));
  EXPECT_TRUE(matches("\xC3\xA9", "[\xC3\xA0-\xC3\xBF]"));
  EXPECT_TRUE(matches("/", "[/]"));
}

TEST(KQZipNamePattern, ASetWithoutItsEndIsABracket) {
  EXPECT_TRUE(matches("[a", "[a"));
  EXPECT_TRUE(matches("x[", "x["));
  EXPECT_FALSE(matches("a", "[a"));
}

TEST(KQZipNamePattern, ABackslashTakesTheMeaningAway) {
  EXPECT_TRUE(matches("a*", "a\\*"));
  EXPECT_FALSE(matches("ab", "a\\*"));
  EXPECT_TRUE(matches("[a]", "\\[a]"));
  EXPECT_TRUE(matches("\\", "\\\\"));
  EXPECT_TRUE(matches("a\\", "a\\"));
}

TEST(KQZipNamePattern, BytesThatAreNoUTF8AreCharacters) {
  EXPECT_TRUE(matches("a\xFFz", "a?z"));
  EXPECT_TRUE(matches("a\xFFz", "a\xFFz"));
  EXPECT_FALSE(matches("a\xFFz", "a\xFEz"));
}

TEST(KQZipNamePattern, ManyStarsTakeTimeByTheProductOfTheLengths) {
  std::string pattern;
  for (int i = 0; i < 200; ++i) pattern += "*a";
  EXPECT_FALSE(matches(std::string(2000, 'a') + "b", pattern));
  EXPECT_TRUE(matches(std::string(2000, 'a'), pattern));
}

TEST(KQZipNamePattern, AFolderThatMatchesCoversAllBelow) {
  EXPECT_TRUE(KQZipMatchesPatternOrIsBelow("a/b/c", "a"));
  EXPECT_TRUE(KQZipMatchesPatternOrIsBelow("a/b/c", "a/b"));
  EXPECT_TRUE(KQZipMatchesPatternOrIsBelow("a/b/c", "a/b/c"));
  EXPECT_TRUE(KQZipMatchesPatternOrIsBelow("a/", "a"));
  EXPECT_FALSE(KQZipMatchesPatternOrIsBelow("a/b/c", "b"));
  EXPECT_FALSE(KQZipMatchesPatternOrIsBelow("a/", "a/"));
}

}  // namespace
