// SPDX-License-Identifier: MIT
//
// Names for clang's thread-safety analysis (-Wthread-safety); empty for other compilers. Public, because the
// lock types of core.hpp carry them and an application may annotate its own members the same way.
#ifndef ORN_ZEL_ANNOTATIONS_HPP
#define ORN_ZEL_ANNOTATIONS_HPP

#if defined(__clang__)
#define ZEL_ATTRIBUTE(x) __attribute__((x))
#else
#define ZEL_ATTRIBUTE(x)
#endif

#define ZEL_CAPABILITY(name) ZEL_ATTRIBUTE(capability(name))
#define ZEL_SCOPED_CAPABILITY ZEL_ATTRIBUTE(scoped_lockable)
#define ZEL_GUARDED_BY(lock) ZEL_ATTRIBUTE(guarded_by(lock))
#define ZEL_REQUIRES(...) ZEL_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ZEL_EXCLUDES(...) ZEL_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ZEL_ACQUIRE(...) ZEL_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ZEL_TRY_ACQUIRE(...) ZEL_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define ZEL_RELEASE(...) ZEL_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ZEL_NO_ANALYSIS ZEL_ATTRIBUTE(no_thread_safety_analysis)

#endif
