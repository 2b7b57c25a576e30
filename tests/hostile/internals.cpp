// The library compiled into the hostile-peer tests, and the looks inside it
// they need: the request table's size, and the first half of a close (the
// socket cut, the lock not yet taken).
#include "qel_hspace.cpp"

#include "client_harness.h"

int hspace::test::RequestCount(t_qel_hspace hspace)
{
    qel_hspace_lock(hspace);
    int n = hspace->reqtable->num_elements;
    qel_hspace_unlock(hspace);
    return n;
}

namespace hostile {
void CutSocketAsCloseDoes(t_qel_hspace hspace) { hspace->closing.store(1); KRO_CHECK(kro_socket_interrupt(hspace->socket) == 0); }
} // namespace hostile
