#include <KQZip/KQZip.h>
#include <KQZip/Platform/NSAtomicProperty.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using KQ::NSAtomicProperty;

TEST(NSAtomicProperty, HoldsADefaultValueAtFirst) {
  EXPECT_EQ(0, NSAtomicProperty<int>().get());
  EXPECT_EQ("", NSAtomicProperty<std::string>().get());
  EXPECT_FALSE(NSAtomicProperty<std::optional<std::string>>().get().has_value());
  EXPECT_EQ(nullptr, NSAtomicProperty<std::shared_ptr<int>>().get());
}

TEST(NSAtomicProperty, HoldsTheValueItWasMadeWithUntilAnotherIsSet) {
  NSAtomicProperty<std::string> property("first");
  EXPECT_EQ("first", property.get());
  EXPECT_EQ("first", property.get());
  property.set("second");
  EXPECT_EQ("second", property.get());
}

TEST(NSAtomicProperty, HandsOutCopies) {
  NSAtomicProperty<std::string> property("value");
  std::string copy = property.get();
  copy += " changed";
  EXPECT_EQ("value", property.get());
}

TEST(NSAtomicProperty, ReleasesTheEarlierValue) {
  const auto value = std::make_shared<int>(1);
  NSAtomicProperty<std::shared_ptr<int>> property(value);
  EXPECT_EQ(2, value.use_count());
  property.set(nullptr);
  EXPECT_EQ(1, value.use_count());
}

TEST(NSAtomicProperty, DestroysTheEarlierValueOutsideOfTheLock) {
  struct Value {
    std::function<void()> whenDestroyed;
    ~Value() { whenDestroyed(); }
  };
  NSAtomicProperty<std::shared_ptr<Value>> property;
  bool lockWasFree = false;
  property.set(std::make_shared<Value>(Value{[] {}}));
  property.get()->whenDestroyed = [&] { lockWasFree = !KQ::NSPropertyLock::flagOf(&property).test(); };
  property.set(nullptr);
  EXPECT_TRUE(lockWasFree);
}

TEST(NSAtomicProperty, NeedsNoMemoryBesideItsValue) {
  static_assert(sizeof(NSAtomicProperty<std::uint64_t>) == sizeof(std::uint64_t));
  static_assert(sizeof(NSAtomicProperty<std::string>) == sizeof(std::string));
}

TEST(NSAtomicProperty, StaysWithItsObject) {
  static_assert(!std::is_copy_constructible_v<NSAtomicProperty<int>>);
  static_assert(!std::is_copy_assignable_v<NSAtomicProperty<int>>);
  static_assert(!std::is_move_constructible_v<NSAtomicProperty<int>>);
}

TEST(NSAtomicProperty, TheLockOfAPropertyIsAlwaysTheSame) {
  const NSAtomicProperty<int> property;
  EXPECT_EQ(&KQ::NSPropertyLock::flagOf(&property), &KQ::NSPropertyLock::flagOf(&property));
}

TEST(NSAtomicProperty, ManyPropertiesShareASmallTableOfLocks) {
  const std::vector<std::string> memory(20000);
  std::set<const std::atomic_flag*> locks;
  for (const std::string& value : memory) locks.insert(&KQ::NSPropertyLock::flagOf(&value));
  EXPECT_LE(locks.size(), 1024U);
  EXPECT_GE(locks.size(), 8U) << "properties side by side should rarely wait for each other";
}

TEST(NSAtomicProperty, AGetterNeverSeesAHalfReplacedString) {
  const std::string a(1000, 'a');
  const std::string b(2000, 'b');
  NSAtomicProperty<std::string> property(a);
  std::vector<std::thread> threads;
  std::vector<int> wrong(4, 0);
  for (const std::string& value : {a, b}) {
    threads.emplace_back([&property, value] {
      for (int i = 0; i < 2000; ++i) property.set(value);
    });
  }
  for (int& count : wrong) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        const std::string value = property.get();
        if (value != a && value != b) ++count;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::vector<int>(4, 0), wrong);
}

TEST(NSAtomicProperty, ObjectsAreHandedBetweenThreadsAndReleased) {
  NSAtomicProperty<std::shared_ptr<const std::string>> property(std::make_shared<const std::string>("start"));
  const auto last = std::make_shared<const std::string>("last");
  std::vector<std::thread> threads;
  std::vector<std::size_t> lengths(4, 0);
  for (std::size_t& length : lengths) {
    threads.emplace_back([&] {
      for (int i = 0; i < 1000; ++i) {
        property.set(std::make_shared<const std::string>(50, 'x'));
        length = std::max(length, property.get()->size());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::vector<std::size_t>(4, 50), lengths);
  property.set(last);
  EXPECT_EQ(last, property.get());
}

TEST(NSAtomicProperty, PropertiesThatShareALockDoNotMixTheirValues) {
  std::deque<NSAtomicProperty<std::uint64_t>> properties(300);
  std::vector<std::thread> threads;
  for (std::size_t first = 0; first < 4; ++first) {
    threads.emplace_back([&properties, first] {
      for (std::uint64_t round = 1; round <= 20; ++round) {
        for (std::size_t i = first; i < properties.size(); i += 4) properties[i].set(i * 1000 + round);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (std::size_t i = 0; i < properties.size(); ++i) EXPECT_EQ(i * 1000 + 20, properties[i].get());
}
