// Whether this is a build with a sanitizer, which takes time and memory of its own.
#pragma once

namespace velmora::test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

}  // namespace velmora::test
