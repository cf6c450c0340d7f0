// SPDX-License-Identifier: Apache-2.0
// Shared pieces of the simulator's tests: the bundled profiles, hex, and the
// commands a kernel sends to a card.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "velk/card/card.hpp"
#include "velk/card/virtual_card.hpp"
#include "velk/host/crypto.hpp"
#include "velk/host/tlv.hpp"
#include "velk/term/terminal_profile.hpp"

namespace velk::term::test {

using velk::host::Bytes;
using velk::host::FromHex;

inline std::filesystem::path Profiles() {
    return VELK_TEST_PROFILES;
}

inline velk::card::CardProfile CardProfileNamed(const std::string &name) {
    return velk::card::LoadCardProfile(Profiles() / "cards" / (name + ".json"));
}

inline TerminalProfile TerminalNamed(const std::string &name) {
    return LoadTerminalProfile(Profiles() / "terminals" / (name + ".json"));
}

inline Bytes Select(const Bytes &aid) {
    return velk::card::SelectCommand(aid);
}

// GET PROCESSING OPTIONS with related data of the given length (zeros).
inline Bytes Gpo(size_t pdol_length) {
    Bytes c(pdol_length + 8, 0x00);
    c[0] = 0x80;
    c[1] = 0xA8;
    c[4] = static_cast<uint8_t>(pdol_length + 2);
    c[5] = 0x83;
    c[6] = static_cast<uint8_t>(pdol_length);
    return c;
}

inline Bytes GenerateAc(uint8_t p1, const Bytes &data) {
    Bytes c(data.size() + 6, 0x00);
    c[0] = 0x80;
    c[1] = 0xAE;
    c[2] = p1;
    c[4] = static_cast<uint8_t>(data.size());
    std::copy(data.begin(), data.end(), c.begin() + 5);
    return c;
}

// One DES (8-byte key) or 3DES (16-byte key) pass in ECB, for reference
// computations that do not go through the code under test.
inline Bytes DesEcb(const Bytes &key, const Bytes &in, bool encrypt) {
    namespace crypto = velk::host::crypto;
    Bytes out(in.size());
    EXPECT_TRUE(crypto::Des(encrypt ? crypto::Direction::kEncrypt : crypto::Direction::kDecrypt,
                            key, {}, in, out));
    return out;
}

// ISO/IEC 9797-1 MAC algorithm 3, padding method 2, step by step.
inline Bytes ReferenceRetailMac(const Bytes &key16, const Bytes &data) {
    Bytes msg = data;
    msg.push_back(0x80);
    msg.resize((msg.size() + 7) / 8 * 8, 0x00);
    const Bytes kl(key16.begin(), key16.begin() + 8), kr(key16.begin() + 8, key16.end());
    Bytes h(8, 0x00);
    for (size_t off = 0; off < msg.size(); off += 8) {
        for (size_t i = 0; i < 8; ++i)
            h[i] ^= msg[off + i];
        h = DesEcb(kl, h, true);
    }
    return DesEcb(kl, DesEcb(kr, h, false), true);
}

inline uint16_t Sw(const Bytes &response) {
    return velk::card::StatusWord(response);
}

// The first element with the tag in a response (data and status word).
inline std::optional<Bytes> Find(const Bytes &response, uint32_t tag) {
    const auto data = velk::card::ResponseData(response);
    const auto nodes = velk::card::ParseTlvData(data);
    const auto *n = velk::host::Find(nodes, tag);
    return n ? std::optional<Bytes>(n->value) : std::nullopt;
}

}  // namespace velk::term::test
