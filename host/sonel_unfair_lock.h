/*
 * The lock the filter object takes around its initialised-state check: os_unfair_lock on Apple
 * platforms, a pthread mutex elsewhere. Both are uncontended in the common case (one audio thread
 * per filter) and put a waiting thread to sleep instead of spinning, so an audio thread never burns
 * its deadline on a lock held by a lower-priority thread. Plain C so that the filter's public
 * header, which holds one of these per object, compiles as Objective-C and Objective-C++.
 */
#ifndef SONEL_UNFAIR_LOCK_H
#define SONEL_UNFAIR_LOCK_H

#if defined(__APPLE__)
#include <os/lock.h>

typedef os_unfair_lock SonelUnfairLock;
#define SONEL_UNFAIR_LOCK_INIT OS_UNFAIR_LOCK_INIT

static inline void sonelUnfairLockInit(SonelUnfairLock* lock) { *lock = OS_UNFAIR_LOCK_INIT; }
static inline void sonelUnfairLockDestroy(SonelUnfairLock* lock) { (void)lock; }
static inline void sonelUnfairLockLock(SonelUnfairLock* lock) { os_unfair_lock_lock(lock); }
static inline void sonelUnfairLockUnlock(SonelUnfairLock* lock) { os_unfair_lock_unlock(lock); }

#else
#include <pthread.h>

typedef pthread_mutex_t SonelUnfairLock;
#define SONEL_UNFAIR_LOCK_INIT PTHREAD_MUTEX_INITIALIZER

static inline void sonelUnfairLockInit(SonelUnfairLock* lock) { pthread_mutex_init(lock, NULL); }
static inline void sonelUnfairLockDestroy(SonelUnfairLock* lock) { pthread_mutex_destroy(lock); }
static inline void sonelUnfairLockLock(SonelUnfairLock* lock) { pthread_mutex_lock(lock); }
static inline void sonelUnfairLockUnlock(SonelUnfairLock* lock) { pthread_mutex_unlock(lock); }
#endif

#endif /* SONEL_UNFAIR_LOCK_H */
