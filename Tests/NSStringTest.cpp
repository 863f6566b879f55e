#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <clocale>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Support/Bytes.h"

namespace {

using KQ::compare;
using KQ::NSOrderedAscending;
using KQ::NSOrderedDescending;
using KQ::NSOrderedSame;
using KQTest::hex;

using namespace std::string_literals;

std::string utf8(char32_t codePoint) {
  std::string bytes;
  const auto add = [&bytes](char32_t value) { bytes += static_cast<char>(value); };
  if (codePoint < 0x80) {
    add(codePoint);
  } else if (codePoint < 0x800) {
    add(0xC0 | (codePoint >> 6));
    add(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    add(0xE0 | (codePoint >> 12));
    add(0x80 | ((codePoint >> 6) & 0x3F));
    add(0x80 | (codePoint & 0x3F));
  } else {
    add(0xF0 | (codePoint >> 18));
    add(0x80 | ((codePoint >> 12) & 0x3F));
    add(0x80 | ((codePoint >> 6) & 0x3F));
    add(0x80 | (codePoint & 0x3F));
  }
  return bytes;
}

std::string utf8(std::u32string_view text) {
  std::string bytes;
  for (const char32_t codePoint : text) bytes += utf8(codePoint);
  return bytes;
}

// The table of well-formed byte sequences, as the Unicode standard prints it.
struct WellFormed {
  std::size_t length;
  std::array<std::array<unsigned, 2>, 4> ranges;
};

constexpr std::array<WellFormed, 9> wellFormedSequences{{
    {1, {{{0x00, 0x7F}}}},
    {2, {{{0xC2, 0xDF}, {0x80, 0xBF}}}},
    {3, {{{0xE0, 0xE0}, {0xA0, 0xBF}, {0x80, 0xBF}}}},
    {3, {{{0xE1, 0xEC}, {0x80, 0xBF}, {0x80, 0xBF}}}},
    {3, {{{0xED, 0xED}, {0x80, 0x9F}, {0x80, 0xBF}}}},
    {3, {{{0xEE, 0xEF}, {0x80, 0xBF}, {0x80, 0xBF}}}},
    {4, {{{0xF0, 0xF0}, {0x90, 0xBF}, {0x80, 0xBF}, {0x80, 0xBF}}}},
    {4, {{{0xF1, 0xF3}, {0x80, 0xBF}, {0x80, 0xBF}, {0x80, 0xBF}}}},
    {4, {{{0xF4, 0xF4}, {0x80, 0x8F}, {0x80, 0xBF}, {0x80, 0xBF}}}},
}};

std::size_t lengthOfFirstSequence(std::string_view bytes) {
  for (const WellFormed& sequence : wellFormedSequences) {
    if (bytes.size() < sequence.length) continue;
    bool matches = true;
    for (std::size_t i = 0; i < sequence.length; ++i) {
      const auto byte = static_cast<unsigned char>(bytes[i]);
      matches = matches && byte >= sequence.ranges[i][0] && byte <= sequence.ranges[i][1];
    }
    if (matches) return sequence.length;
  }
  return 0;
}

bool isWellFormedByTheTable(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t length = lengthOfFirstSequence(bytes);
    if (length == 0) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

// A fixed handful of equivalences, enough to build random strings whose canonical form is known.
struct Letter {
  std::string bytes;
  std::u32string decomposed;
};

const std::vector<Letter>& letters() {
  static const std::vector<Letter> all{
      {"a", U"a"},
      {"e", U"e"},
      {"z", U"z"},
      {"/", U"/"},
      {utf8(U'\u00E9'), U"e\u0301"},
      {utf8(U'\u00C5'), U"A\u030A"},
      {utf8(U'\u212B'), U"A\u030A"},
      {utf8(U'\u1E69'), U"s\u0323\u0307"},
      {utf8(U'\u0301'), U"\u0301"},
      {utf8(U'\u0307'), U"\u0307"},
      {utf8(U'\u0323'), U"\u0323"},
      {utf8(U'\uAC00'), U"\u1100\u1161"},
      {utf8(U'\uAC01'), U"\u1100\u1161\u11A8"},
      {utf8(U'\u11A8'), U"\u11A8"},
      {utf8(U'\uFF5E'), U"\uFF5E"},
      {utf8(U'\U0001F600'), U"\U0001F600"},
      {utf8(U'\U0010FFFF'), U"\U0010FFFF"},
  };
  return all;
}

int combiningClassOf(char32_t codePoint) {
  static const std::map<char32_t, int> classes{
      {U'\u0301', 230}, {U'\u0307', 230}, {U'\u030A', 230}, {U'\u0323', 220}};
  const auto found = classes.find(codePoint);
  return found == classes.end() ? 0 : found->second;
}

// The canonical order of marks, by the definition: exchange neighbours until none is out of order.
std::u32string withMarksInOrder(std::u32string text) {
  for (bool changed = true; changed;) {
    changed = false;
    for (std::size_t i = 1; i < text.size(); ++i) {
      const int left = combiningClassOf(text[i - 1]);
      const int right = combiningClassOf(text[i]);
      if (right != 0 && left > right) {
        std::swap(text[i - 1], text[i]);
        changed = true;
      }
    }
  }
  return text;
}

Letter randomText(std::mt19937& generator, bool withInvalidBytes) {
  static const std::array<std::string, 6> invalid{"\x80"s, "\xBF"s, "\xC0"s, "\xE2"s, "\xED"s, "\xFF"s};
  Letter text;
  const std::size_t length = generator() % 7;
  for (std::size_t i = 0; i < length; ++i) {
    if (withInvalidBytes && generator() % 4 == 0) {
      text.bytes += invalid[generator() % invalid.size()];
    } else {
      const Letter& letter = letters()[generator() % letters().size()];
      text.bytes += letter.bytes;
      text.decomposed += letter.decomposed;
    }
  }
  text.decomposed = withMarksInOrder(std::move(text.decomposed));
  return text;
}

int sign(int value) { return (value > 0) - (value < 0); }

void expectOrder(const std::string& smaller, const std::string& greater) {
  EXPECT_EQ(NSOrderedAscending, compare(smaller, greater)) << hex(smaller) << "| " << hex(greater);
  EXPECT_EQ(NSOrderedDescending, compare(greater, smaller)) << hex(smaller) << "| " << hex(greater);
}

// Sets the process's locale while it exists.
class Locale {
 public:
  explicit Locale(const char* name) : previous_(std::setlocale(LC_ALL, nullptr)) {
    std::setlocale(LC_ALL, name);
  }
  ~Locale() { std::setlocale(LC_ALL, previous_.c_str()); }
  Locale(const Locale&) = delete;
  Locale& operator=(const Locale&) = delete;

 private:
  std::string previous_;
};

}  // namespace

// UTF-8

TEST(NSString, EveryCodePointIsValidUTF8AndNoSurrogateIs) {
  std::size_t wrong = 0;
  for (char32_t codePoint = 0; codePoint <= 0x10FFFF; ++codePoint) {
    const bool isSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    if (KQ::isValidUTF8(utf8(codePoint)) == isSurrogate) ++wrong;
  }
  EXPECT_EQ(0U, wrong);
}

TEST(NSString, ValidityOfEveryOneAndTwoByteStringFollowsTheTableOfWellFormedSequences) {
  for (unsigned first = 0; first < 256; ++first) {
    const std::string one(1, static_cast<char>(first));
    EXPECT_EQ(isWellFormedByTheTable(one), KQ::isValidUTF8(one)) << hex(one);
    for (unsigned second = 0; second < 256; ++second) {
      const std::string two = one + static_cast<char>(second);
      ASSERT_EQ(isWellFormedByTheTable(two), KQ::isValidUTF8(two)) << hex(two);
    }
  }
}

TEST(NSString, ValidityOfLongerSequencesFollowsTheTableOnBothSidesOfEachOfItsLimits) {
  const std::string limits =
      "\x00\x41\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE\xEF\xF0\xF1\xF3\xF4\xF5\xFF"s;
  std::string bytes(4, '\0');
  for (const char a : limits) {
    for (const char b : limits) {
      for (const char c : limits) {
        bytes = {a, b, c};
        ASSERT_EQ(isWellFormedByTheTable(bytes), KQ::isValidUTF8(bytes)) << hex(bytes);
        for (const char d : limits) {
          bytes = {a, b, c, d};
          ASSERT_EQ(isWellFormedByTheTable(bytes), KQ::isValidUTF8(bytes)) << hex(bytes);
        }
      }
    }
  }
}

TEST(NSString, AnInvalidByteIsFoundAtEveryPlaceOfALongText) {
  for (std::size_t length = 1; length <= 70; ++length) {
    for (std::size_t place = 0; place < length; ++place) {
      std::string text(length, 'x');
      ASSERT_TRUE(KQ::isValidUTF8(text));
      text[place] = '\xC3';
      ASSERT_FALSE(KQ::isValidUTF8(text)) << length << " " << place;
    }
  }
}

TEST(NSString, TheEmptyStringIsValidUTF8) { EXPECT_TRUE(KQ::isValidUTF8("")); }

TEST(NSString, BytesBecomeAStringWithTheirNULsKept) {
  const std::string bytes = "a\0\xC3\xA9\0"s;
  const std::optional<std::string> string = KQ::stringWithUTF8Bytes(bytes.data(), bytes.size());
  ASSERT_TRUE(string.has_value());
  EXPECT_EQ(bytes, *string);
}

TEST(NSString, BytesThatAreNotUTF8BecomeNothing) {
  EXPECT_FALSE(KQ::stringWithUTF8Bytes("ab\xFF", 3).has_value());
  EXPECT_FALSE(KQ::stringWithUTF8Bytes("\xC3\xA9", 1).has_value());
  EXPECT_FALSE(KQ::stringWithUTF8Bytes("\xED\xA0\x80", 3).has_value());
}

TEST(NSString, NoBytesBecomeTheEmptyStringAndNotNothing) {
  const std::optional<std::string> string = KQ::stringWithUTF8Bytes(nullptr, 0);
  ASSERT_TRUE(string.has_value());
  EXPECT_EQ("", *string);
}

// Order

TEST(NSString, ASCIIIsOrderedByItsBytes) {
  expectOrder("", "a");
  expectOrder("B", "a");
  expectOrder("a", "a\0"s);
  expectOrder("a\0b"s, "a\0c"s);
  expectOrder("a", "aa");
  expectOrder("ab", "b");
  expectOrder("file10", "file2");
  expectOrder("a-b", "a/b");
  expectOrder("a/b", "a0b");
  expectOrder("~", "\x7F");
  EXPECT_EQ(NSOrderedSame, compare("abc", "abc"));
  EXPECT_EQ(NSOrderedSame, compare("", ""));
}

TEST(NSString, EveryPairOfASCIICharactersIsOrderedByValue) {
  for (int left = 0; left < 128; ++left) {
    for (int right = 0; right < 128; ++right) {
      const std::string a(1, static_cast<char>(left));
      const std::string b(1, static_cast<char>(right));
      ASSERT_EQ(sign(left - right), compare(a, b)) << left << " " << right;
      ASSERT_EQ(sign(left - right), compare("x" + a + "y", "x" + b + "y")) << left << " " << right;
    }
  }
}

TEST(NSString, AComposedLetterSortsWithItsBaseLetter) {
  expectOrder("e", utf8(U"\u00E9"));
  expectOrder(utf8(U"\u00E9"), "f");
  expectOrder(utf8(U"\u00E9"), "z");
  expectOrder("ez", utf8(U"\u00E9"));
  expectOrder(utf8(U"caf\u00E9"), "cafz");
}

TEST(NSString, EquivalentStringsAreOrderedByTheirBytes) {
  expectOrder(utf8(U"e\u0301"), utf8(U"\u00E9"));
  expectOrder(utf8(U"\u00C5"), utf8(U"\u212B"));
  expectOrder(utf8(U"A\u030A"), utf8(U"\u00C5"));
  expectOrder(utf8(U"\u1100\u1161"), utf8(U"\uAC00"));
  expectOrder(utf8(U"a\u0301\u0323"), utf8(U"a\u0323\u0301"));
  EXPECT_EQ(NSOrderedSame, compare(utf8(U"\u00E9"), utf8(U"\u00E9")));
}

TEST(NSString, WhatFollowsEquivalentLettersDecidesBeforeTheirBytesDo) {
  expectOrder(utf8(U"\u00E9a"), utf8(U"e\u0301b"));
  expectOrder(utf8(U"e\u0301a"), utf8(U"\u00E9b"));
  expectOrder(utf8(U"\u212B1"), utf8(U"\u00C52"));
  expectOrder(utf8(U"\u00E9"), utf8(U"e\u0301a"));
  expectOrder(utf8(U"e\u0301"), utf8(U"\u00E9a"));
}

TEST(NSString, HangulSyllablesAreComparedByTheirParts) {
  expectOrder(utf8(U"\uAC00"), utf8(U"\u1200"));
  expectOrder(utf8(U"\uAC00a"), utf8(U"\u1100\u1161b"));
  expectOrder(utf8(U"\u1100\u1161a"), utf8(U"\uAC00b"));
  expectOrder(utf8(U"\uAC01a"), utf8(U"\u1100\u1161\u11A8b"));
  expectOrder(utf8(U"\u1100\u1161\u11A8a"), utf8(U"\uAC01b"));
  expectOrder(utf8(U"\uAC00\u11A8a"), utf8(U"\uAC01b"));
  expectOrder(utf8(U"\uAC01a"), utf8(U"\uAC00\u11A8b"));
  expectOrder(utf8(U"\uD7A3a"), utf8(U"\u1112\u1175\u11C2b"));
  expectOrder(utf8(U"\u1112\u1175\u11C2a"), utf8(U"\uD7A3b"));
  expectOrder(utf8(U"\uAC00"), utf8(U"\uAC01"));
  expectOrder(utf8(U"\uAC01"), utf8(U"\uAC1C"));
}

TEST(NSString, MarksOfDifferentClassesAreComparedInTheirCanonicalOrder) {
  expectOrder(utf8(U"a\u0301\u0323x"), utf8(U"a\u0323\u0301y"));
  expectOrder(utf8(U"a\u0323\u0301x"), utf8(U"a\u0301\u0323y"));
  expectOrder(utf8(U"\u1E69x"), utf8(U"s\u0307\u0323y"));
  expectOrder(utf8(U"s\u0307\u0323x"), utf8(U"\u1E69y"));
  expectOrder(utf8(U"\u1E61\u0323x"), utf8(U"\u1E63\u0307y"));
  expectOrder(utf8(U"\u1E63\u0307x"), utf8(U"\u1E61\u0323y"));
  expectOrder(utf8(U"\u1E9B\u0323x"), utf8(U"\u017F\u0323\u0307y"));
  expectOrder(utf8(U"\u017F\u0323\u0307x"), utf8(U"\u1E9B\u0323y"));
  expectOrder(utf8(U"a\u05AE\u0300\u0315b"), utf8(U"a\u0315\u0300\u05AEc"));
}

TEST(NSString, MarksOfOneClassKeepTheirOrder) {
  expectOrder(utf8(U"a\u0300\u0301y"), utf8(U"a\u0301\u0300x"));
  expectOrder(utf8(U"\u00E0\u0301y"), utf8(U"\u00E1\u0300x"));
}

TEST(NSString, AMarkDoesNotMoveAcrossALetter) {
  expectOrder(utf8(U"a\u0301b\u0323"), utf8(U"a\u0323b\u0301"));
  // The joiner has class 0 and keeps the marks on its two sides apart.
  expectOrder(utf8(U"a\u0301\u034F\u0323y"), utf8(U"a\u0323\u034F\u0301x"));
}

TEST(NSString, MarksAtTheFrontOfAStringAreOrderedToo) {
  expectOrder(utf8(U"\u0301\u0323x"), utf8(U"\u0323\u0301y"));
  expectOrder(utf8(U"\u0323\u0301x"), utf8(U"\u0301\u0323y"));
}

TEST(NSString, CompatibilityFormsAreNotEquivalent) {
  expectOrder("fj", utf8(U"\uFB01"));
  expectOrder("g", utf8(U"\uFB01"));
  expectOrder("2", utf8(U"\u00B2"));
  expectOrder("z", utf8(U"\uFF41"));
}

TEST(NSString, CharactersThatAreNotShownCountLikeOthers) {
  expectOrder("ab", utf8(U"a\u00ADa"));
  expectOrder("az", utf8(U"a\u200Db"));
  expectOrder("a", utf8(U"a\uFEFF"));
}

TEST(NSString, TheOrderIsThatOfCodePointsAndNotOfSixteenBitUnits) {
  expectOrder(utf8(U"\uFF5E"), utf8(U"\U0001F600"));
  expectOrder(utf8(U"\uE000"), utf8(U"\U00010000"));
}

TEST(NSString, CodePointsWithoutAMeaningAreOrderedByValue) {
  expectOrder(utf8(U"\u0377"), utf8(U'\u0378'));
  expectOrder(utf8(U'\u0378'), utf8(U'\u0379'));
  expectOrder(utf8(U'\uFFFE'), utf8(U'\uFFFF'));
  expectOrder(utf8(U'\uFFFF'), utf8(U"\U00010000"));
}

TEST(NSString, TheOrderIsCaseSensitiveInEveryScript) {
  expectOrder("a", "b");
  expectOrder("Z", "a");
  expectOrder(utf8(U"\u0410"), utf8(U"\u0430"));
  expectOrder(utf8(U"\u042F"), utf8(U"\u0430"));
  expectOrder(utf8(U"\u00C9"), utf8(U"\u00E9"));
}

TEST(NSString, AByteThatIsNotUTF8SortsAfterEveryCodePoint) {
  const std::string last = utf8(U"\U0010FFFF");
  for (const std::string& invalid :
       {"\x80"s, "\xBF"s, "\xC0"s, "\xC3"s, "\xE2\x82"s, "\xED\xA0\x80"s, "\xF4\x90"s, "\xF8"s, "\xFF"s}) {
    expectOrder(last, invalid);
    expectOrder("~", invalid);
    expectOrder("x" + last, "x" + invalid);
    expectOrder("x" + last + "z", "x" + invalid + "a");
  }
}

TEST(NSString, WhatFollowsAnInvalidByteIsStillCompared) {
  expectOrder(
      "\xFF"
      "a",
      "\xFF"
      "b");
  expectOrder("\xFF" + utf8(U"\u00E9"), "\xFFz"s);
  expectOrder("\xFE", "\xFF");
  expectOrder("\xFF", "\xFF\xFF");
  EXPECT_EQ(NSOrderedSame, compare("\xFF", "\xFF"));
}

TEST(NSString, RandomStringsAreOrderedByTheirDecompositionAndThenByTheirBytes) {
  std::mt19937 generator(20);
  for (int round = 0; round < 40000; ++round) {
    const Letter left = randomText(generator, false);
    const Letter right = randomText(generator, false);
    const int byPoints = left.decomposed.compare(right.decomposed);
    const int expected = sign(byPoints != 0 ? byPoints : left.bytes.compare(right.bytes));
    ASSERT_EQ(expected, compare(left.bytes, right.bytes)) << hex(left.bytes) << "| " << hex(right.bytes);
  }
}

TEST(NSString, TheOrderOfAnyStringsIsTotalWithInvalidBytesToo) {
  std::mt19937 generator(21);
  std::vector<std::string> strings;
  for (int i = 0; i < 100; ++i) strings.push_back(randomText(generator, true).bytes);
  const auto order = [&strings](std::size_t a, std::size_t b) { return compare(strings[a], strings[b]); };

  for (std::size_t a = 0; a < strings.size(); ++a) {
    for (std::size_t b = 0; b < strings.size(); ++b) {
      ASSERT_EQ(order(a, b) == NSOrderedSame, strings[a] == strings[b])
          << hex(strings[a]) << "| " << hex(strings[b]);
      ASSERT_EQ(order(a, b), -order(b, a)) << hex(strings[a]) << "| " << hex(strings[b]);
    }
  }
  std::sort(strings.begin(), strings.end(), KQ::NSStringLess());
  for (std::size_t a = 0; a < strings.size(); ++a) {
    for (std::size_t b = a + 1; b < strings.size(); ++b) {
      ASSERT_NE(NSOrderedDescending, order(a, b)) << hex(strings[a]) << "| " << hex(strings[b]);
    }
  }
}

TEST(NSString, RandomBytesAreOrderedTotally) {
  std::mt19937 generator(22);
  std::vector<std::string> strings;
  for (int i = 0; i < 120; ++i) {
    std::string bytes(generator() % 6, '\0');
    for (char& byte : bytes) byte = static_cast<char>(generator() & 0xFF);
    strings.push_back(bytes);
  }
  std::sort(strings.begin(), strings.end(), KQ::NSStringLess());
  for (std::size_t a = 0; a < strings.size(); ++a) {
    for (std::size_t b = 0; b < strings.size(); ++b) {
      const int order = compare(strings[a], strings[b]);
      if (strings[a] == strings[b]) {
        ASSERT_EQ(NSOrderedSame, order);
      } else {
        ASSERT_EQ(a < b ? NSOrderedAscending : NSOrderedDescending, order)
            << hex(strings[a]) << "| " << hex(strings[b]);
      }
    }
  }
}

TEST(NSString, TheOrderDoesNotDependOnTheLocale) {
  const Locale locale("C");
  expectOrder("Z", "a");
  expectOrder(utf8(U"\u00E9"), "f");
  ASSERT_NE(nullptr, std::setlocale(LC_ALL, "C.UTF-8"));
  expectOrder("Z", "a");
  expectOrder(utf8(U"\u00E9"), "f");
}

TEST(NSString, ALongRunOfMarksIsPutInOrder) {
  std::string mixed = "a";
  std::string sorted = "a";
  const int count = 15000;
  for (int i = 0; i < count; ++i) mixed += utf8(U"\u0301\u0323");
  for (int i = 0; i < count; ++i) sorted += utf8(U"\u0323");
  for (int i = 0; i < count; ++i) sorted += utf8(U"\u0301");
  expectOrder(mixed + "x", sorted + "y");
  expectOrder(sorted + "x", mixed + "y");
}

TEST(NSString, ALongRunOfMarksOfOneClassKeepsItsOrder) {
  std::string mixed = "a";
  std::string sorted = "a";
  for (int i = 0; i < 100; ++i) mixed += utf8(U"\u0301\u0323\u0300\u0308");
  for (int i = 0; i < 100; ++i) sorted += utf8(U"\u0323");
  for (int i = 0; i < 100; ++i) sorted += utf8(U"\u0301\u0300\u0308");
  expectOrder(mixed + "x", sorted + "y");
  expectOrder(sorted + "x", mixed + "y");
}

TEST(NSString, AMapOrderedByNSStringLessFindsViewsAndKeepsEquivalentNamesApart) {
  std::map<std::string, int, KQ::NSStringLess> map;
  map[utf8(U"\u00E9")] = 1;
  map[utf8(U"e\u0301")] = 2;
  map["f"] = 3;
  ASSERT_EQ(3U, map.size());
  const std::string_view composed = "\xC3\xA9";
  ASSERT_NE(map.end(), map.find(composed));
  EXPECT_EQ(1, map.find(composed)->second);
  EXPECT_EQ(2, map.begin()->second);
  EXPECT_EQ(3, map.rbegin()->second);
}

// Prefixes

TEST(NSString, APrefixIsAMatterOfBytes) {
  EXPECT_TRUE(KQ::hasPrefix(".hidden", "."));
  EXPECT_TRUE(KQ::hasPrefix("abc", "abc"));
  EXPECT_TRUE(KQ::hasPrefix("abc", ""));
  EXPECT_TRUE(KQ::hasPrefix("", ""));
  EXPECT_TRUE(KQ::hasPrefix("a\0b"s, "a\0"s));
  EXPECT_FALSE(KQ::hasPrefix("abc", "abcd"));
  EXPECT_FALSE(KQ::hasPrefix("abc", "b"));
  EXPECT_FALSE(KQ::hasPrefix("", "."));
  EXPECT_FALSE(KQ::hasPrefix(utf8(U"\u00E9"), "e"));
  EXPECT_FALSE(KQ::hasPrefix(utf8(U"e\u0301"), utf8(U"\u00E9")));
}

// Paths

TEST(NSString, TheLastPathComponentIgnoresTrailingSlashes) {
  EXPECT_EQ("b", KQ::lastPathComponent("a/b"));
  EXPECT_EQ("b", KQ::lastPathComponent("a/b/"));
  EXPECT_EQ("b", KQ::lastPathComponent("a/b///"));
  EXPECT_EQ("b", KQ::lastPathComponent("a//b"));
  EXPECT_EQ("x", KQ::lastPathComponent("x"));
  EXPECT_EQ("x", KQ::lastPathComponent("x/"));
  EXPECT_EQ("x", KQ::lastPathComponent("/x"));
  EXPECT_EQ("x", KQ::lastPathComponent("//x//"));
  EXPECT_EQ("..", KQ::lastPathComponent("a/.."));
  EXPECT_EQ(".hidden", KQ::lastPathComponent("a/.hidden"));
  EXPECT_EQ("archive.tar.zip", KQ::lastPathComponent("/out/archive.tar.zip"));
}

TEST(NSString, TheLastPathComponentOfTheRootIsTheRootAndOfNothingNothing) {
  EXPECT_EQ("/", KQ::lastPathComponent("/"));
  EXPECT_EQ("/", KQ::lastPathComponent("///"));
  EXPECT_EQ("", KQ::lastPathComponent(""));
}

TEST(NSString, DeletingTheLastPathComponentGivesTheParent) {
  EXPECT_EQ("a", KQ::stringByDeletingLastPathComponent("a/b"));
  EXPECT_EQ("a", KQ::stringByDeletingLastPathComponent("a/b/"));
  EXPECT_EQ("a", KQ::stringByDeletingLastPathComponent("a//b"));
  EXPECT_EQ("a", KQ::stringByDeletingLastPathComponent("a/b//"));
  EXPECT_EQ("/tmp", KQ::stringByDeletingLastPathComponent("/tmp/scratch.tiff"));
  EXPECT_EQ("/a/b", KQ::stringByDeletingLastPathComponent("/a/b/c"));
  EXPECT_EQ("..", KQ::stringByDeletingLastPathComponent("../x"));
}

TEST(NSString, TheParentOfATopLevelItemIsTheRootAndOfABareNameNothing) {
  EXPECT_EQ("/", KQ::stringByDeletingLastPathComponent("/x"));
  EXPECT_EQ("/", KQ::stringByDeletingLastPathComponent("/x/"));
  EXPECT_EQ("/", KQ::stringByDeletingLastPathComponent("//x"));
  EXPECT_EQ("/", KQ::stringByDeletingLastPathComponent("/"));
  EXPECT_EQ("/", KQ::stringByDeletingLastPathComponent("///"));
  EXPECT_EQ("", KQ::stringByDeletingLastPathComponent("x"));
  EXPECT_EQ("", KQ::stringByDeletingLastPathComponent("x/"));
  EXPECT_EQ("", KQ::stringByDeletingLastPathComponent(""));
}

TEST(NSString, AppendingAPathComponentJoinsWithOneSlash) {
  EXPECT_EQ("a/b", KQ::stringByAppendingPathComponent("a", "b"));
  EXPECT_EQ("a/b", KQ::stringByAppendingPathComponent("a/", "b"));
  EXPECT_EQ("a/b", KQ::stringByAppendingPathComponent("a//", "b"));
  EXPECT_EQ("/b", KQ::stringByAppendingPathComponent("/", "b"));
  EXPECT_EQ("/tmp/b/c", KQ::stringByAppendingPathComponent("/tmp", "b/c"));
  EXPECT_EQ("a/..", KQ::stringByAppendingPathComponent("a", ".."));
}

TEST(NSString, AppendingToTheEmptyPathYieldsTheComponent) {
  EXPECT_EQ("x", KQ::stringByAppendingPathComponent("", "x"));
  EXPECT_EQ("x/y", KQ::stringByAppendingPathComponent("", "x/y"));
  EXPECT_EQ("/x", KQ::stringByAppendingPathComponent("", "/x"));
  EXPECT_EQ("", KQ::stringByAppendingPathComponent("", ""));
}

TEST(NSString, AppendingNothingYieldsThePathWithoutATrailingSlash) {
  EXPECT_EQ("a", KQ::stringByAppendingPathComponent("a", ""));
  EXPECT_EQ("a", KQ::stringByAppendingPathComponent("a/", ""));
  EXPECT_EQ("a", KQ::stringByAppendingPathComponent("a", "/"));
  EXPECT_EQ("/", KQ::stringByAppendingPathComponent("/", ""));
  EXPECT_EQ("/", KQ::stringByAppendingPathComponent("/", "/"));
}

TEST(NSString, AnAbsoluteComponentNeverReplacesTheLeftSide) {
  EXPECT_EQ("out/etc/x", KQ::stringByAppendingPathComponent("out", "/etc/x"));
  EXPECT_EQ("out/etc/x", KQ::stringByAppendingPathComponent("out/", "/etc/x"));
  EXPECT_EQ("/out/etc", KQ::stringByAppendingPathComponent("/out", "//etc"));
  EXPECT_EQ("/etc", KQ::stringByAppendingPathComponent("/", "/etc"));
}

TEST(NSString, ATrailingSlashOfTheComponentIsDropped) {
  EXPECT_EQ("a/b", KQ::stringByAppendingPathComponent("a", "b/"));
  EXPECT_EQ("a/b", KQ::stringByAppendingPathComponent("a", "b//"));
}

TEST(NSString, PathOperationsKeepNULsAndBytesThatAreNotUTF8) {
  EXPECT_EQ("b\0c"s, KQ::lastPathComponent("a/b\0c"s));
  EXPECT_EQ("a\0"s, KQ::stringByDeletingLastPathComponent("a\0/b"s));
  EXPECT_EQ("a\0/\xFF"s, KQ::stringByAppendingPathComponent("a\0"s, "\xFF"s));
}

TEST(NSString, AParentAndALastComponentJoinToTheSamePath) {
  for (const std::string path : {"a/b", "/a", "/a/b/c", "x", "../x", "a/.."}) {
    EXPECT_EQ(path, KQ::stringByAppendingPathComponent(KQ::stringByDeletingLastPathComponent(path),
                                                       KQ::lastPathComponent(path)));
  }
}

// Printable text

TEST(NSString, PrintableTextIsNotChangedByEscaping) {
  const std::string text = utf8(U" a/b~\\x\u00E9e\u0301\u65E5\U0001F600");
  EXPECT_EQ(text, KQ::stringByEscapingUnprintables(text));
  EXPECT_EQ("", KQ::stringByEscapingUnprintables(""));
}

TEST(NSString, EveryControlCharacterIsEscapedByteForByte) {
  const auto lowerCase = [](std::string text) {
    for (char& character : text)
      character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    return text;
  };
  const auto escaped = [](const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
      const auto value = static_cast<unsigned char>(byte);
      text += {'\\', 'x', digits[value >> 4], digits[value & 15]};
    }
    return text;
  };
  for (char32_t codePoint = 0; codePoint <= 0x9F; ++codePoint) {
    const bool isControl = codePoint < 0x20 || codePoint >= 0x7F;
    const std::string character = utf8(codePoint);
    const std::string expected = isControl ? escaped(character) : lowerCase(character);
    EXPECT_EQ("<" + expected + ">", lowerCase(KQ::stringByEscapingUnprintables("<" + character + ">")))
        << static_cast<unsigned>(codePoint);
  }
}

TEST(NSString, CharactersThatReorderTextOrAreInvisibleAreEscaped) {
  EXPECT_EQ("a\\xE2\\x80\\xAEgpj.exe", KQ::stringByEscapingUnprintables("a" + utf8(U"\u202E") + "gpj.exe"));
  for (const char32_t character :
       std::u32string(U"\u202A\u202B\u202C\u202D\u2066\u2067\u2068\u2069\u200B\u200E"
                      U"\u2060\uFEFF\u00AD\u034F\u115F\u3164\U000E0041")) {
    const std::string text = utf8(std::u32string(1, character));
    const std::string escaped = KQ::stringByEscapingUnprintables("<" + text + ">");
    EXPECT_EQ(2 + 4 * text.size(), escaped.size()) << escaped;
    EXPECT_EQ(0U, escaped.find("<\\x")) << escaped;
  }
}

TEST(NSString, BytesThatAreNotUTF8AreEscapedAndTheTextAroundThemStays) {
  EXPECT_EQ("a\\x80b", KQ::stringByEscapingUnprintables("a\x80"
                                                        "b"));
  EXPECT_EQ("\\x99", KQ::stringByEscapingUnprintables("\x99"));
  EXPECT_EQ(utf8(U"\u00E9") + "\\x93" + utf8(U"\u00E9"),
            KQ::stringByEscapingUnprintables(utf8(U"\u00E9") + "\x93" + utf8(U"\u00E9")));
}

TEST(NSString, EscapedTextIsAlwaysValidUTF8WithoutControlCharacters) {
  std::mt19937 generator(23);
  for (int round = 0; round < 2000; ++round) {
    std::string bytes(generator() % 12, '\0');
    for (char& byte : bytes) byte = static_cast<char>(generator() & 0xFF);
    const std::string text = KQ::stringByEscapingUnprintables(bytes);
    ASSERT_TRUE(isWellFormedByTheTable(text)) << hex(bytes);
    ASSERT_TRUE(std::none_of(text.begin(), text.end(), [](char c) {
      return (c >= 0 && c < 0x20) || c == 0x7F;
    })) << hex(bytes);
  }
}

// Formatting
