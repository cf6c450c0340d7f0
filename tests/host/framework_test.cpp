// SPDX-License-Identifier: Apache-2.0
// The OpenSSL host framework's service table: every member published, and
// null buffers refused. Its known answers are the rows of unit/crypto.data
// and unit/ciphers.data.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

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

TEST(Framework, RsaRefusesNullBuffersWithoutWriting) {
    const Bytes n = FromHex("0ca1"), e = FromHex("11");  // the textbook key
    Bytes out(n.size(), 0x55);
    EXPECT_NE(Alg().opt_rsa_encrypt(n.data(), 2, e.data(), 1, nullptr, 1, out.data()), 0);
    EXPECT_EQ(out, Bytes(n.size(), 0));
    out.assign(n.size(), 0x55);
    EXPECT_NE(Alg().opt_rsa_encrypt(nullptr, 2, e.data(), 1, n.data(), 1, out.data()), 0);
    EXPECT_EQ(out, Bytes(n.size(), 0));
    EXPECT_NE(Alg().opt_rsa_encrypt(n.data(), 2, e.data(), 1, n.data(), 1, nullptr), 0);
}

}  // namespace
}  // namespace velk::test
