#include <KQZip/Internal/KQZipEntryTable.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace {

TEST(KQZipEntryTable, WithoutEntriesFindsNothing) {
  KQZipEntryTable table;
  EXPECT_EQ(nullptr, table.find("a"));
  table.finish();
  EXPECT_EQ(nullptr, table.find("a"));
  EXPECT_EQ(nullptr, table.find(""));
  EXPECT_TRUE(table.entries().empty());
}

TEST(KQZipEntryTable, FindsEveryNameOfAnyNumberAndNoOther) {
  for (std::size_t count = 1; count <= 3000; count = count * 5 / 4 + 1) {
    KQZipEntryTable table;
    // Names of all lengths, the empty one first, so that they end blocks in many ways.
    const auto nameOf = [](std::size_t i) {
      return i == 0 ? "" : std::to_string(i) + std::string(i % 300, 'n');
    };
    for (std::size_t i = 0; i < count; ++i) {
      const std::string name = nameOf(i);
      table.add(name, {.dataOffset = i, .dataLength = ~std::uint64_t{i}});
    }
    table.finish();
    ASSERT_EQ(count, table.entries().size());
    for (std::size_t i = 0; i < count; ++i) {
      const auto* const entry = table.find(nameOf(i));
      ASSERT_NE(nullptr, entry);
      EXPECT_EQ(i, entry->dataOffset);
      EXPECT_EQ(~std::uint64_t{i}, entry->dataLength);
      EXPECT_EQ(nameOf(i), entry->name());
      EXPECT_EQ(entry, &table.entries()[i]);
      EXPECT_FALSE(entry->isReplaced);
    }
    EXPECT_EQ(nullptr, table.find(nameOf(count)));
    EXPECT_EQ(nullptr, table.find("another"));
  }
}

TEST(KQZipEntryTable, OfSeveralWithOneNameTheLastCounts) {
  KQZipEntryTable table;
  const std::vector<std::pair<std::string, bool>> names{{"a", true}, {"b", false}, {"a", true},
                                                        {"", true},  {"a", false}, {"", false}};
  for (std::size_t i = 0; i < names.size(); ++i) table.add(names[i].first, {.dataOffset = i});
  table.finish();
  EXPECT_EQ(4U, table.find("a")->dataOffset);
  EXPECT_EQ(1U, table.find("b")->dataOffset);
  EXPECT_EQ(5U, table.find("")->dataOffset);
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(names[i].first, table.entries()[i].name());
    EXPECT_EQ(names[i].second, table.entries()[i].isReplaced);
  }
}

TEST(KQZipEntryTable, KeepsNamesWithAnyBytesOfAnyLength) {
  KQZipEntryTable table;
  const std::string zeros("a\0b\0", 4);
  const std::string longest(0xFFFF, 'x');
  for (const std::string& name : {zeros, longest, zeros + "c", longest.substr(1)}) {
    std::string copy = name;
    table.add(copy, {.dataOffset = name.size()});
    copy.assign(copy.size(), '?');
  }
  table.finish();
  EXPECT_EQ(4U, table.find(zeros)->dataOffset);
  EXPECT_EQ(5U, table.find(zeros + "c")->dataOffset);
  EXPECT_EQ(0xFFFFU, table.find(longest)->dataOffset);
  EXPECT_EQ(0xFFFEU, table.find(longest.substr(1))->dataOffset);
  EXPECT_EQ(nullptr, table.find(zeros.substr(0, 3)));
}

}  // namespace
