// The C++ half of the public-header test: the same headers from a C++
// translation unit, and the C-built records read from C++.
#include <cstring>

#include "public_headers.h"

extern "C" void cxx_public_sizes(struct cxx_sizes *sizes)
{
    sizes->buf = sizeof(struct kro_buf);
    sizes->list = sizeof(struct kro_llist);
    sizes->node = sizeof(struct kro_llist_node);
    sizes->create = sizeof(qel_hspace_create_data);
    sizes->image = sizeof(t_qel_hspace_reply_image_event_data_struct);
    sizes->notify = sizeof(t_qel_hspace_post_notification_event_data_struct);
}

extern "C" int cxx_drain_objects(t_kro_llist list, const char *const *keys, int count)
{
    int position = 0;
    int mismatch = 0;
    for (t_kro_ptr node = kro_llist_first(list); node != nullptr; node = kro_llist_next(list, node)) {
        t_kro_str key = nullptr;
        ++position;
        if (qel_hspace_object_get_key(static_cast<t_qel_hspace_object>(node), &key) != 0 || position > count ||
            std::strcmp(key, keys[position - 1]) != 0) {
            if (mismatch == 0) mismatch = position;
        }
    }
    if (mismatch == 0 && position != count) mismatch = position + 1;
    while (t_kro_ptr node = kro_llist_first(list)) {
        t_qel_hspace_object object = static_cast<t_qel_hspace_object>(node);
        kro_llist_remove(node);
        if (qel_hspace_object_destroy(&object) != 0 || object != nullptr) return -1;
    }
    return mismatch;
}
