// The C++ API from outside the tree, against an installed copy: an error
// named through the category, a bad URL refused without and with
// exceptions, a Client never opened failing fast. Exits 0 when all hold.
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
