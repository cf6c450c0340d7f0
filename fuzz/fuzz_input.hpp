// SPDX-License-Identifier: Apache-2.0
// Shared by the fuzz targets: the input read as a stream of bytes, and the
// check that turns a broken invariant into a crash libFuzzer reports.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace velk::fuzz {

inline void Require(bool ok) {
    if (!ok) abort();
}

struct Input {
    const uint8_t *p;
    size_t n;
    uint8_t Byte() {
        if (n == 0) return 0;
        --n;
        return *p++;
    }
};

}  // namespace velk::fuzz
