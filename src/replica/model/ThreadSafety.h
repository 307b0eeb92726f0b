#pragma once

/// Annotations for clang's analysis of locks (-Wthread-safety). Other compilers see nothing.
#if defined(__clang__)
#define KFP_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define KFP_THREAD_ATTRIBUTE(attribute)
#endif

/// A class that is a lock; one whose objects hold a lock while they live.
#define KFP_CAPABILITY(name) KFP_THREAD_ATTRIBUTE(capability(name))
#define KFP_SCOPED_CAPABILITY KFP_THREAD_ATTRIBUTE(scoped_lockable)

/// Data that is read and changed only while the lock is held.
#define KFP_GUARDED_BY(lock) KFP_THREAD_ATTRIBUTE(guarded_by(lock))

/// Functions that take and release a lock, alone or shared.
#define KFP_ACQUIRE(...) KFP_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define KFP_ACQUIRE_SHARED(...) KFP_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define KFP_RELEASE(...) KFP_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define KFP_RELEASE_SHARED(...) KFP_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
