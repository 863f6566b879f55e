#include <KQZip/KQZip.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using Field = KQZipExtraFieldList::Field;

Field field() { return std::make_shared<KQZipExtraField>(); }

void expectHolds(const std::vector<Field>& expected, const KQZipExtraFieldList& list) {
  EXPECT_EQ(expected.size(), list.size());
  EXPECT_EQ(expected.empty(), list.empty());
  EXPECT_EQ(expected, list);
  EXPECT_EQ(expected, std::vector<Field>(list.begin(), list.end()));
  EXPECT_EQ(std::vector<Field>(expected.rbegin(), expected.rend()),
            std::vector<Field>(list.rbegin(), list.rend()));
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(expected[i], list[i]);
  if (expected.empty()) return;
  EXPECT_EQ(expected.front(), list.front());
  EXPECT_EQ(expected.back(), list.back());
}

TEST(KQZipExtraFieldList, HoldsNoFieldAtFirst) { expectHolds({}, KQZipExtraFieldList()); }

TEST(KQZipExtraFieldList, KeepsFieldsInTheOrderInWhichTheyWereAppended) {
  KQZipExtraFieldList list;
  std::vector<Field> expected;
  for (int i = 0; i < 5; ++i) {
    expected.push_back(field());
    list.push_back(expected.back());
    expectHolds(expected, list);
  }
}

TEST(KQZipExtraFieldList, ReplacesAllFieldsByNoneOneOrMany) {
  KQZipExtraFieldList list;
  const std::vector<Field> many{field(), field(), field()};
  const std::vector<Field> one{field()};
  for (const std::vector<Field>& fields : {many, one, std::vector<Field>(), one, many, many}) {
    list.assign(fields);
    expectHolds(fields, list);
  }
}

TEST(KQZipExtraFieldList, ExchangesItsFieldsWithThoseOfAnother) {
  const std::vector<Field> many{field(), field(), field()};
  const std::vector<Field> one{field()};
  for (const std::vector<Field>& left : {many, one, std::vector<Field>()}) {
    for (const std::vector<Field>& right : {many, one, std::vector<Field>()}) {
      KQZipExtraFieldList list;
      KQZipExtraFieldList other;
      list.assign(left);
      other.assign(right);
      list.swap(other);
      expectHolds(right, list);
      expectHolds(left, other);
    }
  }
}

TEST(KQZipExtraFieldList, GivesItsFieldsToAnotherHeader) {
  KQZipFileEntry entry;
  const std::vector<Field> fields{field(), field()};
  entry.setExtraFields(fields);
  KQZipFileEntry other;
  other.setExtraFields(entry.extraFields());
  expectHolds(fields, other.extraFields());
}

TEST(KQZipExtraFieldList, CountsAnEmptyFieldLikeAnyOther) {
  KQZipExtraFieldList list;
  list.push_back(nullptr);
  expectHolds({nullptr}, list);
  const Field second = field();
  list.push_back(second);
  expectHolds({nullptr, second}, list);
}

TEST(KQZipExtraFieldList, ReleasesItsFields) {
  const std::vector<Field> fields{field(), field()};
  {
    KQZipExtraFieldList list;
    list.assign(fields);
    EXPECT_EQ(2, fields[0].use_count());
    list.assign({fields[1]});
    EXPECT_EQ(1, fields[0].use_count());
    EXPECT_EQ(2, fields[1].use_count());
  }
  EXPECT_EQ(1, fields[1].use_count());
}

}  // namespace
