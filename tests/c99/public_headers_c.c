/* The public headers as strict C99: the inline buffer and list operations,
 * as an application would write them. Prints each failed check and exits 1. */
#include <stdio.h>
#include <string.h>

#include <qel_hspace.h>

static int failures = 0;

#define EXPECT(cond) \
    ((cond) ? (void)0 : (void)(failures++, printf("%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond)))

int main(void)
{
    t_kro_buf buf = NULL, keep;
    t_kro_llist list = NULL;
    t_qel_hspace_object a = NULL, b = NULL, object;
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

    /* Objects on a caller's list, as a synchronous get hands them over. */
    kro_llist_create(&list);
    EXPECT(kro_llist_first(list) == NULL);
    EXPECT(qel_hspace_object_create("a", buf, &a) == 0 && qel_hspace_object_create("b", NULL, &b) == 0);
    EXPECT(qel_hspace_object_get_data(a, &data) == 0 && data == buf);
    kro_llist_append(list, a);
    kro_llist_append(list, b);
    kro_llist_remove(a);
    EXPECT(list->num_elements == 1 && ((t_kro_llist_node)a)->head == NULL && kro_llist_first(list) == (t_kro_ptr)b);
    kro_llist_append(list, a);
    EXPECT(kro_llist_next(list, b) == (t_kro_ptr)a && kro_llist_next(list, a) == NULL);
    EXPECT(qel_hspace_object_get_key((t_qel_hspace_object)kro_llist_first(list), &key) == 0 && strcmp(key, "b") == 0);
    while ((object = (t_qel_hspace_object)kro_llist_first(list)) != NULL) {
        kro_llist_remove(object);
        EXPECT(qel_hspace_object_destroy(&object) == 0 && object == NULL);
    }
    kro_llist_destroy(&list);
    EXPECT(buf->refcount == 1); /* an application-made object borrowed the buffer */
    kro_buf_release(&buf);
    EXPECT(buf == NULL && qel_hspace_finalize() == 0);
    return failures != 0;
}
