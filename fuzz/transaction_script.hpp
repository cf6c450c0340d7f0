// SPDX-License-Identifier: Apache-2.0
// The input of transaction_fuzz: a script of records, each one byte of kind,
// two bytes of length (big-endian) and the data. A length past the end of the
// input takes what is left. At the top level a script starts transactions and
// posts signals; inside the kernel's callback each request consumes the
// records up to its answer. The seed recorder (fuzz/seeds) writes the same
// records from velk-term's scenarios. A 'Y' record at the top level switches
// on the host's test PKI for the input (transaction_pki.hpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace velk::fuzz {

enum Kind : uint8_t {
    kStart = 'S',       // Kernel_Start_VELK_ with the data as the input
    kPost = 'P',        // a signal: data[0] the type, the rest its message data
    kPostNull = 'N',    // a signal with no data pointer: type, then a 4-byte length
    kReplyRaw = 'R',    // the exchange buffer from its first byte, length = data size
    kReplyLying = 'L',  // 4-byte length handed back, then the buffer's bytes
    kWrapped = 'W',     // 7F01 { data }: the data are the reply's children
    kRapdu = 'D',       // 7F01 { DF03 data }: a card's response
    kFail = 'F',        // the callback fails: 4-byte status (0x3FFFF when shorter)
    kKeep = 'K',        // the request left in place, status 0
};

struct Record {
    uint8_t kind = 0;
    const uint8_t *data = nullptr;
    size_t size = 0;
};

class ScriptReader {
public:
    ScriptReader(const uint8_t *p, size_t n) : p_(p), n_(n) {}
    bool Done() const { return n_ == 0; }
    // The kind of the next record without consuming it (0 at the end).
    uint8_t PeekKind() const { return n_ == 0 ? 0 : p_[0]; }
    Record Next() {
        Record r;
        if (n_ == 0) return r;
        r.kind = p_[0];
        size_t len = n_ > 1 ? static_cast<size_t>(p_[1]) << 8 : 0;
        len |= n_ > 2 ? p_[2] : 0;
        const size_t header = n_ < 3 ? n_ : 3;
        p_ += header;
        n_ -= header;
        r.data = p_;
        r.size = len < n_ ? len : n_;
        p_ += r.size;
        n_ -= r.size;
        return r;
    }

private:
    const uint8_t *p_;
    size_t n_;
};

inline void AppendRecord(std::vector<uint8_t> &out, uint8_t kind, const uint8_t *data,
                         size_t size) {
    out.push_back(kind);
    out.push_back(static_cast<uint8_t>(size >> 8));
    out.push_back(static_cast<uint8_t>(size));
    out.insert(out.end(), data, data + size);
}

inline uint32_t Be32(const uint8_t *p, size_t n) {
    uint32_t v = 0;
    for (size_t i = 0; i < 4; ++i)
        v = (v << 8) | (i < n ? p[i] : 0u);
    return v;
}

}  // namespace velk::fuzz
