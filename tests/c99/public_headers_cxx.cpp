// The public headers compile as a C++ translation unit with every warning an
// error; a list head and a linkable record share their leading links, and
// the inline list operations keep them right from a C++ caller.
#include <cstddef>

#include <qel_hspace.h>

static_assert(offsetof(kro_llist, next) == offsetof(kro_llist_node, next), "list links");
static_assert(offsetof(kro_llist, prev) == offsetof(kro_llist_node, prev), "list links");
static_assert(offsetof(kro_llist, head) == offsetof(kro_llist_node, head), "list links");

// links_after_change of public_headers_c.c, compiled as C++ (the optimiser's
// aliasing rules for the two link types are C++'s here).
extern "C" int public_headers_cxx_links(t_kro_llist list, t_kro_ptr a, t_kro_ptr b)
{
    int wrong = 0;
    kro_llist_append(list, a);
    if (kro_llist_first(list) != a) wrong |= 1;
    kro_llist_remove(a);
    if (kro_llist_first(list) != nullptr) wrong |= 2;
    kro_llist_append(list, a);
    kro_llist_append(list, b);
    kro_llist_remove(b);
    if (kro_llist_next(list, a) != nullptr) wrong |= 4;
    kro_llist_append(list, b);
    if (kro_llist_next(list, a) != b) wrong |= 8;
    kro_llist_remove(a);
    if (kro_llist_first(list) != b) wrong |= 16;
    kro_llist_remove(b);
    if (kro_llist_first(list) != nullptr || list->num_elements != 0) wrong |= 32;
    return wrong;
}
