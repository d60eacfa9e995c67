#pragma once

// What guards what, for clang's analysis of lock use (-Wthread-safety); nothing to other compilers.
// The names are those of clang's documentation.

#if defined(__clang__)
#define VARNEL_THREAD_ANNOTATION(annotation) __attribute__((annotation))
#else
#define VARNEL_THREAD_ANNOTATION(annotation)
#endif

// On a class: it is a lock; it holds a lock as long as it lives.
#define CAPABILITY(name) VARNEL_THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY VARNEL_THREAD_ANNOTATION(scoped_lockable)

// On a member: only used with the lock held.
#define GUARDED_BY(lock) VARNEL_THREAD_ANNOTATION(guarded_by(lock))

// On a function: its caller holds the lock; it takes or gives the lock.
#define REQUIRES(...) VARNEL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) VARNEL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VARNEL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) VARNEL_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
