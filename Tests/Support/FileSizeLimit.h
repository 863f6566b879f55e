#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <functional>

namespace KQTest {

/// Runs `body` with files limited to `limit` bytes. A write beyond that fails like one on a full disk, if
/// SIGXFSZ is ignored.
inline void withFileSizeLimit(rlim_t limit, const std::function<void()>& body) {
  rlimit before{};
  ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
  rlimit limited = before;
  limited.rlim_cur = limit;
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limited));
  body();
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &before));
}

}  // namespace KQTest
