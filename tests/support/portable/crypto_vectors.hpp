// Published known answers for the platform's SHA-1 and RSA members, shared by
// the OpenSSL framework's tests and the portable crypto's tests: both
// platforms must give the same answers to the same questions.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "velk/host/tlv.hpp"

namespace velk::test {

using Sha1Fn = int (*)(const uint8_t *, uint32_t, uint8_t *);
using RsaFn = int (*)(const uint8_t *, uint32_t, const uint8_t *, uint32_t, const uint8_t *,
                      uint32_t, uint8_t *);

struct Sha1Vector {
    std::string_view text;
    uint32_t repeat;  // the text is hashed repeated this many times
    std::string_view digest;
};

// FIPS 180 examples.
inline constexpr Sha1Vector kSha1Vectors[] = {
    {"abc", 1, "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {"", 1, "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
    {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", 1,
     "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
    {"a", 1000000, "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
};

struct RsaVector {
    std::string_view name;
    std::string_view n, e, d;
    std::string_view plain, cipher;  // cipher = plain ^ e mod n, as long as n
};

inline constexpr RsaVector kRsaVectors[] = {
    // The textbook key p = 61, q = 53: 65 ^ 17 mod 3233 = 2790. The private
    // operation's output has a leading zero byte.
    {"textbook", "0ca1", "11", "0ac1", "41", "0ae6"},
    {"e3_512",
     "d7212f38731970b24f8e67390cec86be0b1d08382fd83caf7eeb3917886888af"
     "06baa49902017ac32f83e0e24ae795ae6a0bd9ec277ae0541d690587a29db1db",
     "03",
     "8f6b74d04cbba076dfb444d0b34859d40768b025753ad31fa9f2260fb045b073"
     "75b47bb0384af07e8bf368b3beb46405b2bced73aeb6765551b33c1af639001b",
     "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef",
     "2c1164e51bd1a8c5ad31649a090cfde9fe8db540f6d971a52590686b8e62addb"
     "fd7cac7f930f75a72f901c97aeb6c3a8320fe82d171624c4fa1851452fe29d93"},
    {"e65537_512",
     "c5760ca73827307e7790bdb369b030769eb9b4a15b63673b96d4c8561a09d6d8"
     "38555a68f924ed4068888ff04edb4ba8a45a11a62e1885a8eded14b0a6a5da73",
     "010001",
     "bb10fe25c11de7643853a853fb314e886210de9deadd3e2486dd28b9e14b26fb"
     "dfa5cfc7e752a7bd157052aba7dd5640801c8cbd04757a8be2dbec1d0dae40b1",
     "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef",
     "9f7d643e2a696d0384744641dbfd84e7278f7eaabf20e3fcf085e334e72a2294"
     "f6d6c34cadb5a689ec0f969256ba1e39409db7d75dcced4e238b48df54f9ad34"},
};

inline ::testing::AssertionResult Sha1KnownAnswers(Sha1Fn sha1) {
    for (const auto &v : kSha1Vectors) {
        std::string message;
        for (uint32_t i = 0; i < v.repeat; ++i)
            message += v.text;
        uint8_t digest[20] = {};
        const int rc = sha1(reinterpret_cast<const uint8_t *>(message.data()),
                            static_cast<uint32_t>(message.size()), digest);
        const std::string got = host::ToHex(digest);
        if (rc != 0 || got != host::ToHex(host::FromHex(v.digest))) {
            return ::testing::AssertionFailure()
                   << "SHA-1 of \"" << v.text << "\" x" << v.repeat << ": rc " << rc << ", " << got;
        }
    }
    return ::testing::AssertionSuccess();
}

// Runs in ^ exponent mod n through fn; the output buffer is one byte longer
// than the modulus so that a write past it shows.
inline host::Bytes RunRsa(RsaFn fn, const host::Bytes &n, const host::Bytes &exponent,
                          const host::Bytes &in, int *rc) {
    host::Bytes out(n.size() + 1, 0xEE);
    *rc = fn(n.data(), static_cast<uint32_t>(n.size()), exponent.data(),
             static_cast<uint32_t>(exponent.size()), in.data(), static_cast<uint32_t>(in.size()),
             out.data());
    if (out.back() != 0xEE) ADD_FAILURE() << "RSA wrote past the modulus length";
    out.pop_back();
    return out;
}

// Public and private operations on every vector, both ways.
inline ::testing::AssertionResult RsaKnownAnswers(RsaFn encrypt, RsaFn decrypt) {
    using host::FromHex;
    for (const auto &v : kRsaVectors) {
        const host::Bytes n = FromHex(v.n), cipher = FromHex(v.cipher);
        host::Bytes plain = FromHex(v.plain);
        int rc = -1;
        if (RunRsa(encrypt, n, FromHex(v.e), plain, &rc) != cipher || rc != 0) {
            return ::testing::AssertionFailure() << v.name << ": public operation";
        }
        plain.insert(plain.begin(), n.size() - plain.size(), 0);
        if (RunRsa(decrypt, n, FromHex(v.d), cipher, &rc) != plain || rc != 0) {
            return ::testing::AssertionFailure() << v.name << ": private operation";
        }
    }
    return ::testing::AssertionSuccess();
}

// Inputs the RSA member must refuse: a non-zero result and a zeroed output.
inline ::testing::AssertionResult RsaRefusals(RsaFn rsa) {
    using host::Bytes;
    using host::FromHex;
    const auto &key = kRsaVectors[1];
    const Bytes n = FromHex(key.n), e = FromHex(key.e);
    Bytes longer(n.size() + 1, 0);
    longer.back() = 1;
    Bytes above = n;
    above.back() += 2;
    const Bytes even = FromHex("0ca0"), tiny = FromHex("01");
    struct Case {
        const char *what;
        Bytes n, e, in;
    } const cases[] = {
        {"input longer than the modulus", n, e, longer},
        {"input equal to the modulus", n, e, n},
        {"input above the modulus", n, e, above},
        {"even modulus", even, e, FromHex("41")},
        {"modulus below 3", tiny, e, FromHex("00")},
        {"zero exponent", n, FromHex("0000"), FromHex("41")},
    };
    for (const auto &c : cases) {
        int rc = 0;
        const Bytes out = RunRsa(rsa, c.n, c.e, c.in, &rc);
        if (rc == 0 || out != Bytes(c.n.size(), 0)) {
            return ::testing::AssertionFailure()
                   << c.what << ": rc " << rc << ", out " << host::ToHex(out);
        }
    }
    return ::testing::AssertionSuccess();
}

}  // namespace velk::test
