#include "KQZipEntryNames.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <exception>
#include <random>

namespace {

// The upper half of the code page, all within the first 65,536 code points.
constexpr std::array<char16_t, 128> upperHalf = {
    0x00C7, 0x00FC, 0x00E9, 0x00E2, 0x00E4, 0x00E0, 0x00E5, 0x00E7, 0x00EA, 0x00EB, 0x00E8, 0x00EF, 0x00EE,
    0x00EC, 0x00C4, 0x00C5, 0x00C9, 0x00E6, 0x00C6, 0x00F4, 0x00F6, 0x00F2, 0x00FB, 0x00F9, 0x00FF, 0x00D6,
    0x00DC, 0x00A2, 0x00A3, 0x00A5, 0x20A7, 0x0192, 0x00E1, 0x00ED, 0x00F3, 0x00FA, 0x00F1, 0x00D1, 0x00AA,
    0x00BA, 0x00BF, 0x2310, 0x00AC, 0x00BD, 0x00BC, 0x00A1, 0x00AB, 0x00BB, 0x2591, 0x2592, 0x2593, 0x2502,
    0x2524, 0x2561, 0x2562, 0x2556, 0x2555, 0x2563, 0x2551, 0x2557, 0x255D, 0x255C, 0x255B, 0x2510, 0x2514,
    0x2534, 0x252C, 0x251C, 0x2500, 0x253C, 0x255E, 0x255F, 0x255A, 0x2554, 0x2569, 0x2566, 0x2560, 0x2550,
    0x256C, 0x2567, 0x2568, 0x2564, 0x2565, 0x2559, 0x2558, 0x2552, 0x2553, 0x256B, 0x256A, 0x2518, 0x250C,
    0x2588, 0x2584, 0x258C, 0x2590, 0x2580, 0x03B1, 0x00DF, 0x0393, 0x03C0, 0x03A3, 0x03C3, 0x00B5, 0x03C4,
    0x03A6, 0x0398, 0x03A9, 0x03B4, 0x221E, 0x03C6, 0x03B5, 0x2229, 0x2261, 0x00B1, 0x2265, 0x2264, 0x2320,
    0x2321, 0x00F7, 0x2248, 0x00B0, 0x2219, 0x00B7, 0x221A, 0x207F, 0x00B2, 0x25A0, 0x00A0};

// Whether a part of the name is left out: one that is empty or ".".
bool hasPartToLeaveOut(std::string_view name) {
  if (name.empty()) return false;
  if (name[0] == '.' && (name.size() == 1 || name[1] == '/')) return true;
  for (std::size_t slash = name.find('/'); slash != std::string_view::npos;
       slash = name.find('/', slash + 1)) {
    const std::string_view after = name.substr(slash + 1);
    if (after.empty()) return false;
    if (after[0] == '/' || (after[0] == '.' && (after.size() == 1 || after[1] == '/'))) return true;
  }
  return false;
}

std::uint64_t makeSeed() {
  const auto clock = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  try {
    std::random_device device;
    return clock ^ (static_cast<std::uint64_t>(device()) << 32 | device());
  } catch (const std::exception&) {
    return clock;
  }
}

// Both halves of the product depend on all bits of both factors.
std::uint64_t mixed(std::uint64_t left, std::uint64_t right) {
  const std::uint64_t leftHigh = left >> 32;
  const std::uint64_t leftLow = left & 0xFFFFFFFF;
  const std::uint64_t rightHigh = right >> 32;
  const std::uint64_t rightLow = right & 0xFFFFFFFF;
  const std::uint64_t middle = leftHigh * rightLow + (leftLow * rightLow >> 32);
  const std::uint64_t other = leftLow * rightHigh + (middle & 0xFFFFFFFF);
  const std::uint64_t high = leftHigh * rightHigh + (middle >> 32) + (other >> 32);
  return high ^ (left * right);
}

}  // namespace

void KQZipAppendFromCodePage437(std::string_view bytes, std::string* text) {
  for (const char character : bytes) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte < 0x80) {
      *text += character;
      continue;
    }
    const unsigned point = upperHalf[byte - 0x80U];
    if (point < 0x800) {
      *text += static_cast<char>(0xC0 | point >> 6);
    } else {
      *text += static_cast<char>(0xE0 | point >> 12);
      *text += static_cast<char>(0x80 | (point >> 6 & 0x3F));
    }
    *text += static_cast<char>(0x80 | (point & 0x3F));
  }
}

std::string_view KQZipCanonicalName(std::string_view name, std::string& room) {
  if (!hasPartToLeaveOut(name)) return name;
  room.clear();
  if (name.starts_with('/')) room += '/';
  const bool isFolder = name.ends_with('/');
  while (!name.empty()) {
    const std::size_t end = std::min(name.find('/'), name.size());
    const std::string_view part = name.substr(0, end);
    name.remove_prefix(std::min(end + 1, name.size()));
    if (part.empty() || part == ".") continue;
    room.append(part);
    if (!name.empty()) room += '/';
  }
  // A last part that was left out leaves the "/" in front of it.
  if (!isFolder && room.size() > 1 && room.back() == '/') room.pop_back();
  if (isFolder && !room.empty() && room.back() != '/') room += '/';
  return room;
}

std::uint32_t KQZipHashOfName(std::string_view name) {
  static const std::uint64_t seed = makeSeed();
  static const std::uint64_t factor = makeSeed() | 1;
  std::uint64_t hash = mixed(seed ^ name.size(), factor);
  for (; name.size() >= sizeof(hash); name.remove_prefix(sizeof(hash))) {
    std::uint64_t word = 0;
    std::memcpy(&word, name.data(), sizeof(word));
    hash = mixed(hash ^ word, factor ^ seed);
  }
  std::uint64_t rest = 0;
  name.copy(reinterpret_cast<char*>(&rest), sizeof(rest));
  hash = mixed(hash ^ rest, factor);
  return static_cast<std::uint32_t>(hash ^ hash >> 32);
}
