#pragma once

/// What this build is instrumented with.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VEXO_WITH_ADDRESS_SANITIZER 1
#endif
#if __has_feature(thread_sanitizer)
#define VEXO_WITH_THREAD_SANITIZER 1
#endif
#endif

#if defined(__SANITIZE_ADDRESS__) || defined(VEXO_WITH_ADDRESS_SANITIZER)
constexpr bool kWithAddressSanitizer = true;
#else
constexpr bool kWithAddressSanitizer = false;
#endif

#if defined(__SANITIZE_THREAD__) || defined(VEXO_WITH_THREAD_SANITIZER)
constexpr bool kWithThreadSanitizer = true;
#else
constexpr bool kWithThreadSanitizer = false;
#endif
