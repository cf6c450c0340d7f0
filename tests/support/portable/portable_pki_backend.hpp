// SPDX-License-Identifier: Apache-2.0
// The test PKI over the portable crypto: the backend of builds without
// OpenSSL (armhf), built everywhere so that both backends can be compared.
// It cannot generate keys; use the fixed test keys.
#pragma once

#include <vector>

#include "velk/pki/pki.hpp"
#ifdef VELK_PKI_OPENSSL
#include "velk/pki/openssl_backend.hpp"
#endif

namespace velk::test {

const pki::Backend &PortablePkiBackend();

// The backend tests sign with: OpenSSL where the host side is built, the
// portable one otherwise.
inline const pki::Backend &TestPkiBackend() {
#ifdef VELK_PKI_OPENSSL
    return pki::OpenSslBackend();
#else
    return PortablePkiBackend();
#endif
}

// Every backend this build has.
inline std::vector<const pki::Backend *> AllPkiBackends() {
#ifdef VELK_PKI_OPENSSL
    return {&pki::OpenSslBackend(), &PortablePkiBackend()};
#else
    return {&PortablePkiBackend()};
#endif
}

}  // namespace velk::test
