/*
 * certs.h - certificates and keys for the TLS tests, made on the spot with
 * OpenSSL (P-256 keys, SHA-256 signatures) in a temporary directory that
 * the process removes at exit. Nothing here is ever committed.
 *
 *   ca           the test CA; every "good" certificate below is signed by it
 *   server       CN hspaced, for 127.0.0.1 and localhost
 *   expired      the same names, valid until yesterday
 *   wrong_name   for elsewhere.invalid only
 *   alice        client: CN alice, O readers
 *   bob          client: CN bob, O writers and O readers (two groups)
 *   old_client   client: CN carol, O readers, valid until yesterday
 *   other_ca     a second CA; foreign_server and foreign_client are its
 *   locked_key   alice's key, encrypted with a passphrase
 */
#ifndef QEL_TESTS_CERTS_H
#define QEL_TESTS_CERTS_H

#include <string>

namespace hspace {
namespace test {

struct CertFiles {
    std::string cert; // PEM certificate
    std::string key;  // PEM private key, not encrypted
};

struct TestCerts {
    std::string dir;      // where the files are
    std::string ca;       // PEM certificate of the test CA
    std::string other_ca; // PEM certificate of the other CA
    CertFiles server, expired, wrong_name, alice, bob, old_client, foreign_server, foreign_client;
    std::string locked_key; // alice's key under a passphrase
};

// Made once per process, on first use; thread-safe.
const TestCerts &Certs();

} // namespace test
} // namespace hspace

#endif /* QEL_TESTS_CERTS_H */
