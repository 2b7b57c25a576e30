/*
 * kro_wake.h - the wake-up of one waiting thread, and the monotonic clock
 * its deadlines are read on. Internal to the library (C++ only): not
 * installed, not exported.
 *
 * A kro_wake is a word of bits that one thread waits on while others set
 * bits in it. Setting costs one atomic operation, and a system call only
 * when the waiter actually sleeps; waiting costs nothing when the bits are
 * already there. Neither takes a lock, so a thread woken this way never
 * wakes into a lock someone else holds.
 */
#ifndef KRO_WAKE_H
#define KRO_WAKE_H

#include <stdint.h>

#include <atomic>

#include "kro.h"

#define KRO_WAKE_SLEEPING 0x80000000u /* the waiter sleeps or is about to: a setter must notify */

struct kro_wake {
    std::atomic<uint32_t> word{0}; /* bits set so far, plus KRO_WAKE_SLEEPING */
};
typedef struct kro_wake *t_kro_wake;

/* Nanoseconds on the monotonic clock. */
uint64_t kro_clock_now_ns(void);

/* The monotonic deadline timeout_ms milliseconds from now; 0 (no
 * deadline) when timeout_ms is 0. */
uint64_t kro_deadline_after_ms(t_kro_uint4 timeout_ms);

/* Waits until wake holds one of bits or the monotonic deadline (0: none)
 * has passed; returns the bits wake holds then (without
 * KRO_WAKE_SLEEPING), so none of bits means the deadline passed. One
 * thread waits on a wake at a time. Reads the bits with acquire order: what
 * the setter wrote before kro_wake_set is visible. */
uint32_t kro_wake_wait(t_kro_wake wake, uint32_t bits, uint64_t deadline);

/* Sets bits in wake (release order). True when its waiter sleeps: the
 * caller must then call kro_wake_notify(wake), typically after releasing
 * the lock under which it decided to set them. */
bool kro_wake_set(t_kro_wake wake, uint32_t bits);

/* Wakes the thread sleeping on wake. Uses only the word's address, never
 * its contents: it may be called after the waiter has seen its bits and
 * freed the word (at worst another waiter at the same address wakes
 * spuriously and waits again). */
void kro_wake_notify(t_kro_wake wake);

#endif /* KRO_WAKE_H */
