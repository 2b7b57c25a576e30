/*
 * inbound_harness.cpp - arbitrary bytes through the library's packet framer
 * and inbound processing (white-box: includes qel_hspace.cpp). The stream
 * lies in a heap block of exactly its length, so AddressSanitizer catches a
 * read past the received bytes. The handle is made in memory (no socket,
 * no reader thread); this thread plays the reader.
 */
#include "qel_hspace.cpp"

#include <stdlib.h>

#include "inbound_harness.h"

namespace {

/* Reads every byte an object owns, so a short key or buffer shows. */
void fuzz_touch_object(t_qel_hspace_object object)
{
    volatile t_kro_byte sink = 0;
    t_kro_buf data = object->data.buf;
    sink = sink + (t_kro_byte)strlen(object->key);
    if (data != NULL) {
        KRO_CHECK(data->pos <= data->lim && data->lim <= data->size && data->lim > 0);
        for (t_kro_uint4 i = data->pos; i < data->lim; i++) sink = sink + ((const t_kro_byte *)data->ptr)[i];
    }
    (void)sink;
}

/* The application's callback: reads and destroys every object it is given. */
void fuzz_event_handler(t_qel_hspace hspace, t_qel_hspace_event event, t_kro_ptr event_data)
{
    (void)hspace;
    if (event == HSPACE_EVENT_GET_REPLY || event == HSPACE_EVENT_POST_IMAGE) {
        auto *data = (t_qel_hspace_reply_image_event_data_struct *)event_data;
        KRO_CHECK(strlen(data->key) > 0);
        if (data->status != 0) KRO_CHECK(data->object == NULL);
        if (data->object != NULL) {
            fuzz_touch_object(data->object);
            KRO_CHECK(qel_hspace_object_destroy(&data->object) == 0);
        }
    } else if (event == HSPACE_EVENT_POST_NOTIFICATION) {
        auto *data = (t_qel_hspace_post_notification_event_data_struct *)event_data;
        KRO_CHECK(data->object != NULL);
        fuzz_touch_object(data->object);
        KRO_CHECK(qel_hspace_object_destroy(&data->object) == 0);
    } else {
        KRO_CHECK(event == HSPACE_EVENT_LINK_FAIL);
    }
}

/* A handle as create makes it, without socket or reader thread, open. */
t_qel_hspace fuzz_handle_create(void)
{
    t_qel_hspace h = NULL;
    KRO_ALLOC_RECORD(sizeof(struct qel_hspace_struct), &h, 1);
    new (&h->state) std::atomic<t_qel_hspace_state>(HSPACE_STATE_OPEN);
    h->event_handler = fuzz_event_handler;
    kro_llist_create(&h->reqtable);
    KRO_CHECK(kro_mutex_create(KRO_MT_FAST, &h->mutex) == 0);
    KRO_CHECK(kro_mutex_create(KRO_MT_FAST, &h->mutex_close) == 0);
    KRO_CHECK(kro_cond_create(&h->cond) == 0);
    return h;
}

/* The packet record's pointers lie inside the packet, and every filed rr
 * and hspace subheader is long enough for what the accessors read. */
void fuzz_check_packet(t_qel_hspace_packet packet, const t_kro_byte *end)
{
    const t_kro_byte *header = (const t_kro_byte *)packet->header;
    const t_kro_byte *rr = (const t_kro_byte *)packet->subheaders[HSPACE_BODY_RR];
    const t_kro_byte *hs = (const t_kro_byte *)packet->subheaders[HSPACE_BODY_HSPACE];
    const t_kro_byte *body = (const t_kro_byte *)packet->body;
    KRO_CHECK(header + qel_hspace_pkt_get_wirelen(packet->header) == end);
    KRO_CHECK(body >= header + HSPACE_PKT_HEADER_LEN && body + qel_hspace_pkt_get_body_len_from_body(packet->body) == end);
    if (rr != NULL) KRO_CHECK(rr + HSPACE_PKT_RR_LEN <= body);
    if (hs != NULL) KRO_CHECK(hs + HSPACE_PKT_HSPACE_FIXED_LEN + qel_hspace_pkt_rd16(packet->subheaders[HSPACE_BODY_HSPACE], 20) <= body);
}

} // namespace

void qel_fuzz_inbound_run(const uint8_t *data, size_t size)
{
    static bool initialized = false;
    t_kro_byte selector;
    t_kro_byte *stream = NULL;
    t_kro_uint4 n;
    struct kro_buf in;
    t_qel_hspace h;
    t_kro_llist objects = NULL;
    t_qel_hspace_request owned[4] = {NULL, NULL, NULL, NULL}; /* records whose caller never resumes: ours to free */
    t_qel_hspace_request post;
    t_kro_ptr node;
    t_kro_error end = KRO_ERR_PEER_CLOSED;
    bool first = true;

    if (size == 0 || size > 0x7FFFFFFF) return;
    if (!initialized) {
        KRO_CHECK(qel_hspace_initialize(QEL_HSPACE_VERSION, 1) == 0);
        initialized = true;
    }
    selector = data[0];
    n = (t_kro_uint4)(size - 1);
    stream = (t_kro_byte *)malloc(n > 0 ? n : 1);
    KRO_CHECK(stream != NULL);
    if (n > 0) memcpy(stream, data + 1, n);
    in = {1, 0, n, n, 1, stream};

    /* Outstanding requests, corrids 1 to 5 in order: a synchronous get
     * collecting into the caller's list, an asynchronous get, an active
     * subscription, a synchronous put and optionally a cancel of the
     * subscription's key. */
    h = fuzz_handle_create();
    kro_llist_create(&objects);
    qel_hspace_lock(h);
    owned[0] = qel_hspace_request_create(h, HSPACE_OPCODE_GET, "k1", NULL, NULL, 1, 0, objects);
    /* Its caller came back from the write: the library frees it. */
    qel_hspace_request_create(h, HSPACE_OPCODE_GET, "k2", (t_kro_ptr)h, NULL, 1, 1, NULL)->caller_waiting = 0;
    post = qel_hspace_request_create(h, HSPACE_OPCODE_POST, "k3", (t_kro_ptr)h, NULL, 1, 0, NULL);
    if (selector & QEL_FUZZ_SEL_POST_WAITING) {
        owned[1] = post; /* its caller still waits: the library never frees it */
    } else {
        post->sync_ctx->complete = 1;
        post->caller_waiting = 0;
    }
    post->initial_image_complete = (selector & QEL_FUZZ_SEL_IMAGE_DONE) ? 1 : 0;
    owned[2] = qel_hspace_request_create(h, HSPACE_OPCODE_PUT, "k4", NULL, NULL, 1, 0, NULL);
    if (selector & QEL_FUZZ_SEL_CANCEL)
        owned[3] = qel_hspace_request_create(h, HSPACE_OPCODE_CANCEL, "k3", NULL, NULL, 1, 0, NULL);
    qel_hspace_unlock(h);

    /* The reader's loop, over the stream instead of a socket: stop where
     * the bytes end in a partial packet or prove the stream invalid. */
    for (;;) {
        t_qel_hspace_packet packet = NULL;
        qel_hspace_pkt_scan scan = qel_hspace_pkt_scan_bytes(stream + in.pos, in.lim - in.pos);
        if (scan == QEL_HSPACE_PKT_INVALID) end = KRO_ERR_INVALID_PACKET;
        if (scan != QEL_HSPACE_PKT_WHOLE) break;
        t_kro_byte *start = stream + in.pos;
        /* Every shorter prefix of a whole packet reads as "more bytes needed". */
        for (t_kro_uint4 k = 0; k < qel_hspace_pkt_get_wirelen(start); k++)
            KRO_CHECK(qel_hspace_pkt_scan_bytes(start, k) == QEL_HSPACE_PKT_MORE);
        qel_hspace_pkt_frame(&in, &packet);
        fuzz_check_packet(packet, stream + in.pos);
        if (first && (selector & QEL_FUZZ_SEL_HANDSHAKE)) {
            t_kro_uint2 version = 0, ltp = 0;
            t_kro_str name = NULL;
            if (qel_hspace_pkt_deserialize_handshake_reply(packet->body, &version, &ltp, &name) == 0) {
                KRO_CHECK(name != NULL);
                (void)strlen(name);
                KRO_CHECK(kro_mm_free(&name) == 0);
            } else {
                KRO_CHECK(name == NULL);
            }
        }
        first = false;
        qel_hspace_process_packet(h, packet);
        KRO_CHECK(kro_mm_free(&packet) == 0);
    }

    /* The reader thread's end after a read error: final state, every
     * outstanding request abandoned, then the link-failure event. */
    if (selector & QEL_FUZZ_SEL_LINK_END) {
        t_qel_hspace_fail_event_data_struct event_data;
        qel_hspace_lock(h);
        qel_hspace_close_final(h, end, HSPACE_STATE_FAILED);
        KRO_CHECK(kro_llist_first(h->reqtable) == NULL);
        qel_hspace_unlock(h);
        event_data.error = end;
        h->event_handler(h, HSPACE_EVENT_LINK_FAIL, &event_data);
    }

    /* Free everything: the synchronous get's objects, the records whose
     * callers never resumed, what the table still holds, the handle. */
    while ((node = kro_llist_first(objects)) != NULL) {
        t_qel_hspace_object object = (t_qel_hspace_object)node;
        fuzz_touch_object(object);
        kro_llist_remove(object);
        KRO_CHECK(qel_hspace_object_destroy(&object) == 0);
    }
    kro_llist_destroy(&objects);
    qel_hspace_lock(h);
    for (auto &request : owned)
        if (request != NULL) qel_hspace_request_destroy(&request);
    while ((node = kro_llist_first(h->reqtable)) != NULL) {
        t_qel_hspace_request request = (t_qel_hspace_request)node;
        qel_hspace_request_destroy(&request);
    }
    qel_hspace_unlock(h);
    qel_hspace_destroy_final(&h);
    free(stream);
}
