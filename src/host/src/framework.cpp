// SPDX-License-Identifier: Apache-2.0
// pemv_kn_glb for a Linux host.
#include "velk/host/framework.hpp"

#include <cstring>
#include <optional>
#include <span>
#include <utility>

#include "velk/host/crypto.hpp"

namespace {

namespace crypto = velk::host::crypto;

void *MemsetFn(void *dest, int value, int count) {
    return std::memset(dest, value, static_cast<size_t>(count));
}
void *MemcpyFn(void *dest, const void *src, int count) {
    return std::memmove(dest, src, static_cast<size_t>(count));
}
int MemcmpFn(const void *a, const void *b, int count) {
    return std::memcmp(a, b, static_cast<size_t>(count));
}
int StrlenFn(const char *str) {
    return static_cast<int>(std::strlen(str));
}

std::function<void(const char *)> &Sink() {
    static std::function<void(const char *)> sink;
    return sink;
}
// The sink is the host's code; whatever it throws stops here, because the
// kernel that called us cannot unwind.
void LogFn(const char *text) {
    try {
        if (Sink() && text != nullptr) Sink()(text);
    } catch (...) {
    }
}

// The kernel passes raw pointers; a null pointer with a length is refused
// rather than turned into a span.
std::optional<std::span<const uint8_t>> In(const uint8_t *p, uint32_t len) {
    if (p == nullptr && len != 0) return std::nullopt;
    return std::span<const uint8_t>(p, p == nullptr ? 0 : len);
}

constexpr int kOk = 0;
constexpr int kFailed = 1;

int Result(bool ok) {
    return ok ? kOk : kFailed;
}

int RsaFn(const uint8_t *n, uint32_t nLen, const uint8_t *exp, uint32_t expLen, const uint8_t *in,
          uint32_t inLen, uint8_t *out, bool secret) {
    if (out == nullptr) return kFailed;
    const auto modulus = In(n, nLen), exponent = In(exp, expLen), input = In(in, inLen);
    if (!modulus || !exponent || !input) {
        std::memset(out, 0, nLen);
        return kFailed;
    }
    return Result(crypto::RsaRaw(*modulus, *exponent, *input, {out, nLen}, secret));
}
int RsaPublicFn(const uint8_t *n, uint32_t nLen, const uint8_t *e, uint32_t eLen, const uint8_t *in,
                uint32_t inLen, uint8_t *out) {
    return RsaFn(n, nLen, e, eLen, in, inLen, out, false);
}
int RsaPrivateFn(const uint8_t *n, uint32_t nLen, const uint8_t *d, uint32_t dLen,
                 const uint8_t *in, uint32_t inLen, uint8_t *out) {
    return RsaFn(n, nLen, d, dLen, in, inLen, out, true);
}

int Sha1Fn(const uint8_t *in, uint32_t inLen, uint8_t *digest) {
    const auto input = In(in, inLen);
    if (!input || digest == nullptr) return kFailed;
    return Result(crypto::Sha1(*input, std::span<uint8_t, 20>(digest, 20)));
}

// `fill` is the CBC initial vector (8 bytes) or null for ECB.
template <crypto::Direction D>
int DesFn(const uint8_t *key, uint32_t keyLen, const uint8_t *fill, const uint8_t *in,
          uint32_t inLen, uint8_t *out) {
    const auto k = In(key, keyLen), input = In(in, inLen);
    if (!k || !input || (out == nullptr && inLen != 0)) return kFailed;
    const std::span<const uint8_t> iv(fill, fill == nullptr ? 0 : 8);
    return Result(crypto::Des(D, *k, iv, *input, std::span<uint8_t>(out, input->size())));
}

template <crypto::Direction D>
int AesFn(const uint8_t *key, uint32_t keyLen, const uint8_t *in, uint32_t inLen, uint8_t *out) {
    const auto k = In(key, keyLen), input = In(in, inLen);
    if (!k || !input || (out == nullptr && inLen != 0)) return kFailed;
    return Result(crypto::Aes(D, *k, *input, std::span<uint8_t>(out, input->size())));
}

constinit emv_kn_glb_t g_framework = {
    {MemsetFn, MemcpyFn, MemcmpFn, StrlenFn, LogFn},
    {RsaPrivateFn, RsaPublicFn, Sha1Fn, DesFn<crypto::Direction::kDecrypt>,
     DesFn<crypto::Direction::kEncrypt>, AesFn<crypto::Direction::kDecrypt>,
     AesFn<crypto::Direction::kEncrypt>},
    nullptr,
    0,
    0,
    0,
    nullptr,
    0,
    {}};

}  // namespace

extern "C" {
emv_kn_glb_t *pemv_kn_glb = &g_framework;
}

namespace velk::host {

emv_kn_glb_t &Framework() {
    return g_framework;
}

void SetLogSink(std::function<void(const char *)> sink) {
    Sink() = std::move(sink);
}

}  // namespace velk::host
