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
 * No operation locks: a list is touched by its owner, or under the lock that
 * guards its owner.
 */
#ifndef KRO_LLIST_H
#define KRO_LLIST_H

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

/* Creates an empty list into *variable. Out of memory ends the process. */
static inline void kro_llist_create(t_kro_llist *variable)
{
    t_kro_llist list;
    KRO_ALLOC_RECORD(sizeof(struct kro_llist), variable, 0);
    list = *variable;
    list->head = list;
    list->prev = KRO_REINTERPRET(t_kro_llist_node, list->head);
    list->next = list->prev;
    list->num_elements = 0;
    list->read_only = 0;
}

/* Clears a record's links; every linkable record is initialised this way
 * when it is allocated. */
static inline void kro_llist_node_init(t_kro_ptr node)
{
    t_kro_llist_node n = KRO_CAST(t_kro_llist_node, node);
    n->head = KRO_NULL;
    n->prev = KRO_NULL;
    n->next = KRO_NULL;
}

/* Appends node at the tail. The list must not be read-only. */
static inline void kro_llist_append(t_kro_llist list, t_kro_ptr node)
{
    t_kro_llist_node n = KRO_CAST(t_kro_llist_node, node);
    KRO_CHECK(list->read_only == 0);
    n->prev = list->prev;
    n->next = KRO_REINTERPRET(t_kro_llist_node, list);
    n->prev->next = n;
    list->prev = n;
    n->head = list;
    list->num_elements += 1;
}

/* Unlinks node from its list and clears its links. The node must be on a
 * list that is not read-only. */
static inline void kro_llist_remove(t_kro_ptr node)
{
    t_kro_llist_node n = KRO_CAST(t_kro_llist_node, node);
    KRO_CHECK(n->head != KRO_NULL);
    KRO_CHECK(n->head->read_only == 0);
    n->prev->next = n->next;
    n->next->prev = n->prev;
    n->head->num_elements -= 1;
    n->head = KRO_NULL;
    n->prev = KRO_NULL;
    n->next = KRO_NULL;
}

/* First (oldest) node, or null when the list is empty. */
static inline t_kro_ptr kro_llist_first(t_kro_llist list)
{
    return list->next == KRO_REINTERPRET(t_kro_llist_node, list) ? KRO_NULL : KRO_CAST(t_kro_ptr, list->next);
}

/* The node after node, or null after the last. */
static inline t_kro_ptr kro_llist_next(t_kro_llist list, t_kro_ptr node)
{
    t_kro_llist_node n = KRO_CAST(t_kro_llist_node, node)->next;
    return n == KRO_REINTERPRET(t_kro_llist_node, list) ? KRO_NULL : KRO_CAST(t_kro_ptr, n);
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
        if (KRO_CAST(t_kro_llist_node, node)->head != KRO_NULL) kro_llist_remove(node);
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
