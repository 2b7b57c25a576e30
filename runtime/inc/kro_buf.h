/*
 * kro_buf.h - the reference-counted byte buffer with a position and a limit.
 *
 * Filling: bytes are written at ptr + pos and pos moves forward; [pos, lim)
 * is the free space. Draining (after kro_buf_flip): [pos, lim) holds the
 * bytes still to be read or sent. pos <= lim always (checked after every
 * operation that can break it); lim <= size for every buffer built here.
 *
 * None of these operations locks anything and the reference count is not
 * atomic: a buffer is touched by its one owner, or under the lock that
 * guards its owner.
 */
#ifndef KRO_BUF_H
#define KRO_BUF_H

#include <string.h>

#include "kro.h"

#ifdef __cplusplus
extern "C" {
#endif

struct kro_buf {
    t_kro_int refcount;  /* number of holders; the library always has exactly one */
    t_kro_uint4 pos;     /* offset of the next byte to write or read */
    t_kro_uint4 lim;     /* offset one past the last byte that may be written or read */
    t_kro_uint4 size;    /* capacity of the data area in bytes */
    t_kro_bool wrapped;  /* nonzero: ptr belongs to someone else and is never freed here */
    t_kro_ptr ptr;       /* the data area */
};
typedef struct kro_buf *t_kro_buf;

/* Creates a buffer of size bytes into *variable: refcount 1, not wrapped,
 * pos 0, lim size; clear nonzero zero-fills the data area. Out of memory
 * ends the process. */
static inline void kro_buf_create(t_kro_buf *variable, t_kro_uint4 size, t_kro_bool clear)
{
    t_kro_buf buf;
    KRO_ALLOC_RECORD(sizeof(struct kro_buf), variable, 0);
    buf = *variable;
    buf->refcount = 1;
    buf->wrapped = 0;
    buf->size = size;
    buf->pos = 0;
    buf->lim = size;
    buf->ptr = KRO_NULL;
    KRO_CHECK(kro_mm_alloc(size, &buf->ptr, clear) == 0);
}

/* Drops one reference; at zero frees the data area (unless wrapped) and
 * the record, and clears *variable. */
static inline void kro_buf_release(t_kro_buf *variable)
{
    t_kro_buf buf = *variable;
    buf->refcount--;
    if (buf->refcount > 0) return;
    if (!buf->wrapped) KRO_CHECK(kro_mm_free(&buf->ptr) == 0);
    KRO_CHECK(kro_mm_free(variable) == 0);
}

static inline t_kro_uint4 kro_buf_remaining(t_kro_buf buf) { return buf->lim - buf->pos; }

static inline void kro_buf_set_pos(t_kro_buf buf, t_kro_uint4 p)
{
    buf->pos = p;
    KRO_CHECK(((buf)->pos <= (buf)->lim));
}

static inline void kro_buf_set_lim(t_kro_buf buf, t_kro_uint4 l)
{
    buf->lim = l;
    KRO_CHECK(((buf)->pos <= (buf)->lim));
}

/* Turns a filled buffer into a draining one holding exactly the bytes
 * written. */
static inline void kro_buf_flip(t_kro_buf buf)
{
    buf->lim = buf->pos;
    buf->pos = 0;
}

/* Turns a partly drained buffer back into a filling one: the unread bytes
 * move to the start, pos stands after them and lim at size. */
static inline void kro_buf_compact(t_kro_buf buf)
{
    t_kro_int4 remaining = KRO_CAST(t_kro_int4, buf->lim - buf->pos);
    if (buf->pos != 0 && remaining > 0)
        memmove(buf->ptr, KRO_CAST(t_kro_byte *, buf->ptr) + buf->pos, KRO_CAST(size_t, remaining));
    buf->lim = buf->size;
    buf->pos = remaining > 0 ? KRO_CAST(t_kro_uint4, remaining) : 0;
}

#ifdef __cplusplus
}
#endif

#endif /* KRO_BUF_H */
