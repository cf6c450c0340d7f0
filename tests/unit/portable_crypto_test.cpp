// SPDX-License-Identifier: Apache-2.0
// The portable RSA's limits, and what the portable platform publishes. Its
// known answers are the rows of unit/crypto.data, run on the platform linked
// (the portable one on targets without OpenSSL).
#include <gtest/gtest.h>

#include <vector>

#include "emv_kernel_global.h"
#include "portable_crypto.hpp"
#include "velk/host/tlv.hpp"

namespace velk::test {
namespace {

using host::Bytes;
using host::FromHex;

// in ^ exponent mod n; the output is one byte longer than the modulus so
// that a write past it shows.
Bytes RunRsa(const Bytes &n, const Bytes &exponent, const Bytes &in, int *rc) {
    Bytes out(n.size() + 1, 0xEE);
    *rc = portable::RsaModExp(n.data(), static_cast<uint32_t>(n.size()), exponent.data(),
                              static_cast<uint32_t>(exponent.size()), in.data(),
                              static_cast<uint32_t>(in.size()), out.data());
    EXPECT_EQ(out.back(), 0xEE) << "RSA wrote past the modulus length";
    out.pop_back();
    return out;
}

TEST(PortableCrypto, RsaTakesModuliUpTo2048BitsAndNoLonger) {
    // n = 2^2048 - 1 (odd): 2^2047 squared is 2^4094 = 2^(2*2048 - 2) = 2^-2 =
    // 4^-1 mod n, and 4 * (2^2046) = 2^2048 = 1 mod n, so the result is 2^2046.
    Bytes n(portable::kMaxModulusBytes, 0xFF);
    Bytes in(n.size(), 0);
    in[0] = 0x80;
    const Bytes two = FromHex("02");
    int rc = -1;
    const Bytes out = RunRsa(n, two, in, &rc);
    Bytes expected(n.size(), 0);
    expected[0] = 0x40;
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, expected);

    n.push_back(0xFF);
    RunRsa(n, two, in, &rc);
    EXPECT_NE(rc, 0);
}

TEST(PortableCrypto, RsaModulusWithLeadingZeroBytes) {
    // 3233 written in 5 bytes: the output keeps the modulus length.
    int rc = -1;
    EXPECT_EQ(RunRsa(FromHex("0000000ca1"), FromHex("11"), FromHex("41"), &rc),
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
