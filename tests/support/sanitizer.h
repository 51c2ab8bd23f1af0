// Whether a sanitizer watches this program: it runs several times slower then, and does less of what only numbers show.
#pragma once

// g++ tells it by macros, clang++ by features.
#ifdef __has_feature
#define RUK_TEST_HAS_FEATURE(name) __has_feature(name)
#else
#define RUK_TEST_HAS_FEATURE(name) 0
#endif

namespace test_support {

#if defined(__SANITIZE_THREAD__) || RUK_TEST_HAS_FEATURE(thread_sanitizer)
constexpr bool kRacesDetected = true;
#else
constexpr bool kRacesDetected = false;
#endif

#if defined(__SANITIZE_ADDRESS__) || RUK_TEST_HAS_FEATURE(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = kRacesDetected;
#endif

} // namespace test_support
