/* The C half of the public-header test: strict C99 use of every public type
 * and of the inline buffer, list and string operations, as an application
 * would write it. Prints each failed check and exits 1. */
#include <stdio.h>
#include <string.h>

#include "public_headers.h"

static int failures = 0;

#define EXPECT(cond)                                                 \
    do {                                                             \
        if (!(cond)) {                                               \
            printf("%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            failures++;                                              \
        }                                                            \
    } while (0)

/* An event handler of the public callback type; never called here. */
static void on_event(t_qel_hspace hspace, t_qel_hspace_event event, t_kro_ptr event_data)
{
    (void)hspace;
    (void)event;
    (void)event_data;
}

/* Every public type and constant is usable from C. */
static void check_declarations(void)
{
    t_qel_hspace hspace = NULL;
    t_qel_hspace_object object = NULL;
    qel_hspace_create_data create_data = {"tcp://127.0.0.1:1", "c99", NULL};
    t_qel_hspace_create_data create_ptr = &create_data;
    t_qel_hspace_event_handler_func handler = on_event;
    t_qel_hspace_state state = HSPACE_STATE_CLOSED;
    t_qel_hspace_put_semantic put = HSPACE_PUT_NOREPLY;
    t_qel_hspace_get_semantic get = HSPACE_GET_ASYNC;
    t_qel_hspace_post_semantic post = HSPACE_POST_SYNC;
    t_qel_hspace_cancel_semantic cancel = HSPACE_CANCEL_SYNC;
    t_qel_hspace_remove_semantic remove_semantic = HSPACE_REMOVE_NOREPLY;
    t_qel_hspace_fail_event_data_struct fail = {KRO_ERR_PEER_CLOSED};
    t_qel_hspace_reply_image_event_data_struct image = {NULL, "k", 0, 1, 1, NULL};
    t_qel_hspace_post_notification_event_data_struct notification = {1, NULL};
    t_kro_uint1 u1 = 0xFF;
    t_kro_uint2 u2 = 0xFFFF;
    t_kro_uint4 u4 = 0xFFFFFFFFu;
    t_kro_int2 i2 = -1;
    t_kro_int4 i4 = -1;

    EXPECT(hspace == NULL && object == NULL && create_ptr->client_group == NULL);
    EXPECT(handler == on_event);
    EXPECT(state == 4 && put == 2 && get == 11 && post == 20 && cancel == 30 && remove_semantic == 41);
    EXPECT(HSPACE_EVENT_LINK_FAIL == 1 && HSPACE_EVENT_POST_NOTIFICATION == 4);
    EXPECT(fail.error == 1003u && image.index == 1 && notification.trigger == 1);
    EXPECT((t_kro_uint1)(u1 + 1) == 0 && (t_kro_uint2)(u2 + 1) == 0 && (t_kro_uint4)(u4 + 1) == 0);
    EXPECT(i2 < 0 && i4 < 0 && sizeof(t_kro_error) == 4 && sizeof(t_kro_int2) == 2);
    EXPECT(QEL_HSPACE_VERSION == 1);
}

/* The C and the C++ compiler agree on the layout of the public records. */
static void check_layout(void)
{
    struct cxx_sizes cxx;
    cxx_public_sizes(&cxx);
    EXPECT(cxx.buf == sizeof(struct kro_buf));
    EXPECT(cxx.list == sizeof(struct kro_llist));
    EXPECT(cxx.node == sizeof(struct kro_llist_node));
    EXPECT(cxx.create == sizeof(qel_hspace_create_data));
    EXPECT(cxx.image == sizeof(t_qel_hspace_reply_image_event_data_struct));
    EXPECT(cxx.notify == sizeof(t_qel_hspace_post_notification_event_data_struct));
    /* A list head and every linkable record begin with next, prev, head. */
    EXPECT(offsetof(struct kro_llist, next) == offsetof(struct kro_llist_node, next));
    EXPECT(offsetof(struct kro_llist, prev) == offsetof(struct kro_llist_node, prev));
    EXPECT(offsetof(struct kro_llist, head) == offsetof(struct kro_llist_node, head));
}

/* Error texts work before initialize, one per code. */
static void check_error_texts(void)
{
    const t_kro_char *ok = NULL;
    const t_kro_char *refused = NULL;
    const t_kro_char *service = NULL;
    EXPECT(qel_hspace_error_get_text(0, &ok) == 0 && ok != NULL);
    EXPECT(qel_hspace_error_get_text(KRO_ERR_CONN_REFUSED, &refused) == 0 && refused != NULL);
    EXPECT(qel_hspace_error_get_text(777, &service) == 0 && service != NULL);
    EXPECT(ok != NULL && refused != NULL && strcmp(ok, refused) != 0);
    EXPECT(refused != NULL && service != NULL && strcmp(refused, service) != 0);
    EXPECT(qel_hspace_error_get_text(0, NULL) == KRO_ERR_INVALID_ARG);
}

/* Fill, flip, partial drain, compact, set_lim and shared release. */
static void check_buffer(void)
{
    t_kro_buf buf = NULL;
    t_kro_buf keep;
    unsigned i;
    unsigned char *bytes;

    kro_buf_create(&buf, 16, 1);
    EXPECT(buf != NULL && buf->refcount == 1 && buf->wrapped == 0);
    EXPECT(buf->pos == 0 && buf->lim == 16 && buf->size == 16);
    bytes = (unsigned char *)buf->ptr;
    for (i = 0; i < 16; i++) EXPECT(bytes[i] == 0);

    memcpy(bytes + buf->pos, "hello", 5);
    kro_buf_set_pos(buf, buf->pos + 5);
    EXPECT(kro_buf_remaining(buf) == 11);
    kro_buf_flip(buf);
    EXPECT(buf->pos == 0 && buf->lim == 5 && kro_buf_remaining(buf) == 5);

    kro_buf_set_pos(buf, 2); /* "he" consumed */
    kro_buf_compact(buf);
    EXPECT(buf->pos == 3 && buf->lim == 16 && memcmp(buf->ptr, "llo", 3) == 0);

    kro_buf_flip(buf);
    kro_buf_set_pos(buf, 3); /* everything consumed */
    kro_buf_compact(buf);
    EXPECT(buf->pos == 0 && buf->lim == 16);

    kro_buf_set_lim(buf, 8);
    EXPECT(buf->lim == 8 && kro_buf_remaining(buf) == 8);

    buf->refcount++; /* a second holder */
    keep = buf;
    kro_buf_release(&buf);
    EXPECT(buf == keep && buf->refcount == 1);
    kro_buf_release(&buf);
    EXPECT(buf == NULL);
}

/* Objects on a caller's list, as a synchronous get hands them over:
 * append at the tail, walk oldest first, remove from the middle. The C++
 * side then walks, unlinks and destroys them. */
static void check_object_list(void)
{
    static const char *const expected[] = {"a", "c", "b"};
    t_kro_llist list = NULL;
    t_qel_hspace_object a = NULL, b = NULL, c = NULL;
    t_kro_buf value = NULL;
    t_kro_ptr data = NULL;
    t_kro_ptr node;
    t_kro_str key = NULL;

    kro_llist_create(&list);
    EXPECT(list != NULL && list->num_elements == 0 && kro_llist_first(list) == NULL);

    kro_buf_create(&value, 4, 1);
    EXPECT(qel_hspace_object_create("a", value, &a) == 0 && a != NULL);
    EXPECT(qel_hspace_object_create("b", NULL, &b) == 0 && b != NULL);
    EXPECT(qel_hspace_object_create("c", NULL, &c) == 0 && c != NULL);
    EXPECT(qel_hspace_object_get_data(a, &data) == 0 && data == value);
    EXPECT(qel_hspace_object_get_data(b, &data) == 0 && data == NULL);

    kro_llist_append(list, a);
    kro_llist_append(list, b);
    kro_llist_append(list, c);
    EXPECT(list->num_elements == 3);
    node = kro_llist_first(list);
    EXPECT(node == (t_kro_ptr)a);
    node = kro_llist_next(list, node);
    EXPECT(node == (t_kro_ptr)b);
    node = kro_llist_next(list, node);
    EXPECT(node == (t_kro_ptr)c);
    EXPECT(kro_llist_next(list, node) == NULL);

    kro_llist_remove(b);
    EXPECT(list->num_elements == 2 && ((t_kro_llist_node)b)->head == NULL);
    EXPECT(kro_llist_next(list, kro_llist_first(list)) == (t_kro_ptr)c);
    kro_llist_append(list, b);
    EXPECT(qel_hspace_object_get_key((t_qel_hspace_object)kro_llist_first(list), &key) == 0 && strcmp(key, "a") == 0);

    EXPECT(cxx_drain_objects(list, expected, 3) == 0);
    EXPECT(list->num_elements == 0 && kro_llist_first(list) == NULL);
    kro_llist_destroy(&list);
    EXPECT(list == NULL);
    /* An application-made object borrowed the buffer: it is still ours. */
    EXPECT(value->refcount == 1);
    kro_buf_release(&value);
}

/* kro_str_assign copies, replaces and clears. */
static void check_str_assign(void)
{
    char source[] = "abc";
    t_kro_str copy = NULL;
    kro_str_assign(&copy, source);
    EXPECT(copy != NULL && copy != source && strcmp(copy, "abc") == 0);
    source[0] = 'x';
    EXPECT(copy != NULL && strcmp(copy, "abc") == 0);
    kro_str_assign(&copy, "a longer replacement");
    EXPECT(copy != NULL && strcmp(copy, "a longer replacement") == 0);
    kro_str_assign(&copy, "");
    EXPECT(copy != NULL && copy[0] == '\0');
    kro_str_assign(&copy, NULL);
    EXPECT(copy == NULL);
}

int main(void)
{
    check_declarations();
    check_layout();
    check_error_texts();
    EXPECT(qel_hspace_initialize(QEL_HSPACE_VERSION, 1) == 0);
    check_buffer();
    check_object_list();
    check_str_assign();
    EXPECT(qel_hspace_finalize() == 0);
    if (failures != 0) {
        printf("%d checks failed\n", failures);
        return 1;
    }
    printf("public headers: all checks passed\n");
    return 0;
}
