/*
 * inbound_harness.cpp - arbitrary bytes through the library's packet framer
 * and inbound processing (white-box), on a handle made in memory: no socket,
 * no reader thread; this thread plays the reader. The stream lies in a heap
 * block of exactly its length, so AddressSanitizer catches a read past the
 * received bytes; everything is freed before a run returns, so leaks show.
 * A broken property aborts. Built as the libFuzzer entry (fuzz_inbound) or
 * as a replay of every file of a corpus directory (fuzz_replay, a CTest).
 */
#include "qel_hspace.cpp"

#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

/* Byte 0 of an input selects variants; the rest is what a service sends.
 * fuzz/gen_corpus.py uses the same bits. */
enum : t_kro_byte {
    kSelHandshake = 0x01,   /* decode the first packet's body as a handshake reply */
    kSelCancel = 0x02,      /* a cancel of the post's key is outstanding (corrid 5) */
    kSelImageDone = 0x04,   /* the post's initial image is already complete */
    kSelPostWaiting = 0x08, /* the post still waits for its own reply */
    kSelLinkEnd = 0x10,     /* the stream's end fails the link: every request is abandoned */
};

/* Reads every byte an object owns, so a short key or buffer shows, then
 * destroys it. */
void touch_and_destroy(t_qel_hspace_object object)
{
    volatile t_kro_byte sink = (t_kro_byte)strlen(object->key);
    t_kro_buf data = object->data.buf;
    if (data != NULL) {
        KRO_CHECK(data->pos <= data->lim && data->lim <= data->size && data->lim > 0);
        for (t_kro_uint4 i = data->pos; i < data->lim; i++) sink = sink + ((const t_kro_byte *)data->ptr)[i];
    }
    (void)sink;
    KRO_CHECK(qel_hspace_object_destroy(&object) == 0);
}

/* The application's callback: an object comes with success only, and it is
 * the application's to read and destroy. */
void on_event(t_qel_hspace, t_qel_hspace_event event, t_kro_ptr event_data)
{
    if (event == HSPACE_EVENT_GET_REPLY || event == HSPACE_EVENT_POST_IMAGE) {
        auto *data = (t_qel_hspace_reply_image_event_data_struct *)event_data;
        KRO_CHECK(strlen(data->key) > 0 && (data->status == 0 || data->object == NULL));
        if (data->object != NULL) touch_and_destroy(data->object);
    } else if (event == HSPACE_EVENT_POST_NOTIFICATION) {
        auto *data = (t_qel_hspace_post_notification_event_data_struct *)event_data;
        KRO_CHECK(data->object != NULL);
        touch_and_destroy(data->object);
    } else {
        KRO_CHECK(event == HSPACE_EVENT_LINK_FAIL);
    }
}

/* A framed packet's pointers lie inside it, and every filed rr and hspace
 * subheader is long enough for what the accessors read. */
void check_packet(t_qel_hspace_packet packet, const t_kro_byte *end)
{
    const t_kro_byte *header = (const t_kro_byte *)packet->header;
    const t_kro_byte *rr = (const t_kro_byte *)packet->subheaders[HSPACE_BODY_RR];
    const t_kro_byte *hs = (const t_kro_byte *)packet->subheaders[HSPACE_BODY_HSPACE];
    const t_kro_byte *body = (const t_kro_byte *)packet->body;
    KRO_CHECK(header + qel_hspace_pkt_get_wirelen(packet->header) == end);
    KRO_CHECK(body >= header + HSPACE_PKT_HEADER_LEN && body + qel_hspace_pkt_get_body_len_from_body(packet->body) == end);
    KRO_CHECK(rr == NULL || rr + HSPACE_PKT_RR_LEN <= body);
    KRO_CHECK(hs == NULL || hs + HSPACE_PKT_HSPACE_FIXED_LEN + qel_hspace_pkt_rd16(packet->subheaders[HSPACE_BODY_HSPACE], 20) <= body);
}

void run(const uint8_t *data, size_t size)
{
    static bool initialized = false;
    if (size == 0 || size > 0x7FFFFFFF) return;
    if (!initialized) KRO_CHECK(qel_hspace_initialize(QEL_HSPACE_VERSION, 1) == 0);
    initialized = true;
    t_kro_byte selector = data[0];
    t_kro_uint4 n = (t_kro_uint4)(size - 1);
    t_kro_byte *stream = (t_kro_byte *)malloc(n > 0 ? n : 1);
    KRO_CHECK(stream != NULL);
    if (n > 0) memcpy(stream, data + 1, n);
    struct kro_buf in = {1, 0, n, n, 1, stream};

    /* An open handle as create makes it, with outstanding requests, corrids
     * 1 to 5: a synchronous get collecting into a list, an asynchronous get
     * whose caller came back (the library frees it), a subscription, a
     * synchronous put and optionally a cancel of the subscription's key.
     * Records whose caller never resumes are ours to free (owned). */
    t_qel_hspace h = NULL;
    KRO_ALLOC_RECORD(sizeof(struct qel_hspace_struct), &h, 1);
    new (&h->state) std::atomic<t_qel_hspace_state>(HSPACE_STATE_OPEN);
    h->event_handler = on_event;
    kro_llist_create(&h->reqtable);
    KRO_CHECK(kro_mutex_create(KRO_MT_FAST, &h->mutex) == 0 && kro_mutex_create(KRO_MT_FAST, &h->mutex_close) == 0);
    new (&h->send_state) std::atomic<uint32_t>(0);
    new (&h->link_error) std::atomic<t_kro_error>(0);
    t_kro_llist objects = NULL;
    kro_llist_create(&objects);
    t_qel_hspace_request owned[4] = {NULL, NULL, NULL, NULL};
    qel_hspace_lock(h);
    owned[0] = qel_hspace_request_create(h, HSPACE_OPCODE_GET, "k1", NULL, NULL, 1, 0, objects);
    qel_hspace_request_create(h, HSPACE_OPCODE_GET, "k2", (t_kro_ptr)h, NULL, 1, 1, NULL)->owners.store(1);
    t_qel_hspace_request post = qel_hspace_request_create(h, HSPACE_OPCODE_POST, "k3", (t_kro_ptr)h, NULL, 1, 0, NULL);
    if (selector & kSelPostWaiting) owned[1] = post;
    else post->sync_ctx->complete = 1, post->caller_waiting = 0;
    post->initial_image_complete = (selector & kSelImageDone) ? 1 : 0;
    owned[2] = qel_hspace_request_create(h, HSPACE_OPCODE_PUT, "k4", NULL, NULL, 1, 0, NULL);
    if (selector & kSelCancel) owned[3] = qel_hspace_request_create(h, HSPACE_OPCODE_CANCEL, "k3", NULL, NULL, 1, 0, NULL);
    qel_hspace_unlock(h);

    /* The reader's loop over the stream: it stops where the bytes end in a
     * partial packet or prove the stream invalid. */
    t_kro_error end = KRO_ERR_PEER_CLOSED;
    for (bool first = true;; first = false) {
        qel_hspace_pkt_scan scan = qel_hspace_pkt_scan_bytes(stream + in.pos, in.lim - in.pos);
        if (scan == QEL_HSPACE_PKT_INVALID) end = KRO_ERR_INVALID_PACKET;
        if (scan != QEL_HSPACE_PKT_WHOLE) break;
        t_kro_byte *start = stream + in.pos;
        for (t_kro_uint4 k = 0; k < qel_hspace_pkt_get_wirelen(start); k++) // every shorter prefix needs more
            KRO_CHECK(qel_hspace_pkt_scan_bytes(start, k) == QEL_HSPACE_PKT_MORE);
        t_qel_hspace_packet packet = NULL;
        qel_hspace_pkt_frame(&in, &packet);
        check_packet(packet, stream + in.pos);
        if (first && (selector & kSelHandshake)) {
            t_kro_uint2 version = 0, ltp = 0;
            t_kro_str name = NULL;
            if (qel_hspace_pkt_deserialize_handshake_reply(packet->body, &version, &ltp, &name) == 0)
                KRO_CHECK(name != NULL && strlen(name) < n && kro_mm_free(&name) == 0);
            KRO_CHECK(name == NULL);
        }
        qel_hspace_process_packet(h, packet);
        KRO_CHECK(kro_mm_free(&packet) == 0);
    }

    /* The reader thread's end after a read error: final state, every
     * outstanding request abandoned, then the link-failure event. */
    if (selector & kSelLinkEnd) {
        t_qel_hspace_fail_event_data_struct event_data;
        qel_hspace_lock(h);
        qel_hspace_close_final(h, end, HSPACE_STATE_FAILED);
        KRO_CHECK(kro_llist_first(h->reqtable) == NULL);
        qel_hspace_unlock(h);
        event_data.error = end;
        h->event_handler(h, HSPACE_EVENT_LINK_FAIL, &event_data);
    }

    t_kro_ptr node;
    while ((node = kro_llist_first(objects)) != NULL) {
        kro_llist_remove((t_qel_hspace_object)node);
        touch_and_destroy((t_qel_hspace_object)node);
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

} // namespace

#ifdef QEL_FUZZ_LIBFUZZER
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    run(data, size);
    return 0;
}
#else
/* Every file of the corpus directory (the argument) once; fails when the
 * directory cannot be read or holds no file. */
int main(int argc, char **argv)
{
    std::error_code ec;
    size_t n = 0;
    for (const auto &entry : std::filesystem::directory_iterator(argc == 2 ? argv[1] : "", ec)) {
        std::ifstream in(entry.path(), std::ios::binary);
        std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (!entry.is_regular_file() || in.bad()) return fprintf(stderr, "cannot read %s\n", entry.path().c_str()), 1;
        run((const uint8_t *)bytes.data(), bytes.size());
        n++;
    }
    if (ec || n == 0) return fprintf(stderr, "usage: %s CORPUS_DIR (a directory of files)\n", argv[0]), 1;
    printf("%zu corpus inputs replayed\n", n);
    return 0;
}
#endif
