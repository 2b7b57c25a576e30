/*
 * keyed_hash.h - the hash of the service's tables whose keys a client
 * chooses (subscribed keys): SipHash-1-3 under a key drawn once per process,
 * so that no client can pick keys that all land in one bucket and turn a
 * lookup into a scan.
 *
 * Stateless after the first call; any thread.
 */
#ifndef HSPACE_SERVICE_KEYED_HASH_H
#define HSPACE_SERVICE_KEYED_HASH_H

#include <stddef.h>
#include <stdint.h>

#include <random>
#include <string_view>

namespace hspace {
namespace service {

class KeyedHash {
public:
    size_t operator()(std::string_view s) const { return static_cast<size_t>(sip13(s)); }

private:
    struct Key {
        uint64_t k0, k1;
    };
    static const Key &key()
    {
        static const Key k = [] {
            std::random_device random;
            auto draw = [&random] { return (uint64_t(random()) << 32) | random(); };
            return Key{draw(), draw()};
        }();
        return k;
    }
    static uint64_t rotl(uint64_t x, int b) { return (x << b) | (x >> (64 - b)); }
    static void round(uint64_t &v0, uint64_t &v1, uint64_t &v2, uint64_t &v3)
    {
        v0 += v1;
        v1 = rotl(v1, 13);
        v1 ^= v0;
        v0 = rotl(v0, 32);
        v2 += v3;
        v3 = rotl(v3, 16);
        v3 ^= v2;
        v0 += v3;
        v3 = rotl(v3, 21);
        v3 ^= v0;
        v2 += v1;
        v1 = rotl(v1, 17);
        v1 ^= v2;
        v2 = rotl(v2, 32);
    }
    static uint64_t sip13(std::string_view s)
    {
        const Key &k = key();
        uint64_t v0 = k.k0 ^ 0x736f6d6570736575ULL, v1 = k.k1 ^ 0x646f72616e646f6dULL;
        uint64_t v2 = k.k0 ^ 0x6c7967656e657261ULL, v3 = k.k1 ^ 0x7465646279746573ULL;
        const unsigned char *p = reinterpret_cast<const unsigned char *>(s.data());
        size_t n = s.size(), whole = n & ~size_t(7);
        for (size_t i = 0; i < whole; i += 8) {
            uint64_t m = 0;
            for (int j = 7; j >= 0; j--) m = (m << 8) | p[i + static_cast<size_t>(j)];
            v3 ^= m;
            round(v0, v1, v2, v3);
            v0 ^= m;
        }
        uint64_t last = uint64_t(n) << 56;
        for (size_t j = 0; j < (n & 7); j++) last |= uint64_t(p[whole + j]) << (8 * j);
        v3 ^= last;
        round(v0, v1, v2, v3);
        v0 ^= last;
        v2 ^= 0xff;
        for (int i = 0; i < 3; i++) round(v0, v1, v2, v3);
        return v0 ^ v1 ^ v2 ^ v3;
    }
};

} // namespace service
} // namespace hspace

#endif /* HSPACE_SERVICE_KEYED_HASH_H */
