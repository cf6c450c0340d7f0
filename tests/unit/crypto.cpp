// SPDX-License-Identifier: Apache-2.0
// Drivers of crypto.data and ciphers.data: known answers and refusals of the
// platform's service table, whichever platform is linked (the OpenSSL host
// framework, or the portable one where there is no OpenSSL).
//
//   sha1:message:digest
//   rsa:public|private:modulus:exponent:input:output   ("-": refused, the
//       output zeroed and nothing written past the modulus' length)
//   des:encrypt|decrypt:key:iv:input:output            ("-": refused, nothing
//   aes:encrypt|decrypt:key:input:output                written)
//   des_in_place:key:iv:input:output
#include "emv_kernel_global.h"
#include "rows.hpp"

namespace velk::test {
namespace {

const emv_kernel_alg_t &Alg() {
    return pemv_kn_glb->opt_alg;
}

// Compares the output and the result with the row's expectation ("-":
// refused, with the output as `refused` leaves it).
void Expect(Row &row, const std::string &want, int rc, const Bytes &out, const Bytes &refused) {
    if (want == "-") {
        row.Eq("refused", true, rc != 0);
        row.Eq("output", refused, out);
        return;
    }
    row.Eq("result", 0u, static_cast<uint32_t>(rc));
    row.Eq("output", Row::ParseHex(want), out);
}

VELK_DRIVER(sha1) {
    const Bytes m = row.Hex(0);
    uint8_t digest[20] = {};
    row.Eq(
        "result", 0u,
        static_cast<uint32_t>(Alg().opt_sha_1(m.data(), static_cast<uint32_t>(m.size()), digest)));
    row.Eq("digest", row.Hex(1), Bytes(digest, digest + 20));
}

VELK_DRIVER(rsa) {
    const Bytes n = row.Hex(1), e = row.Hex(2), in = row.Hex(3);
    Bytes out(n.size() + 1, 0xEE);
    const auto fn = row.Arg(0) == "public" ? Alg().opt_rsa_encrypt : Alg().opt_rsa_decrypt;
    const int rc =
        fn(n.data(), static_cast<uint32_t>(n.size()), e.data(), static_cast<uint32_t>(e.size()),
           in.data(), static_cast<uint32_t>(in.size()), out.data());
    row.Eq("nothing past the modulus", 0xEEu, out.back());
    out.pop_back();
    Expect(row, row.Arg(4), rc, out, Bytes(n.size(), 0));
}

VELK_DRIVER(des) {
    const Bytes key = row.Hex(1), iv = row.Hex(2), in = row.Hex(3);
    Bytes out(in.size(), 0xEE);
    const auto fn = row.Arg(0) == "encrypt" ? Alg().opt_des_encrypt : Alg().opt_des_decrypt;
    const int rc =
        fn(key.data(), static_cast<uint32_t>(key.size()), iv.empty() ? nullptr : iv.data(),
           in.data(), static_cast<uint32_t>(in.size()), out.data());
    Expect(row, row.Arg(4), rc, out, Bytes(in.size(), 0xEE));
}

VELK_DRIVER(des_in_place) {
    const Bytes key = row.Hex(0), iv = row.Hex(1);
    Bytes data = row.Hex(2);
    const int rc =
        Alg().opt_des_encrypt(key.data(), static_cast<uint32_t>(key.size()), iv.data(), data.data(),
                              static_cast<uint32_t>(data.size()), data.data());
    Expect(row, row.Arg(3), rc, data, {});
}

VELK_DRIVER(aes) {
    const Bytes key = row.Hex(1), in = row.Hex(2);
    Bytes out(in.size(), 0xEE);
    const auto fn = row.Arg(0) == "encrypt" ? Alg().opt_aes_encrypt : Alg().opt_aes_decrypt;
    const int rc = fn(key.data(), static_cast<uint32_t>(key.size()), in.data(),
                      static_cast<uint32_t>(in.size()), out.data());
    Expect(row, row.Arg(3), rc, out, Bytes(in.size(), 0xEE));
}

}  // namespace
}  // namespace velk::test
