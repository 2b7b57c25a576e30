/*
 * kro_llist.h - the intrusive circular doubly-linked list, and the string
 * copy every kept string is made with.
 *
 * Every linkable record begins with the three fields of struct
 * kro_llist_node (next, prev, head) in this order, and a pointer to the
 * record is used as a pointer to its node. The list head begins with the
 * same three fields and is the ring's sentinel. Nodes are appended at the
 * tail only; walks go from the oldest node to the newest.
 *
 * Since a record (or the head) is reached through a node pointer of
 * another type, the operations read and write the links byte-wise
 * (memcpy), which an optimising compiler may not assume apart from the
 * record's or the head's own fields.
 *
 * No operation locks: a list is touched by its owner, or under the lock that
 * guards its owner.
 */
#ifndef KRO_LLIST_H
#define KRO_LLIST_H

#include <stddef.h>
#include <string.h>

#include "kro.h"

#ifdef __cplusplus
extern "C" {
#endif

struct kro_llist;

struct kro_llist_node {
    struct kro_llist_node *next; /* next node, or the list head after the last */
    struct kro_llist_node *prev; /* previous node, or the list head before the first */
    struct kro_llist *head;      /* the list the node is on; null when on none */
};
typedef struct kro_llist_node *t_kro_llist_node;

struct kro_llist {
    t_kro_llist_node next;    /* first node, or the list itself when empty */
    t_kro_llist_node prev;    /* last node, or the list itself when empty */
    struct kro_llist *head;   /* the list itself */
    t_kro_int4 num_elements;  /* number of linked nodes */
    t_kro_bool read_only;     /* nonzero: the list must not be changed */
};
typedef struct kro_llist *t_kro_llist;

/* The links of the record or list head at p (byte-wise, see above). */
#define KRO_LLIST_NEXT offsetof(struct kro_llist_node, next)
#define KRO_LLIST_PREV offsetof(struct kro_llist_node, prev)

static inline t_kro_llist_node kro_llist_link_get(const void *p, size_t offset)
{
    t_kro_llist_node link;
    memcpy(&link, KRO_CAST(const char *, p) + offset, sizeof link);
    return link;
}

static inline void kro_llist_link_set(void *p, size_t offset, t_kro_llist_node link)
{
    memcpy(KRO_CAST(char *, p) + offset, &link, sizeof link);
}

static inline struct kro_llist *kro_llist_head_get(const void *p)
{
    struct kro_llist *head;
    memcpy(&head, KRO_CAST(const char *, p) + offsetof(struct kro_llist_node, head), sizeof head);
    return head;
}

static inline void kro_llist_head_set(void *p, struct kro_llist *head)
{
    memcpy(KRO_CAST(char *, p) + offsetof(struct kro_llist_node, head), &head, sizeof head);
}

/* Creates an empty list into *variable. Out of memory ends the process. */
static inline void kro_llist_create(t_kro_llist *variable)
{
    t_kro_llist list;
    KRO_ALLOC_RECORD(sizeof(struct kro_llist), variable, 0);
    list = *variable;
    kro_llist_head_set(list, list);
    kro_llist_link_set(list, KRO_LLIST_PREV, KRO_REINTERPRET(t_kro_llist_node, list));
    kro_llist_link_set(list, KRO_LLIST_NEXT, KRO_REINTERPRET(t_kro_llist_node, list));
    list->num_elements = 0;
    list->read_only = 0;
}

/* Clears a record's links; every linkable record is initialised this way
 * when it is allocated. */
static inline void kro_llist_node_init(t_kro_ptr node)
{
    kro_llist_head_set(node, KRO_NULL);
    kro_llist_link_set(node, KRO_LLIST_PREV, KRO_NULL);
    kro_llist_link_set(node, KRO_LLIST_NEXT, KRO_NULL);
}

/* Appends node at the tail. The list must not be read-only. */
static inline void kro_llist_append(t_kro_llist list, t_kro_ptr node)
{
    t_kro_llist_node n = KRO_CAST(t_kro_llist_node, node);
    t_kro_llist_node last = kro_llist_link_get(list, KRO_LLIST_PREV);
    KRO_CHECK(list->read_only == 0);
    kro_llist_link_set(n, KRO_LLIST_PREV, last);
    kro_llist_link_set(n, KRO_LLIST_NEXT, KRO_REINTERPRET(t_kro_llist_node, list));
    kro_llist_link_set(last, KRO_LLIST_NEXT, n);
    kro_llist_link_set(list, KRO_LLIST_PREV, n);
    kro_llist_head_set(n, list);
    list->num_elements += 1;
}

/* Unlinks node from its list and clears its links. The node must be on a
 * list that is not read-only. */
static inline void kro_llist_remove(t_kro_ptr node)
{
    struct kro_llist *head = kro_llist_head_get(node);
    t_kro_llist_node prev = kro_llist_link_get(node, KRO_LLIST_PREV);
    t_kro_llist_node next = kro_llist_link_get(node, KRO_LLIST_NEXT);
    KRO_CHECK(head != KRO_NULL);
    KRO_CHECK(head->read_only == 0);
    kro_llist_link_set(prev, KRO_LLIST_NEXT, next);
    kro_llist_link_set(next, KRO_LLIST_PREV, prev);
    head->num_elements -= 1;
    kro_llist_head_set(node, KRO_NULL);
    kro_llist_link_set(node, KRO_LLIST_PREV, KRO_NULL);
    kro_llist_link_set(node, KRO_LLIST_NEXT, KRO_NULL);
}

/* First (oldest) node, or null when the list is empty. */
static inline t_kro_ptr kro_llist_first(t_kro_llist list)
{
    t_kro_llist_node first = kro_llist_link_get(list, KRO_LLIST_NEXT);
    if (first == KRO_REINTERPRET(t_kro_llist_node, list)) return KRO_NULL;
    return first;
}

/* The node after node, or null after the last. */
static inline t_kro_ptr kro_llist_next(t_kro_llist list, t_kro_ptr node)
{
    t_kro_llist_node n = kro_llist_link_get(node, KRO_LLIST_NEXT);
    if (n == KRO_REINTERPRET(t_kro_llist_node, list)) return KRO_NULL;
    return n;
}

/* Unlinks and frees every node as a plain block, then frees the head and
 * clears *variable. Frees nothing the records point to: a list whose
 * records own memory is emptied by its owner first. */
static inline void kro_llist_destroy(t_kro_llist *variable)
{
    t_kro_llist list = *variable;
    list->read_only = 0;
    while (list->num_elements > 0) {
        t_kro_ptr node = kro_llist_first(list);
        if (kro_llist_head_get(node) != KRO_NULL) kro_llist_remove(node);
        KRO_CHECK(kro_mm_free(&node) == 0);
    }
    KRO_CHECK(kro_mm_free(variable) == 0);
}

/* Replaces *variable (freed first when set) by a copy of source with room
 * for its length plus 4 bytes; a null source leaves *variable null. Out of
 * memory ends the process. */
static inline void kro_str_assign(t_kro_str *variable, t_kro_str source)
{
    char *copy = KRO_NULL;
    size_t len;
    if (*variable != KRO_NULL) KRO_CHECK(kro_mm_free(variable) == 0);
    if (source == KRO_NULL) return;
    len = strlen(source);
    KRO_CHECK(len <= 0xFFFFFFFBu);
    KRO_CHECK(kro_mm_alloc(KRO_CAST(t_kro_uint4, len + 4), &copy, 0) == 0);
    memcpy(copy, source, len + 1);
    *variable = copy;
}

#ifdef __cplusplus
}
#endif

#endif /* KRO_LLIST_H */
