/* The public headers as strict C99: the inline buffer and list operations,
 * as an application would write them. Prints each failed check and exits 1. */
#include <stdio.h>
#include <string.h>

#include <qel_hspace.h>

static int failures = 0;

#define EXPECT(cond) \
    ((cond) ? (void)0 : (void)(failures++, printf("%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond)))

int public_headers_cxx_links(t_kro_llist list, t_kro_ptr a, t_kro_ptr b); /* public_headers_cxx.cpp */

/* One list change and the walk right after it, in one function, so that an
 * optimiser sees both: a record's links are written through the node type
 * while the head's links are read through the list type. Returns a bit per
 * wrong answer; the list is empty again on return. */
static int links_after_change(t_kro_llist list, t_kro_ptr a, t_kro_ptr b)
{
    int wrong = 0;
    kro_llist_append(list, a);
    if (kro_llist_first(list) != a) wrong |= 1;
    kro_llist_remove(a); /* the only node: the head links to itself again */
    if (kro_llist_first(list) != NULL) wrong |= 2;
    kro_llist_append(list, a);
    kro_llist_append(list, b);
    kro_llist_remove(b); /* the last node: the head's prev is a again */
    if (kro_llist_next(list, a) != NULL) wrong |= 4;
    kro_llist_append(list, b);
    if (kro_llist_next(list, a) != b) wrong |= 8;
    kro_llist_remove(a); /* the first node: the head's next is b */
    if (kro_llist_first(list) != b) wrong |= 16;
    kro_llist_remove(b);
    if (kro_llist_first(list) != NULL || list->num_elements != 0) wrong |= 32;
    return wrong;
}

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
    /* Links right after each change, from C and from C++. */
    EXPECT(qel_hspace_object_create("a", NULL, &a) == 0 && qel_hspace_object_create("b", NULL, &b) == 0);
    EXPECT(links_after_change(list, a, b) == 0);
    EXPECT(public_headers_cxx_links(list, a, b) == 0);
    EXPECT(qel_hspace_object_destroy(&a) == 0 && qel_hspace_object_destroy(&b) == 0);
    kro_llist_destroy(&list);
    EXPECT(buf->refcount == 1); /* an application-made object borrowed the buffer */
    kro_buf_release(&buf);
    EXPECT(buf == NULL && qel_hspace_finalize() == 0);
    return failures != 0;
}
