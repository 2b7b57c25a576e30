// The C++ API used by an application outside the tree, built against an
// installed copy: name an error through the category, refuse a bad URL
// without and with exceptions, fail fast on a Client never opened. Exits 0
// when every answer is the expected one.
#include <stdio.h>

#include <qel_hspace.hpp>

int main()
{
    namespace qh = qel::hspace;
    std::error_code ec = qh::make_error_code(qh::error::timeout);
    int failed = ec != std::errc::timed_out || ec.message().empty();
    qh::Client bad("udp://127.0.0.1:4000");
    bad.open(ec);
    failed |= ec != std::errc::protocol_not_supported;
    try {
        bad.open();
        failed = 1;
    } catch (const std::system_error &e) {
        failed |= e.code() != ec;
    }
    qh::Client("tcp://127.0.0.1:1").put("k", "v", ec);
    failed |= ec != qh::error::invalid_state;
    printf("%s\n", failed ? "consumer-cpp: FAILED" : "consumer-cpp: ok");
    return failed;
}
