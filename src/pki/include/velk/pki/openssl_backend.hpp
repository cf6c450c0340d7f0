// SPDX-License-Identifier: Apache-2.0
// The test PKI's OpenSSL backend (velk_pki_openssl): SHA-1 and raw RSA from
// the host framework's crypto, and fresh keys of any size OpenSSL accepts.
#pragma once

#include "velk/pki/pki.hpp"

namespace velk::pki {

const Backend &OpenSslBackend();

}  // namespace velk::pki
