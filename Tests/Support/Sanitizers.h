#pragma once

// Which sanitizer the tests are built with, 1 or 0, for what cannot be observed under one. GCC tells it with
// a macro of its own, Clang as a feature.

#if defined(__SANITIZE_ADDRESS__)
#define KQTEST_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KQTEST_ADDRESS_SANITIZER 1
#endif
#endif
#ifndef KQTEST_ADDRESS_SANITIZER
#define KQTEST_ADDRESS_SANITIZER 0
#endif

#if defined(__SANITIZE_THREAD__)
#define KQTEST_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KQTEST_THREAD_SANITIZER 1
#endif
#endif
#ifndef KQTEST_THREAD_SANITIZER
#define KQTEST_THREAD_SANITIZER 0
#endif
