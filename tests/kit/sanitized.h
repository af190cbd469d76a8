#ifndef KIT_SANITIZED_H
#define KIT_SANITIZED_H

namespace kit
{

/// True in a build for the address or the thread sanitizer, which take memory and time of their own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool isSanitized = true;
#else
constexpr bool isSanitized = false;
#endif
#else
constexpr bool isSanitized = false;
#endif

/// True in a build for the thread sanitizer, whose own work in the making of a thread passes through what stands in
/// front of library functions.
#if defined(__SANITIZE_THREAD__)
constexpr bool isThreadSanitized = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool isThreadSanitized = true;
#else
constexpr bool isThreadSanitized = false;
#endif
#else
constexpr bool isThreadSanitized = false;
#endif

} // namespace kit

#endif
