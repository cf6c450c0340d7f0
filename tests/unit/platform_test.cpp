// SPDX-License-Identifier: Apache-2.0
// The common layer's crypto wrappers over the platform table: what each
// selector reaches and that arguments pass unchanged. pemv_kn_glb is pointed at a
// recording table for the duration of each test, so this runs on every
// platform.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "baseKernel.h"
#include "emv_kernel_global.h"
#include "reg_alg.h"
#include "reg_std.h"

namespace velk::test {
namespace {

enum Member { kRsaDec, kRsaEnc, kSha1, kDesDec, kDesEnc, kAesDec, kAesEnc };

// One call into the table: the member, its pointer arguments in order and its
// integer arguments in order.
struct Call {
    Member member;
    std::vector<const void *> ptrs;
    std::vector<uint32_t> ints;
    bool operator==(const Call &) const = default;
};

std::vector<Call> g_calls;

// Each member answers with a value of its own, so that a wrapper's result
// shows which member produced it.
int Answer(Member m) {
    return 100 + static_cast<int>(m);
}

template <Member M>
int Rsa(const uint8_t *n, uint32_t nLen, const uint8_t *e, uint32_t eLen, const uint8_t *in,
        uint32_t inLen, uint8_t *out) {
    g_calls.push_back({M, {n, e, in, out}, {nLen, eLen, inLen}});
    return Answer(M);
}
int Sha(const uint8_t *in, uint32_t len, uint8_t *digest) {
    g_calls.push_back({kSha1, {in, digest}, {len}});
    return Answer(kSha1);
}
template <Member M>
int Des(const uint8_t *key, uint32_t keyLen, const uint8_t *fill, const uint8_t *in, uint32_t inLen,
        uint8_t *out) {
    g_calls.push_back({M, {key, fill, in, out}, {keyLen, inLen}});
    return Answer(M);
}
template <Member M>
int Aes(const uint8_t *key, uint32_t keyLen, const uint8_t *in, uint32_t inLen, uint8_t *out) {
    g_calls.push_back({M, {key, in, out}, {keyLen, inLen}});
    return Answer(M);
}

emv_kn_glb_t g_recording = {
    {},
    {Rsa<kRsaDec>, Rsa<kRsaEnc>, Sha, Des<kDesDec>, Des<kDesEnc>, Aes<kAesDec>, Aes<kAesEnc>},
    nullptr,
    0,
    0,
    0,
    nullptr,
    0,
    {}};

class PlatformWrappers : public ::testing::Test {
protected:
    void SetUp() override {
        saved_ = pemv_kn_glb;
        pemv_kn_glb = &g_recording;
        g_calls.clear();
    }
    void TearDown() override { pemv_kn_glb = saved_; }

    const uint8_t key_[24] = {1, 2, 3};
    const uint8_t iv_[8] = {9};
    const uint8_t in_[16] = {7};
    uint8_t out_[32] = {};

private:
    emv_kn_glb_t *saved_ = nullptr;
};

TEST_F(PlatformWrappers, OnlySelectorOneHashesAndTheOthersLeaveTheOutputAlone) {
    for (uint32_t type : {0u, 1u, 2u, 3u, 4u, 5u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(type);
        g_calls.clear();
        uint8_t digest[20];
        std::fill(std::begin(digest), std::end(digest), uint8_t{0xA5});
        const int rc = sha_(type, in_, sizeof in_, digest);
        if (type == SHA_128) {
            EXPECT_EQ(rc, Answer(kSha1));
            EXPECT_EQ(g_calls, (std::vector<Call>{{kSha1, {in_, digest}, {16}}}));
        } else {
            EXPECT_EQ(rc, 0);
            EXPECT_TRUE(g_calls.empty());
            EXPECT_EQ(std::count(std::begin(digest), std::end(digest), 0xA5), 20);
        }
    }
}

TEST_F(PlatformWrappers, DesSelectorsChooseTheDirectionOnlyAndPassTheFillOn) {
    const struct {
        uint32_t type;
        int member;  // -1: nothing called
    } cases[] = {{DES_ECB_ENCRYPT, kDesEnc},
                 {DES_ECB_DECRYPT, kDesDec},
                 {DES_CBC_ENCRYPT, kDesEnc},
                 {DES_CBC_DECRYPT, kDesDec},
                 {4, -1},
                 {0xFFFFFFFF, -1}};
    for (const auto &c : cases) {
        for (const uint8_t *fill : {static_cast<const uint8_t *>(nullptr), iv_}) {
            SCOPED_TRACE(testing::Message() << c.type << (fill ? " with fill" : " without fill"));
            g_calls.clear();
            const int rc = des_(c.type, key_, 16, fill, in_, 8, out_);
            if (c.member < 0) {
                EXPECT_EQ(rc, 0);
                EXPECT_TRUE(g_calls.empty());
                continue;
            }
            const auto m = static_cast<Member>(c.member);
            EXPECT_EQ(rc, Answer(m));
            EXPECT_EQ(g_calls, (std::vector<Call>{{m, {key_, fill, in_, out_}, {16, 8}}}));
        }
    }
}

TEST_F(PlatformWrappers, AesOnlyTheFirstTwoSelectorsReachTheTable) {
    for (uint32_t type = 0; type <= 6; ++type) {
        SCOPED_TRACE(type);
        g_calls.clear();
        const int rc = aes_(type, key_, 16, in_, 16, out_);
        if (type == AES_ENCRYPT || type == AES_DECRYPT) {
            const Member m = type == AES_ENCRYPT ? kAesEnc : kAesDec;
            EXPECT_EQ(rc, Answer(m));
            EXPECT_EQ(g_calls, (std::vector<Call>{{m, {key_, in_, out_}, {16, 16}}}));
        } else {
            EXPECT_EQ(rc, 0);
            EXPECT_TRUE(g_calls.empty());
        }
    }
}

TEST_F(PlatformWrappers, RsaWrappersAndTheKernelEntryPointPassEverythingUnchanged) {
    EXPECT_EQ(rsa_encrypt_(key_, 24, iv_, 3, in_, 16, out_), Answer(kRsaEnc));
    EXPECT_EQ(rsa_decrypt_(key_, 24, iv_, 8, in_, 15, out_), Answer(kRsaDec));
    EXPECT_EQ(Velk_RSA_Encrypt(key_, 20, iv_, 1, in_, 14, out_),
              static_cast<uint32_t>(Answer(kRsaEnc)));
    EXPECT_EQ(g_calls, (std::vector<Call>{{kRsaEnc, {key_, iv_, in_, out_}, {24, 3, 16}},
                                          {kRsaDec, {key_, iv_, in_, out_}, {24, 8, 15}},
                                          {kRsaEnc, {key_, iv_, in_, out_}, {20, 1, 14}}}));
}

}  // namespace
}  // namespace velk::test
