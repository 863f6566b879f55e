#include "Support/ArchiveFields.h"

#include <cstdint>

#include "Support/InteroperableArchive.h"

namespace KQTest {

namespace {

constexpr std::uint64_t zip64Field = 0x0001;
constexpr std::uint64_t unicodePathField = 0x7075;

void add(std::set<std::size_t>& bits, std::size_t start, std::size_t length) {
  for (std::size_t bit = 8 * start; bit < 8 * (start + length); ++bit) bits.insert(bit);
}

// The ids and the data of the fields that hold neither lengths nor names.
void addExtraFields(const std::string& archive, std::size_t start, std::size_t length,
                    std::set<std::size_t>& bits) {
  for (const std::size_t end = start + length; start + 4 <= end;) {
    const std::uint64_t identifier = numberAt(archive, start, 2);
    const auto size = static_cast<std::size_t>(numberAt(archive, start + 2, 2));
    if (identifier != zip64Field && identifier != unicodePathField) {
      add(bits, start, 2);
      add(bits, start + 4, size);
      for (std::size_t bit = 0; bit < 2 && start + 4 + size == end; ++bit)
        if ((size >> bit & 1) != 0) bits.insert(8 * (start + 2) + bit);
    }
    start += 4 + size;
  }
}

}  // namespace

std::set<std::size_t> bitsWithoutConsequence(const std::string& archive) {
  std::set<std::size_t> bits;
  const std::size_t end = archive.rfind("PK\5\6");
  const std::size_t zip64 = archive.rfind("PK\6\6");
  if (zip64 != std::string::npos) add(bits, zip64 + 12, 4);  // Made by and needed version.
  auto count = static_cast<std::size_t>(numberAt(archive, end + 10, 2));
  const std::size_t base = archive.find("PK\3\4");
  const auto directory = static_cast<std::size_t>(numberAt(archive, end + 16, 4));
  std::size_t central = archive.find("PK\1\2", directory);
  add(bits, 0, base);  // In front of the first record.
  const std::size_t shift = central - directory;
  for (; count > 0; --count) {
    const auto nameLength = static_cast<std::size_t>(numberAt(archive, central + 28, 2));
    const auto extraLength = static_cast<std::size_t>(numberAt(archive, central + 30, 2));
    const auto commentLength = static_cast<std::size_t>(numberAt(archive, central + 32, 2));
    add(bits, central + 4, 2);  // Made by.
    const std::uint64_t needed = numberAt(archive, central + 6, 2);
    for (std::size_t bit = 0; bit < 16; ++bit)
      if ((needed ^ 1U << bit) <= 46) bits.insert(8 * (central + 6) + bit);
    add(bits, central + 36, 6);  // Attributes.
    addExtraFields(archive, central + 46 + nameLength, extraLength, bits);
    add(bits, central + 46 + nameLength + extraLength, commentLength);
    const auto local = static_cast<std::size_t>(numberAt(archive, central + 42, 4)) + shift;
    add(bits, local + 4, 2);  // Needed version.
    addExtraFields(archive, local + 30 + static_cast<std::size_t>(numberAt(archive, local + 26, 2)),
                   static_cast<std::size_t>(numberAt(archive, local + 28, 2)), bits);
    central += 46 + nameLength + extraLength + commentLength;
  }
  add(bits, end + 22, static_cast<std::size_t>(numberAt(archive, end + 20, 2)));  // The comment.
  return bits;
}

}  // namespace KQTest
