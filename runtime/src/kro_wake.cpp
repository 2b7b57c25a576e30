/*
 * kro_wake.cpp - one thread's wake-up over a Linux futex, and the monotonic
 * clock. A waiter announces that it sleeps with KRO_WAKE_SLEEPING in the
 * word itself, so a setter makes the wake system call only for a sleeper,
 * and the kernel's check of the word's value closes the race between the
 * announcement and the sleep.
 */
#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "kro_wake.h"

uint64_t kro_clock_now_ns(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000000000u + (uint64_t)now.tv_nsec;
}

uint64_t kro_deadline_after_ms(t_kro_uint4 timeout_ms)
{
    return timeout_ms == 0 ? 0 : kro_clock_now_ns() + (uint64_t)timeout_ms * 1000000u;
}

/* The word's address as the futex system call takes it. */
static uint32_t *kro_wake_futex(t_kro_wake wake) { return reinterpret_cast<uint32_t *>(&wake->word); }

uint32_t kro_wake_wait(t_kro_wake wake, uint32_t bits, uint64_t deadline)
{
    uint32_t v = wake->word.load(std::memory_order_acquire);
    while ((v & bits) == 0) {
        struct timespec at;
        if (deadline != 0 && kro_clock_now_ns() >= deadline) break;
        if ((v & KRO_WAKE_SLEEPING) == 0) {
            if (!wake->word.compare_exchange_weak(v, v | KRO_WAKE_SLEEPING, std::memory_order_acquire))
                continue;
            v |= KRO_WAKE_SLEEPING;
        }
        at.tv_sec = (time_t)(deadline / 1000000000u);
        at.tv_nsec = (long)(deadline % 1000000000u);
        /* FUTEX_WAIT_BITSET takes an absolute time on the monotonic clock;
         * it returns at once when the word no longer holds v. */
        syscall(SYS_futex, kro_wake_futex(wake), FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, v,
                deadline != 0 ? &at : NULL, NULL, FUTEX_BITSET_MATCH_ANY);
        v = wake->word.fetch_and(~KRO_WAKE_SLEEPING, std::memory_order_acquire) & ~KRO_WAKE_SLEEPING;
    }
    return v & ~KRO_WAKE_SLEEPING;
}

bool kro_wake_set(t_kro_wake wake, uint32_t bits)
{
    return (wake->word.fetch_or(bits, std::memory_order_acq_rel) & KRO_WAKE_SLEEPING) != 0;
}

void kro_wake_notify(t_kro_wake wake)
{
    syscall(SYS_futex, kro_wake_futex(wake), FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, NULL, NULL, 0);
}
