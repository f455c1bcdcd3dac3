// Whether this translation unit is built under AddressSanitizer or
// ThreadSanitizer: the platform's recycling caches then hand every block back
// to the allocator, so that a use after free is still caught. GCC names the
// sanitizers with __SANITIZE_*__, clang only through __has_feature.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define EFRT_SANITIZED_BUILD 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define EFRT_SANITIZED_BUILD 1
#endif
#endif
#ifndef EFRT_SANITIZED_BUILD
#define EFRT_SANITIZED_BUILD 0
#endif
