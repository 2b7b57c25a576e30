/* What the C and the C++ translation units of the public-header test share. */
#ifndef PUBLIC_HEADERS_H
#define PUBLIC_HEADERS_H

#include <stddef.h>

#include <qel_hspace.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Sizes of the public records as the C++ compiler sees them. */
struct cxx_sizes {
    size_t buf;       /* sizeof(struct kro_buf) */
    size_t list;      /* sizeof(struct kro_llist) */
    size_t node;      /* sizeof(struct kro_llist_node) */
    size_t create;    /* sizeof(qel_hspace_create_data) */
    size_t image;     /* sizeof(t_qel_hspace_reply_image_event_data_struct) */
    size_t notify;    /* sizeof(t_qel_hspace_post_notification_event_data_struct) */
};

/* Fills sizes; defined in C++. */
void cxx_public_sizes(struct cxx_sizes *sizes);

/* Walks a list of objects built by the C side (initialized library) and
 * returns 0 when their keys are keys[0..count) in order, else the 1-based
 * position of the first mismatch. Also removes and destroys the objects,
 * leaving the list empty. Defined in C++. */
int cxx_drain_objects(t_kro_llist list, const char *const *keys, int count);

#ifdef __cplusplus
}
#endif

#endif
