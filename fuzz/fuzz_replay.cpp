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
#include <string>
#include <vector>

#include "inbound_harness.h"

int main(int argc, char **argv)
{
    std::error_code ec;
    std::vector<std::filesystem::path> files;
    if (argc != 2) {
        fprintf(stderr, "usage: %s CORPUS_DIR\n", argv[0]);
        return 2;
    }
    for (const auto &entry : std::filesystem::directory_iterator(argv[1], ec))
        if (entry.is_regular_file()) files.push_back(entry.path());
    if (ec || files.empty()) {
        fprintf(stderr, "%s: no corpus files in %s\n", argv[0], argv[1]);
        return 1;
    }
    for (const auto &path : files) {
        std::ifstream in(path, std::ios::binary);
        std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (!in.good() && !in.eof()) {
            fprintf(stderr, "%s: cannot read %s\n", argv[0], path.c_str());
            return 1;
        }
        qel_fuzz_inbound_run((const uint8_t *)bytes.data(), bytes.size());
    }
    printf("%zu corpus inputs replayed\n", files.size());
    return 0;
}
