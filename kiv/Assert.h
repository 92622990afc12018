#pragma once
// Fatal assertions. The message carries the asserted expression exactly as written, so field
// reports and death tests can match it; they stay on in every build type.

namespace Kiv {
[[noreturn]] void assertionFailed(char const* expr, char const* file, int line, char const* function);
}

#define KIV_ASSERT(expr) KIV_ASSERT_TEXT(expr, #expr)

// The same with a fixed message: for an invariant whose established text names the expression as
// it stood where the check was first made.
#define KIV_ASSERT_TEXT(expr, text)                                \
  do {                                                             \
    if (!(expr)) [[unlikely]]                                      \
      ::Kiv::assertionFailed(text, __FILE__, __LINE__, __func__);  \
  } while (0)

// Checks that are too costly for release builds (hot-path invariants and structure checks). On
// wherever KIV_CHECKS is defined (every build type but Release and MinSizeRel: see
// kiv/CMakeLists.txt), so the test and sanitizer builds run them; compiled out otherwise.
#if defined(KIV_CHECKS) || !defined(NDEBUG)
#define KIV_CHECKS_ON 1
#define KIV_DEBUG_ASSERT(expr) KIV_ASSERT(expr)
#else
#define KIV_CHECKS_ON 0
#define KIV_DEBUG_ASSERT(expr) \
  do {                         \
  } while (0)
#endif
