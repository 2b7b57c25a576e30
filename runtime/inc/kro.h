/*
 * kro.h - scalar types, the error type and the error codes of the kro
 * runtime, and the runtime services every part of the library uses:
 * start and stop, memory, the last-error getters and the invariant check.
 *
 * Compiles as C99 and as C++. Every function declared here may be called
 * from any thread.
 */
#ifndef KRO_H
#define KRO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define KRO_API __attribute__((visibility("default")))
#define KRO_NORETURN __attribute__((noreturn))
#else
#define KRO_API
#define KRO_NORETURN
#endif

typedef char t_kro_char;        /* 8 bits */
typedef uint8_t t_kro_byte;     /* unsigned 8 bits */
typedef uint16_t t_kro_ushort;  /* unsigned 16 bits */
typedef int32_t t_kro_int;      /* signed 32 bits */
typedef uint32_t t_kro_uint;    /* unsigned 32 bits */
typedef uint8_t t_kro_uint1;    /* unsigned 8 bits */
typedef int16_t t_kro_int2;     /* signed 16 bits */
typedef uint16_t t_kro_uint2;   /* unsigned 16 bits */
typedef int32_t t_kro_int4;     /* signed 32 bits */
typedef uint32_t t_kro_uint4;   /* unsigned 32 bits */
typedef t_kro_uint4 t_kro_error; /* result of every operation, 0 is success */
typedef void *t_kro_ptr;        /* untyped pointer */
typedef const char *t_kro_str;  /* NUL-terminated string; the library never writes through it */
typedef int32_t t_kro_bool;     /* 0 false, anything else true (the library writes 1) */

/* Codes the library itself produces. Any other nonzero value is a runtime
 * error (below) or a service reply status passed through unchanged. */
#define KRO_ERR_NO_MATCH 2u          /* service: no object under the key */
#define KRO_ERR_NOT_INITIALIZED 7u   /* library not initialized */
#define KRO_ERR_VERSION 9u           /* initialize with a version other than 1 */
#define KRO_ERR_INVALID_ARG 12u      /* null or out-of-range argument */
#define KRO_ERR_INVALID_STATE 13u    /* operation not allowed in the handle's state */
#define KRO_ERR_NOT_SUPPORTED 14u    /* declared variant that is not supported */
#define KRO_ERR_CLOSED 18u           /* the application closed the handle */
#define KRO_ERR_EXISTS 20u           /* a post for the key is already active */
#define KRO_ERR_BAD_PROTOCOL 21u     /* service URL scheme is not "tcp" */
#define KRO_ERR_BAD_ADDRESS 22u      /* service URL is malformed */
#define KRO_ERR_WOULD_DEADLOCK 23u   /* blocking operation on the handle's reader thread */

/* The runtime's own codes, in a range of their own (1000 to 1099) that
 * never collides with the library's codes above. */
#define KRO_ERR_RUNTIME_BASE 1000u
#define KRO_ERR_CONN_REFUSED 1001u   /* nothing listens at the service address */
#define KRO_ERR_HOST_NOT_FOUND 1002u /* the service host name does not resolve */
#define KRO_ERR_PEER_CLOSED 1003u    /* the peer closed the connection */
#define KRO_ERR_INTERRUPTED 1004u    /* a blocked read was interrupted (close) */
#define KRO_ERR_NET 1005u            /* any other network error (see kro_em_net_error_get) */
#define KRO_ERR_INVALID_PACKET 1006u /* the peer sent bytes that are not a valid packet */
#define KRO_ERR_NOT_CONNECTED 1007u  /* read or write on a socket that is not connected */
#define KRO_ERR_OS 1008u             /* an operating-system call failed (see kro_em_os_error_get) */
#define KRO_ERR_TIMEOUT 1009u        /* a timed wait ran out */
#define KRO_ERR_NO_MEMORY 1010u      /* an allocation failed */
#define KRO_ERR_TLS_HANDSHAKE 1011u  /* the TLS handshake failed: no TLS peer, no common version or cipher */
#define KRO_ERR_TLS_VERIFY 1012u     /* the service's certificate failed verification (chain, expiry or name) */
#define KRO_ERR_TLS_CLIENT_CERT 1013u /* the service asked for a client certificate, or refused the one sent */
#define KRO_ERR_TLS_CONFIG 1014u     /* a CA, certificate or key file could not be read or used */
#define KRO_ERR_TLS_TIMEOUT 1015u    /* the TLS handshake did not finish before the deadline */

/* Start and stop the runtime. kro_initialize takes the value 1; any other
 * value is accepted and means the same. */
KRO_API t_kro_error kro_initialize(t_kro_uint4 flags);
KRO_API t_kro_error kro_finalize(void);

/* Nonzero: the runtime runs preemptive threads and the library must lock.
 * This runtime always returns 1. */
KRO_API t_kro_bool kro_global_threaded_get(void);

/* Allocates size bytes into *variable (variable is the address of a
 * pointer); clear nonzero fills them with zero bytes. Nonzero result: no
 * memory, *variable untouched. A size of 0 allocates a valid 1-byte block. */
KRO_API t_kro_error kro_mm_alloc(t_kro_uint4 size, void *variable, t_kro_bool clear);

/* Frees the block *variable points to and sets *variable to null. A null
 * *variable is an error (nonzero result), never a crash. */
KRO_API t_kro_error kro_mm_free(void *variable);

/* The calling thread's last operating-system and network error numbers
 * (errno values recorded by the runtime). */
KRO_API t_kro_error kro_em_os_error_get(t_kro_uint4 *error);
KRO_API t_kro_error kro_em_net_error_get(t_kro_uint4 *error);

/* Invariant failure: prints "oserror = %d\n" and "neterror = %d\n" to
 * standard output, then fails an assertion naming the condition, the source
 * file qel_hspace, the line and the function, and ends the process. */
KRO_API KRO_NORETURN void kro_check_fail(const char *condition, unsigned line, const char *function);

/* Fatal allocation failure of a fixed-size record: prints
 * "Fatal Error - Out of memory!" first, then fails like kro_check_fail
 * on the condition "(0)". */
KRO_API KRO_NORETURN void kro_check_fail_no_memory(unsigned line, const char *function);

/* Casts and the null pointer in the inline functions of the public
 * headers, written so that C++ applications building with -Wold-style-cast
 * and -Wzero-as-null-pointer-constant get no warning from them. */
#ifdef __cplusplus
#define KRO_CAST(type, value) static_cast<type>(value)
#define KRO_REINTERPRET(type, value) reinterpret_cast<type>(value)
#define KRO_NULL nullptr
#else
#define KRO_CAST(type, value) ((type)(value))
#define KRO_REINTERPRET(type, value) ((type)(value))
#define KRO_NULL NULL
#endif

/* Invariant check; stays on in every build type (it does not depend on
 * NDEBUG). */
#define KRO_CHECK(cond)                                          \
    do {                                                         \
        if (!(cond)) kro_check_fail("(" #cond ")", __LINE__, __func__); \
    } while (0)

/* Fatal allocation of a fixed-size record. */
#define KRO_ALLOC_RECORD(size, variable, clear)                                   \
    do {                                                                          \
        if (kro_mm_alloc(KRO_CAST(t_kro_uint4, size), (variable), (clear)) != 0)  \
            kro_check_fail_no_memory(__LINE__, __func__);                         \
    } while (0)

#ifdef __cplusplus
}
#endif

#endif /* KRO_H */
