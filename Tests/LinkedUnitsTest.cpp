// Which units of the static library call which: a program links no more than it uses.

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>
#include <string>

#include "Support/Surroundings.h"

namespace {

// By the name of a unit's object file, those that it needs at once.
using Units = std::map<std::string, std::set<std::string>>;

Units unitsOfTheLibrary() {
  const KQTest::ProcessResult listing =
      KQTest::runProcess({"nm", "--print-file-name", "--format=posix", KQZIP_STATIC_LIBRARY});
  EXPECT_EQ(0, listing.exitStatus) << listing.errors;
  std::map<std::string, std::string> unitOfSymbol;
  std::map<std::string, std::set<std::string>> wanted;
  std::istringstream lines(listing.output);
  for (std::string line; std::getline(lines, line);) {
    // "library[unit]: symbol type …"
    const std::size_t opening = line.find('[');
    const std::size_t closing = line.find("]: ");
    if (opening == std::string::npos || closing == std::string::npos) continue;
    const std::string unit = line.substr(opening + 1, closing - opening - 1);
    std::istringstream rest(line.substr(closing + 3));
    std::string symbol;
    std::string type;
    rest >> symbol >> type;
    wanted[unit];
    // A weak definition, of an inline function or a template, stands in every unit that uses it.
    if (type == "U")
      wanted[unit].insert(symbol);
    else if (std::string("TDBR").find(type) != std::string::npos)
      unitOfSymbol.emplace(symbol, unit);
  }
  Units units;
  for (const auto& [unit, symbols] : wanted) {
    units[unit];
    for (const std::string& symbol : symbols) {
      const auto found = unitOfSymbol.find(symbol);
      if (found != unitOfSymbol.end() && found->second != unit) units[unit].insert(found->second);
    }
  }
  return units;
}

// The unit and all that it needs, at once or through others.
std::set<std::string> linkedWith(const Units& units, const std::string& unit) {
  std::set<std::string> linked{unit};
  for (std::set<std::string> fresh = linked; !fresh.empty();) {
    std::set<std::string> next;
    for (const std::string& each : fresh) {
      for (const std::string& needed : units.at(each)) {
        if (linked.insert(needed).second) next.insert(needed);
      }
    }
    fresh.swap(next);
  }
  return linked;
}

TEST(LinkedUnits, TheLocatorAloneNeedsNoFacadeAndFewOthers) {
  const Units units = unitsOfTheLibrary();
  const std::set<std::string> linked = linkedWith(units, "KQZip64EndOfCentralDirectoryLocator.cpp.o");
  EXPECT_EQ(1U, linked.count("KQZipStreamPrimitives.cpp.o"));
  EXPECT_GE(12U, linked.size()) << ::testing::PrintToString(linked);
}

TEST(LinkedUnits, NoUnitsNeedEachOtherButTheExtraFieldItsRegistryAndTheZip64Field) {
  const std::set<std::string> circle{"KQZipExtraField.cpp.o", "KQZipExtraFieldRegistry.cpp.o",
                                     "KQZipExtraFieldZip64ExtendedInfo.cpp.o"};
  const Units units = unitsOfTheLibrary();
  ASSERT_LT(30U, units.size());
  std::map<std::string, std::set<std::string>> linked;
  for (const auto& [unit, needed] : units) linked[unit] = linkedWith(units, unit);
  for (const auto& [unit, needed] : linked) {
    for (const std::string& other : needed) {
      const bool needEachOther = other != unit && linked.at(other).count(unit) == 1;
      EXPECT_TRUE(!needEachOther || (circle.count(unit) == 1 && circle.count(other) == 1))
          << unit << " and " << other;
    }
  }
}

TEST(LinkedUnits, NothingBelowNeedsTheSecondFloor) {
  const Units units = unitsOfTheLibrary();
  for (const char* const facade : {"KQZipFileReader.cpp.o", "KQZipFileWriter.cpp.o"}) {
    for (const std::string& unit : linkedWith(units, facade)) {
      EXPECT_EQ(std::string::npos, unit.find("KQZipArchive")) << facade << " needs " << unit;
      EXPECT_EQ(std::string::npos, unit.find("KQZipInteroperab")) << facade << " needs " << unit;
      EXPECT_EQ(std::string::npos, unit.find("KQZipPacking")) << facade << " needs " << unit;
    }
  }
}

}  // namespace
