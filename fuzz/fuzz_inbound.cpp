/*
 * fuzz_inbound.cpp - libFuzzer entry: every input runs once through the
 * inbound harness (framing, then processing of every whole packet).
 */
#include <stddef.h>
#include <stdint.h>

#include "inbound_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    qel_fuzz_inbound_run(data, size);
    return 0;
}
