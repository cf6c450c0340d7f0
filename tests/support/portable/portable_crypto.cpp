// SPDX-License-Identifier: Apache-2.0
// Portable SHA-1 and RSA exponentiation (see portable_crypto.hpp). 32-bit
// limbs with 64-bit products, so the code is the same on the 32-bit target it
// exists for.
#include "portable_crypto.hpp"

#include <array>
#include <cstddef>
#include <cstring>

namespace velk::portable {
namespace {

// ---- SHA-1 ----------------------------------------------------------------

constexpr uint32_t Rotl(uint32_t x, unsigned s) {
    return (x << s) | (x >> (32 - s));
}

class Sha1Context {
public:
    void Update(const uint8_t *p, uint64_t len) {
        for (uint64_t i = 0; i < len; ++i) {
            block_[used_++] = p[i];
            if (used_ == block_.size()) Compress();
        }
        bits_ += len * 8;
    }

    void Finish(uint8_t *digest) {
        const uint64_t bits = bits_;
        const uint8_t one = 0x80, zero = 0;
        Update(&one, 1);
        while (used_ != 56)
            Update(&zero, 1);
        for (int i = 7; i >= 0; --i) {
            const auto b = static_cast<uint8_t>(bits >> (8 * i));
            Update(&b, 1);
        }
        for (size_t i = 0; i < 20; ++i)
            digest[i] = static_cast<uint8_t>(h_[i / 4] >> (24 - 8 * (i % 4)));
    }

private:
    void Compress() {
        uint32_t w[80];
        for (size_t i = 0; i < 16; ++i) {
            w[i] = static_cast<uint32_t>(block_[4 * i]) << 24 |
                   static_cast<uint32_t>(block_[4 * i + 1]) << 16 |
                   static_cast<uint32_t>(block_[4 * i + 2]) << 8 | block_[4 * i + 3];
        }
        for (size_t i = 16; i < 80; ++i)
            w[i] = Rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
        uint32_t a = h_[0], b = h_[1], c = h_[2], d = h_[3], e = h_[4];
        for (size_t i = 0; i < 80; ++i) {
            uint32_t f, k;
            if (i < 20) {
                f = (b & c) | (~b & d), k = 0x5A827999;
            } else if (i < 40) {
                f = b ^ c ^ d, k = 0x6ED9EBA1;
            } else if (i < 60) {
                f = (b & c) | (b & d) | (c & d), k = 0x8F1BBCDC;
            } else {
                f = b ^ c ^ d, k = 0xCA62C1D6;
            }
            const uint32_t t = Rotl(a, 5) + f + e + k + w[i];
            e = d, d = c, c = Rotl(b, 30), b = a, a = t;
        }
        h_[0] += a, h_[1] += b, h_[2] += c, h_[3] += d, h_[4] += e;
        used_ = 0;
    }

    std::array<uint32_t, 5> h_{0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
    std::array<uint8_t, 64> block_{};
    size_t used_ = 0;
    uint64_t bits_ = 0;
};

// ---- Montgomery arithmetic over 32-bit limbs, least significant first -----

constexpr size_t kMaxLimbs = kMaxModulusBytes / 4;
using Limbs = std::array<uint32_t, kMaxLimbs>;

// Big-endian bytes into k limbs; the caller guarantees len <= 4k.
void Load(const uint8_t *p, uint32_t len, Limbs &w) {
    w.fill(0);
    for (uint32_t i = 0; i < len; ++i)
        w[i / 4] |= static_cast<uint32_t>(p[len - 1 - i]) << (8 * (i % 4));
}

void Store(const Limbs &w, uint8_t *out, uint32_t len) {
    for (uint32_t i = 0; i < len; ++i)
        out[len - 1 - i] = static_cast<uint8_t>(w[i / 4] >> (8 * (i % 4)));
}

// a >= b over k limbs (with an extra top word for a).
bool NotBelow(uint32_t a_top, const Limbs &a, const Limbs &b, size_t k) {
    if (a_top != 0) return true;
    for (size_t i = k; i-- > 0;) {
        if (a[i] != b[i]) return a[i] > b[i];
    }
    return true;
}

void Subtract(Limbs &a, const Limbs &b, size_t k) {
    uint64_t borrow = 0;
    for (size_t i = 0; i < k; ++i) {
        const uint64_t d = static_cast<uint64_t>(a[i]) - b[i] - borrow;
        a[i] = static_cast<uint32_t>(d);
        borrow = (d >> 32) & 1;
    }
}

class Montgomery {
public:
    // n must be odd; k limbs hold it.
    Montgomery(const Limbs &n, size_t k) : n_(n), k_(k) {
        // Newton's iteration doubles the correct low bits of n^-1 each round;
        // n0 itself is right to 3 bits for any odd n0.
        uint32_t x = n[0];
        for (int i = 0; i < 5; ++i)
            x *= 2 - n[0] * x;
        n0inv_ = 0u - x;
        // R^2 mod n by doubling 1 2 * 32k times.
        r2_.fill(0);
        r2_[0] = 1;
        for (size_t i = 0; i < 64 * k; ++i) {
            uint32_t carry = 0;
            for (size_t j = 0; j < k; ++j) {
                const uint32_t next = r2_[j] >> 31;
                r2_[j] = (r2_[j] << 1) | carry;
                carry = next;
            }
            if (NotBelow(carry, r2_, n_, k)) Subtract(r2_, n_, k);
        }
    }

    // r = a * b / R mod n, for a, b < n (CIOS).
    void Mul(const Limbs &a, const Limbs &b, Limbs &r) const {
        std::array<uint32_t, kMaxLimbs + 2> t{};
        for (size_t i = 0; i < k_; ++i) {
            uint64_t carry = 0;
            for (size_t j = 0; j < k_; ++j) {
                const uint64_t s = static_cast<uint64_t>(a[j]) * b[i] + t[j] + carry;
                t[j] = static_cast<uint32_t>(s);
                carry = s >> 32;
            }
            uint64_t s = static_cast<uint64_t>(t[k_]) + carry;
            t[k_] = static_cast<uint32_t>(s);
            t[k_ + 1] = static_cast<uint32_t>(s >> 32);

            const uint32_t m = t[0] * n0inv_;
            carry = (static_cast<uint64_t>(m) * n_[0] + t[0]) >> 32;
            for (size_t j = 1; j < k_; ++j) {
                s = static_cast<uint64_t>(m) * n_[j] + t[j] + carry;
                t[j - 1] = static_cast<uint32_t>(s);
                carry = s >> 32;
            }
            s = static_cast<uint64_t>(t[k_]) + carry;
            t[k_ - 1] = static_cast<uint32_t>(s);
            t[k_] = t[k_ + 1] + static_cast<uint32_t>(s >> 32);
        }
        r.fill(0);
        for (size_t j = 0; j < k_; ++j)
            r[j] = t[j];
        if (NotBelow(t[k_], r, n_, k_)) Subtract(r, n_, k_);
    }

    const Limbs &R2() const { return r2_; }

private:
    const Limbs &n_;
    size_t k_;
    uint32_t n0inv_ = 0;
    Limbs r2_{};
};

bool AllZero(const uint8_t *p, uint32_t len) {
    for (uint32_t i = 0; i < len; ++i) {
        if (p[i] != 0) return false;
    }
    return true;
}

}  // namespace

int RsaModExp(const uint8_t *n, uint32_t nLen, const uint8_t *exp, uint32_t expLen,
              const uint8_t *in, uint32_t inLen, uint8_t *out) {
    if (out == nullptr || n == nullptr || nLen == 0) return 1;
    std::memset(out, 0, nLen);
    if (nLen > kMaxModulusBytes || inLen > nLen || (in == nullptr && inLen != 0)) return 1;
    if (exp == nullptr || AllZero(exp, expLen)) return 1;

    const size_t k = (nLen + 3) / 4;
    Limbs modulus, base;
    Load(n, nLen, modulus);
    Load(in, inLen, base);
    // An even modulus or one below 3 is no RSA key (and Montgomery needs an
    // odd one); the OpenSSL platform refuses the same.
    bool above_two = modulus[0] > 2;
    for (size_t i = 1; i < k; ++i)
        above_two = above_two || modulus[i] != 0;
    if ((modulus[0] & 1) == 0 || !above_two) return 1;
    if (NotBelow(0, base, modulus, k)) return 1;

    const Montgomery mont(modulus, k);
    Limbs one{};
    one[0] = 1;
    Limbs x, acc;
    mont.Mul(base, mont.R2(), x);
    mont.Mul(one, mont.R2(), acc);
    bool started = false;
    for (uint32_t byte = 0; byte < expLen; ++byte) {
        for (int bit = 7; bit >= 0; --bit) {
            if (started) mont.Mul(acc, acc, acc);
            if ((exp[byte] >> bit) & 1) {
                mont.Mul(acc, x, acc);
                started = true;
            }
        }
    }
    mont.Mul(acc, one, acc);
    Store(acc, out, nLen);
    return 0;
}

int Sha1(const uint8_t *in, uint32_t inLen, uint8_t *digest) {
    if (digest == nullptr || (in == nullptr && inLen != 0)) return 1;
    Sha1Context ctx;
    ctx.Update(in, inLen);
    ctx.Finish(digest);
    return 0;
}

}  // namespace velk::portable
