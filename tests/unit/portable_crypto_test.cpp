// The portable SHA-1 and RSA against the same known answers as the OpenSSL
// framework. Built on every target (the sanitizer build checks the bignum
// code too); the checks of the published table run where the portable
// platform is the one linked.
#include <gtest/gtest.h>

#include <vector>

#include "crypto_vectors.hpp"
#include "emv_kernel_global.h"
#include "portable_crypto.hpp"
#include "velk/host/tlv.hpp"

namespace velk::test {
namespace {

using host::Bytes;
using host::FromHex;

TEST(PortableCrypto, Sha1KnownAnswers) {
    EXPECT_TRUE(Sha1KnownAnswers(portable::Sha1));
}

TEST(PortableCrypto, Sha1AcrossBlockBoundaries) {
    // 55, 56 and 64 bytes put the length field in the same, the next and a
    // fresh block; the expected digests are SHA-1 of that many 'a's.
    const struct {
        uint32_t len;
        const char *digest;
    } cases[] = {
        {55, "c1c8bbdc22796e28c0e15163d20899b65621d65a"},
        {56, "c2db330f6083854c99d4b5bfb6e8f29f201be699"},
        {64, "0098ba824b5c16427bd7a1122a5a442a25ec644d"},
    };
    for (const auto &c : cases) {
        const Bytes message(c.len, 'a');
        uint8_t digest[20];
        ASSERT_EQ(portable::Sha1(message.data(), c.len, digest), 0);
        EXPECT_EQ(host::ToHex(digest), host::ToHex(FromHex(c.digest))) << c.len;
    }
}

TEST(PortableCrypto, RsaKnownAnswersWithSmallAndLargeExponents) {
    EXPECT_TRUE(RsaKnownAnswers(portable::RsaModExp, portable::RsaModExp));
}

TEST(PortableCrypto, RsaRefusesWhatNoKeyCouldHaveProduced) {
    EXPECT_TRUE(RsaRefusals(portable::RsaModExp));
}

TEST(PortableCrypto, RsaTakesModuliUpTo2048BitsAndNoLonger) {
    // n = 2^2048 - 1 (odd): 2^2047 squared is 2^4094 = 2^(2*2048 - 2) = 2^-2 =
    // 4^-1 mod n, and 4 * (2^2046) = 2^2048 = 1 mod n, so the result is 2^2046.
    Bytes n(portable::kMaxModulusBytes, 0xFF);
    Bytes in(n.size(), 0);
    in[0] = 0x80;
    const Bytes two = FromHex("02");
    int rc = -1;
    const Bytes out = RunRsa(portable::RsaModExp, n, two, in, &rc);
    Bytes expected(n.size(), 0);
    expected[0] = 0x40;
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, expected);

    n.push_back(0xFF);
    RunRsa(portable::RsaModExp, n, two, in, &rc);
    EXPECT_NE(rc, 0);
}

TEST(PortableCrypto, RsaModulusWithLeadingZeroBytes) {
    // 3233 written in 5 bytes: the output keeps the modulus length.
    int rc = -1;
    EXPECT_EQ(RunRsa(portable::RsaModExp, FromHex("0000000ca1"), FromHex("11"), FromHex("41"), &rc),
              FromHex("0000000ae6"));
    EXPECT_EQ(rc, 0);
}

#ifdef VELK_PORTABLE_PLATFORM
TEST(PortablePlatform, PublishesSha1AndRsaAndLeavesTheCiphersNull) {
    const emv_kernel_alg_t &alg = pemv_kn_glb->opt_alg;
    EXPECT_EQ(alg.opt_sha_1, &portable::Sha1);
    EXPECT_EQ(alg.opt_rsa_encrypt, &portable::RsaModExp);
    EXPECT_EQ(alg.opt_rsa_decrypt, &portable::RsaModExp);
    EXPECT_EQ(alg.opt_des_encrypt, nullptr);
    EXPECT_EQ(alg.opt_des_decrypt, nullptr);
    EXPECT_EQ(alg.opt_aes_encrypt, nullptr);
    EXPECT_EQ(alg.opt_aes_decrypt, nullptr);
    EXPECT_EQ(pemv_kn_glb->opt_std.opt_log, nullptr);
}
#endif

}  // namespace
}  // namespace velk::test
