// Clang's thread-safety attributes, spelled as macros so that the code states
// which lock guards which member. Under clang with -Wthread-safety the
// compiler checks them; under other compilers they expand to nothing.
//
// Thread safety: macros only.
#ifndef TOLVANGER_KIT_THREAD_ANNOTATIONS_H_
#define TOLVANGER_KIT_THREAD_ANNOTATIONS_H_

#if defined(__clang__)
#define TOLVANGER_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TOLVANGER_THREAD_ANNOTATION(x)
#endif

// The type is a lock; `x` names its kind in the compiler's messages.
#define CAPABILITY(x) TOLVANGER_THREAD_ANNOTATION(capability(x))

// The type holds a lock for its own lifetime.
#define SCOPED_CAPABILITY TOLVANGER_THREAD_ANNOTATION(scoped_lockable)

// The function takes, or gives back, the locks named in `...` (itself when
// empty).
#define ACQUIRE(...) \
  TOLVANGER_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) \
  TOLVANGER_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

// The function is not checked: for the few places the analysis cannot follow.
#define NO_THREAD_SAFETY_ANALYSIS \
  TOLVANGER_THREAD_ANNOTATION(no_thread_safety_analysis)

// The member may be read or written only while holding `x`.
#define GUARDED_BY(x) TOLVANGER_THREAD_ANNOTATION(guarded_by(x))

// The function must be called with `...` held.
#define REQUIRES(...) \
  TOLVANGER_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))

// The function must be called without `...` held; it takes it itself.
#define EXCLUDES(...) TOLVANGER_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// This lock is taken before the locks named in `...` whenever both are held.
#define ACQUIRED_BEFORE(...) \
  TOLVANGER_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))

#endif  // TOLVANGER_KIT_THREAD_ANNOTATIONS_H_
