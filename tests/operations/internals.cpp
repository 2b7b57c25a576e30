// The library compiled into the white-box tests, and the looks inside it they
// need: the request table's size, the correlation counter, filed subscriptions.
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

// Files n answered subscriptions "sub/<i>" with urid i + 1 through the table's
// own insert path, as an answered post leaves them; returns their corrids.
std::vector<uint32_t> FileSubscriptions(t_qel_hspace hspace, int n)
{
    std::vector<uint32_t> corrid;
    qel_hspace_lock(hspace);
    for (int i = 0; i < n; i++) {
        std::string key = "sub/" + std::to_string(i);
        t_qel_hspace_request r = qel_hspace_request_create(hspace, HSPACE_OPCODE_POST, key.c_str(),
                                                           reinterpret_cast<t_kro_ptr>(intptr_t(i + 1)), nullptr, 1,
                                                           0, nullptr);
        r->sync.complete = 1;
        r->caller_waiting = 0;
        r->initial_image_complete = 1;
        corrid.push_back(r->corrid);
    }
    qel_hspace_unlock(hspace);
    return corrid;
}

// Calls waiting in the handle's send queue for their turn to write.
int SendQueueLength(t_qel_hspace hspace)
{
    int n = 0;
    qel_hspace_lock(hspace);
    for (struct qel_hspace_call *c = hspace->send_head; c != nullptr; c = c->send_next) n++;
    qel_hspace_unlock(hspace);
    return n;
}
