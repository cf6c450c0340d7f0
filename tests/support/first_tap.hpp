// SPDX-License-Identifier: Apache-2.0
// A whole first tap against a standard reader and a standard card, with knobs,
// for tests that read as "card with CVM List X, amount Y -> GPO bytes, READ
// RECORDs, GENERATE AC bytes, outcome".
//
//   FirstTap tap;                              // the standard reader and card
//   tap.card.cvmList = "...";                  // what the test is about
//   ScriptedHost host;
//   const TapResult r = tap.Run(host);         // D1/D3/D5 replies, card script, run
//   EXPECT_EQ(r.ops, FromHex("10 F0 F0 F0 A0 F0 FF 00"));
//
// The standard tap is an offline approval: a purchase of 1.00 EUR on an
// attended reader with online capability (9F35 22) that does processing
// restrictions, CVM List processing and risk management (capabilities byte 5
// = 18), signature and online PIN (byte 1 = 06); a card without offline data
// authentication (AIP 18 00) whose two records (SFI 1) carry Track 2, PAN,
// dates, usage control, CDOL1/CDOL2, the CVM List and issuer action codes
// of all zeros, so that the reader asks for a TC (P1 40) and the card gives it.
//
// The card script is built from the knobs in the order the kernel talks to the
// card: GPO, the READ RECORDs the AFL names, `beforeGac` (velocity GET DATA),
// GENERATE AC, `afterGac` (balance GET DATA). Each command is exact: the GPO
// and GENERATE AC data are filled from the PDOL and CDOL1 with the values the
// reader and the transaction provide (Values()), so a test that changes the
// amount or the TVR only says so. A test that expects other command bytes sets
// `gpoCommand` or `gacCommand` itself.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "scripted_host.hpp"
#include "velk/host/tlv.hpp"

namespace velk::test {

// The reader's configuration as the host answers D1 (and D3).
struct Reader {
    std::string capabilities = "060000001800";  // 9F9301, bytes counted from index 0
    std::string options = "00";                 // 9F9302
    std::string terminalType = "22";            // 9F35
    std::string country = "0978";               // 9F1A
    std::string floorLimit = "00002710";        // 9F1B: 100.00
    std::string cvmLimit = "000000005000";      // 9F8209: 50.00
    std::string version = "0002";               // 9F09
    std::string tacDenial = "0000000000";       // 9F8246
    std::string tacOnline = "0000000000";       // 9F8247
    std::string tacDefault = "0000000000";      // 9F8245
    std::vector<Bytes> extra;                   // more D1 children (random selection, ...)

    std::vector<Bytes> Ics() const;
};

// The transaction input (7F11's children).
struct Purchase {
    std::string amount = "000000000100";  // 9F02: 1.00
    std::string currency = "0978";        // 5F2A
    std::string date = "250101";          // 9A
    std::string type = "00";              // 9C
    std::vector<Bytes> extra;

    Bytes Input() const;
};

// The card: FCI, GPO response, records and GENERATE AC response.
struct Card {
    Bytes aid = velk::host::FromHex("A0000000031010");
    std::string pdol = "9F0206 9F1A02 9F3704";  // in the FCI; "" leaves it out
    std::vector<Bytes> fciExtra;                // more children of A5 (9F75, ...)
    std::string aip = "1800";
    std::string afl = "08010200";  // SFI 1, records 1 and 2, none for ODA
    std::vector<Bytes> gpoExtra;   // more children of the GPO response's 77

    // Data objects of the records.
    std::string track2 = "5413330089601040D30122010000000000000F";
    std::string pan = "5413330089601040";
    std::string expiry = "301231";     // 5F24
    std::string effective = "200101";  // 5F25
    std::string issuerCountry = "0978";
    std::string auc = "FF00";      // 9F07
    std::string version = "0002";  // 9F08
    std::string cdol1 = "9F0206 9F0306 9F1A02 9505 5F2A02 9A03 9C01 9F3704";
    std::string cdol2 = "8A02 9505 9F3704";
    std::string cvmList = "00000000 00000000 1E03 1F03";  // signature, else no CVM
    std::string iacDenial = "0000000000";
    std::string iacOnline = "0000000000";
    std::string iacDefault = "0000000000";
    std::string applicationCurrency = "0978";  // 9F42
    std::vector<Bytes> record1Extra;
    std::vector<Bytes> record2Extra;
    // The records in AFL order; empty: the two standard records above.
    std::optional<std::vector<Bytes>> records;

    // The first GENERATE AC response's data objects.
    std::string cid = "40";
    std::string atc = "0001";
    std::string ac = "1122334455667788";
    std::string iad = "0110A00003220000";
    std::vector<Bytes> gacExtra;

    Bytes Fci() const;
    Bytes GpoResponse() const;  // with 9000
    std::vector<Bytes> Records() const;
    Bytes GacResponse() const;  // with 9000

    // The second GENERATE AC response's own data objects.
    std::string atc2 = "0002";
    std::string ac2 = "8877665544332211";
    Bytes SecondGacResponse(std::string_view cid) const;  // with 9000
};

// The issuer's response as the host passes it on the second entry of an
// online transaction.
struct IssuerResponse {
    std::string arc = "3030";              // 8A: "00", approved
    std::string iad = "1122334455667788";  // 91; "" leaves it out
    std::vector<Bytes> scripts;            // 71 and 72 templates, in input order
    std::optional<Bytes> fci;              // 9F8201 of the card presented now; default the card's
};

struct TapResult {
    uint32_t status = 0;
    Bytes out;  // the outcome TLV
    Bytes ops;  // DF8129, the Outcome Parameter Set
};

struct FirstTap {
    Reader reader;
    Purchase purchase;
    Card card;

    // TVR sent in the GENERATE AC data (95 of CDOL1); ODA not performed.
    std::string tvr = "8000000000";
    // P1 of GENERATE AC.
    uint8_t gacP1 = 0x40;

    // Exchanges before GPO (retrieval and updates) and right after the GPO
    // response (updates after GPO).
    std::vector<CardExchange> beforeGpo;
    std::vector<CardExchange> afterGpo;
    // Exchanges between the records and GENERATE AC, and after it.
    std::vector<CardExchange> beforeGac;
    std::vector<CardExchange> afterGac;

    // Replacements of the standard exchanges (a test about a bad answer
    // scripts that exchange itself).
    std::optional<Bytes> gpoCommand;
    std::optional<CardExchange> gpo;
    std::optional<std::vector<CardExchange>> recordExchanges;
    std::optional<Bytes> gacCommand;
    std::optional<CardExchange> gac;
    // The card script ends after this many exchanges, for a tap that ends
    // earlier (0: the card is never addressed).
    std::optional<size_t> endAfter;

    // The values the DOLs are filled with: the transaction's, the reader's,
    // the unpredictable number 11223344 and `tvr`.
    std::map<uint32_t, Bytes> Values() const;
    // The GET PROCESSING OPTIONS and GENERATE AC commands as the kernel must
    // build them from the PDOL and CDOL1.
    Bytes GpoCommand() const;
    Bytes GacCommand() const;
    // The whole card script.
    std::vector<CardExchange> Script() const;

    // Configures the host (D1, D3 and D5 replies, the FCI signal, the card
    // script) and runs the tap through Kernel_Start_VELK_.
    TapResult Run(ScriptedHost &host) const;

    // An online-only reader (9F35 21): action analysis asks for an ARQC, and
    // the card answers with the CID `cid`.
    void AskOnline(const char *cid = "80") {
        reader.terminalType = "21";
        gacP1 = 0x80;
        card.cid = cid;
    }

    // ---- The second entry of an online transaction ----------------------------
    // 7F11 { 8A, 9F872B 30, 9F02, 5F2A, 9F06, 9F8201, 91, scripts }.
    Bytes SecondEntryInput(const IssuerResponse &response) const;
    // The second GENERATE AC as the kernel builds it from CDOL2 with the
    // issuer's 8A, the TVR and the unpredictable number 11223344.
    Bytes SecondGacCommand(uint8_t p1, const IssuerResponse &response,
                           std::string_view tvr = "8000000000") const;
    // Runs the second entry on the host that ran the first tap (it hands back
    // the context it kept on A2); `exchanges` continue the card script.
    TapResult RunSecondEntry(ScriptedHost &host, const IssuerResponse &response,
                             const std::vector<CardExchange> &exchanges) const;
};

// The values of a DOL, each entry filled with the value of its tag in
// `values` (which must have the requested length) or zeros when absent.
Bytes DolData(std::string_view dol, const std::map<uint32_t, Bytes> &values);

}  // namespace velk::test
