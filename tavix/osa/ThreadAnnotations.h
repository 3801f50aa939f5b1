#pragma once

// Marks that say which lock guards what. Clang compares them with the code, by "./dev analyse"; for other compilers
// they are nothing.
//
//     osa::PlainMutex _mutex;
//     int _count TAVIX_GUARDED_BY(_mutex) = 0;
//     void CountUp() TAVIX_REQUIRES(_mutex);
//
// A constructor and a destructor are not checked: nobody else can have the object. A lambda is a function of its own:
// one that a wait for a condition calls is marked TAVIX_REQUIRES as well.
//
// The attributes: https://clang.llvm.org/docs/ThreadSafetyAnalysis.html
#if defined(__clang__)
#define TAVIX_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define TAVIX_THREAD_ATTRIBUTE(attribute)
#endif

// A class of locks, and a class whose objects hold one for a scope. name: what messages call it.
#define TAVIX_CAPABILITY(name) TAVIX_THREAD_ATTRIBUTE(capability(name))
#define TAVIX_SCOPED_CAPABILITY TAVIX_THREAD_ATTRIBUTE(scoped_lockable)

// A member that is read with the lock held, and written with it held exclusively; what a pointer points to, likewise.
#define TAVIX_GUARDED_BY(lock) TAVIX_THREAD_ATTRIBUTE(guarded_by(lock))
#define TAVIX_PT_GUARDED_BY(lock) TAVIX_THREAD_ATTRIBUTE(pt_guarded_by(lock))

// The caller of the function holds the locks; shared: at least for reading; or must not hold them.
#define TAVIX_REQUIRES(...) TAVIX_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TAVIX_REQUIRES_SHARED(...) TAVIX_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define TAVIX_EXCLUDES(...) TAVIX_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))

// The function takes or releases the locks; without arguments, the object itself. Generic: held in either mode.
#define TAVIX_ACQUIRE(...) TAVIX_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TAVIX_ACQUIRE_SHARED(...) TAVIX_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define TAVIX_RELEASE(...) TAVIX_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TAVIX_RELEASE_GENERIC(...) TAVIX_THREAD_ATTRIBUTE(release_generic_capability(__VA_ARGS__))

// The function returns a reference to the lock.
#define TAVIX_RETURN_CAPABILITY(lock) TAVIX_THREAD_ATTRIBUTE(lock_returned(lock))

// The function holds a lock in a way that can't be followed. A comment beside it says which and why.
#define TAVIX_NO_THREAD_SAFETY_ANALYSIS TAVIX_THREAD_ATTRIBUTE(no_thread_safety_analysis)
