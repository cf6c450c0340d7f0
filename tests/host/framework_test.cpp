// Known answers of the OpenSSL host framework's service table, and what it
// refuses.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "crypto_vectors.hpp"
#include "emv_kernel_global.h"
#include "velk/host/crypto.hpp"
#include "velk/host/framework.hpp"
#include "velk/host/tlv.hpp"

namespace velk::test {
namespace {

using host::Bytes;
using host::FromHex;

const emv_kernel_alg_t &Alg() {
    return host::Framework().opt_alg;
}

TEST(Framework, PublishesOneRecordWithEveryMemberSet) {
    ASSERT_EQ(pemv_kn_glb, &host::Framework());
    const emv_kernel_std_t &std_ops = pemv_kn_glb->opt_std;
    EXPECT_TRUE(std_ops.opt_memset && std_ops.opt_memcpy && std_ops.opt_memcmp &&
                std_ops.opt_strlen && std_ops.opt_log);
    const emv_kernel_alg_t &alg = Alg();
    EXPECT_TRUE(alg.opt_rsa_decrypt && alg.opt_rsa_encrypt && alg.opt_sha_1 &&
                alg.opt_des_decrypt && alg.opt_des_encrypt && alg.opt_aes_decrypt &&
                alg.opt_aes_encrypt);
}

TEST(Framework, Sha1KnownAnswers) {
    EXPECT_TRUE(Sha1KnownAnswers(Alg().opt_sha_1));
}

TEST(Framework, RsaKnownAnswersWithSmallAndLargeExponents) {
    EXPECT_TRUE(RsaKnownAnswers(Alg().opt_rsa_encrypt, Alg().opt_rsa_decrypt));
}

TEST(Framework, RsaRefusesWhatNoKeyCouldHaveProduced) {
    EXPECT_TRUE(RsaRefusals(Alg().opt_rsa_encrypt));
    EXPECT_TRUE(RsaRefusals(Alg().opt_rsa_decrypt));
}

TEST(Framework, RsaRefusesNullBuffersWithoutWriting) {
    const Bytes n = FromHex(kRsaVectors[0].n), e = FromHex(kRsaVectors[0].e);
    Bytes out(n.size(), 0x55);
    EXPECT_NE(Alg().opt_rsa_encrypt(n.data(), 2, e.data(), 1, nullptr, 1, out.data()), 0);
    EXPECT_EQ(out, Bytes(n.size(), 0));
    out.assign(n.size(), 0x55);
    EXPECT_NE(Alg().opt_rsa_encrypt(nullptr, 2, e.data(), 1, n.data(), 1, out.data()), 0);
    EXPECT_EQ(out, Bytes(n.size(), 0));
    EXPECT_NE(Alg().opt_rsa_encrypt(n.data(), 2, e.data(), 1, n.data(), 1, nullptr), 0);
}

struct CipherVector {
    const char *name;
    std::string_view key, iv, plain, cipher;
};

// Single DES: FIPS 46 worked example, SP 800-17 variable plaintext, FIPS 81
// ECB and CBC examples. 3DES: SP 800-67 example (3 keys) and the same keys
// as 2-key 3DES (K3 = K1), plain and CBC.
constexpr CipherVector kDesVectors[] = {
    {"fips46", "133457799BBCDFF1", "", "0123456789ABCDEF", "85E813540F0AB405"},
    {"sp800-17", "0101010101010101", "", "8000000000000000", "95F8A5E5DD31D900"},
    {"fips81-ecb", "0123456789abcdef", "", "4e6f77206973207468652074696d6520666f7220616c6c20",
     "3fa40e8a984d48156a271787ab8883f9893d51ec4b563b53"},
    {"fips81-cbc", "0123456789abcdef", "1234567890abcdef",
     "4e6f77206973207468652074696d6520666f7220616c6c20",
     "e5c7cdde872bf27c43e934008c389c0f683788499a7c05f6"},
    {"sp800-67", "0123456789ABCDEF23456789ABCDEF01456789ABCDEF0123", "",
     "54686520717566636B2062726F776E20666F78206A756D70",
     "A826FD8CE53B855FCCE21C8112256FE668D5C05DD9B6B900"},
    {"2key", "0123456789ABCDEF23456789ABCDEF01", "",
     "54686520717566636B2062726F776E20666F78206A756D70",
     "c44862f70cf2fbdc9077d0909fa91b884cabd61fc58e0cbb"},
    {"3key-cbc", "0123456789ABCDEF23456789ABCDEF01456789ABCDEF0123", "F69F2445DF4F9B17",
     "54686520717566636B2062726F776E20666F78206A756D70",
     "a5c282bad0de3774becd2e04386b589fb5057d8552fc4336"},
};

// FIPS 197 appendix C.
constexpr CipherVector kAesVectors[] = {
    {"aes128", "000102030405060708090a0b0c0d0e0f", "", "00112233445566778899aabbccddeeff",
     "69c4e0d86a7b0430d8cdb78070b4c55a"},
    {"aes192", "000102030405060708090a0b0c0d0e0f1011121314151617", "",
     "00112233445566778899aabbccddeeff", "dda97ca4864cdfe06eaf70a0ec0d7191"},
    {"aes256", "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", "",
     "00112233445566778899aabbccddeeff", "8ea2b7ca516745bfeafc49904b496089"},
};

using DesMember = int (*)(const uint8_t *, uint32_t, const uint8_t *, const uint8_t *, uint32_t,
                          uint8_t *);
using AesMember = int (*)(const uint8_t *, uint32_t, const uint8_t *, uint32_t, uint8_t *);

Bytes RunDes(DesMember fn, const Bytes &key, const Bytes &iv, const Bytes &in, int *rc) {
    Bytes out(in.size(), 0xEE);
    *rc = fn(key.data(), static_cast<uint32_t>(key.size()), iv.empty() ? nullptr : iv.data(),
             in.data(), static_cast<uint32_t>(in.size()), out.data());
    return out;
}

Bytes RunAes(AesMember fn, const Bytes &key, const Bytes &in, int *rc) {
    Bytes out(in.size(), 0xEE);
    *rc = fn(key.data(), static_cast<uint32_t>(key.size()), in.data(),
             static_cast<uint32_t>(in.size()), out.data());
    return out;
}

TEST(Framework, DesAndTripleDesKnownAnswersBothWays) {
    for (const auto &v : kDesVectors) {
        SCOPED_TRACE(v.name);
        const Bytes key = FromHex(v.key), iv = FromHex(v.iv);
        const Bytes plain = FromHex(v.plain), cipher = FromHex(v.cipher);
        int rc = -1;
        EXPECT_EQ(RunDes(Alg().opt_des_encrypt, key, iv, plain, &rc), cipher);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(RunDes(Alg().opt_des_decrypt, key, iv, cipher, &rc), plain);
        EXPECT_EQ(rc, 0);
    }
}

TEST(Framework, DesWorksInPlace) {
    const auto &v = kDesVectors[3];
    const Bytes key = FromHex(v.key), iv = FromHex(v.iv);
    Bytes data = FromHex(v.plain);
    ASSERT_EQ(Alg().opt_des_encrypt(key.data(), 8, iv.data(), data.data(),
                                    static_cast<uint32_t>(data.size()), data.data()),
              0);
    EXPECT_EQ(data, FromHex(v.cipher));
}

TEST(Framework, AesKnownAnswersBothWaysAndBlockByBlock) {
    for (const auto &v : kAesVectors) {
        SCOPED_TRACE(v.name);
        const Bytes key = FromHex(v.key), plain = FromHex(v.plain), cipher = FromHex(v.cipher);
        int rc = -1;
        EXPECT_EQ(RunAes(Alg().opt_aes_encrypt, key, plain, &rc), cipher);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(RunAes(Alg().opt_aes_decrypt, key, cipher, &rc), plain);
        EXPECT_EQ(rc, 0);
        // ECB: two equal blocks give two equal blocks.
        EXPECT_EQ(RunAes(Alg().opt_aes_encrypt, key, host::Cat({plain, plain}), &rc),
                  host::Cat({cipher, cipher}));
    }
}

TEST(Framework, SymmetricCiphersRefuseBadSizesAndWriteNothing) {
    const Bytes key8 = FromHex("0123456789abcdef"), key16 = FromHex(kAesVectors[0].key);
    struct Case {
        const char *what;
        Bytes key, iv, in;
    } const des_cases[] = {
        {"7 bytes of data", key8, {}, Bytes(7, 1)},
        {"12 bytes of data", key8, {}, Bytes(12, 1)},
        {"7-byte key", Bytes(7, 1), {}, Bytes(8, 1)},
        {"12-byte key", Bytes(12, 1), {}, Bytes(8, 1)},
        {"32-byte key", Bytes(32, 1), {}, Bytes(8, 1)},
    };
    for (const auto &c : des_cases) {
        SCOPED_TRACE(c.what);
        for (DesMember fn : {Alg().opt_des_encrypt, Alg().opt_des_decrypt}) {
            int rc = 0;
            EXPECT_EQ(RunDes(fn, c.key, c.iv, c.in, &rc), Bytes(c.in.size(), 0xEE));
            EXPECT_NE(rc, 0);
        }
    }
    const Case aes_cases[] = {
        {"15 bytes of data", key16, {}, Bytes(15, 1)},
        {"24 bytes of data", key16, {}, Bytes(24, 1)},
        {"20-byte key", Bytes(20, 1), {}, Bytes(16, 1)},
        {"8-byte key", key8, {}, Bytes(16, 1)},
    };
    for (const auto &c : aes_cases) {
        SCOPED_TRACE(c.what);
        for (AesMember fn : {Alg().opt_aes_encrypt, Alg().opt_aes_decrypt}) {
            int rc = 0;
            EXPECT_EQ(RunAes(fn, c.key, c.in, &rc), Bytes(c.in.size(), 0xEE));
            EXPECT_NE(rc, 0);
        }
    }
}

TEST(Framework, LogLinesReachTheSinkAndItsExceptionsStopThere) {
    std::vector<std::string> lines;
    host::SetLogSink([&lines](const char *text) { lines.emplace_back(text); });
    pemv_kn_glb->opt_std.opt_log("one\n");
    host::SetLogSink([](const char *) { throw std::runtime_error("sink failed"); });
    EXPECT_NO_THROW(pemv_kn_glb->opt_std.opt_log("two\n"));
    host::SetLogSink({});
    EXPECT_NO_THROW(pemv_kn_glb->opt_std.opt_log("three\n"));
    EXPECT_EQ(lines, std::vector<std::string>{"one\n"});
}

TEST(HostCrypto, GeneratedKeysHaveTheSizeAskedForAndWork) {
    for (const auto &[bits, e] : {std::pair{768u, 3u}, std::pair{1024u, 65537u}}) {
        const host::crypto::RsaKeyParts key = host::crypto::GenerateRsaKey(bits, e);
        ASSERT_EQ(key.n.size(), bits / 8);
        EXPECT_GE(key.n[0], 0x80);
        const Bytes message = FromHex("00112233445566778899");
        int rc = -1;
        const Bytes signature = RunRsa(Alg().opt_rsa_decrypt, key.n, key.d, message, &rc);
        ASSERT_EQ(rc, 0);
        Bytes recovered = RunRsa(Alg().opt_rsa_encrypt, key.n, key.e, signature, &rc);
        recovered.erase(recovered.begin(), recovered.end() - static_cast<long>(message.size()));
        EXPECT_EQ(recovered, message);
    }
    EXPECT_THROW(host::crypto::GenerateRsaKey(256, 3), std::runtime_error);
}

}  // namespace
}  // namespace velk::test
