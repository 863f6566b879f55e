#include <KQZip/KQZip.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>

#include "Support/Bytes.h"
#include "Support/Sanitizers.h"
#include "Support/TemporaryDirectory.h"

// An address sanitizer pads objects, so that their sizes say nothing.
#if defined(__GLIBC__) && !KQTEST_ADDRESS_SANITIZER
#define KQZIP_TEST_CAN_ASK_FOR_SIZES
#include <link.h>
#endif

namespace {

// With the line feed and the terminating NUL, spelled out apart from any other version of the text.
const std::string expectedBytes("@(#)PROGRAM:KQZip  PROJECT:KQZip-1\x0A\x00", 36);

std::size_t occurrences(const std::string& bytes, const std::string& wanted) {
  std::size_t count = 0;
  for (std::size_t at = bytes.find(wanted); at != std::string::npos; at = bytes.find(wanted, at + 1)) ++count;
  return count;
}

}  // namespace

TEST(KQZip_vers, TheStringHasItsTextALineFeedAndATerminatingNul) {
  static_assert(std::is_same_v<decltype(KQZipVersionString), const unsigned char[]>);
  ASSERT_EQ(36U, expectedBytes.size());
  const char* text = reinterpret_cast<const char*>(&KQZipVersionString[0]);
  ASSERT_EQ(35U, std::strlen(text));
  EXPECT_EQ(KQTest::hex(expectedBytes), KQTest::hex(std::string(text, 36)));
}

#ifdef KQZIP_TEST_CAN_ASK_FOR_SIZES
TEST(KQZip_vers, TheStringIsAnObjectOf36Bytes) {
  Dl_info information{};
  void* extra = nullptr;
  ASSERT_NE(0, dladdr1(&KQZipVersionString[0], &information, &extra, RTLD_DL_SYMENT));
  ASSERT_NE(nullptr, extra);
  EXPECT_STREQ("KQZipVersionString", information.dli_sname);
  EXPECT_EQ(36U, static_cast<const ElfW(Sym)*>(extra)->st_size);
}
#endif

TEST(KQZip_vers, TheNumberIsOnePointZero) {
  static_assert(std::is_same_v<decltype(KQZipVersionNumber), const double>);
  EXPECT_EQ(1.0, KQZipVersionNumber);
}

TEST(KQZip_vers, TheSharedLibraryHoldsTheStringBehindItsMarker) {
  const std::string library = KQTest::readFile(KQZIP_SHARED_LIBRARY);
  EXPECT_EQ(1U, occurrences(library, expectedBytes));
  EXPECT_EQ(1U, occurrences(library, "@(#)"));
}

TEST(KQZip_vers, TheStaticLibraryHoldsTheStringBehindItsMarker) {
  const std::string library = KQTest::readFile(KQZIP_STATIC_LIBRARY);
  EXPECT_EQ(1U, occurrences(library, expectedBytes));
  EXPECT_EQ(1U, occurrences(library, "@(#)"));
}
