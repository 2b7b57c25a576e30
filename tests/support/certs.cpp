/*
 * certs.cpp - the test certificates of certs.h, made with OpenSSL's API.
 * Failures end the process: no test can run without them.
 */
#include "certs.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <utility>
#include <vector>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace hspace {
namespace test {
namespace {

[[noreturn]] void Fail(const char *what)
{
    fprintf(stderr, "test certificates: %s failed\n", what);
    abort();
}

struct Key {
    EVP_PKEY *k = EVP_EC_gen("P-256");
    Key() { if (k == nullptr) Fail("EC key generation"); }
    ~Key() { EVP_PKEY_free(k); }
    Key(const Key &) = delete;
    Key &operator=(const Key &) = delete;
};

// One certificate being made: subject, validity, extensions, then signed.
struct Cert {
    X509 *x = X509_new();
    Cert() { if (x == nullptr) Fail("X509_new"); }
    ~Cert() { X509_free(x); }
    Cert(const Cert &) = delete;
    Cert &operator=(const Cert &) = delete;
};

struct Made {
    std::unique_ptr<Key> key;
    std::unique_ptr<Cert> cert;
};

long g_serial = 1;

// subject: pairs of (field, value), e.g. {"CN", "alice"}, {"O", "readers"}.
// days_from/days_to: validity relative to now. issuer null: self-signed.
Made Make(const std::vector<std::pair<const char *, const char *>> &subject, long days_from, long days_to,
          const std::vector<std::pair<int, const char *>> &extensions, const Made *issuer)
{
    Made m{std::make_unique<Key>(), std::make_unique<Cert>()};
    X509 *x = m.cert->x;
    X509_NAME *name = X509_NAME_new();
    for (const auto &f : subject)
        if (X509_NAME_add_entry_by_txt(name, f.first, MBSTRING_UTF8, reinterpret_cast<const unsigned char *>(f.second),
                                       -1, -1, 0) != 1)
            Fail("subject");
    X509_set_version(x, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x), g_serial++);
    X509_set_subject_name(x, name);
    X509_set_issuer_name(x, issuer != nullptr ? X509_get_subject_name(issuer->cert->x) : name);
    X509_NAME_free(name);
    X509_gmtime_adj(X509_getm_notBefore(x), days_from * 86400L);
    X509_gmtime_adj(X509_getm_notAfter(x), days_to * 86400L);
    X509_set_pubkey(x, m.key->k);
    X509V3_CTX ctx;
    X509V3_set_ctx(&ctx, issuer != nullptr ? issuer->cert->x : x, x, nullptr, nullptr, 0);
    for (const auto &e : extensions) {
        X509_EXTENSION *ext = X509V3_EXT_conf_nid(nullptr, &ctx, e.first, e.second);
        if (ext == nullptr || X509_add_ext(x, ext, -1) != 1) Fail(e.second);
        X509_EXTENSION_free(ext);
    }
    if (X509_sign(x, issuer != nullptr ? issuer->key->k : m.key->k, EVP_sha256()) == 0) Fail("X509_sign");
    return m;
}

Made Ca(const char *cn)
{
    return Make({{"CN", cn}}, -1, 3650,
                {{NID_basic_constraints, "critical,CA:TRUE"}, {NID_key_usage, "critical,keyCertSign,cRLSign"},
                 {NID_subject_key_identifier, "hash"}},
                nullptr);
}

Made Server(const Made &ca, const char *names, long days_from, long days_to)
{
    return Make({{"CN", "hspaced"}}, days_from, days_to,
                {{NID_basic_constraints, "critical,CA:FALSE"}, {NID_key_usage, "critical,digitalSignature"},
                 {NID_ext_key_usage, "serverAuth"}, {NID_subject_alt_name, names}},
                &ca);
}

Made Client(const Made &ca, std::vector<std::pair<const char *, const char *>> subject, long days_to = 3650)
{
    return Make(subject, days_to < 0 ? days_to - 1 : -1, days_to,
                {{NID_basic_constraints, "critical,CA:FALSE"}, {NID_key_usage, "critical,digitalSignature"},
                 {NID_ext_key_usage, "clientAuth"}},
                &ca);
}

std::string Write(const std::string &dir, const char *name, const Made &m, bool key, const char *passphrase = nullptr)
{
    std::string path = dir + "/" + name + (key ? ".key" : ".pem");
    FILE *f = fopen(path.c_str(), "w");
    if (f == nullptr) Fail(path.c_str());
    int ok = key ? PEM_write_PrivateKey(f, m.key->k, passphrase != nullptr ? EVP_aes_128_cbc() : nullptr,
                                        reinterpret_cast<const unsigned char *>(passphrase),
                                        passphrase != nullptr ? 6 : 0, nullptr, nullptr)
                 : PEM_write_X509(f, m.cert->x);
    if (fclose(f) != 0 || ok != 1) Fail(path.c_str());
    return path;
}

CertFiles Pair(const std::string &dir, const char *name, const Made &m)
{
    return {Write(dir, name, m, false), Write(dir, name, m, true)};
}

// The files and their directory, removed when the process exits.
struct Holder {
    TestCerts certs;
    std::vector<std::string> files;
    ~Holder()
    {
        for (const std::string &f : files) unlink(f.c_str());
        rmdir(certs.dir.c_str());
    }
};

Holder *Build()
{
    auto *h = new Holder;
    char dir[] = "/tmp/qel_certs.XXXXXX";
    if (mkdtemp(dir) == nullptr) Fail("mkdtemp");
    TestCerts &c = h->certs;
    c.dir = dir;
    Made ca = Ca("hspace test CA"), other = Ca("another CA");
    c.ca = Write(c.dir, "ca", ca, false);
    c.other_ca = Write(c.dir, "other_ca", other, false);
    Made alice = Client(ca, {{"CN", "alice"}, {"O", "readers"}});
    c.server = Pair(c.dir, "server", Server(ca, "IP:127.0.0.1,DNS:localhost", -1, 3650));
    c.expired = Pair(c.dir, "expired", Server(ca, "IP:127.0.0.1,DNS:localhost", -30, -1));
    c.wrong_name = Pair(c.dir, "wrong_name", Server(ca, "DNS:elsewhere.invalid", -1, 3650));
    c.alice = Pair(c.dir, "alice", alice);
    c.bob = Pair(c.dir, "bob", Client(ca, {{"CN", "bob"}, {"O", "writers"}, {"O", "readers"}}));
    c.old_client = Pair(c.dir, "old_client", Client(ca, {{"CN", "carol"}, {"O", "readers"}}, -1));
    c.foreign_server = Pair(c.dir, "foreign_server", Server(other, "IP:127.0.0.1,DNS:localhost", -1, 3650));
    c.foreign_client = Pair(c.dir, "foreign_client", Client(other, {{"CN", "mallory"}, {"O", "readers"}}));
    c.locked_key = Write(c.dir, "locked", alice, true, "secret");
    h->files = {c.ca, c.other_ca, c.locked_key};
    for (const CertFiles *p : {&c.server, &c.expired, &c.wrong_name, &c.alice, &c.bob, &c.old_client,
                               &c.foreign_server, &c.foreign_client}) {
        h->files.push_back(p->cert);
        h->files.push_back(p->key);
    }
    return h;
}

} // namespace

const TestCerts &Certs()
{
    static std::unique_ptr<Holder> holder(Build());
    return holder->certs;
}

} // namespace test
} // namespace hspace
