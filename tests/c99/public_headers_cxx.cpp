// The public headers compile as a C++ translation unit with every warning an
// error; a list head and a linkable record share their leading links.
#include <cstddef>

#include <qel_hspace.h>

static_assert(offsetof(kro_llist, next) == offsetof(kro_llist_node, next), "list links");
static_assert(offsetof(kro_llist, prev) == offsetof(kro_llist_node, prev), "list links");
static_assert(offsetof(kro_llist, head) == offsetof(kro_llist_node, head), "list links");
