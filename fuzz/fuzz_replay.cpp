/*
 * fuzz_replay.cpp - runs every file of a corpus directory (the argument)
 * through the inbound harness, so the seed corpus and any crash input added
 * to it stay a regression test in every build. Fails when the directory
 * cannot be read or holds no file; a harness failure aborts the process.
 */
#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "inbound_harness.h"

int main(int argc, char **argv)
{
    std::error_code ec;
    size_t n = 0;
    for (const auto &entry : std::filesystem::directory_iterator(argc == 2 ? argv[1] : "", ec)) {
        std::ifstream in(entry.path(), std::ios::binary);
        std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (!entry.is_regular_file() || in.bad()) return fprintf(stderr, "cannot read %s\n", entry.path().c_str()), 1;
        qel_fuzz_inbound_run((const uint8_t *)bytes.data(), bytes.size());
        n++;
    }
    if (ec || n == 0) return fprintf(stderr, "usage: %s CORPUS_DIR (a directory of files)\n", argv[0]), 1;
    printf("%zu corpus inputs replayed\n", n);
    return 0;
}
