/*
 * internals.cpp - the library compiled into the white-box data-operation
 * tests, and the looks inside it they need: the request table's size and
 * the correlation counter.
 */
#include "qel_hspace.cpp"

#include "client_harness.h"

int hspace::test::RequestCount(t_qel_hspace hspace)
{
    qel_hspace_lock(hspace);
    int n = hspace->reqtable->num_elements;
    qel_hspace_unlock(hspace);
    return n;
}

void hspace::test::SetCorrelationCounter(t_qel_hspace hspace, uint32_t sno)
{
    qel_hspace_lock(hspace);
    hspace->sno = sno;
    qel_hspace_unlock(hspace);
}
