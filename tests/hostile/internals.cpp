/*
 * internals.cpp - the library compiled into the hostile-peer tests, and the
 * one look inside it they need: the request table's size.
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
