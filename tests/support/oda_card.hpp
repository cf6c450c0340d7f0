// SPDX-License-Identifier: Apache-2.0
// Cards with a real certificate chain for offline data authentication, built
// at test time with the test PKI (TestPkiBackend(): OpenSSL natively, the
// portable backend on armhf), and the host's side of it: the CA key directory
// that answers D4 and the revocation list that answers E9.
//
//   FirstTap tap;                       // the standard reader and card
//   OdaCard oda;                        // CDA with the default keys
//   oda.ApplyTo(tap);                   // AIP, AFL, records, reader, GENERATE AC
//   ScriptedHost host;
//   oda.Directory().Install(host);      // D4 and E9
//   const TapResult r = tap.Run(host);
//
// The card keeps the standard tap's two records (SFI 1) and marks both for
// offline data authentication; a third record (SFI 2, not signed) carries the
// certificates: 8F, 90, 92, 9F32, 9F4A = 82, and 93 (SDA) or 9F46, 9F47, 9F48
// (DDA, CDA). The static data is computed from the records exactly as the
// kernel gathers it. Knobs change one thing each, so that a test of a failure
// reads as the failure.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "first_tap.hpp"
#include "portable_pki_backend.hpp"
#include "scripted_host.hpp"
#include "velk/pki/pki.hpp"
#include "velk/pki/fixed_keys.hpp"

namespace velk::test {

// The host's CA key directory and certificate revocation list.
struct CaDirectory {
    Bytes rid = velk::host::FromHex("A000000003");
    uint8_t index = 0x92;
    pki::RsaKey key;
    // Revoked issuer certificates: RID (5) | CA index | serial number (3).
    std::vector<Bytes> revoked;
    uint8_t revokedIndicator = 0x01;

    // D4: DF8201 and DF8202 when the first 5 bytes of 9F06 and 8F name the
    // key, else a reply without them. E9: DF8109 = 01 (or revokedIndicator)
    // for a listed certificate, else 00.
    void Install(ScriptedHost &host) const;
};

enum class Cam { Sda, Dda, Cda };

struct OdaCard {
    Cam cam = Cam::Cda;
    const pki::Backend *backend = &TestPkiBackend();
    // Small enough for qemu; CA 1024 with issuer 864 needs a 16-byte issuer
    // remainder, issuer 864 with ICC 688 a 20-byte ICC remainder.
    const pki::RsaKey *ca = &pki::fixed_keys::Ca1024();
    const pki::RsaKey *issuer = &pki::fixed_keys::Issuer864();
    const pki::RsaKey *icc = &pki::fixed_keys::Icc688();
    uint8_t caIndex = 0x92;
    // Identity fields default to the card's PAN (its first 6 digits for the
    // issuer identifier); expiry 12/49.
    pki::IssuerCertificateRequest issuerRequest;
    pki::IccCertificateRequest iccRequest;
    std::optional<std::string> issuerIdentifier;
    std::optional<std::string> iccPan;

    // Faults, each applied after everything was signed.
    // The certificate record's data objects replaced (a value) or left out
    // (nullopt), e.g. {0x92, std::nullopt} for a missing remainder.
    std::map<uint32_t, std::optional<Bytes>> certificateRecord;
    // The first signed record carries DF7F 01 00 when signed and DF7F 01 01
    // when read.
    bool alterSignedRecord = false;

    // DDA: the ICC Dynamic Number; the INTERNAL AUTHENTICATE answer is
    // 80 L 9F4B 90 00 unless `sddaResponse` replaces it.
    Bytes iccDynamicNumber = velk::host::FromHex("1122334455667788");
    std::optional<Bytes> sddaResponse;
    // CDA: the CID inside the signature (default: the card's 9F27) and a
    // transaction data hash over other data than the kernel has.
    std::optional<uint8_t> signedCid;
    bool alterTransactionData = false;

    // The directory a host needs for this card (its CA key, nothing revoked).
    CaDirectory Directory() const;

    // Sets the tap's AIP, AFL, records and reader capabilities for the method
    // and, for DDA and CDA, the INTERNAL AUTHENTICATE exchange (in
    // tap.beforeGac) or the GENERATE AC with its signature (P1 | 0x10). The
    // tap's other knobs (PAN, CDOL1, CID, TVR, ...) must be set before.
    void ApplyTo(FirstTap &tap) const;

    // What ApplyTo signed, for tests that look inside.
    struct Signed {
        Bytes staticData;
        pki::IssuerCertificate issuerCertificate;
        pki::IccCertificate iccCertificate;
        Bytes signedStaticData;  // 93
        Bytes sdad;              // 9F4B (DDA, CDA)
    };
    mutable Signed made;
};

}  // namespace velk::test
