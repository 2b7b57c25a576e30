/* The public headers as strict C99: the inline buffer and list operations,
 * as an application would write them. Prints each failed check and exits 1. */
#include <stdio.h>
#include <string.h>

#include <qel_hspace.h>

static int failures = 0;

#define EXPECT(cond)                                                        \
    do {                                                                    \
        if (!(cond)) {                                                      \
            printf("%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            failures++;                                                     \
        }                                                                   \
    } while (0)

int main(void)
{
    t_kro_buf buf = NULL, keep;
    t_kro_llist list = NULL;
    t_qel_hspace_object a = NULL, b = NULL, c = NULL, object;
    t_kro_ptr data = NULL;
    t_kro_str key = NULL;

    EXPECT(qel_hspace_initialize(QEL_HSPACE_VERSION, 1) == 0);
    /* Fill, flip, partial drain, compact, set_lim and shared release. */
    kro_buf_create(&buf, 16, 1);
    EXPECT(buf->refcount == 1 && buf->pos == 0 && buf->lim == 16 && buf->size == 16);
    memcpy(buf->ptr, "hello", 5);
    kro_buf_set_pos(buf, 5);
    kro_buf_flip(buf);
    EXPECT(buf->pos == 0 && buf->lim == 5 && kro_buf_remaining(buf) == 5);
    kro_buf_set_pos(buf, 2); /* "he" consumed */
    kro_buf_compact(buf);
    EXPECT(buf->pos == 3 && buf->lim == 16 && memcmp(buf->ptr, "llo", 3) == 0);
    kro_buf_set_lim(buf, 8);
    EXPECT(kro_buf_remaining(buf) == 5);
    buf->refcount++; /* a second holder */
    keep = buf;
    kro_buf_release(&buf);
    EXPECT(buf == keep && buf->refcount == 1);

    /* Objects on a caller's list, as a synchronous get hands them over:
     * append at the tail, walk oldest first, remove from the middle, drain. */
    kro_llist_create(&list);
    EXPECT(list->num_elements == 0 && kro_llist_first(list) == NULL);
    EXPECT(qel_hspace_object_create("a", buf, &a) == 0 && qel_hspace_object_create("b", NULL, &b) == 0 &&
           qel_hspace_object_create("c", NULL, &c) == 0);
    EXPECT(qel_hspace_object_get_data(a, &data) == 0 && data == buf);
    kro_llist_append(list, a);
    kro_llist_append(list, b);
    kro_llist_append(list, c);
    EXPECT(list->num_elements == 3 && kro_llist_first(list) == (t_kro_ptr)a && kro_llist_next(list, a) == (t_kro_ptr)b &&
           kro_llist_next(list, c) == NULL);
    kro_llist_remove(b);
    EXPECT(list->num_elements == 2 && ((t_kro_llist_node)b)->head == NULL && kro_llist_next(list, a) == (t_kro_ptr)c);
    kro_llist_append(list, b);
    EXPECT(qel_hspace_object_get_key((t_qel_hspace_object)kro_llist_first(list), &key) == 0 && strcmp(key, "a") == 0);
    while ((object = (t_qel_hspace_object)kro_llist_first(list)) != NULL) {
        kro_llist_remove(object);
        EXPECT(qel_hspace_object_destroy(&object) == 0 && object == NULL);
    }
    kro_llist_destroy(&list);
    EXPECT(list == NULL);
    EXPECT(buf->refcount == 1); /* an application-made object borrowed the buffer */
    kro_buf_release(&buf);
    EXPECT(buf == NULL);
    EXPECT(qel_hspace_finalize() == 0);
    if (failures != 0) printf("%d checks failed\n", failures);
    return failures != 0;
}
