/*
 * kro_core.cpp - runtime start and stop, memory, the per-thread last errors
 * and the invariant-failure handlers. Every function may be called from any
 * thread; none of them locks.
 */

/* The assertion handler must stay declared in builds that define NDEBUG. */
#undef NDEBUG
#include <assert.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kro.h"
#include "kro_private.h"

/* Last errors of the calling thread; written only by that thread. */
static thread_local t_kro_uint4 kro_os_error;  /* errno of the last failed system call */
static thread_local t_kro_uint4 kro_net_error; /* errno of the last failed socket call */

void kro_em_os_error_set(int err) { kro_os_error = (t_kro_uint4)err; }

void kro_em_net_error_set(int err) { kro_net_error = (t_kro_uint4)err; }

/* Nothing to prepare: the runtime keeps no global state. May be called
 * repeatedly. */
t_kro_error kro_initialize(t_kro_uint4 flags)
{
    (void)flags;
    return 0;
}

/* Nothing to release; may be called repeatedly. */
t_kro_error kro_finalize(void) { return 0; }

/* The runtime runs preemptive POSIX threads, always. */
t_kro_bool kro_global_threaded_get(void) { return 1; }

/* Allocates from the system allocator and stores the block into the pointer
 * variable is the address of. */
t_kro_error kro_mm_alloc(t_kro_uint4 size, void *variable, t_kro_bool clear)
{
    void *block;
    if (variable == NULL) return KRO_ERR_INVALID_ARG;
    if (size == 0) size = 1;
    block = clear ? calloc(1, size) : malloc(size);
    if (block == NULL) {
        kro_em_os_error_set(errno != 0 ? errno : ENOMEM);
        return KRO_ERR_NO_MEMORY;
    }
    memcpy(variable, &block, sizeof block);
    return 0;
}

/* Frees the block the pointer at variable points to and nulls the pointer. */
t_kro_error kro_mm_free(void *variable)
{
    void *block;
    if (variable == NULL) return KRO_ERR_INVALID_ARG;
    memcpy(&block, variable, sizeof block);
    if (block == NULL) return KRO_ERR_INVALID_ARG;
    free(block);
    block = NULL;
    memcpy(variable, &block, sizeof block);
    return 0;
}

t_kro_error kro_em_os_error_get(t_kro_uint4 *error)
{
    if (error == NULL) return KRO_ERR_INVALID_ARG;
    *error = kro_os_error;
    return 0;
}

t_kro_error kro_em_net_error_get(t_kro_uint4 *error)
{
    if (error == NULL) return KRO_ERR_INVALID_ARG;
    *error = kro_net_error;
    return 0;
}

/* Prints the calling thread's two last errors, then stops the process
 * through the assertion handler. */
void kro_check_fail(const char *condition, unsigned line, const char *function)
{
    t_kro_uint4 os_error = 0;
    t_kro_uint4 net_error = 0;
    kro_em_os_error_get(&os_error);
    printf("oserror = %d\n", (int)os_error);
    kro_em_net_error_get(&net_error);
    printf("neterror = %d\n", (int)net_error);
    fflush(stdout);
    __assert_fail(condition, "qel_hspace", line, function);
}

void kro_check_fail_no_memory(unsigned line, const char *function)
{
    puts("Fatal Error - Out of memory!");
    kro_check_fail("(0)", line, function);
}
