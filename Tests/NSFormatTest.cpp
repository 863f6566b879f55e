#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace {

using KQ::NSFormatArgument;
using KQ::stringWithFormat;

using namespace std::string_literals;

TEST(NSFormat, PlaceholdersAreReplacedFromLeftToRight) {
  EXPECT_EQ("a b", stringWithFormat("%@ %@", {"a", "b"}));
  EXPECT_EQ("failed to create directory at out/x for x/",
            stringWithFormat("failed to create directory at %@ for %@", {"out/x", std::string("x/")}));
  EXPECT_EQ("ab", stringWithFormat("%@%@", {"a", "b"}));
  EXPECT_EQ("plain", stringWithFormat("plain", {}));
  EXPECT_EQ("", stringWithFormat("", {}));
}

TEST(NSFormat, EveryKindOfPlaceholderIsReplaced) {
  EXPECT_EQ("<a, 18446744073709551615, 4034b50, 0x10>",
            stringWithFormat("<%@, %llu, %x, %p>", {"a", NSFormatArgument::decimal(UINT64_MAX),
                                                    NSFormatArgument::hexadecimal(0x04034B50), "0x10"}));
}

TEST(NSFormat, PercentSignsInArgumentsAreText) {
  EXPECT_EQ("100%@ %llu%n%s%", stringWithFormat("%@ %@", {"100%@", "%llu%n%s%"}));
  EXPECT_EQ("%@%@", stringWithFormat("%@%@", {"%", "@%@"}));
}

TEST(NSFormat, APercentSignThatStartsNoPlaceholderStays) {
  EXPECT_EQ("100% of x", stringWithFormat("100% of %@", {"x"}));
  EXPECT_EQ("x%", stringWithFormat("%@%", {"x"}));
  EXPECT_EQ("x%l %lu", stringWithFormat("%@%l %lu", {"x"}));
}

TEST(NSFormat, NULsInArgumentsAreKept) { EXPECT_EQ("<a\0b>"s, stringWithFormat("<%@>", {"a\0b"s})); }

TEST(NSFormat, AnAbsentObjectReadsNull) {
  EXPECT_EQ("stream reading failed: (null)",
            stringWithFormat("stream reading failed: %@", {std::shared_ptr<const KQ::NSError>()}));
  EXPECT_EQ("<(null)>", stringWithFormat("<%@>", {std::optional<std::string>()}));
}

TEST(NSFormat, APresentOptionalStringReadsAsItStands) {
  EXPECT_EQ("<>", stringWithFormat("<%@>", {std::optional<std::string>("")}));
  EXPECT_EQ("<x>", stringWithFormat("<%@>", {std::optional<std::string>("x")}));
}

TEST(NSFormat, AnErrorReadsAsItsDescription) {
  const auto error = KQ::NSError::errorWithDomain("SomeDomain", -7, "it broke 100%");
  EXPECT_EQ("failed: " + error->description(), stringWithFormat("failed: %@", {error}));
}

TEST(NSFormat, NumbersAreWrittenInDecimalDigits) {
  EXPECT_EQ("0", NSFormatArgument::decimal(0).text());
  EXPECT_EQ("4294967296", NSFormatArgument::decimal(4294967296).text());
  EXPECT_EQ("18446744073709551615", NSFormatArgument::decimal(UINT64_MAX).text());
}

TEST(NSFormat, NumbersAreWrittenInLowerCaseHexadecimalDigitsWithoutLeadingZeros) {
  EXPECT_EQ("0", NSFormatArgument::hexadecimal(0).text());
  EXPECT_EQ("a", NSFormatArgument::hexadecimal(10).text());
  EXPECT_EQ("4034b50", NSFormatArgument::hexadecimal(0x04034B50).text());
  EXPECT_EQ("deadbeef", NSFormatArgument::hexadecimal(0xDEADBEEF).text());
  EXPECT_EQ("ffffffffffffffff", NSFormatArgument::hexadecimal(UINT64_MAX).text());
}

}  // namespace
