// Clang's thread-safety attributes; they expand to nothing on other compilers.
#pragma once

#if defined(__clang__)
#define TARN_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TARN_THREAD_ANNOTATION(x)
#endif

#define TARN_CAPABILITY(x) TARN_THREAD_ANNOTATION(capability(x))
#define TARN_SCOPED_CAPABILITY TARN_THREAD_ANNOTATION(scoped_lockable)
#define TARN_GUARDED_BY(x) TARN_THREAD_ANNOTATION(guarded_by(x))
#define TARN_REQUIRES(...) TARN_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TARN_ACQUIRE(...) TARN_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TARN_RELEASE(...) TARN_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TARN_TRY_ACQUIRE(...) TARN_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define TARN_EXCLUDES(...) TARN_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
