// SPDX-License-Identifier: Apache-2.0
// pemv_kn_glb for test builds without OpenSSL (the armhf build under qemu):
// memory functions from libc, SHA-1 and RSA from the portable crypto of this
// folder. DES and AES stay null: the kernel never calls them.
#include <cstring>

#include "emv_kernel_global.h"
#include "portable_crypto.hpp"

namespace {

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

constinit emv_kn_glb_t g_platform = {{MemsetFn, MemcpyFn, MemcmpFn, StrlenFn, nullptr},
                                     {velk::portable::RsaModExp, velk::portable::RsaModExp,
                                      velk::portable::Sha1, nullptr, nullptr, nullptr, nullptr},
                                     nullptr,
                                     0,
                                     0,
                                     0,
                                     nullptr,
                                     0,
                                     {}};

}  // namespace

extern "C" {
emv_kn_glb_t *pemv_kn_glb = &g_platform;
}
