/*
 * qel_hspace.cpp - the hspace client library.
 *
 * One file, read top to bottom in the order data flows: library state and
 * error texts; packet layout and encoding; the packet reader; the service
 * address; the request table; user events; request completion; inbound
 * processing; the reader thread; the handle's lifecycle; objects; the data
 * operations.
 *
 * Threads and locks: application threads call the public operations; each
 * open handle adds one reader thread that reads its socket and raises every
 * event. One lock per handle, `mutex`, guards the request table, `sno`,
 * every request record and the state transitions of close and of the
 * reader thread. No callback runs with `mutex` held.
 */
#include <arpa/inet.h>
#include <ctype.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <new>

#include "qel_hspacep.h"

/* ======================================================================
 * Library state and error texts.
 * s_initialized is written by initialize and finalize only (the
 * application calls them from one thread, before and after everything
 * else) and read by every operation without a lock.
 * ====================================================================== */

static std::atomic<t_kro_bool> s_initialized{0};

static bool qel_hspace_is_initialized(void)
{
    return s_initialized.load(std::memory_order_acquire) != 0;
}

/* Lock and unlock the handle's mutex. Locking depends on the runtime
 * being threaded, which clang cannot follow; the runtime always is. */
static void qel_hspace_lock(t_qel_hspace hspace) KRO_ACQUIRE(hspace->mutex) KRO_NO_THREAD_SAFETY_ANALYSIS
{
    if (kro_global_threaded_get()) kro_mutex_lock(hspace->mutex);
}

static void qel_hspace_unlock(t_qel_hspace hspace) KRO_RELEASE(hspace->mutex) KRO_NO_THREAD_SAFETY_ANALYSIS
{
    if (kro_global_threaded_get()) kro_mutex_unlock(hspace->mutex);
}

static bool qel_hspace_on_reader_thread(t_qel_hspace hspace)
{
    return hspace->reader != NULL && kro_thread_current() == hspace->reader;
}

extern "C" KRO_API t_kro_error qel_hspace_error_get_text(t_kro_error error, const t_kro_char **text)
{
    if (text == NULL) return KRO_ERR_INVALID_ARG;
    switch (error) {
    case 0: *text = "success"; break;
    case KRO_ERR_NO_MATCH: *text = "no match: nothing stored under the key, or no subscription of it"; break;
    case KRO_ERR_NOT_INITIALIZED: *text = "the library is not initialized"; break;
    case KRO_ERR_VERSION: *text = "unsupported library version"; break;
    case KRO_ERR_INVALID_ARG: *text = "invalid argument"; break;
    case KRO_ERR_INVALID_STATE: *text = "operation not allowed in the handle's state"; break;
    case KRO_ERR_NOT_SUPPORTED: *text = "not supported"; break;
    case KRO_ERR_CLOSED: *text = "the handle was closed"; break;
    case KRO_ERR_EXISTS: *text = "a subscription for the key already exists"; break;
    case KRO_ERR_BAD_PROTOCOL: *text = "the service URL's scheme is neither tcp nor tls"; break;
    case KRO_ERR_BAD_ADDRESS: *text = "the service URL is malformed"; break;
    case KRO_ERR_WOULD_DEADLOCK: *text = "blocking call from the handle's event callback"; break;
    case KRO_ERR_CONN_REFUSED: *text = "connection refused"; break;
    case KRO_ERR_HOST_NOT_FOUND: *text = "host not found"; break;
    case KRO_ERR_PEER_CLOSED: *text = "the service closed the connection"; break;
    case KRO_ERR_INTERRUPTED: *text = "the read was interrupted"; break;
    case KRO_ERR_NET: *text = "network error"; break;
    case KRO_ERR_INVALID_PACKET: *text = "the service sent an invalid packet"; break;
    case KRO_ERR_NOT_CONNECTED: *text = "the socket is not connected"; break;
    case KRO_ERR_OS: *text = "operating system error"; break;
    case KRO_ERR_TIMEOUT: *text = "timed out"; break;
    case KRO_ERR_NO_MEMORY: *text = "out of memory"; break;
    case KRO_ERR_TLS_HANDSHAKE: *text = "TLS handshake failed"; break;
    case KRO_ERR_TLS_VERIFY: *text = "certificate verify failed"; break;
    case KRO_ERR_TLS_CLIENT_CERT: *text = "the service asked for a client certificate, or refused ours"; break;
    case KRO_ERR_TLS_CONFIG: *text = "a TLS certificate, key or CA file could not be used"; break;
    case KRO_ERR_TLS_TIMEOUT: *text = "TLS handshake timed out"; break;
    case HSPACE_STATUS_STORE_UNAVAILABLE: *text = "the service's store is unavailable"; break;
    case HSPACE_STATUS_STORE_TIMEOUT: *text = "the service's store did not answer in time"; break;
    case HSPACE_STATUS_STORE_TOO_LARGE: *text = "the value is too large for the service's store"; break;
    case HSPACE_STATUS_PERMISSION_DENIED: *text = "permission denied"; break;
    case HSPACE_STATUS_IDENTITY_REFUSED:
        *text = "the service refused the client's name or group: its certificate does not hold them";
        break;
    case HSPACE_STATUS_TOO_MANY_SUBSCRIPTIONS: *text = "too many subscriptions on the connection"; break;
    case HSPACE_STATUS_CONNECTION_LIMIT: *text = "the service is at its connection limit"; break;
    default: *text = "error status reported by the service"; break;
    }
    return 0;
}

/* ======================================================================
 * Packet layout: accessors over received bytes and length calculators.
 * Pure functions, no lock, no state. Accessors do no bounds checking: the
 * packet reader has proved that every section lies inside the packet and
 * that the rr and hspace subheaders it files are long enough for them.
 * ====================================================================== */

static inline t_kro_uint2 qel_hspace_pkt_rd16(t_kro_ptr p, t_kro_uint4 off)
{
    t_kro_uint2 v;
    memcpy(&v, (const t_kro_byte *)p + off, sizeof v);
    return ntohs(v);
}

static inline t_kro_uint4 qel_hspace_pkt_rd32(t_kro_ptr p, t_kro_uint4 off)
{
    t_kro_uint4 v;
    memcpy(&v, (const t_kro_byte *)p + off, sizeof v);
    return ntohl(v);
}

static t_kro_uint4 qel_hspace_pkt_get_wirelen(t_kro_ptr header) { return qel_hspace_pkt_rd32(header, 4); }

[[maybe_unused]] static t_kro_uint2 qel_hspace_pkt_get_body_type_from_header(t_kro_ptr header)
{
    return qel_hspace_pkt_rd16(header, 30);
}

static t_kro_byte qel_hspace_pkt_get_subhdr_count_from_header(t_kro_ptr header)
{
    return ((const t_kro_byte *)header)[29];
}

static t_kro_uint2 qel_hspace_pkt_get_body_type_from_body(t_kro_ptr section)
{
    return qel_hspace_pkt_rd16(section, 2);
}

static t_kro_uint4 qel_hspace_pkt_get_body_len_from_body(t_kro_ptr section)
{
    return qel_hspace_pkt_rd32(section, 4);
}

static t_kro_byte qel_hspace_pkt_get_opcode_from_hspace_subheader(t_kro_ptr subheader)
{
    return ((const t_kro_byte *)subheader)[9];
}

static t_kro_byte qel_hspace_pkt_get_triggers_from_hspace_subheader(t_kro_ptr subheader)
{
    return ((const t_kro_byte *)subheader)[11];
}

/* The length of the subheader's key in bytes. */
static t_kro_uint2 qel_hspace_pkt_get_key_len_from_hspace_subheader(t_kro_ptr subheader)
{
    return qel_hspace_pkt_rd16(subheader, 20);
}

/* Copies the subheader's key, NUL-terminated, to dest (room for its length
 * plus one). */
static void qel_hspace_pkt_copy_key_from_hspace_subheader(t_kro_ptr subheader, char *dest)
{
    t_kro_uint2 n = qel_hspace_pkt_get_key_len_from_hspace_subheader(subheader);
    memcpy(dest, (const t_kro_byte *)subheader + HSPACE_PKT_HSPACE_FIXED_LEN, n);
    dest[n] = '\0';
}

/* Stores a new NUL-terminated copy of the subheader's key into *key; the
 * caller owns it. */
[[maybe_unused]] static void qel_hspace_pkt_get_key_from_hspace_subheader(t_kro_ptr subheader, t_kro_str *key)
{
    char *copy = NULL;
    KRO_CHECK(kro_mm_alloc((t_kro_uint4)qel_hspace_pkt_get_key_len_from_hspace_subheader(subheader) + 1, &copy, 0) == 0);
    qel_hspace_pkt_copy_key_from_hspace_subheader(subheader, copy);
    *key = copy;
}

static t_kro_uint4 qel_hspace_pkt_get_corrid_from_rr_subheader(t_kro_ptr subheader)
{
    return qel_hspace_pkt_rd32(subheader, 12);
}

static t_kro_byte qel_hspace_pkt_is_reply(t_kro_ptr subheader)
{
    return (qel_hspace_pkt_rd32(subheader, 16) & 0x80000000u) ? 0 : 1;
}

static t_kro_byte qel_hspace_pkt_is_success_reply(t_kro_ptr subheader)
{
    return (qel_hspace_pkt_rd32(subheader, 16) & 0x04000000u) ? 1 : 0;
}

static t_kro_uint4 qel_hspace_pkt_get_reply_count_from_rr_subheader(t_kro_ptr subheader)
{
    t_kro_uint4 w1 = qel_hspace_pkt_rd32(subheader, 16);
    t_kro_uint4 w2 = qel_hspace_pkt_rd32(subheader, 20);
    return ((w1 & 0x03FFFFFFu) << 3) | (w2 >> 29);
}

static t_kro_uint4 qel_hspace_pkt_get_reply_num_from_rr_subheader(t_kro_ptr subheader)
{
    return qel_hspace_pkt_rd32(subheader, 20) & 0x1FFFFFFFu;
}

static t_kro_uint4 qel_hspace_pkt_get_reply_error_from_rr_subheader(t_kro_ptr subheader)
{
    return qel_hspace_pkt_rd32(subheader, 20);
}

static void qel_hspace_pkt_get_reply_info_from_rr_subheader(t_kro_ptr subheader, t_kro_uint4 *reply_corrid,
                                                             t_kro_bool *reply_success, t_kro_uint4 *reply_count,
                                                             t_kro_uint4 *reply_num, t_kro_error *reply_error)
{
    *reply_corrid = qel_hspace_pkt_get_corrid_from_rr_subheader(subheader);
    *reply_success = qel_hspace_pkt_is_success_reply(subheader);
    if (*reply_success) {
        *reply_count = qel_hspace_pkt_get_reply_count_from_rr_subheader(subheader);
        *reply_num = qel_hspace_pkt_get_reply_num_from_rr_subheader(subheader);
        *reply_error = 0;
    } else {
        *reply_count = 0;
        *reply_num = 0;
        *reply_error = qel_hspace_pkt_get_reply_error_from_rr_subheader(subheader);
    }
}

/* True when the four bytes at p carry the magic 0xBADCAD and version 1. */
static bool qel_hspace_pkt_magic_and_version_ok(t_kro_ptr p)
{
    t_kro_uint4 word = qel_hspace_pkt_rd32(p, 0);
    return (word >> 8) == HSPACE_PKT_MAGIC && (word & 0xFFu) == HSPACE_PKT_VERSION;
}

/* Magic and version check of the packet at buf's read position; needs 4
 * bytes there. Returns nonzero when acceptable. (The reader checks raw
 * bytes through qel_hspace_pkt_scan_bytes; this form serves tools and
 * tests that hold a buffer.) */
[[maybe_unused]] static t_kro_bool qel_hspace_pkt_validate_magic_and_version(t_kro_buf buf)
{
    return qel_hspace_pkt_magic_and_version_ok((t_kro_byte *)buf->ptr + buf->pos) ? 1 : 0;
}

/* ======================================================================
 * Request encoding. A keyed request is described by its form and written
 * as a prefix (every section up to the body's payload) that the data
 * operations keep in the caller's frame, followed on the wire by the
 * payload straight from the application's buffer. The builders that return
 * a buffer size it exactly and return it with pos == lim == size == the
 * wire length. Runs on the calling thread; the data operations hold the
 * handle's mutex, the handshake runs before the reader thread exists.
 * Callers guarantee the lengths fit their fields (keys up to 65535 bytes,
 * handshake strings up to 32767 bytes, packets up to 1 GiB).
 * ====================================================================== */

static inline void qel_hspace_pkt_wr8(t_kro_buf buf, t_kro_uint4 off, t_kro_byte v)
{
    ((t_kro_byte *)buf->ptr)[buf->pos + off] = v;
}

static inline void qel_hspace_pkt_wr16(t_kro_buf buf, t_kro_uint4 off, t_kro_uint2 v)
{
    v = htons(v);
    memcpy((t_kro_byte *)buf->ptr + buf->pos + off, &v, sizeof v);
}

static inline void qel_hspace_pkt_wr32(t_kro_buf buf, t_kro_uint4 off, t_kro_uint4 v)
{
    v = htonl(v);
    memcpy((t_kro_byte *)buf->ptr + buf->pos + off, &v, sizeof v);
}

static void qel_hspace_pkt_serialize_header(t_kro_buf buf, t_kro_uint4 len, t_kro_uint2 sport, t_kro_uint2 dport,
                                            t_kro_uint1 numsh, t_kro_uint2 type)
{
    qel_hspace_pkt_wr32(buf, 0, (HSPACE_PKT_MAGIC << 8) | HSPACE_PKT_VERSION);
    qel_hspace_pkt_wr32(buf, 4, len);
    qel_hspace_pkt_wr16(buf, 16, sport);
    qel_hspace_pkt_wr16(buf, 18, dport);
    qel_hspace_pkt_wr8(buf, 27, 0xFF);
    qel_hspace_pkt_wr8(buf, 29, numsh);
    qel_hspace_pkt_wr16(buf, 30, type);
    kro_buf_set_pos(buf, buf->pos + HSPACE_PKT_HEADER_LEN);
}

static void qel_hspace_pkt_serialize_body_preamble(t_kro_buf buf, t_kro_uint2 type, t_kro_uint4 len)
{
    qel_hspace_pkt_wr8(buf, 0, 0x01);
    qel_hspace_pkt_wr8(buf, 1, 0x00);
    qel_hspace_pkt_wr16(buf, 2, type);
    qel_hspace_pkt_wr32(buf, 4, len);
    kro_buf_set_pos(buf, buf->pos + HSPACE_PKT_PREAMBLE_LEN);
}

/* An hspace subheader section (tools build packets with it). */
[[maybe_unused]] static void qel_hspace_pkt_serialize_hspace_subheader(t_kro_buf buf, t_kro_byte opcode, t_kro_byte semantic,
                                                      t_kro_byte triggers, t_kro_int4 timeout, t_kro_int4 flags,
                                                      t_kro_str key)
{
    t_kro_uint2 key_len = (t_kro_uint2)strlen(key);
    qel_hspace_pkt_serialize_body_preamble(buf, HSPACE_BODY_HSPACE, (t_kro_uint4)key_len + 22);
    qel_hspace_pkt_wr8(buf, 0, 0x01);
    qel_hspace_pkt_wr8(buf, 1, opcode);
    qel_hspace_pkt_wr8(buf, 2, semantic);
    qel_hspace_pkt_wr8(buf, 3, triggers);
    qel_hspace_pkt_wr32(buf, 4, (t_kro_uint4)timeout);
    qel_hspace_pkt_wr32(buf, 8, (t_kro_uint4)flags);
    qel_hspace_pkt_wr16(buf, 12, key_len);
    memcpy((t_kro_byte *)buf->ptr + buf->pos + 14, key, key_len);
    kro_buf_set_pos(buf, buf->pos + 14 + key_len);
}

static void qel_hspace_pkt_serialize_str(t_kro_buf buf, t_kro_str s, t_kro_uint2 len)
{
    qel_hspace_pkt_wr16(buf, 0, len);
    memcpy((t_kro_byte *)buf->ptr + buf->pos + 2, s, len);
    kro_buf_set_pos(buf, buf->pos + 2 + len);
}

/* Builds the handshake request; strings up to 32767 bytes each. */
static t_kro_buf qel_hspace_pkt_serialize_handshake_request(t_kro_str service_type, t_kro_str client_name,
                                                            t_kro_str client_group)
{
    t_kro_int2 service_type_len = (t_kro_int2)strlen(service_type);
    t_kro_int2 client_name_len = (t_kro_int2)strlen(client_name);
    t_kro_int2 client_group_len = (t_kro_int2)strlen(client_group);
    t_kro_uint4 body_wire_size = 2 + 2 + (2 + (t_kro_uint4)service_type_len) + (2 + (t_kro_uint4)client_name_len) +
                                 (2 + (t_kro_uint4)client_group_len);
    t_kro_uint4 wire_size = HSPACE_PKT_HEADER_LEN + HSPACE_PKT_PREAMBLE_LEN + body_wire_size;
    t_kro_buf buf;
    kro_buf_create(&buf, wire_size, 1);
    qel_hspace_pkt_serialize_header(buf, wire_size, 0, 0, 0, HSPACE_BODY_HANDSHAKE_REQUEST);
    qel_hspace_pkt_serialize_body_preamble(buf, HSPACE_BODY_HANDSHAKE_REQUEST, wire_size - HSPACE_PKT_HEADER_LEN);
    qel_hspace_pkt_wr16(buf, 0, 1);
    qel_hspace_pkt_wr16(buf, 2, 0xFFFF);
    kro_buf_set_pos(buf, buf->pos + 4);
    qel_hspace_pkt_serialize_str(buf, service_type, (t_kro_uint2)service_type_len);
    qel_hspace_pkt_serialize_str(buf, client_name, (t_kro_uint2)client_name_len);
    qel_hspace_pkt_serialize_str(buf, client_group, (t_kro_uint2)client_group_len);
    return buf;
}

/* What a keyed request puts on the wire besides its correlation id: the
 * fields of its hspace subheader, whether it carries an rr subheader, its
 * body type and its payload (a put's value window, borrowed). */
struct qel_hspace_pkt_form {
    t_kro_byte opcode;
    t_kro_byte semantic;          /* the wire value */
    t_kro_byte triggers;
    t_kro_int4 timeout;
    t_kro_int4 flags;             /* as sent */
    t_kro_str key;
    t_kro_uint4 key_len;          /* at most 65535 */
    bool with_rr;
    t_kro_uint2 body_type;
    const t_kro_byte *payload;    /* null when payload_len is 0 */
    t_kro_uint4 payload_len;
};

static inline void qel_hspace_pkt_put16(t_kro_byte *p, t_kro_uint2 v)
{
    v = htons(v);
    memcpy(p, &v, sizeof v);
}

static inline void qel_hspace_pkt_put32(t_kro_byte *p, t_kro_uint4 v)
{
    v = htonl(v);
    memcpy(p, &v, sizeof v);
}

/* Bytes of a keyed request's packet before its payload: header, hspace
 * subheader, rr subheader when there is one, body preamble. */
static t_kro_uint4 qel_hspace_pkt_prefix_len(const struct qel_hspace_pkt_form *form)
{
    return HSPACE_PKT_HEADER_LEN + HSPACE_PKT_HSPACE_FIXED_LEN + form->key_len + (form->with_rr ? HSPACE_PKT_RR_LEN : 0) +
           HSPACE_PKT_PREAMBLE_LEN;
}

/* A section preamble: version 1, type, length. */
static void qel_hspace_pkt_put_preamble(t_kro_byte *p, t_kro_uint2 type, t_kro_uint4 len)
{
    p[0] = 0x01;
    p[1] = 0x00;
    qel_hspace_pkt_put16(p + 2, type);
    qel_hspace_pkt_put32(p + 4, len);
}

/* Writes the packet of form up to its payload, qel_hspace_pkt_prefix_len
 * bytes, at out; the payload's bytes follow it on the wire. */
static void qel_hspace_pkt_encode_prefix(t_kro_byte *out, t_kro_uint2 dport, const struct qel_hspace_pkt_form *form,
                                         t_kro_uint4 sno)
{
    t_kro_byte *p = out;
    memset(p, 0, HSPACE_PKT_HEADER_LEN);
    qel_hspace_pkt_put32(p, (HSPACE_PKT_MAGIC << 8) | HSPACE_PKT_VERSION);
    qel_hspace_pkt_put32(p + 4, qel_hspace_pkt_prefix_len(form) + form->payload_len);
    qel_hspace_pkt_put16(p + 18, dport);
    p[27] = 0xFF;
    p[29] = form->with_rr ? 2 : 1;
    qel_hspace_pkt_put16(p + 30, form->body_type);
    p += HSPACE_PKT_HEADER_LEN;
    qel_hspace_pkt_put_preamble(p, HSPACE_BODY_HSPACE, HSPACE_PKT_HSPACE_FIXED_LEN + form->key_len);
    p[8] = 0x01;
    p[9] = form->opcode;
    p[10] = form->semantic;
    p[11] = form->triggers;
    qel_hspace_pkt_put32(p + 12, (t_kro_uint4)form->timeout);
    qel_hspace_pkt_put32(p + 16, (t_kro_uint4)form->flags);
    qel_hspace_pkt_put16(p + 20, (t_kro_uint2)form->key_len);
    memcpy(p + HSPACE_PKT_HSPACE_FIXED_LEN, form->key, form->key_len);
    p += HSPACE_PKT_HSPACE_FIXED_LEN + form->key_len;
    if (form->with_rr) {
        qel_hspace_pkt_put_preamble(p, HSPACE_BODY_RR, HSPACE_PKT_RR_LEN);
        qel_hspace_pkt_put32(p + 8, 0);
        qel_hspace_pkt_put32(p + 12, sno);
        qel_hspace_pkt_put32(p + 16, 0x80000000u);
        qel_hspace_pkt_put32(p + 20, 0);
        p += HSPACE_PKT_RR_LEN;
    }
    qel_hspace_pkt_put_preamble(p, form->body_type, HSPACE_PKT_PREAMBLE_LEN + form->payload_len);
}

/* The form's whole packet in one new buffer of exactly its length, pos at
 * its end (the payload copied in). */
static t_kro_buf qel_hspace_pkt_serialize_form(t_qel_hspace hspace, const struct qel_hspace_pkt_form *form,
                                               t_kro_uint4 sno)
{
    t_kro_uint4 prefix = qel_hspace_pkt_prefix_len(form);
    t_kro_buf buf;
    kro_buf_create(&buf, prefix + form->payload_len, 0);
    qel_hspace_pkt_encode_prefix((t_kro_byte *)buf->ptr, hspace->service_ltp, form, sno);
    if (form->payload_len > 0) memcpy((t_kro_byte *)buf->ptr + prefix, form->payload, form->payload_len);
    kro_buf_set_pos(buf, prefix + form->payload_len);
    return buf;
}

/* A form with the common fields: no triggers, timeout or flags, no payload. */
static struct qel_hspace_pkt_form qel_hspace_pkt_form_of(t_kro_byte opcode, bool sync, t_kro_str key,
                                                         t_kro_uint2 body_type)
{
    struct qel_hspace_pkt_form form;
    form.opcode = opcode;
    form.semantic = sync ? HSPACE_WIRE_SEMANTIC_SYNC : HSPACE_WIRE_SEMANTIC_NOREPLY;
    form.triggers = 0;
    form.timeout = 0;
    form.flags = 0;
    form.key = key;
    form.key_len = (t_kro_uint4)strlen(key);
    form.with_rr = sync;
    form.body_type = body_type;
    form.payload = NULL;
    form.payload_len = 0;
    return form;
}

/* A put sends the value window [pos, lim) of its object's buffer; flags
 * are not sent. */
static struct qel_hspace_pkt_form qel_hspace_pkt_put_form(t_qel_hspace_object object, t_qel_hspace_put_semantic semantic)
{
    struct qel_hspace_pkt_form form =
        qel_hspace_pkt_form_of(HSPACE_OPCODE_PUT, semantic == HSPACE_PUT_SYNC, object->key, HSPACE_BODY_OBJECT);
    t_kro_buf data = object->data.buf;
    if (data != NULL && data->lim > data->pos) {
        form.payload = (const t_kro_byte *)data->ptr + data->pos;
        form.payload_len = data->lim - data->pos;
    }
    return form;
}

/* A get sends its timeout and the flag bits 1 and 4. */
static struct qel_hspace_pkt_form qel_hspace_pkt_get_form(t_kro_str key, t_qel_hspace_get_semantic semantic,
                                                          t_kro_int4 timeout, t_kro_int4 flags)
{
    struct qel_hspace_pkt_form form = qel_hspace_pkt_form_of(HSPACE_OPCODE_GET, true, key, HSPACE_BODY_REQUEST);
    form.semantic = semantic == HSPACE_GET_SYNC ? HSPACE_WIRE_SEMANTIC_SYNC : HSPACE_WIRE_SEMANTIC_ASYNC;
    form.timeout = timeout;
    form.flags = flags & 0x5;
    return form;
}

/* A post sends its triggers and the flag bits 2 and 4 (the library's own
 * bits stay here). */
static struct qel_hspace_pkt_form qel_hspace_pkt_post_form(t_kro_str key, t_kro_byte triggers, t_kro_int4 flags)
{
    struct qel_hspace_pkt_form form = qel_hspace_pkt_form_of(HSPACE_OPCODE_POST, true, key, HSPACE_BODY_REQUEST);
    form.triggers = triggers;
    form.flags = flags & (HSPACE_POST_FLAG_NO_IMAGE | HSPACE_POST_FLAG_KEY_ONLY);
    return form;
}

/* Each request's whole packet in one new buffer, as qel_hspace_pkt_serialize_form
 * makes it: for tools and tests (the data operations write the prefix and
 * the payload apart). */
[[maybe_unused]] static t_kro_buf qel_hspace_pkt_serialize_put_request(t_qel_hspace hspace, t_qel_hspace_object object,
                                                      t_qel_hspace_put_semantic semantic, t_kro_int4 flags,
                                                      t_kro_uint4 sno)
{
    struct qel_hspace_pkt_form form = qel_hspace_pkt_put_form(object, semantic);
    (void)flags; /* a put carries no flags */
    return qel_hspace_pkt_serialize_form(hspace, &form, sno);
}

[[maybe_unused]] static t_kro_buf qel_hspace_pkt_serialize_get_request(t_qel_hspace hspace, t_kro_str key,
                                                      t_qel_hspace_get_semantic semantic, t_kro_int4 timeout,
                                                      t_kro_int4 flags, t_kro_uint4 sno)
{
    struct qel_hspace_pkt_form form = qel_hspace_pkt_get_form(key, semantic, timeout, flags);
    return qel_hspace_pkt_serialize_form(hspace, &form, sno);
}

[[maybe_unused]] static t_kro_buf qel_hspace_pkt_serialize_post_request(t_qel_hspace hspace, t_kro_str key,
                                                       t_qel_hspace_post_semantic semantic, t_kro_byte triggers,
                                                       t_kro_int4 flags, t_kro_uint4 sno)
{
    struct qel_hspace_pkt_form form = qel_hspace_pkt_post_form(key, triggers, flags);
    KRO_CHECK((HSPACE_POST_SYNC == semantic));
    return qel_hspace_pkt_serialize_form(hspace, &form, sno);
}

[[maybe_unused]] static t_kro_buf qel_hspace_pkt_serialize_cancel_request(t_qel_hspace hspace, t_kro_byte opcode, t_kro_str key,
                                                         t_qel_hspace_cancel_semantic semantic, t_kro_int4 flags,
                                                         t_kro_uint4 sno)
{
    struct qel_hspace_pkt_form form =
        qel_hspace_pkt_form_of(opcode, semantic == HSPACE_CANCEL_SYNC, key, HSPACE_BODY_REQUEST);
    (void)flags; /* a cancel carries no flags */
    return qel_hspace_pkt_serialize_form(hspace, &form, sno);
}

[[maybe_unused]] static t_kro_buf qel_hspace_pkt_serialize_remove_request(t_qel_hspace hspace, t_kro_str key,
                                                         t_qel_hspace_remove_semantic semantic, t_kro_int4 flags,
                                                         t_kro_uint4 sno)
{
    struct qel_hspace_pkt_form form =
        qel_hspace_pkt_form_of(HSPACE_OPCODE_REMOVE, semantic == HSPACE_REMOVE_SYNC, key, HSPACE_BODY_REQUEST);
    (void)flags; /* a remove carries no flags */
    return qel_hspace_pkt_serialize_form(hspace, &form, sno);
}

/* Decodes a handshake reply body (a framed packet's body section). The
 * name is a new string owned by the caller. KRO_ERR_INVALID_PACKET when the
 * body is no handshake reply or too short for its fields. */
static t_kro_error qel_hspace_pkt_deserialize_handshake_reply(t_kro_ptr body_ptr, t_kro_uint2 *service_version,
                                                              t_kro_uint2 *service_ltp, t_kro_str *service_name)
{
    t_kro_uint4 len = qel_hspace_pkt_get_body_len_from_body(body_ptr);
    t_kro_byte *fields = (t_kro_byte *)body_ptr + HSPACE_PKT_PREAMBLE_LEN;
    t_kro_uint2 name_len;
    char *name = NULL;
    if (qel_hspace_pkt_get_body_type_from_body(body_ptr) != HSPACE_BODY_HANDSHAKE_REPLY) return KRO_ERR_INVALID_PACKET;
    if (len < HSPACE_PKT_PREAMBLE_LEN + 6) return KRO_ERR_INVALID_PACKET;
    name_len = qel_hspace_pkt_rd16(fields, 4);
    if ((t_kro_uint4)name_len > len - HSPACE_PKT_PREAMBLE_LEN - 6) return KRO_ERR_INVALID_PACKET;
    *service_version = qel_hspace_pkt_rd16(fields, 0);
    *service_ltp = qel_hspace_pkt_rd16(fields, 2);
    KRO_CHECK(kro_mm_alloc((t_kro_uint4)name_len + 1, &name, 1) == 0);
    memcpy(name, fields + 6, name_len);
    *service_name = name;
    return 0;
}

/* ======================================================================
 * Packet reader. Frames the inbound byte stream in the handle's read
 * buffer, in place. Runs on one thread at a time: the opener during the
 * handshake, then only the reader thread. Takes no lock.
 * ====================================================================== */

/* What the bytes at the start of a draining buffer are. */
enum qel_hspace_pkt_scan {
    QEL_HSPACE_PKT_MORE,    /* no whole packet yet, and nothing proves it invalid */
    QEL_HSPACE_PKT_WHOLE,   /* one whole, well-formed packet */
    QEL_HSPACE_PKT_INVALID  /* the bytes cannot start a valid packet */
};

/* Examines the n bytes at p, never reading past them. A packet is invalid
 * when its magic or version is wrong, its wirelen is below 32 or above
 * HSPACE_PKT_MAX_LEN, a section length is below 8, a section runs past
 * wirelen, or the numsh subheaders and the body end short of wirelen. It
 * says so as soon as the bytes present prove it. */
static qel_hspace_pkt_scan qel_hspace_pkt_scan_bytes(const t_kro_byte *p, t_kro_uint4 n)
{
    t_kro_uint4 wirelen, off, section;
    t_kro_uint4 sections;
    if (n < HSPACE_PKT_PREAMBLE_LEN) return QEL_HSPACE_PKT_MORE;
    if (!qel_hspace_pkt_magic_and_version_ok((t_kro_ptr)p)) return QEL_HSPACE_PKT_INVALID;
    wirelen = qel_hspace_pkt_get_wirelen((t_kro_ptr)p);
    if (wirelen < HSPACE_PKT_HEADER_LEN || wirelen > HSPACE_PKT_MAX_LEN) return QEL_HSPACE_PKT_INVALID;
    if (n < HSPACE_PKT_HEADER_LEN) return QEL_HSPACE_PKT_MORE;
    sections = (t_kro_uint4)qel_hspace_pkt_get_subhdr_count_from_header((t_kro_ptr)p) + 1;
    off = HSPACE_PKT_HEADER_LEN;
    for (section = 0; section < sections; section++) {
        t_kro_uint4 len;
        if (wirelen - off < HSPACE_PKT_PREAMBLE_LEN) return QEL_HSPACE_PKT_INVALID;
        if (n - off < HSPACE_PKT_PREAMBLE_LEN) return QEL_HSPACE_PKT_MORE;
        len = qel_hspace_pkt_get_body_len_from_body((t_kro_ptr)(p + off));
        if (len < HSPACE_PKT_PREAMBLE_LEN || len > wirelen - off) return QEL_HSPACE_PKT_INVALID;
        off += len;
        if (off > n && section + 1 < sections) return QEL_HSPACE_PKT_MORE;
    }
    if (off != wirelen) return QEL_HSPACE_PKT_INVALID;
    return wirelen <= n ? QEL_HSPACE_PKT_WHOLE : QEL_HSPACE_PKT_MORE;
}

/* Nonzero when [pos, lim) of buf begins with one whole, well-formed
 * packet. */
[[maybe_unused]] static t_kro_bool qel_hspace_pkt_is_full(t_kro_buf buf)
{
    return qel_hspace_pkt_scan_bytes((const t_kro_byte *)buf->ptr + buf->pos, buf->lim - buf->pos) ==
           QEL_HSPACE_PKT_WHOLE;
}

/* Frames the whole packet at buf's pos (qel_hspace_pkt_scan_bytes said
 * QEL_HSPACE_PKT_WHOLE) into the caller's record pkt and moves pos past it.
 * Subheaders of types 0 to 4 are filed by type (a later one replaces an
 * earlier one); others are stepped over. An rr subheader shorter than 24
 * bytes, or an hspace subheader too short for its key, is not filed, so
 * inbound processing drops the packet instead of reading past it. With
 * body_apart, buf holds the packet only up to its body's preamble (the
 * payload was read elsewhere) and pos moves past that. */
static void qel_hspace_pkt_frame_part(t_kro_buf buf, t_qel_hspace_packet pkt, bool body_apart)
{
    t_kro_byte *header;
    t_kro_uint4 num_sh, i, wirelen;
    kro_llist_node_init(pkt);
    for (i = 0; i < HSPACE_SUBHEADER_SLOTS; i++) pkt->subheaders[i] = NULL;
    pkt->value = NULL;
    header = (t_kro_byte *)buf->ptr + buf->pos;
    pkt->header = header;
    wirelen = qel_hspace_pkt_get_wirelen(header);
    kro_buf_set_pos(buf, buf->pos + HSPACE_PKT_HEADER_LEN);
    num_sh = qel_hspace_pkt_get_subhdr_count_from_header(header);
    for (i = 0; i < num_sh; i++) {
        t_kro_byte *subheader = (t_kro_byte *)buf->ptr + buf->pos;
        t_kro_uint2 type = qel_hspace_pkt_get_body_type_from_body(subheader);
        t_kro_uint4 len = qel_hspace_pkt_get_body_len_from_body(subheader);
        bool usable = true;
        if (type == HSPACE_BODY_RR) usable = len >= HSPACE_PKT_RR_LEN;
        if (type == HSPACE_BODY_HSPACE)
            usable = len >= HSPACE_PKT_HSPACE_FIXED_LEN &&
                     qel_hspace_pkt_rd16(subheader, 20) <= len - HSPACE_PKT_HSPACE_FIXED_LEN;
        if (type < HSPACE_SUBHEADER_SLOTS) pkt->subheaders[type] = usable ? subheader : NULL;
        kro_buf_set_pos(buf, buf->pos + len);
    }
    pkt->body = (t_kro_byte *)buf->ptr + buf->pos;
    if (body_apart) {
        kro_buf_set_pos(buf, buf->pos + HSPACE_PKT_PREAMBLE_LEN);
        return;
    }
    kro_buf_set_pos(buf, buf->pos + qel_hspace_pkt_get_body_len_from_body(pkt->body));
    KRO_CHECK(header + wirelen == (t_kro_byte *)buf->ptr + buf->pos);
}

static void qel_hspace_pkt_frame_into(t_kro_buf buf, t_qel_hspace_packet pkt)
{
    qel_hspace_pkt_frame_part(buf, pkt, false);
}

/* qel_hspace_pkt_frame_into with a new record in *packet, which the caller
 * frees with kro_mm_free. */
[[maybe_unused]] static void qel_hspace_pkt_frame(t_kro_buf buf, t_qel_hspace_packet *packet)
{
    KRO_ALLOC_RECORD(sizeof(struct qel_hspace_packet), packet, 0);
    qel_hspace_pkt_frame_into(buf, *packet);
}

/* For the n bytes at p, which begin a packet that the scanner found
 * incomplete but not invalid: the offset of its body's payload when every
 * byte before that payload is there, the body is an object and its payload
 * is at least HSPACE_PKT_DIRECT_MIN bytes long; else 0. */
static t_kro_uint4 qel_hspace_pkt_direct_offset(const t_kro_byte *p, t_kro_uint4 n)
{
    t_kro_uint4 off = HSPACE_PKT_HEADER_LEN, subheaders, i;
    if (n < HSPACE_PKT_HEADER_LEN) return 0;
    subheaders = qel_hspace_pkt_get_subhdr_count_from_header((t_kro_ptr)p);
    for (i = 0; i < subheaders; i++) {
        if (n - off < HSPACE_PKT_PREAMBLE_LEN) return 0;
        off += qel_hspace_pkt_get_body_len_from_body((t_kro_ptr)(p + off)); /* within wirelen: scanned */
        if (off > n) return 0;
    }
    if (n - off < HSPACE_PKT_PREAMBLE_LEN) return 0;
    if (qel_hspace_pkt_get_body_type_from_body((t_kro_ptr)(p + off)) != HSPACE_BODY_OBJECT) return 0;
    if (qel_hspace_pkt_get_body_len_from_body((t_kro_ptr)(p + off)) - HSPACE_PKT_PREAMBLE_LEN < HSPACE_PKT_DIRECT_MIN)
        return 0;
    return off + HSPACE_PKT_PREAMBLE_LEN;
}

/* A value buffer for len bytes (len > 0) whose record and bytes share one
 * block: wrapped, so releasing the record frees both. pos 0, lim len. */
static t_kro_buf qel_hspace_value_make(t_kro_uint4 len)
{
    t_kro_buf buf;
    KRO_ALLOC_RECORD(sizeof(struct kro_buf) + len, &buf, 0);
    buf->refcount = 1;
    buf->wrapped = 1;
    buf->size = len;
    buf->pos = 0;
    buf->lim = len;
    buf->ptr = buf + 1;
    return buf;
}

/* The rest of a large object's packet whose bytes up to the payload's
 * offset payload_at lie at the read buffer's pos: the payload goes into a
 * buffer of its own, the part already received copied over and the rest
 * read straight into it, and the packet is framed with it. The buffer
 * grows no further than the packet's prefix. */
static t_kro_error qel_hspace_read_packet_apart(t_qel_hspace hspace, t_qel_hspace_packet packet, t_kro_uint4 payload_at)
{
    t_kro_buf rb = hspace->readbuf;
    const t_kro_byte *start = (const t_kro_byte *)rb->ptr + rb->pos;
    t_kro_uint4 have = rb->lim - rb->pos - payload_at;
    t_kro_buf value = qel_hspace_value_make(qel_hspace_pkt_get_wirelen((t_kro_ptr)start) - payload_at);
    t_kro_uint4 bytes_transferred = 0;
    memcpy(value->ptr, start + payload_at, have);
    value->pos = have;
    while (value->pos < value->lim) {
        t_kro_error error = kro_socket_read(hspace->socket, value, &bytes_transferred);
        if (error != 0) {
            kro_buf_release(&value);
            return error;
        }
    }
    value->pos = 0;
    kro_buf_set_lim(rb, rb->pos + payload_at);
    qel_hspace_pkt_frame_part(rb, packet, true);
    packet->value = value;
    return 0;
}

/* Frames the next whole packet of the handle's stream into the caller's
 * record packet, reading from the socket as needed. On error packet is
 * untouched: the socket's error, or KRO_ERR_INVALID_PACKET as soon as the
 * bytes received prove the stream invalid. A large object's payload is
 * read into a buffer of its own (packet->value), so the read buffer holds
 * at most the packets' prefixes and small packets, and shrinks back once
 * empty after something larger. */
static t_kro_error qel_hspace_read_packet_into(t_qel_hspace hspace, t_qel_hspace_packet packet)
{
    t_kro_error error = 0;
    t_kro_uint4 bytes_transferred = 0;
    while (error == 0) {
        t_kro_buf rb = hspace->readbuf;
        t_kro_uint4 payload_at;
        if (rb != NULL && rb->pos == rb->lim && rb->size > HSPACE_PKT_READBUF_KEEP) kro_buf_release(&hspace->readbuf);
        if (hspace->readbuf == NULL) {
            kro_buf_create(&hspace->readbuf, HSPACE_PKT_READBUF_SIZE, 0);
            rb = hspace->readbuf;
            kro_buf_set_lim(rb, rb->pos);
        }
        switch (qel_hspace_pkt_scan_bytes((const t_kro_byte *)rb->ptr + rb->pos, rb->lim - rb->pos)) {
        case QEL_HSPACE_PKT_WHOLE:
            qel_hspace_pkt_frame_into(rb, packet);
            return 0;
        case QEL_HSPACE_PKT_INVALID:
            return KRO_ERR_INVALID_PACKET;
        case QEL_HSPACE_PKT_MORE:
            break;
        }
        payload_at = qel_hspace_pkt_direct_offset((const t_kro_byte *)rb->ptr + rb->pos, rb->lim - rb->pos);
        if (payload_at != 0) return qel_hspace_read_packet_apart(hspace, packet, payload_at);
        kro_buf_compact(rb);
        if (rb->lim == rb->pos) {
            t_kro_buf grown;
            kro_buf_create(&grown, rb->size * 2, 0);
            memcpy(grown->ptr, rb->ptr, rb->pos);
            kro_buf_set_pos(grown, rb->pos);
            kro_buf_release(&hspace->readbuf);
            hspace->readbuf = grown;
            rb = grown;
        }
        error = kro_socket_read(hspace->socket, rb, &bytes_transferred);
        if (error != 0) return error;
        kro_buf_flip(rb);
    }
    return error;
}

/* qel_hspace_read_packet_into with a new record in *packet, which the
 * caller frees with kro_mm_free; on error *packet is untouched. */
static t_kro_error qel_hspace_read_packet(t_qel_hspace hspace, t_qel_hspace_packet *packet)
{
    struct qel_hspace_packet record;
    t_kro_error error = qel_hspace_read_packet_into(hspace, &record);
    if (error != 0) return error;
    KRO_ALLOC_RECORD(sizeof(struct qel_hspace_packet), packet, 0);
    **packet = record;
    return 0;
}

/* ======================================================================
 * Service address: "tcp://host:port" or "tls://host:port" parsed into the
 * runtime's client socket description, and the unconnected socket made
 * from it. Runs on the thread calling create or open; touches no shared
 * state.
 * ====================================================================== */

static void qel_hspace_socket_create_data_destroy(t_kro_socket_client_create_data *socket_create_data)
{
    t_kro_socket_client_create_data d = *socket_create_data;
    if (d->device_create_data.local_ifaddr != NULL) KRO_CHECK(kro_mm_free(&d->device_create_data.local_ifaddr) == 0);
    if (d->device_create_data.remote_ifaddr != NULL)
        KRO_CHECK(kro_mm_free(&d->device_create_data.remote_ifaddr) == 0);
    KRO_CHECK(kro_mm_free(socket_create_data) == 0);
}

/* The port text as a decimal number: leading white space, an optional
 * sign, digits up to the first non-digit; only the low 16 bits are kept. */
static t_kro_ushort qel_hspace_port_parse(const char *text)
{
    t_kro_uint4 value = 0;
    bool negative = false;
    while (*text == ' ' || (*text >= '\t' && *text <= '\r')) text++;
    if (*text == '+' || *text == '-') negative = *text++ == '-';
    while (*text >= '0' && *text <= '9') value = value * 10u + (t_kro_uint4)(*text++ - '0');
    if (negative) value = 0u - value;
    return (t_kro_ushort)(value & 0xFFFFu);
}

static t_kro_error qel_hspace_socket_create_data_create(t_kro_str url,
                                                        t_kro_socket_client_create_data *socket_create_data)
{
    t_kro_str copy = NULL;
    char *scheme, *host, *port, *p;
    t_kro_error result = 0;
    KRO_ALLOC_RECORD(sizeof(struct kro_socket_client_create_data), socket_create_data, 1);
    kro_str_assign(&copy, url);
    scheme = (char *)copy;
    host = port = NULL;
    p = strstr(scheme, "://");
    if (p == NULL) {
        result = KRO_ERR_BAD_ADDRESS;
    } else {
        *p = '\0';
        host = p + 3;
        p = strchr(host, ':');
        if (p == NULL) {
            result = KRO_ERR_BAD_ADDRESS;
        } else {
            *p = '\0';
            port = p + 1;
            if (strcasecmp(scheme, "tcp") != 0 && strcasecmp(scheme, "tls") != 0) result = KRO_ERR_BAD_PROTOCOL;
        }
    }
    if (result == 0) {
        t_kro_socket_device_client_create_data_struct *d = &(*socket_create_data)->device_create_data;
        kro_str_assign(&d->local_ifaddr, "0.0.0.0");
        d->local_port = 0;
        kro_str_assign(&d->remote_ifaddr, host);
        d->remote_port = qel_hspace_port_parse(port);
    }
    KRO_CHECK(kro_mm_free(&copy) == 0);
    if (result != 0) qel_hspace_socket_create_data_destroy(socket_create_data);
    return result;
}

/* True for a URL of the tls scheme (any letter case); create has accepted
 * the URL. */
static bool qel_hspace_url_is_tls(t_kro_str url)
{
    return strncasecmp(url, "tls://", 6) == 0;
}

static t_kro_error qel_hspace_socket_create(t_kro_str url, t_kro_socket *socket)
{
    t_kro_socket_client_create_data data = NULL;
    t_kro_error error = qel_hspace_socket_create_data_create(url, &data);
    if (error != 0) return error;
    error = kro_socket_client_create(data, socket);
    if (error != 0) qel_hspace_socket_create_data_destroy(&data);
    return error;
}

/* ======================================================================
 * Request table. Every function here is called with the handle's mutex
 * held and takes no lock itself. The list reqtable is the record of
 * creation order; two hash indexes beside it find a record by corrid and a
 * post by its case-folded key in constant expected time. A record is in
 * the list and in its indexes together: linked by qel_hspace_request_link,
 * removed by qel_hspace_request_unlink.
 * ====================================================================== */

/* The hash of key with letter case folded as strcasecmp folds it. */
static t_kro_uint4 qel_hspace_key_hash(t_kro_str key)
{
    t_kro_uint4 h = 2166136261u;
    for (const unsigned char *p = (const unsigned char *)key; *p != '\0'; p++)
        h = (h ^ (t_kro_uint4)tolower(*p)) * 16777619u;
    return h ^ (h >> 15);
}

/* The hash a record is filed under in index: its corrid, or its key's. */
static t_kro_uint4 qel_hspace_index_hash(t_qel_hspace hspace, const struct qel_hspace_request_index *index,
                                         t_qel_hspace_request request)
{
    return index == &hspace->corrid_index ? request->corrid : request->key_hash;
}

/* The link field that threads index's chains through a record. */
static t_qel_hspace_request *qel_hspace_index_link(t_qel_hspace hspace, const struct qel_hspace_request_index *index,
                                                   t_qel_hspace_request request)
{
    return index == &hspace->corrid_index ? &request->corrid_next : &request->key_next;
}

/* Appends request at the end of its chain, keeping each chain in creation
 * order. Does not count it. */
static void qel_hspace_index_chain_append(t_qel_hspace hspace, struct qel_hspace_request_index *index,
                                          t_qel_hspace_request request)
{
    t_qel_hspace_request *slot = &index->buckets[qel_hspace_index_hash(hspace, index, request) & index->mask];
    while (*slot != NULL) slot = qel_hspace_index_link(hspace, index, *slot);
    *slot = request;
    *qel_hspace_index_link(hspace, index, request) = NULL;
}

/* Makes room for one more record: the first use takes the inline buckets;
 * when the records would outnumber the buckets, the index moves to twice
 * as many heap buckets and refiles every record in reqtable's order. */
static void qel_hspace_index_reserve(t_qel_hspace hspace, struct qel_hspace_request_index *index)
{
    t_qel_hspace_request *grown;
    t_kro_uint4 size;
    if (index->buckets == NULL) {
        index->buckets = index->inline_buckets;
        index->mask = HSPACE_INDEX_INLINE_BUCKETS - 1;
    }
    if (index->count < index->mask + 1) return;
    KRO_CHECK(index->mask < 0x7FFFFFFFu);
    size = (index->mask + 1) * 2;
    KRO_ALLOC_RECORD(size * (t_kro_uint4)sizeof(t_qel_hspace_request), &grown, 1);
    if (index->buckets != index->inline_buckets) KRO_CHECK(kro_mm_free(&index->buckets) == 0);
    index->buckets = grown;
    index->mask = size - 1;
    for (t_kro_ptr n = kro_llist_first(hspace->reqtable); n != NULL; n = kro_llist_next(hspace->reqtable, n)) {
        t_qel_hspace_request request = (t_qel_hspace_request)n;
        if (index == &hspace->corrid_index || request->opcode == HSPACE_OPCODE_POST)
            qel_hspace_index_chain_append(hspace, index, request);
    }
}

static void qel_hspace_index_insert(t_qel_hspace hspace, struct qel_hspace_request_index *index,
                                    t_qel_hspace_request request)
{
    qel_hspace_index_reserve(hspace, index);
    qel_hspace_index_chain_append(hspace, index, request);
    index->count++;
}

/* Takes request (filed in index) out of its chain; the last record out
 * gives back the heap buckets. */
static void qel_hspace_index_remove(t_qel_hspace hspace, struct qel_hspace_request_index *index,
                                    t_qel_hspace_request request)
{
    t_qel_hspace_request *slot = &index->buckets[qel_hspace_index_hash(hspace, index, request) & index->mask];
    while (*slot != request) {
        KRO_CHECK(*slot != NULL);
        slot = qel_hspace_index_link(hspace, index, *slot);
    }
    *slot = *qel_hspace_index_link(hspace, index, request);
    index->count--;
    if (index->count == 0 && index->buckets != index->inline_buckets) {
        KRO_CHECK(kro_mm_free(&index->buckets) == 0);
        index->buckets = index->inline_buckets;
        index->mask = HSPACE_INDEX_INLINE_BUCKETS - 1;
        memset(index->inline_buckets, 0, sizeof index->inline_buckets);
    }
}

/* Appends request to reqtable and files it in the indexes. */
static void qel_hspace_request_link(t_qel_hspace hspace, t_qel_hspace_request request)
{
    qel_hspace_index_insert(hspace, &hspace->corrid_index, request);
    if (request->opcode == HSPACE_OPCODE_POST) {
        request->key_hash = qel_hspace_key_hash(request->key);
        qel_hspace_index_insert(hspace, &hspace->key_index, request);
    }
    kro_llist_append(hspace->reqtable, request);
}

/* Takes a linked request out of reqtable and the indexes. */
static void qel_hspace_request_unlink(t_qel_hspace_request request)
{
    t_qel_hspace hspace = request->hspace;
    kro_llist_remove(request);
    qel_hspace_index_remove(hspace, &hspace->corrid_index, request);
    if (request->opcode == HSPACE_OPCODE_POST) qel_hspace_index_remove(hspace, &hspace->key_index, request);
}

/* Fills in the record at request (on the heap, or in the calling thread's
 * frame when on_stack), draws its correlation id and links it. */
static void qel_hspace_request_init(t_qel_hspace hspace, t_qel_hspace_request request, t_kro_bool on_stack,
                                    t_kro_byte opcode, t_kro_str key, t_kro_ptr urid, t_kro_buf buf,
                                    t_kro_bool dup_key, t_kro_bool async_reply, t_kro_llist replies)
    KRO_REQUIRES(hspace->mutex)
{
    kro_llist_node_init(request);
    request->on_stack = on_stack;
    new (&request->owners) std::atomic<int>(async_reply ? 2 : 1);
    request->hspace = hspace;
    request->opcode = opcode;
    request->dup_key = dup_key;
    if (dup_key) {
        request->key = NULL;
        kro_str_assign(&request->key, key);
    } else {
        request->key = key;
    }
    request->buf = buf;
    if (hspace->sno == HSPACE_CORRID_MAX) hspace->sno = 0;
    request->corrid = ++hspace->sno;
    request->urid = urid;
    request->seq = ++hspace->seq;
    request->initial_image_complete = 0;
    request->caller_waiting = 1;
    request->orphaned = 0;
    request->in_event = 0;
    request->abandoned = 0;
    request->cancelled = 0;
    request->start_event = 0;
    request->call = NULL;
    request->corrid_next = NULL;
    request->key_next = NULL;
    request->key_hash = 0;
    if (!async_reply) {
        t_qel_hspace_request_sync_ctx ctx = &request->sync;
        request->sync_ctx = ctx;
        ctx->complete = 0;
        ctx->error = 0;
        if (replies != NULL) {
            ctx->user_reply_list = 1;
            ctx->replies = replies;
        } else {
            t_kro_llist own = &request->own_replies;
            ctx->user_reply_list = 0;
            own->head = own;
            own->prev = (t_kro_llist_node)own;
            own->next = (t_kro_llist_node)own;
            own->num_elements = 0;
            own->read_only = 0;
            ctx->replies = own;
        }
    } else {
        request->sync_ctx = NULL;
    }
    qel_hspace_request_link(hspace, request);
}

static t_qel_hspace_request qel_hspace_request_create(t_qel_hspace hspace, t_kro_byte opcode, t_kro_str key,
                                                      t_kro_ptr urid, t_kro_buf buf, t_kro_bool dup_key,
                                                      t_kro_bool async_reply, t_kro_llist replies)
    KRO_REQUIRES(hspace->mutex)
{
    t_qel_hspace_request request;
    KRO_ALLOC_RECORD(sizeof(struct qel_hspace_request), &request, 0);
    qel_hspace_request_init(hspace, request, 0, opcode, key, urid, buf, dup_key, async_reply, replies);
    return request;
}

/* The oldest record with corrid, or null. */
static t_qel_hspace_request qel_hspace_request_get_by_corrid(t_qel_hspace hspace, t_kro_uint4 corrid)
{
    const struct qel_hspace_request_index *index = &hspace->corrid_index;
    if (index->buckets == NULL) return NULL;
    for (t_qel_hspace_request r = index->buckets[corrid & index->mask]; r != NULL; r = r->corrid_next)
        if (r->corrid == corrid) return r;
    return NULL;
}

/* The oldest post whose key equals key regardless of letter case, or null. */
static t_qel_hspace_request qel_hspace_request_get_post(t_qel_hspace hspace, t_kro_str key)
{
    const struct qel_hspace_request_index *index = &hspace->key_index;
    t_kro_uint4 hash;
    if (index->buckets == NULL) return NULL;
    hash = qel_hspace_key_hash(key);
    for (t_qel_hspace_request r = index->buckets[hash & index->mask]; r != NULL; r = r->key_next)
        if (r->key_hash == hash && strcasecmp(r->key, key) == 0) return r;
    return NULL;
}

/* The subscription of key that a cancel may end: a post record created
 * before the cancel record. A post sent after the cancel is answered after
 * it and is not the cancel's business. */
static t_qel_hspace_request qel_hspace_request_get_post_before(t_qel_hspace hspace, t_kro_str key,
                                                               t_qel_hspace_request cancel)
{
    t_qel_hspace_request post = qel_hspace_request_get_post(hspace, key);
    return post != NULL && post->seq < cancel->seq ? post : NULL;
}

static void qel_hspace_request_destroy(t_qel_hspace_request *request)
{
    t_qel_hspace_request r = *request;
    if (r->head != NULL) qel_hspace_request_unlink(r);
    if (r->dup_key && r->key != NULL) KRO_CHECK(kro_mm_free(&r->key) == 0);
    if (r->buf != NULL) kro_buf_release(&r->buf);
    if (r->on_stack) {
        *request = NULL;
        return;
    }
    r->owners.~atomic();
    KRO_CHECK(kro_mm_free(request) == 0);
}

/* Sets bits in a waiting call's wake-up. When the call sleeps, the notify
 * waits until the mutex is released (qel_hspace_unlock_and_wake), so the
 * woken thread does not run into the held mutex; a second one decided in
 * the same hold is made at once. */
static void qel_hspace_call_notify(t_qel_hspace hspace, t_kro_wake wake) KRO_REQUIRES(hspace->mutex)
{
    if (hspace->wake_pending != NULL) kro_wake_notify(hspace->wake_pending);
    hspace->wake_pending = wake;
}

static void qel_hspace_call_wake(t_qel_hspace hspace, struct qel_hspace_call *call, uint32_t bits)
    KRO_REQUIRES(hspace->mutex)
{
    if (kro_wake_set(&call->wake, bits)) qel_hspace_call_notify(hspace, &call->wake);
}

/* Releases the mutex, then notifies the call woken under it, if any. */
static void qel_hspace_unlock_and_wake(t_qel_hspace hspace) KRO_RELEASE(hspace->mutex)
{
    t_kro_wake wake = hspace->wake_pending;
    hspace->wake_pending = NULL;
    qel_hspace_unlock(hspace);
    if (wake != NULL) kro_wake_notify(wake);
}

/* Ends a record on the reader thread's behalf. A record whose calling
 * thread is still inside its write or has not yet read its status is only
 * unlinked and marked orphaned, and its call woken: that thread frees it
 * once it is back, so no thread touches freed memory. */
static void qel_hspace_request_end(t_qel_hspace hspace, t_qel_hspace_request request) KRO_REQUIRES(hspace->mutex)
{
    if (request->sync_ctx == NULL) {
        /* An asynchronous get: the table's hold ends. Marked before the
         * hold is given up: once it is, the caller may free the record. */
        if (request->head != NULL) qel_hspace_request_unlink(request);
        request->orphaned = 1;
        if (request->owners.fetch_sub(1, std::memory_order_acq_rel) == 1) qel_hspace_request_destroy(&request);
        return;
    }
    if (request->caller_waiting) {
        if (request->head != NULL) qel_hspace_request_unlink(request);
        request->orphaned = 1;
        if (request->call != NULL) qel_hspace_call_wake(hspace, request->call, QEL_HSPACE_CALL_COMPLETE);
    } else {
        qel_hspace_request_destroy(&request);
    }
}

/* Frees a record on its calling thread's behalf. A record the reader thread
 * is raising an event about is only unlinked and marked: the reader frees
 * it when the callback returns. */
static void qel_hspace_request_abandon(t_qel_hspace_request request)
{
    request->call = NULL;
    if (request->in_event) {
        if (request->head != NULL) qel_hspace_request_unlink(request);
        request->abandoned = 1;
    } else {
        qel_hspace_request_destroy(&request);
    }
}

/* ======================================================================
 * User events. Reply-image events are raised with the handle's mutex held
 * by the caller and release it around the callback; notification events
 * are raised without it. Reader thread only.
 * ====================================================================== */

/* Raises a get-reply or post-image event about request. False when the
 * record's caller gave it up meanwhile: it is then freed here and the
 * caller of this function must not touch it again. */
static bool qel_hspace_dispatch_reply_image_event(t_qel_hspace hspace, t_qel_hspace_request request,
                                                  t_kro_error error, t_kro_uint4 cardinality, t_kro_uint4 index,
                                                  t_qel_hspace_object object) KRO_REQUIRES(hspace->mutex)
{
    t_qel_hspace_reply_image_event_data_struct data;
    t_qel_hspace_event event =
        request->opcode == HSPACE_OPCODE_GET ? HSPACE_EVENT_GET_REPLY : HSPACE_EVENT_POST_IMAGE;
    data.urid = request->urid;
    data.key = request->key;
    data.status = error;
    if (error == 0) {
        data.cardinality = cardinality;
        data.index = index;
        data.object = object;
    } else {
        data.cardinality = 0;
        data.index = 0;
        data.object = NULL;
    }
    request->in_event = 1;
    /* Callers completed before this event are not kept waiting on it. */
    qel_hspace_unlock_and_wake(hspace);
    hspace->event_handler(hspace, event, &data);
    qel_hspace_lock(hspace);
    request->in_event = 0;
    if (!request->abandoned) return true;
    qel_hspace_request_destroy(&request);
    return false;
}

static void qel_hspace_dispatch_notification_event(t_qel_hspace hspace, t_kro_byte trigger,
                                                   t_qel_hspace_object object)
{
    t_qel_hspace_post_notification_event_data_struct data;
    data.trigger = (t_kro_int4)trigger;
    data.object = object;
    hspace->event_handler(hspace, HSPACE_EVENT_POST_NOTIFICATION, &data);
}

/* ======================================================================
 * Request completion. Called with the handle's mutex held, on the reader
 * thread. Synchronous records are marked complete and unlinked (a post that
 * succeeded stays as the subscription), and only their own caller is
 * woken, once the mutex is released, so a woken caller does not block
 * again on it; their callers free them. Asynchronous gets and open
 * subscription images end with a reply-image event.
 * ====================================================================== */

/* Completes a synchronous record with error; remove unlinks it. The last
 * touch of the record: its caller may free it as soon as it is woken. */
static void qel_hspace_complete_sync_request(t_qel_hspace hspace, t_qel_hspace_request request, t_kro_error error,
                                             t_kro_bool remove) KRO_REQUIRES(hspace->mutex)
{
    KRO_CHECK(request->sync_ctx != NULL && !request->sync_ctx->complete);
    request->sync_ctx->complete = 1;
    request->sync_ctx->error = error;
    if (remove && request->head != NULL) qel_hspace_request_unlink(request);
    if (request->call != NULL) qel_hspace_call_wake(hspace, request->call, QEL_HSPACE_CALL_COMPLETE);
}

static void qel_hspace_complete_async_request_with_error(t_qel_hspace hspace, t_qel_hspace_request request,
                                                         t_kro_error error) KRO_REQUIRES(hspace->mutex)
{
    if (qel_hspace_dispatch_reply_image_event(hspace, request, error, 0, 0, NULL))
        qel_hspace_request_end(hspace, request);
}

static void qel_hspace_complete_async_request_with_no_match(t_qel_hspace hspace, t_qel_hspace_request request)
    KRO_REQUIRES(hspace->mutex)
{
    if (!qel_hspace_dispatch_reply_image_event(hspace, request, 0, 0, 0, NULL)) return;
    if (request->opcode == HSPACE_OPCODE_POST)
        request->initial_image_complete = 1;
    else
        qel_hspace_request_end(hspace, request);
}

/* Completes request with a status-only answer. */
static void qel_hspace_complete_request(t_qel_hspace hspace, t_qel_hspace_request request, t_kro_error status)
    KRO_REQUIRES(hspace->mutex)
{
    bool sync;
    if (request->opcode == HSPACE_OPCODE_GET)
        sync = request->sync_ctx != NULL;
    else if (request->opcode == HSPACE_OPCODE_POST)
        sync = !request->sync_ctx->complete;
    else
        sync = true;

    if (sync) {
        bool keep;
        if (request->opcode == HSPACE_OPCODE_CANCEL) {
            /* A cancel ends the local subscription made before it,
             * whatever its status. Such a post still waiting for its own
             * reply (a service answering out of order) is marked instead:
             * its reply then ends it, and its caller frees it. */
            t_qel_hspace_request post = qel_hspace_request_get_post_before(hspace, request->key, request);
            if (post != NULL) {
                if (post->sync_ctx->complete)
                    qel_hspace_request_end(hspace, post);
                else
                    post->cancelled = 1;
            }
        }
        keep = request->opcode == HSPACE_OPCODE_POST && status == 0 && !request->cancelled;
        qel_hspace_complete_sync_request(hspace, request, status, keep ? 0 : 1);
        /* The start of a subscription without image, where it lies in the
         * stream; the caller, already woken, cannot free it meanwhile. */
        if (keep && request->start_event) qel_hspace_dispatch_reply_image_event(hspace, request, 0, 0, 0, NULL);
        return;
    }
    /* Asynchronous get or subscription. A success reply, or any reply to a
     * subscription whose image is complete, never answers such a record:
     * dropped. */
    if (status == 0) return;
    if (request->opcode == HSPACE_OPCODE_POST && request->initial_image_complete) return;
    if (status == KRO_ERR_NO_MATCH)
        qel_hspace_complete_async_request_with_no_match(hspace, request);
    else
        qel_hspace_complete_async_request_with_error(hspace, request, status);
}

/* Abandons every outstanding request with status (never 0), oldest first,
 * waking each one's caller. The first record is re-read on every pass, so
 * records freed while a callback runs do not disturb the walk. */
static void qel_hspace_complete_all_requests(t_qel_hspace hspace, t_kro_error status) KRO_REQUIRES(hspace->mutex)
{
    t_kro_ptr n;
    KRO_CHECK(status != 0);
    while ((n = kro_llist_first(hspace->reqtable)) != NULL) {
        t_qel_hspace_request request = (t_qel_hspace_request)n;
        if (request->opcode == HSPACE_OPCODE_POST && request->sync_ctx->complete && request->initial_image_complete)
            qel_hspace_request_end(hspace, request);
        else
            qel_hspace_complete_request(hspace, request, status);
    }
}

/* ======================================================================
 * Inbound processing. Reader thread only, one packet at a time; entered
 * without the mutex. Replies and objects take it for the lookup and
 * everything after; notifications take no lock. Packets that fit none of
 * the exchanges the library makes are dropped, and nothing built for them
 * survives.
 * ====================================================================== */

/* A library-made object in two allocations: the record with the
 * NUL-terminated copy of key_len key bytes behind it, and, unless data_len
 * is 0, the value's buffer record with its bytes behind it (ptr into the
 * same block, so wrapped: releasing the record frees both). */
t_qel_hspace_object qel_hspace_object_make(const char *key, t_kro_uint4 key_len, const void *data,
                                           t_kro_uint4 data_len)
{
    t_qel_hspace_object o;
    char *copy;
    KRO_ALLOC_RECORD(sizeof(struct qel_hspace_object_struct) + key_len + 1, &o, 0);
    kro_llist_node_init(o);
    o->user_created = 0;
    copy = (char *)(o + 1);
    memcpy(copy, key, key_len);
    copy[key_len] = '\0';
    o->key = copy;
    o->data.buf = NULL;
    if (data_len != 0) {
        o->data.buf = qel_hspace_value_make(data_len);
        memcpy(o->data.buf->ptr, data, data_len);
    }
    return o;
}

/* Builds a library-owned object from a packet with an hspace subheader.
 * A payload read apart passes to the object as it is, uncopied. */
static void qel_hspace_object_create_from_packet(t_qel_hspace_packet packet, t_qel_hspace_object *object)
{
    t_kro_ptr hs = packet->subheaders[HSPACE_BODY_HSPACE];
    const char *key = (const char *)hs + HSPACE_PKT_HSPACE_FIXED_LEN;
    t_kro_uint2 key_len = qel_hspace_pkt_get_key_len_from_hspace_subheader(hs);
    if (packet->value != NULL) {
        *object = qel_hspace_object_make(key, key_len, NULL, 0);
        (*object)->data.buf = packet->value;
        packet->value = NULL;
        return;
    }
    *object = qel_hspace_object_make(key, key_len, (const t_kro_byte *)packet->body + HSPACE_PKT_PREAMBLE_LEN,
                                     qel_hspace_pkt_get_body_len_from_body(packet->body) - HSPACE_PKT_PREAMBLE_LEN);
}

static void qel_hspace_process_reply(t_qel_hspace hspace, t_qel_hspace_packet packet)
{
    t_kro_ptr rr = packet->subheaders[HSPACE_BODY_RR];
    t_kro_uint4 corrid, count, num;
    t_kro_bool success;
    t_kro_error error;
    t_qel_hspace_request request;
    if (rr == NULL || !qel_hspace_pkt_is_reply(rr)) return;
    qel_hspace_pkt_get_reply_info_from_rr_subheader(rr, &corrid, &success, &count, &num, &error);
    qel_hspace_lock(hspace);
    request = qel_hspace_request_get_by_corrid(hspace, corrid);
    if (request != NULL) qel_hspace_complete_request(hspace, request, success ? 0 : error);
    qel_hspace_unlock_and_wake(hspace);
}

static void qel_hspace_process_object(t_qel_hspace hspace, t_qel_hspace_packet packet)
{
    t_kro_ptr rr = packet->subheaders[HSPACE_BODY_RR];
    t_kro_uint4 corrid, count, num;
    t_kro_bool success;
    t_kro_error error;
    t_qel_hspace_request request;
    t_qel_hspace_object object = NULL;
    if (rr == NULL || !qel_hspace_pkt_is_reply(rr)) return;
    qel_hspace_pkt_get_reply_info_from_rr_subheader(rr, &corrid, &success, &count, &num, &error);
    qel_hspace_lock(hspace);
    request = qel_hspace_request_get_by_corrid(hspace, corrid);
    if (request != NULL && request->opcode == HSPACE_OPCODE_GET && request->sync_ctx != NULL) {
        /* Synchronous get: the caller's list, in arrival order. */
        qel_hspace_object_create_from_packet(packet, &object);
        kro_llist_append(request->sync_ctx->replies, object);
        if (num == count) qel_hspace_complete_sync_request(hspace, request, error, 1);
    } else if (request != NULL && request->opcode == HSPACE_OPCODE_GET) {
        qel_hspace_object_create_from_packet(packet, &object);
        if (qel_hspace_dispatch_reply_image_event(hspace, request, 0, count, num, object) && num == count)
            qel_hspace_request_end(hspace, request);
    } else if (request != NULL && request->opcode == HSPACE_OPCODE_POST && request->sync_ctx->complete) {
        /* An active subscription; objects for a post whose own reply has
         * not arrived are dropped. */
        qel_hspace_object_create_from_packet(packet, &object);
        if (qel_hspace_dispatch_reply_image_event(hspace, request, 0, count, num, object) && num == count)
            request->initial_image_complete = 1;
    }
    qel_hspace_unlock_and_wake(hspace);
}

static void qel_hspace_process_notification(t_qel_hspace hspace, t_qel_hspace_packet packet)
{
    t_qel_hspace_object object;
    qel_hspace_object_create_from_packet(packet, &object);
    qel_hspace_dispatch_notification_event(
        hspace, qel_hspace_pkt_get_triggers_from_hspace_subheader(packet->subheaders[HSPACE_BODY_HSPACE]), object);
}

static void qel_hspace_process_packet(t_qel_hspace hspace, t_qel_hspace_packet packet)
{
    t_kro_ptr hs = packet->subheaders[HSPACE_BODY_HSPACE];
    if (qel_hspace_pkt_get_body_type_from_body(packet->body) == HSPACE_BODY_REPLY) {
        qel_hspace_process_reply(hspace, packet);
        return;
    }
    if (hs == NULL) return;
    switch (qel_hspace_pkt_get_opcode_from_hspace_subheader(hs)) {
    case HSPACE_OPCODE_GET:
    case HSPACE_OPCODE_POST: qel_hspace_process_object(hspace, packet); break;
    case HSPACE_OPCODE_NOTIFICATION: qel_hspace_process_notification(hspace, packet); break;
    default: break;
    }
}

/* ======================================================================
 * The reader thread: reads and processes packets while the handle is open,
 * then ends the connection's life: final state, every outstanding request
 * completed, the link-failure event, and a destroy asked for from a
 * callback. It is the only reader of the socket after the handshake.
 * ====================================================================== */

static void qel_hspace_destroy_final(t_qel_hspace *hspace);

/* Sets the final state and abandons every request. Mutex held. */
static void qel_hspace_close_final(t_qel_hspace hspace, t_kro_error error, t_qel_hspace_state state)
    KRO_REQUIRES(hspace->mutex)
{
    hspace->state.store(state);
    qel_hspace_complete_all_requests(hspace, error);
}

static void qel_hspace_reader_entry_point(t_kro_ptr ptr)
{
    t_qel_hspace hspace = (t_qel_hspace)ptr;
    t_kro_error error = 0;
    t_qel_hspace_state state;
    t_kro_bool destroy;
    bool failed;
    while (hspace->state.load() == HSPACE_STATE_OPEN) {
        struct qel_hspace_packet packet;
        error = qel_hspace_read_packet_into(hspace, &packet);
        if (error != 0) break;
        qel_hspace_process_packet(hspace, &packet);
        if (packet.value != NULL) kro_buf_release(&packet.value); /* a dropped packet's */
    }
    qel_hspace_lock(hspace);
    state = hspace->state.load();
    KRO_CHECK(state != HSPACE_STATE_INIT);
    /* Decided once, under the mutex: a read that failed after an
     * application thread's close cut the socket is that close, never a
     * link failure. A writer that failed the link (a deadline cut its
     * write) set FAILED and the cause before cutting the socket. */
    if (state == HSPACE_STATE_OPEN && !hspace->closing.load()) {
        hspace->link_error.store(error);
        qel_hspace_close_final(hspace, error, HSPACE_STATE_FAILED);
    } else if (state == HSPACE_STATE_FAILED) {
        error = hspace->link_error.load();
        qel_hspace_close_final(hspace, error, HSPACE_STATE_FAILED);
    } else {
        qel_hspace_close_final(hspace, KRO_ERR_CLOSED, HSPACE_STATE_CLOSED);
    }
    /* A callback's close during the failure's sweep turns it into a close;
     * an application thread's close leaves FAILED alone until this thread
     * has ended. */
    failed = hspace->state.load() == HSPACE_STATE_FAILED;
    qel_hspace_unlock_and_wake(hspace);
    if (failed) {
        t_qel_hspace_fail_event_data_struct event_data;
        event_data.error = error;
        hspace->event_handler(hspace, HSPACE_EVENT_LINK_FAIL, &event_data);
    }
    /* No callback runs any more, so destroy is set for good. Without it
     * another thread may release the handle as soon as this thread has
     * ended: touch nothing after this test. */
    qel_hspace_lock(hspace);
    destroy = hspace->destroy;
    qel_hspace_unlock(hspace);
    if (destroy) qel_hspace_destroy_final(&hspace);
}

/* ======================================================================
 * The handle's lifecycle: initialize, finalize, create, get_state, open
 * with its handshake, close, destroy.
 * ====================================================================== */

extern "C" KRO_API t_kro_error qel_hspace_initialize(t_kro_uint version, t_kro_bool threaded)
{
    t_kro_error error;
    (void)threaded;
    if (version != QEL_HSPACE_VERSION) return KRO_ERR_VERSION;
    error = kro_initialize(1);
    if (error == 0) s_initialized.store(1, std::memory_order_release);
    return error;
}

extern "C" KRO_API t_kro_error qel_hspace_finalize(void)
{
    if (!qel_hspace_is_initialized()) return 0;
    kro_finalize();
    s_initialized.store(0, std::memory_order_release);
    return 0;
}

extern "C" KRO_API t_kro_error qel_hspace_create(t_qel_hspace_create_data create_data,
                                                 t_qel_hspace_event_handler_func event_handler, t_qel_hspace *hspace)
{
    t_qel_hspace h;
    t_kro_error error;
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (create_data == NULL || create_data->service_url == NULL || event_handler == NULL || hspace == NULL)
        return KRO_ERR_INVALID_ARG;
    if ((create_data->client_name != NULL && strlen(create_data->client_name) > HSPACE_HANDSHAKE_STR_MAX_LEN) ||
        (create_data->client_group != NULL && strlen(create_data->client_group) > HSPACE_HANDSHAKE_STR_MAX_LEN))
        return KRO_ERR_INVALID_ARG;
    KRO_ALLOC_RECORD(sizeof(struct qel_hspace_struct), hspace, 1);
    h = *hspace;
    new (&h->state) std::atomic<t_qel_hspace_state>(HSPACE_STATE_INIT);
    new (&h->closing) std::atomic<t_kro_bool>(0);
    new (&h->closers) std::atomic<int>(0);
    new (&h->send_state) std::atomic<uint32_t>(0);
    new (&h->link_error) std::atomic<t_kro_error>(0);
    kro_str_assign(&h->service_url, create_data->service_url);
    kro_str_assign(&h->client_name, create_data->client_name != NULL ? create_data->client_name : "anonymous");
    kro_str_assign(&h->client_group, create_data->client_group != NULL ? create_data->client_group : "default");
    h->event_handler = event_handler;
    h->tls_url = qel_hspace_url_is_tls(h->service_url);
    error = qel_hspace_socket_create(h->service_url, &h->socket);
    if (error != 0) {
        qel_hspace_destroy_final(hspace);
        return error;
    }
    kro_llist_create(&h->reqtable);
    KRO_CHECK(kro_mutex_create(KRO_MT_FAST, &h->mutex) == 0);
    KRO_CHECK(kro_mutex_create(KRO_MT_FAST, &h->mutex_close) == 0);
    h->state.store(HSPACE_STATE_INIT);
    return 0;
}

extern "C" KRO_API t_kro_error qel_hspace_get_state(t_qel_hspace hspace, t_qel_hspace_state *state)
{
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (hspace == NULL || state == NULL) return KRO_ERR_INVALID_ARG;
    *state = hspace->state.load();
    return 0;
}

extern "C" KRO_API t_kro_error qel_hspace_set_tls(t_qel_hspace hspace, const qel_hspace_tls_options *options)
{
    t_kro_tls_config_struct config = {NULL, NULL, NULL};
    t_kro_tls tls = NULL;
    t_kro_error error;
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (hspace == NULL || !hspace->tls_url) return KRO_ERR_INVALID_ARG;
    if (options != NULL && options->version != QEL_HSPACE_TLS_OPTIONS_VERSION) return KRO_ERR_VERSION;
    if (hspace->state.load() != HSPACE_STATE_INIT) return KRO_ERR_INVALID_STATE;
    if (options != NULL) {
        config.ca_file = options->ca_file;
        config.cert_file = options->cert_file;
        config.key_file = options->key_file;
    }
    error = kro_tls_create(&config, &tls, hspace->detail, sizeof hspace->detail);
    if (error != 0) return error;
    if (hspace->tls != NULL) KRO_CHECK(kro_tls_destroy(&hspace->tls) == 0);
    hspace->tls = tls;
    if (hspace->tls_server_name != NULL) KRO_CHECK(kro_mm_free(&hspace->tls_server_name) == 0);
    if (options != NULL && options->server_name != NULL) kro_str_assign(&hspace->tls_server_name, options->server_name);
    return 0;
}

extern "C" KRO_API t_kro_error qel_hspace_error_get_detail(t_qel_hspace hspace, const t_kro_char **text)
{
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (hspace == NULL || text == NULL) return KRO_ERR_INVALID_ARG;
    *text = hspace->detail;
    return 0;
}

/* Records why an open failed with error, before its socket goes: the
 * socket's own reason when it has one, else what the library saw. */
static void qel_hspace_open_detail(t_qel_hspace hspace, t_kro_error error, t_kro_uint4 timeout_ms)
{
    /* The bytes received: the packet reader leaves them at [pos, lim) when
     * it finds them invalid, and at [0, pos) when a read fails. */
    t_kro_buf rb = hspace->readbuf;
    bool scanned = error == KRO_ERR_INVALID_PACKET;
    const t_kro_byte *seen = rb == NULL ? NULL : (const t_kro_byte *)rb->ptr + (scanned ? rb->pos : 0);
    t_kro_uint4 n = rb == NULL ? 0 : scanned ? rb->lim - rb->pos : rb->pos;
    KRO_CHECK(kro_socket_error_detail(hspace->socket, hspace->detail, sizeof hspace->detail) == 0);
    if (hspace->detail[0] != '\0') return;
    /* A TLS record (an alert, a handshake) starts 0x15 or 0x16, then 0x03. */
    if (!hspace->tls_url && (error == KRO_ERR_PEER_CLOSED || error == KRO_ERR_INVALID_PACKET) && n >= 2 &&
        (seen[0] == 0x15 || seen[0] == 0x16) && seen[1] == 0x03)
        snprintf(hspace->detail, sizeof hspace->detail, "the service answered in TLS: use a tls:// URL");
    else if (error == KRO_ERR_TIMEOUT)
        snprintf(hspace->detail, sizeof hspace->detail, "no handshake reply within %u ms", (unsigned)timeout_ms);
    else if (error == KRO_ERR_PEER_CLOSED)
        snprintf(hspace->detail, sizeof hspace->detail, "the service closed the connection before its handshake reply");
    else if (error == KRO_ERR_INVALID_PACKET)
        snprintf(hspace->detail, sizeof hspace->detail, "the service's answer is no handshake reply");
}

/* The name is written by open before the handle becomes open and freed by
 * destroy, so the caller that saw open succeed reads it without a lock. */
extern "C" KRO_API t_kro_error qel_hspace_get_service_name(t_qel_hspace hspace, t_kro_str *name)
{
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (hspace == NULL || name == NULL) return KRO_ERR_INVALID_ARG;
    *name = hspace->service_name;
    return 0;
}

/* Sends the handshake request over the connected socket and decodes the
 * reply; the name is a new string owned by the caller. A refusal returns
 * the service's status. Opening thread, no lock, before the reader thread
 * exists. */
static t_kro_error qel_hspace_handshake(t_qel_hspace hspace, t_kro_uint2 *service_version, t_kro_uint2 *service_ltp,
                                        t_kro_str *service_name)
{
    t_kro_uint4 bytes_transferred = 0;
    t_qel_hspace_packet packet = NULL;
    t_kro_ptr rr;
    t_kro_error error;
    t_kro_buf buf = qel_hspace_pkt_serialize_handshake_request("data", hspace->client_name, hspace->client_group);
    kro_buf_flip(buf);
    error = kro_socket_write_single(hspace->socket, buf, &bytes_transferred);
    kro_buf_release(&buf);
    if (error != 0) return error;
    error = qel_hspace_read_packet(hspace, &packet);
    if (error != 0) return error;
    rr = packet->subheaders[HSPACE_BODY_RR];
    /* A service that refuses the handshake answers with a failed reply
     * carrying why (HSPACE_STATUS_IDENTITY_REFUSED, ...), then closes. */
    if (qel_hspace_pkt_get_body_type_from_body(packet->body) != HSPACE_BODY_HANDSHAKE_REPLY && rr != NULL &&
        qel_hspace_pkt_is_reply(rr) && !qel_hspace_pkt_is_success_reply(rr) &&
        qel_hspace_pkt_get_reply_error_from_rr_subheader(rr) != 0)
        error = qel_hspace_pkt_get_reply_error_from_rr_subheader(rr);
    else
        error = qel_hspace_pkt_deserialize_handshake_reply(packet->body, service_version, service_ltp, service_name);
    if (packet->value != NULL) kro_buf_release(&packet->value); /* an object is no handshake reply */
    KRO_CHECK(kro_mm_free(&packet) == 0);
    return error;
}

extern "C" KRO_API t_kro_error qel_hspace_open_timed(t_qel_hspace hspace, t_kro_uint4 timeout_ms)
{
    t_kro_error error;
    t_kro_str name = NULL;
    t_kro_uint2 version = 0, ltp = 0;
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (hspace == NULL) return KRO_ERR_INVALID_ARG;
    if (hspace->state.load() != HSPACE_STATE_INIT) return KRO_ERR_INVALID_STATE;
    hspace->detail[0] = '\0';
    if (hspace->tls_url && hspace->tls == NULL) {
        /* The defaults: the system's CA store, no client certificate. */
        t_kro_tls_config_struct defaults = {NULL, NULL, NULL};
        error = kro_tls_create(&defaults, &hspace->tls, hspace->detail, sizeof hspace->detail);
        if (error != 0) return error;
    }
    if (hspace->tls_url) KRO_CHECK(kro_socket_set_tls(hspace->socket, hspace->tls, hspace->tls_server_name) == 0);
    /* One deadline for connecting (with the TLS handshake), the handshake
     * request and its reply; lifted before the reader thread starts. */
    KRO_CHECK(kro_socket_set_deadline(hspace->socket, timeout_ms) == 0);
    error = kro_socket_connect(hspace->socket);
    if (error == 0) error = qel_hspace_handshake(hspace, &version, &ltp, &name);
    if (error == 0) KRO_CHECK(kro_socket_set_deadline(hspace->socket, 0) == 0);
    if (error != 0) {
        qel_hspace_open_detail(hspace, error, timeout_ms);
        /* A retried open starts on a fresh socket and a clean stream. */
        KRO_CHECK(kro_socket_destroy(&hspace->socket) == 0);
        KRO_CHECK(qel_hspace_socket_create(hspace->service_url, &hspace->socket) == 0);
        if (hspace->readbuf != NULL) {
            hspace->readbuf->pos = 0;
            hspace->readbuf->lim = 0;
        }
        return error;
    }
    hspace->service_version = version;
    hspace->service_ltp = ltp;
    kro_str_assign(&hspace->service_name, name);
    KRO_CHECK(kro_mm_free(&name) == 0);
    hspace->state.store(HSPACE_STATE_OPEN);
    KRO_CHECK(kro_thread_create(qel_hspace_reader_entry_point, hspace, 0, &hspace->reader) == 0);
    return 0;
}

extern "C" KRO_API t_kro_error qel_hspace_open(t_qel_hspace hspace)
{
    return qel_hspace_open_timed(hspace, QEL_HSPACE_OPEN_TIMEOUT_MS);
}

extern "C" KRO_API t_kro_error qel_hspace_close(t_qel_hspace hspace)
{
    t_qel_hspace_state state;
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (hspace == NULL) return KRO_ERR_INVALID_ARG;
    if (qel_hspace_on_reader_thread(hspace)) {
        /* The reader's loop sees the closing state once the callback has
         * returned, and completes every request with KRO_ERR_CLOSED. */
        qel_hspace_lock(hspace);
        state = hspace->state.load();
        if (state == HSPACE_STATE_OPEN)
            hspace->state.store(HSPACE_STATE_CLOSING);
        else if (state == HSPACE_STATE_FAILED)
            hspace->state.store(HSPACE_STATE_CLOSED);
        qel_hspace_unlock(hspace);
        return 0;
    }
    /* Counted before the cut: from here on a destroy from the callback is
     * refused, since this thread touches the handle until it returns. */
    hspace->closers.fetch_add(1);
    /* Cut the socket before taking the lock, so that a write blocked on a
     * peer that does not read, and the reader's read, fail at once. */
    if (hspace->state.load() == HSPACE_STATE_OPEN && !hspace->closing.exchange(1))
        KRO_CHECK(kro_socket_interrupt(hspace->socket) == 0);
    qel_hspace_lock(hspace);
    state = hspace->state.load();
    if (state == HSPACE_STATE_OPEN)
        hspace->state.store(HSPACE_STATE_CLOSING);
    else if (state == HSPACE_STATE_INIT)
        hspace->state.store(HSPACE_STATE_CLOSED);
    qel_hspace_unlock(hspace);
    /* Whatever ended the connection (this close, an earlier one or a link
     * failure), no event is raised once close has returned. */
    if (hspace->reader != NULL) kro_thread_join(hspace->reader);
    qel_hspace_lock(hspace);
    if (hspace->state.load() == HSPACE_STATE_FAILED) hspace->state.store(HSPACE_STATE_CLOSED);
    qel_hspace_unlock(hspace);
    hspace->closers.fetch_sub(1); /* the last touch */
    return 0;
}

extern "C" KRO_API t_kro_error qel_hspace_destroy(t_qel_hspace *hspace)
{
    t_qel_hspace h;
    t_qel_hspace_state state;
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (hspace == NULL || *hspace == NULL) return KRO_ERR_INVALID_ARG;
    h = *hspace;
    state = h->state.load();
    if (qel_hspace_on_reader_thread(h)) {
        /* From the callback: deferred to the reader thread's end, unless an
         * application thread is inside close and would touch the handle
         * after that end. */
        t_kro_error error = KRO_ERR_INVALID_STATE;
        qel_hspace_lock(h);
        state = h->state.load();
        if ((state == HSPACE_STATE_CLOSING || state == HSPACE_STATE_CLOSED) && h->closers.load() == 0) {
            h->destroy = 1;
            error = 0;
        }
        qel_hspace_unlock(h);
        return error;
    }
    if (state != HSPACE_STATE_INIT && state != HSPACE_STATE_CLOSED) return KRO_ERR_INVALID_STATE;
    qel_hspace_destroy_final(hspace);
    return 0;
}

/* Releases the handle and everything it owns, and clears *hspace. Runs on
 * an application thread (no other thread inside the handle) or as the
 * reader thread's last act. */
static void qel_hspace_destroy_final(t_qel_hspace *hspace)
{
    t_qel_hspace h = *hspace;
    if (h->reader != NULL) {
        kro_thread_join(h->reader);
        KRO_CHECK(kro_thread_destroy(&h->reader) == 0);
    }
    if (h->socket != NULL) KRO_CHECK(kro_socket_destroy(&h->socket) == 0);
    if (h->mutex != NULL) KRO_CHECK(kro_mutex_destroy(&h->mutex) == 0);
    if (h->mutex_close != NULL) KRO_CHECK(kro_mutex_destroy(&h->mutex_close) == 0);
    if (h->reqtable != NULL) kro_llist_destroy(&h->reqtable);
    if (h->readbuf != NULL) kro_buf_release(&h->readbuf);
    if (h->service_url != NULL) KRO_CHECK(kro_mm_free(&h->service_url) == 0);
    if (h->service_name != NULL) KRO_CHECK(kro_mm_free(&h->service_name) == 0);
    if (h->client_name != NULL) KRO_CHECK(kro_mm_free(&h->client_name) == 0);
    if (h->client_group != NULL) KRO_CHECK(kro_mm_free(&h->client_group) == 0);
    if (h->tls != NULL) KRO_CHECK(kro_tls_destroy(&h->tls) == 0);
    if (h->tls_server_name != NULL) KRO_CHECK(kro_mm_free(&h->tls_server_name) == 0);
    h->state.~atomic();
    h->closing.~atomic();
    h->closers.~atomic();
    h->send_state.~atomic();
    h->link_error.~atomic();
    KRO_CHECK(kro_mm_free(hspace) == 0);
}

/* ======================================================================
 * Objects. No lock: an object belongs to one thread at a time.
 * ====================================================================== */

extern "C" KRO_API t_kro_error qel_hspace_object_create(t_kro_str key, t_kro_ptr data, t_qel_hspace_object *object)
{
    t_qel_hspace_object o;
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (key == NULL || object == NULL) return KRO_ERR_INVALID_ARG;
    KRO_ALLOC_RECORD(sizeof(struct qel_hspace_object_struct), object, 0);
    o = *object;
    kro_llist_node_init(o);
    o->user_created = 1;
    o->key = key;
    o->data.buf = (t_kro_buf)data;
    return 0;
}

extern "C" KRO_API t_kro_error qel_hspace_object_get_key(t_qel_hspace_object object, t_kro_str *key)
{
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (object == NULL || key == NULL) return KRO_ERR_INVALID_ARG;
    *key = object->key;
    return 0;
}

extern "C" KRO_API t_kro_error qel_hspace_object_get_data(t_qel_hspace_object object, t_kro_ptr *data)
{
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (object == NULL || data == NULL) return KRO_ERR_INVALID_ARG;
    *data = object->data.buf;
    return 0;
}

extern "C" KRO_API t_kro_error qel_hspace_object_destroy(t_qel_hspace_object *object)
{
    t_qel_hspace_object o;
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (object == NULL || *object == NULL) return KRO_ERR_INVALID_ARG;
    o = *object;
    if (!o->user_created) {
        /* A library-made object's key lives in the record's own block. */
        if (o->data.buf != NULL) kro_buf_release(&o->data.buf);
    }
    KRO_CHECK(kro_mm_free(object) == 0);
    return 0;
}

/* ======================================================================
 * Data operations. Checks run without the lock in a fixed order: 7, then
 * 12, then 14, then 13, then 23. The mutex is then taken to make the
 * request and join the send queue, and released for the write and for the
 * wait for the answer. Writes go out one at a time in the order their
 * records were made, so the wire carries requests in request-table order.
 * Each call waits on its own wake-up (struct qel_hspace_call): a
 * completion wakes its own caller, a finished write the next writer only.
 * ====================================================================== */

/* Internal result of qel_hspace_send: the call's request was completed or
 * ended before its turn came; nothing was sent. Never returned to the
 * application. */
#define QEL_HSPACE_ENDED 0xFFFFFFFFu

/* A key the wire can carry: at most 65535 bytes. */
static bool qel_hspace_key_ok(t_kro_str key)
{
    return strnlen(key, HSPACE_KEY_MAX_LEN + 1) <= HSPACE_KEY_MAX_LEN;
}

/* The state and reader-thread checks that close every operation's
 * unlocked checks. */
static t_kro_error qel_hspace_check_open(t_qel_hspace hspace)
{
    if (hspace->state.load() != HSPACE_STATE_OPEN) return KRO_ERR_INVALID_STATE;
    if (qel_hspace_on_reader_thread(hspace)) return KRO_ERR_WOULD_DEADLOCK;
    return 0;
}

/* Takes the mutex and tests the state again: true with the mutex held,
 * false (the caller returns KRO_ERR_INVALID_STATE) with it released. */
static bool qel_hspace_lock_open(t_qel_hspace hspace) KRO_TRY_ACQUIRE(true, hspace->mutex)
{
    qel_hspace_lock(hspace);
    if (hspace->state.load() == HSPACE_STATE_OPEN) return true;
    qel_hspace_unlock(hspace);
    return false;
}

/* A call starting now with a deadline timeout_ms from now (0: none).
 * quiet: a synchronous call, which waits for its answer once written. */
static void qel_hspace_call_init(struct qel_hspace_call *call, t_kro_uint4 timeout_ms, bool quiet)
{
    call->wake.word.store(0, std::memory_order_relaxed);
    call->send_next = NULL;
    call->deadline = kro_deadline_after_ms(timeout_ms);
    call->chunks = NULL;
    call->count = 0;
    call->sent = 0;
    call->queued = 0;
    call->taken = 0;
    call->quiet = quiet ? 1 : 0;
}

/* A write the deadline cut part-way: the stream is unusable. Fails the
 * handle as a broken link does: the cause stored, state FAILED, the socket
 * cut, so that the reader thread leaves its read, completes every
 * outstanding request with error and raises HSPACE_EVENT_LINK_FAIL. Nothing
 * when a close or another ending came first. Mutex not held. */
static void qel_hspace_fail_link(t_qel_hspace hspace, t_kro_error error)
{
    bool failed = false;
    qel_hspace_lock(hspace);
    if (hspace->state.load() == HSPACE_STATE_OPEN && !hspace->closing.load()) {
        hspace->link_error.store(error);
        hspace->state.store(HSPACE_STATE_FAILED);
        failed = true;
    }
    qel_hspace_unlock(hspace);
    if (failed) KRO_CHECK(kro_socket_interrupt(hspace->socket) == 0);
}

/* Why a write cannot be made on a handle that is no longer open. */
static t_kro_error qel_hspace_ended_error(t_qel_hspace hspace)
{
    t_kro_error link = hspace->link_error.load();
    if (hspace->closing.load() || hspace->state.load() != HSPACE_STATE_FAILED || link == 0) return KRO_ERR_CLOSED;
    return link;
}

/* Takes the send turn when it is free, else queues call behind the calls
 * waiting for it. True when the turn is the caller's now. Mutex held, so
 * the queue's order is the request table's. */
static bool qel_hspace_send_enter(t_qel_hspace hspace, struct qel_hspace_call *call) KRO_REQUIRES(hspace->mutex)
{
    uint32_t state = hspace->send_state.load(std::memory_order_relaxed);
    for (;;) {
        if (state == 0) {
            if (hspace->send_state.compare_exchange_weak(state, 1, std::memory_order_acquire)) return true;
        } else if (state == 1) {
            if (hspace->send_state.compare_exchange_weak(state, 2, std::memory_order_relaxed)) break;
        } else {
            break; /* 2 changes only under the mutex */
        }
    }
    call->send_next = NULL;
    call->queued = 1;
    if (hspace->send_tail != NULL)
        hspace->send_tail->send_next = call;
    else
        hspace->send_head = call;
    hspace->send_tail = call;
    return false;
}

/* Takes the oldest waiting call out of the send queue, or null. Mutex
 * held, the turn held. */
static struct qel_hspace_call *qel_hspace_send_pop(t_qel_hspace hspace) KRO_REQUIRES(hspace->mutex)
{
    struct qel_hspace_call *next = hspace->send_head;
    if (next == NULL) return NULL;
    hspace->send_head = next->send_next;
    if (hspace->send_head == NULL) {
        hspace->send_tail = NULL;
        hspace->send_state.store(1, std::memory_order_relaxed); /* the holder's alone */
    }
    next->queued = 0;
    return next;
}

/* Hands the turn the caller holds to the oldest waiting call, or frees it.
 * Mutex held. */
static void qel_hspace_send_pass(t_qel_hspace hspace) KRO_REQUIRES(hspace->mutex)
{
    struct qel_hspace_call *next = qel_hspace_send_pop(hspace);
    if (next == NULL)
        hspace->send_state.store(0, std::memory_order_release);
    else
        qel_hspace_call_wake(hspace, next, QEL_HSPACE_CALL_GRANTED);
}

/* Takes a call that was neither granted the turn nor taken into a batch
 * out of the send queue. Mutex held. */
static void qel_hspace_send_withdraw(t_qel_hspace hspace, struct qel_hspace_call *call) KRO_REQUIRES(hspace->mutex)
{
    struct qel_hspace_call **slot = &hspace->send_head;
    struct qel_hspace_call *prev = NULL;
    while (*slot != call) {
        KRO_CHECK(*slot != NULL);
        prev = *slot;
        slot = &prev->send_next;
    }
    *slot = call->send_next;
    if (hspace->send_tail == call) hspace->send_tail = prev;
    if (hspace->send_head == NULL) hspace->send_state.store(1, std::memory_order_relaxed);
    call->queued = 0;
}

#define QEL_HSPACE_BATCH_CALLS (KRO_SOCKET_GATHER_MAX / 2) /* packets (two chunks each) in one gathered write */
#define QEL_HSPACE_SEND_ROUNDS 8 /* batches a turn's holder writes for others before it hands the turn on */

/* Calls whose packets go out together in one gathered write, in send
 * order. */
struct qel_hspace_batch {
    struct qel_hspace_call *calls[QEL_HSPACE_BATCH_CALLS];
    t_kro_uint4 n;
};

/* Moves waiting calls from the send queue into batch, oldest first, while
 * it has room. A call whose request was ended meanwhile is dropped from
 * the queue unwritten: its caller, woken by that ending, finds itself
 * neither queued nor taken. Mutex held, the turn held. */
static void qel_hspace_send_take(t_qel_hspace hspace, struct qel_hspace_batch *batch) KRO_REQUIRES(hspace->mutex)
{
    while (batch->n < QEL_HSPACE_BATCH_CALLS && hspace->send_head != NULL) {
        struct qel_hspace_call *call = qel_hspace_send_pop(hspace);
        if ((call->wake.word.load(std::memory_order_relaxed) & QEL_HSPACE_CALL_COMPLETE) != 0) continue;
        call->taken = 1;
        batch->calls[batch->n++] = call;
    }
}

/* Writes the packets of batch in one gathered write bounded by the
 * earliest of their deadlines, and stores each call's outcome in its sent,
 * except for the calls the write did not reach for a deadline not theirs
 * (nothing sent, their own deadline not passed), which go to again, in
 * order, to be written in the next round. The turn held, mutex not held. */
static void qel_hspace_send_round(t_qel_hspace hspace, const struct qel_hspace_batch *batch,
                                  struct qel_hspace_batch *again)
{
    t_kro_socket_chunk chunks[KRO_SOCKET_GATHER_MAX];
    t_kro_uint4 count = 0, sent = 0, i, j;
    uint64_t deadline = 0, now = 0;
    t_kro_error error;
    for (i = 0; i < batch->n; i++) {
        const struct qel_hspace_call *call = batch->calls[i];
        for (j = 0; j < call->count; j++) chunks[count++] = call->chunks[j];
        if (call->deadline != 0 && (deadline == 0 || call->deadline < deadline)) deadline = call->deadline;
    }
    if (hspace->state.load() != HSPACE_STATE_OPEN)
        error = qel_hspace_ended_error(hspace);
    else
        error = kro_socket_write_gather(hspace->socket, chunks, count, deadline, &sent);
    if (error == KRO_ERR_TIMEOUT && sent > 0)
        qel_hspace_fail_link(hspace, KRO_ERR_TIMEOUT);
    else if (error == KRO_ERR_TIMEOUT)
        now = kro_clock_now_ns();
    else if (error != 0 && (hspace->closing.load() || hspace->state.load() != HSPACE_STATE_OPEN))
        error = qel_hspace_ended_error(hspace);
    again->n = 0;
    for (i = 0; i < batch->n; i++) {
        struct qel_hspace_call *call = batch->calls[i];
        if (now != 0 && (call->deadline == 0 || call->deadline > now))
            again->calls[again->n++] = call;
        else
            call->sent = error;
    }
}

/* The turn's holder writes its own packet (unless self is null) together
 * with the packets of the calls waiting behind it, one gathered write per
 * round; a synchronous call written so is not woken (it waits on for its
 * answer), the others are. After at most QEL_HSPACE_SEND_ROUNDS rounds for
 * others it hands the turn to the oldest waiting call. Without others it
 * costs no lock after the write. Entered with the mutex held; returns with
 * it released, and self's outcome (0 when self is null). */
static t_kro_error qel_hspace_send_hold(t_qel_hspace hspace, struct qel_hspace_call *self) KRO_RELEASE(hspace->mutex)
{
    struct qel_hspace_batch batch, again;
    struct qel_hspace_call *const owner = self;
    t_kro_uint4 rounds = 0, i;
    batch.n = 0;
    if (self != NULL) batch.calls[batch.n++] = self;
    if (hspace->send_head != NULL) qel_hspace_send_take(hspace, &batch);
    for (;;) {
        bool alone = batch.n == (self != NULL ? 1u : 0u) && (self == NULL || batch.calls[0] == self);
        qel_hspace_unlock(hspace);
        if (batch.n > 0) qel_hspace_send_round(hspace, &batch, &again);
        else again.n = 0;
        if (alone && again.n == 0) {
            uint32_t busy = 1;
            if (hspace->send_state.compare_exchange_strong(busy, 0, std::memory_order_release))
                return owner != NULL ? owner->sent : 0;
        }
        qel_hspace_lock(hspace);
        for (i = 0; i < batch.n; i++) {
            struct qel_hspace_call *call = batch.calls[i];
            bool retried = false;
            for (t_kro_uint4 k = 0; k < again.n; k++) retried = retried || again.calls[k] == call;
            if (call == owner || retried) continue;
            /* Decided before the bit is set: from then on the call may
             * return, and its frame is gone. */
            bool notify = !call->quiet || call->sent != 0;
            call->taken = 0;
            if (kro_wake_set(&call->wake, QEL_HSPACE_CALL_WRITTEN) && notify) qel_hspace_call_notify(hspace, &call->wake);
        }
        batch = again;
        self = NULL; /* written (or in again): the next rounds are for the others */
        if (batch.n == 0 && ++rounds >= QEL_HSPACE_SEND_ROUNDS) break;
        if (hspace->send_head != NULL) qel_hspace_send_take(hspace, &batch);
        if (batch.n == 0) break;
    }
    qel_hspace_send_pass(hspace);
    qel_hspace_unlock_and_wake(hspace);
    return owner != NULL ? owner->sent : 0;
}

/* Writes one packet, given as count chunks, when the call's turn comes:
 * by the caller itself when the turn is free or passed to it, else by the
 * turn's holder in a batch with others. Entered with the mutex held, right
 * after the call's request (if any) was made; returns with it released.
 * Neither the wait for the turn nor the write holds the mutex, so a peer
 * that stops reading holds up neither the reader thread nor close. Returns
 * 0 once every byte is sent; KRO_ERR_TIMEOUT when the deadline passed
 * (before the first byte: nothing was sent; after it: the handle has
 * failed); QEL_HSPACE_ENDED when the request was ended while the call
 * waited for its turn; KRO_ERR_CLOSED for a handle closed meanwhile or a
 * write a close cut short; the link's error on a failed handle; else the
 * socket's error. The caller keeps the bytes, and its record
 * (caller_waiting is set), alive until this returns. */
static t_kro_error qel_hspace_send(t_qel_hspace hspace, struct qel_hspace_call *call,
                                   const t_kro_socket_chunk *chunks, t_kro_uint4 count) KRO_RELEASE(hspace->mutex)
{
    t_kro_error error;
    uint32_t bits;
    call->chunks = chunks;
    call->count = count;
    if (qel_hspace_send_enter(hspace, call)) {
        error = qel_hspace_send_hold(hspace, call);
        return error;
    }
    qel_hspace_unlock(hspace);
    bits = kro_wake_wait(&call->wake,
                         QEL_HSPACE_CALL_GRANTED | QEL_HSPACE_CALL_COMPLETE | (call->quiet ? 0 : QEL_HSPACE_CALL_WRITTEN),
                         call->deadline);
    if ((bits & QEL_HSPACE_CALL_WRITTEN) != 0) return call->sent; /* set before the bit */
    qel_hspace_lock(hspace);
    /* Under the mutex every bit set so far is visible. */
    bits = call->wake.word.load(std::memory_order_relaxed);
    if ((bits & QEL_HSPACE_CALL_WRITTEN) != 0) {
        qel_hspace_unlock(hspace);
        return call->sent;
    }
    if ((bits & QEL_HSPACE_CALL_GRANTED) != 0) {
        if ((bits & QEL_HSPACE_CALL_COMPLETE) == 0) return qel_hspace_send_hold(hspace, call);
        qel_hspace_send_hold(hspace, NULL);
        return QEL_HSPACE_ENDED;
    }
    if (call->taken) {
        /* In a batch under way, whose write the earliest deadline (ours is
         * past) bounds: its outcome is ours. */
        call->quiet = 0;
        qel_hspace_unlock(hspace);
        kro_wake_wait(&call->wake, QEL_HSPACE_CALL_WRITTEN, 0);
        return call->sent;
    }
    if (call->queued) qel_hspace_send_withdraw(hspace, call);
    qel_hspace_unlock(hspace);
    return (bits & QEL_HSPACE_CALL_COMPLETE) != 0 ? QEL_HSPACE_ENDED : KRO_ERR_TIMEOUT;
}

#define QEL_HSPACE_PREFIX_SPACE 256 /* bytes of a request's packet before its payload kept in the caller's frame */

/* The packet of one request as the chunks of one gathered write: its
 * prefix in the caller's frame (on the heap for a key too long for it),
 * then its payload straight from the application's buffer, uncopied. */
struct qel_hspace_outbound {
    t_kro_socket_chunk chunks[2];
    t_kro_uint4 count;
    t_kro_byte *heap; /* the prefix when it did not fit space, else null */
    t_kro_byte space[QEL_HSPACE_PREFIX_SPACE];
};

static void qel_hspace_outbound_encode(t_qel_hspace hspace, struct qel_hspace_outbound *out,
                                       const struct qel_hspace_pkt_form *form, t_kro_uint4 sno)
{
    t_kro_uint4 len = qel_hspace_pkt_prefix_len(form);
    t_kro_byte *prefix = out->space;
    out->heap = NULL;
    if (len > sizeof out->space) {
        KRO_ALLOC_RECORD(len, &out->heap, 0);
        prefix = out->heap;
    }
    qel_hspace_pkt_encode_prefix(prefix, hspace->service_ltp, form, sno);
    out->chunks[0].ptr = prefix;
    out->chunks[0].len = len;
    out->chunks[1].ptr = form->payload;
    out->chunks[1].len = form->payload_len;
    out->count = form->payload_len > 0 ? 2 : 1;
}

static void qel_hspace_outbound_release(struct qel_hspace_outbound *out)
{
    if (out->heap != NULL) KRO_CHECK(kro_mm_free(&out->heap) == 0);
}

/* Encodes the request's packet and sends it (qel_hspace_send). Entered
 * with the mutex held, returns with it released. */
static t_kro_error qel_hspace_send_form(t_qel_hspace hspace, struct qel_hspace_call *call,
                                        const struct qel_hspace_pkt_form *form, t_kro_uint4 sno)
    KRO_RELEASE(hspace->mutex)
{
    struct qel_hspace_outbound out;
    t_kro_error error;
    qel_hspace_outbound_encode(hspace, &out, form, sno);
    error = qel_hspace_send(hspace, call, out.chunks, out.count);
    qel_hspace_outbound_release(&out);
    return error;
}

/* Takes back the caller's synchronous record when its call ends without
 * having seen the completion (a send that failed or was withdrawn, or the
 * deadline): the completion status when the record was completed
 * meanwhile, else error, and the caller frees the record (which takes it
 * out of the table, so that a late answer reaches no one). A cancel whose
 * packet went out ends the local subscription as its answer would have.
 * Mutex held. */
static t_kro_error qel_hspace_request_settle(t_qel_hspace hspace, t_qel_hspace_request request, t_kro_error error,
                                             bool written) KRO_REQUIRES(hspace->mutex)
{
    request->call = NULL;
    request->caller_waiting = 0;
    if (request->sync_ctx->complete) return request->sync_ctx->error;
    KRO_CHECK(error != QEL_HSPACE_ENDED);
    if (written && request->opcode == HSPACE_OPCODE_CANCEL) {
        t_qel_hspace_request post = qel_hspace_request_get_post_before(hspace, request->key, request);
        if (post != NULL && post->sync_ctx->complete)
            qel_hspace_request_end(hspace, post);
        else if (post != NULL)
            post->cancelled = 1;
    }
    return error;
}

/* Waits for the status of the caller's synchronous record (not a post)
 * whose send returned error, and frees the record. Mutex not held. */
static t_kro_error qel_hspace_await(t_qel_hspace hspace, struct qel_hspace_call *call, t_qel_hspace_request request,
                                    t_kro_error error)
{
    bool written = error == 0;
    if (error == 0) {
        if ((kro_wake_wait(&call->wake, QEL_HSPACE_CALL_COMPLETE, call->deadline) & QEL_HSPACE_CALL_COMPLETE) != 0) {
            /* Completed and unlinked by the reader thread, which touches
             * it no more: the record is the caller's alone. */
            error = request->sync_ctx->error;
            qel_hspace_request_destroy(&request);
            return error;
        }
        error = KRO_ERR_TIMEOUT;
    }
    qel_hspace_lock(hspace);
    error = qel_hspace_request_settle(hspace, request, error, written);
    qel_hspace_request_abandon(request);
    qel_hspace_unlock_and_wake(hspace);
    return error;
}

/* Sends a put, cancel or remove and, with a synchronous record (the
 * caller's, in its frame), waits for its status. Entered with the mutex
 * held, right after the record was made; returns with it released. */
static t_kro_error qel_hspace_send_for_status(t_qel_hspace hspace, struct qel_hspace_call *call,
                                              t_qel_hspace_request request, const struct qel_hspace_pkt_form *form)
    KRO_RELEASE(hspace->mutex)
{
    if (request == NULL) return qel_hspace_send_form(hspace, call, form, 0);
    request->call = call;
    return qel_hspace_await(hspace, call, request, qel_hspace_send_form(hspace, call, form, request->corrid));
}

static t_kro_error qel_hspace_put_call(t_qel_hspace hspace, t_qel_hspace_object object,
                                       t_qel_hspace_put_semantic semantic, t_kro_int4 flags, t_kro_uint4 timeout_ms)
{
    t_kro_error error;
    struct qel_hspace_request record;
    struct qel_hspace_call call;
    struct qel_hspace_pkt_form form;
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (hspace == NULL || object == NULL || object->key == NULL) return KRO_ERR_INVALID_ARG;
    if (semantic != HSPACE_PUT_SYNC && semantic != HSPACE_PUT_PIPELINED && semantic != HSPACE_PUT_NOREPLY)
        return KRO_ERR_INVALID_ARG;
    if (!qel_hspace_key_ok(object->key)) return KRO_ERR_INVALID_ARG;
    if (object->data.buf != NULL &&
        (object->data.buf->pos > object->data.buf->lim ||
         object->data.buf->lim - object->data.buf->pos >
             HSPACE_PKT_MAX_LEN - (86 + (t_kro_uint4)strlen(object->key))))
        return KRO_ERR_INVALID_ARG;
    if (semantic == HSPACE_PUT_PIPELINED) return KRO_ERR_NOT_SUPPORTED;
    if ((error = qel_hspace_check_open(hspace)) != 0) return error;

    (void)flags; /* a put carries no flags */
    form = qel_hspace_pkt_put_form(object, semantic);
    qel_hspace_call_init(&call, timeout_ms, semantic == HSPACE_PUT_SYNC);
    if (!qel_hspace_lock_open(hspace)) return KRO_ERR_INVALID_STATE;
    if (semantic == HSPACE_PUT_NOREPLY) return qel_hspace_send_for_status(hspace, &call, NULL, &form);
    qel_hspace_request_init(hspace, &record, 1, HSPACE_OPCODE_PUT, object->key, NULL, NULL, 0, 0, NULL);
    return qel_hspace_send_for_status(hspace, &call, &record, &form);
}

static t_kro_error qel_hspace_get_call(t_qel_hspace hspace, t_kro_str key, t_kro_ptr urid,
                                       t_qel_hspace_get_semantic semantic, t_kro_int4 timeout, t_kro_int4 flags,
                                       t_kro_llist objects, t_kro_uint4 timeout_ms)
{
    t_kro_error error;
    struct qel_hspace_request record;
    t_qel_hspace_request request;
    struct qel_hspace_call call;
    struct qel_hspace_pkt_form form;
    bool sync = semantic == HSPACE_GET_SYNC;
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (hspace == NULL || key == NULL) return KRO_ERR_INVALID_ARG;
    if (semantic != HSPACE_GET_SYNC && semantic != HSPACE_GET_ASYNC) return KRO_ERR_INVALID_ARG;
    if (sync && (objects == NULL || objects->read_only)) return KRO_ERR_INVALID_ARG;
    if (!qel_hspace_key_ok(key)) return KRO_ERR_INVALID_ARG;
    if (timeout != 0) return KRO_ERR_NOT_SUPPORTED;
    if ((error = qel_hspace_check_open(hspace)) != 0) return error;

    form = qel_hspace_pkt_get_form(key, semantic, timeout, flags);
    qel_hspace_call_init(&call, timeout_ms, sync);
    if (!qel_hspace_lock_open(hspace)) return KRO_ERR_INVALID_STATE;
    if (sync) {
        qel_hspace_request_init(hspace, &record, 1, HSPACE_OPCODE_GET, key, urid, NULL, 0, 0, objects);
        record.call = &call;
        error = qel_hspace_await(hspace, &call, &record, qel_hspace_send_form(hspace, &call, &form, record.corrid));
        return error == KRO_ERR_NO_MATCH ? 0 : error;
    }
    /* Asynchronous: the record outlives the call; the caller holds it only
     * until its write is done. */
    request = qel_hspace_request_create(hspace, HSPACE_OPCODE_GET, key, urid, NULL, 1, 1, NULL);
    error = qel_hspace_send_form(hspace, &call, &form, request->corrid);
    if (error == 0) {
        if (request->owners.fetch_sub(1, std::memory_order_acq_rel) == 1) qel_hspace_request_destroy(&request);
        return 0;
    }
    KRO_CHECK(error != QEL_HSPACE_ENDED);
    qel_hspace_lock(hspace);
    /* A get that the reader thread has already ended, or is raising its
     * event about, returns 0 whatever its write did: its outcome is that
     * event. Any other failed get is taken back from the table. */
    if (request->orphaned || request->in_event) {
        error = 0;
    } else {
        qel_hspace_request_unlink(request);
        request->owners.fetch_sub(1, std::memory_order_relaxed);
    }
    if (request->owners.fetch_sub(1, std::memory_order_acq_rel) == 1) qel_hspace_request_destroy(&request);
    qel_hspace_unlock(hspace);
    return error;
}

static t_kro_error qel_hspace_post_call(t_qel_hspace hspace, t_kro_str key, t_kro_ptr urid,
                                        t_qel_hspace_post_semantic semantic, t_kro_byte triggers, t_kro_int4 flags,
                                        t_kro_uint4 timeout_ms)
{
    t_kro_error error;
    t_qel_hspace_request request;
    struct qel_hspace_call call;
    struct qel_hspace_pkt_form form;
    bool written;
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (hspace == NULL || key == NULL || semantic != HSPACE_POST_SYNC) return KRO_ERR_INVALID_ARG;
    if (!qel_hspace_key_ok(key)) return KRO_ERR_INVALID_ARG;
    if ((error = qel_hspace_check_open(hspace)) != 0) return error;

    form = qel_hspace_pkt_post_form(key, triggers, flags);
    qel_hspace_call_init(&call, timeout_ms, true);
    qel_hspace_lock(hspace);
    if (qel_hspace_request_get_post(hspace, key) != NULL) {
        qel_hspace_unlock(hspace);
        return KRO_ERR_EXISTS;
    }
    if (hspace->state.load() != HSPACE_STATE_OPEN) {
        qel_hspace_unlock(hspace);
        return KRO_ERR_INVALID_STATE;
    }
    request = qel_hspace_request_create(hspace, HSPACE_OPCODE_POST, key, urid, NULL, 1, 0, NULL);
    request->initial_image_complete = (flags & HSPACE_POST_FLAG_NO_IMAGE) ? 1 : 0;
    request->start_event = (flags & HSPACE_POST_FLAG_NO_IMAGE) && (flags & HSPACE_POST_FLAG_START_EVENT) ? 1 : 0;
    request->call = &call;
    error = qel_hspace_send_form(hspace, &call, &form, request->corrid);
    written = error == 0;
    if (error == 0 &&
        (kro_wake_wait(&call.wake, QEL_HSPACE_CALL_COMPLETE, call.deadline) & QEL_HSPACE_CALL_COMPLETE) == 0)
        error = KRO_ERR_TIMEOUT;
    qel_hspace_lock(hspace);
    /* The status is read: from now on the reader thread may free the
     * subscription itself. A record it ended meanwhile (orphaned), or one
     * a cancel overtook (no longer linked), is ours to free. */
    error = qel_hspace_request_settle(hspace, request, error, written);
    KRO_CHECK(request->sync_ctx->replies->num_elements == 0);
    if (error != 0 || request->orphaned || request->head == NULL) qel_hspace_request_abandon(request);
    qel_hspace_unlock_and_wake(hspace);
    return error;
}

static t_kro_error qel_hspace_cancel_call(t_qel_hspace hspace, t_kro_str key, t_qel_hspace_cancel_semantic semantic,
                                          t_kro_int4 flags, t_kro_uint4 timeout_ms)
{
    t_kro_error error;
    struct qel_hspace_request record;
    struct qel_hspace_call call;
    struct qel_hspace_pkt_form form;
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (hspace == NULL || key == NULL || semantic != HSPACE_CANCEL_SYNC) return KRO_ERR_INVALID_ARG;
    if (!qel_hspace_key_ok(key)) return KRO_ERR_INVALID_ARG;
    if ((error = qel_hspace_check_open(hspace)) != 0) return error;

    (void)flags; /* a cancel carries no flags */
    form = qel_hspace_pkt_form_of(HSPACE_OPCODE_CANCEL, true, key, HSPACE_BODY_REQUEST);
    qel_hspace_call_init(&call, timeout_ms, true);
    if (!qel_hspace_lock_open(hspace)) return KRO_ERR_INVALID_STATE;
    qel_hspace_request_init(hspace, &record, 1, HSPACE_OPCODE_CANCEL, key, NULL, NULL, 0, 0, NULL);
    return qel_hspace_send_for_status(hspace, &call, &record, &form);
}

static t_kro_error qel_hspace_remove_call(t_qel_hspace hspace, t_kro_str key, t_qel_hspace_remove_semantic semantic,
                                          t_kro_int4 flags, t_kro_uint4 timeout_ms)
{
    t_kro_error error;
    struct qel_hspace_request record;
    struct qel_hspace_call call;
    struct qel_hspace_pkt_form form;
    if (!qel_hspace_is_initialized()) return KRO_ERR_NOT_INITIALIZED;
    if (hspace == NULL || key == NULL) return KRO_ERR_INVALID_ARG;
    if (semantic != HSPACE_REMOVE_SYNC && semantic != HSPACE_REMOVE_NOREPLY) return KRO_ERR_INVALID_ARG;
    if (!qel_hspace_key_ok(key)) return KRO_ERR_INVALID_ARG;
    if ((error = qel_hspace_check_open(hspace)) != 0) return error;

    (void)flags; /* a remove carries no flags */
    form = qel_hspace_pkt_form_of(HSPACE_OPCODE_REMOVE, semantic == HSPACE_REMOVE_SYNC, key, HSPACE_BODY_REQUEST);
    qel_hspace_call_init(&call, timeout_ms, semantic == HSPACE_REMOVE_SYNC);
    if (!qel_hspace_lock_open(hspace)) return KRO_ERR_INVALID_STATE;
    if (semantic == HSPACE_REMOVE_NOREPLY) return qel_hspace_send_for_status(hspace, &call, NULL, &form);
    qel_hspace_request_init(hspace, &record, 1, HSPACE_OPCODE_REMOVE, key, NULL, NULL, 0, 0, NULL);
    return qel_hspace_send_for_status(hspace, &call, &record, &form);
}

extern "C" KRO_API t_kro_error qel_hspace_put(t_qel_hspace hspace, t_qel_hspace_object object,
                                              t_qel_hspace_put_semantic semantic, t_kro_int4 flags)
{
    return qel_hspace_put_call(hspace, object, semantic, flags, 0);
}

extern "C" KRO_API t_kro_error qel_hspace_put_timed(t_qel_hspace hspace, t_qel_hspace_object object,
                                                    t_qel_hspace_put_semantic semantic, t_kro_int4 flags,
                                                    t_kro_uint4 timeout_ms)
{
    return qel_hspace_put_call(hspace, object, semantic, flags, timeout_ms);
}

extern "C" KRO_API t_kro_error qel_hspace_get(t_qel_hspace hspace, t_kro_str key, t_kro_ptr urid,
                                              t_qel_hspace_get_semantic semantic, t_kro_int4 timeout,
                                              t_kro_int4 flags, t_kro_llist objects)
{
    return qel_hspace_get_call(hspace, key, urid, semantic, timeout, flags, objects, 0);
}

extern "C" KRO_API t_kro_error qel_hspace_get_timed(t_qel_hspace hspace, t_kro_str key, t_kro_ptr urid,
                                                    t_qel_hspace_get_semantic semantic, t_kro_int4 flags,
                                                    t_kro_llist objects, t_kro_uint4 timeout_ms)
{
    return qel_hspace_get_call(hspace, key, urid, semantic, 0, flags, objects, timeout_ms);
}

extern "C" KRO_API t_kro_error qel_hspace_post(t_qel_hspace hspace, t_kro_str key, t_kro_ptr urid,
                                               t_qel_hspace_post_semantic semantic, t_kro_byte triggers,
                                               t_kro_int4 flags)
{
    return qel_hspace_post_call(hspace, key, urid, semantic, triggers, flags, 0);
}

extern "C" KRO_API t_kro_error qel_hspace_post_timed(t_qel_hspace hspace, t_kro_str key, t_kro_ptr urid,
                                                     t_qel_hspace_post_semantic semantic, t_kro_byte triggers,
                                                     t_kro_int4 flags, t_kro_uint4 timeout_ms)
{
    return qel_hspace_post_call(hspace, key, urid, semantic, triggers, flags, timeout_ms);
}

extern "C" KRO_API t_kro_error qel_hspace_cancel(t_qel_hspace hspace, t_kro_str key,
                                                 t_qel_hspace_cancel_semantic semantic, t_kro_int4 flags)
{
    return qel_hspace_cancel_call(hspace, key, semantic, flags, 0);
}

extern "C" KRO_API t_kro_error qel_hspace_cancel_timed(t_qel_hspace hspace, t_kro_str key,
                                                       t_qel_hspace_cancel_semantic semantic, t_kro_int4 flags,
                                                       t_kro_uint4 timeout_ms)
{
    return qel_hspace_cancel_call(hspace, key, semantic, flags, timeout_ms);
}

extern "C" KRO_API t_kro_error qel_hspace_remove(t_qel_hspace hspace, t_kro_str key,
                                                 t_qel_hspace_remove_semantic semantic, t_kro_int4 flags)
{
    return qel_hspace_remove_call(hspace, key, semantic, flags, 0);
}

extern "C" KRO_API t_kro_error qel_hspace_remove_timed(t_qel_hspace hspace, t_kro_str key,
                                                       t_qel_hspace_remove_semantic semantic, t_kro_int4 flags,
                                                       t_kro_uint4 timeout_ms)
{
    return qel_hspace_remove_call(hspace, key, semantic, flags, timeout_ms);
}
