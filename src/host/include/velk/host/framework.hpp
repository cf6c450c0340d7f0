// SPDX-License-Identifier: Apache-2.0
// The host framework for Linux: defines pemv_kn_glb, the platform services
// under the kernel (memory functions from libc, RSA, SHA-1, DES/3DES and AES
// from OpenSSL 3). Linking this library is enough to publish it; the record
// is constant-initialised, so it is ready before any static constructor runs.
#pragma once

#include <functional>

#include "emv_kernel_global.h"

namespace velk::host {

// The published record.
emv_kn_glb_t &Framework();

// Where the kernel's trace lines go; an empty function drops them (default).
void SetLogSink(std::function<void(const char *)> sink);

}  // namespace velk::host
