// SPDX-License-Identifier: Apache-2.0
// Certificate and public key recovery, and the kernel's RSA and SHA-1 entry
// points.
//
// Every recovered block is read by position from a zeroed area of fixed
// size. Before any RSA call the modulus is checked against both that area
// and the shortest block its layout allows, so that every position below is
// inside the block and the block inside its area. Hash inputs are assembled
// in the exchange buffer through a checked writer that never writes past it.
#include "baseKernel.h"
#include "checked.hpp"
#include "reg_alg.h"
#include "reg_std.h"
#include "tlv.h"

namespace {

using velk::kCamDda;
using velk::kHashLen;
using velk::kNotHashed;
using velk::kTvr1IccDataMissing;
constexpr uint32_t kTail = velk::kRecoveredTail;
constexpr uint8_t kRsa = 0x01;

constexpr uint32_t kErrCaKeyNotDelivered = 0x31101;
constexpr uint32_t kErrHashInputTooLong = 0x31006;
constexpr uint32_t kErrNoPan = 0x31315;
constexpr uint32_t kErrPanMismatch = 0x31305;
constexpr uint32_t kErrDataCompare = 0x31312;
constexpr uint32_t kErrExpired = 0x31313;
constexpr uint32_t kErrHashMismatch = 0x31307;

// The certified key is assembled here; its length is one byte of the block.
constexpr uint32_t kKeyArea = 256;

// A view of a stored element; false when the tag is absent.
bool Get(uint32_t tag, OBJECT_TAG &out) {
    out = OBJECT_TAG{0, 0, nullptr};
    return VelkDataBase_GetTagValue(tag, &out) == 0;
}
bool GetNonEmpty(uint32_t tag, OBJECT_TAG &out) {
    return Get(tag, out) && out.uiLength != 0;
}

VELK_GLOBALVALUE_STRUCT &G() {
    return *pgbVelkGlobalValue;
}

// An issuer (format 02) or ICC (format 04) public key certificate: where its
// pieces are stored, the area its RSA output goes to, and the positions and
// codes of the checks both recoveries share. The fixed fields follow the
// identity field (issuer identifier or application PAN) at position 2:
// expiry (2), serial number (3), hash algorithm, key algorithm, key length,
// exponent length, then the key or its leftmost bytes.
struct KeyCertificate {
    velk::RequiredTag inputs[4];  // looked for in this order
    uint32_t signerModulusTag;
    uint32_t signerExponentTag;
    uint32_t certificateTag;
    uint32_t remainderTag;
    uint32_t keyTag;  // where the recovered modulus is stored
    uint32_t area;    // bytes of the RSA output area
    uint8_t format;
    uint32_t identityLen;
    uint32_t errLength;  // certificate not as long as the signer's modulus
    uint32_t errSize;    // signer's modulus too long for the area or too short for the layout
    uint32_t errTrailer;
    uint32_t errHeader;
    uint32_t errFormat;
    uint32_t errNoRemainder;
    uint32_t errRemainderLen;

    constexpr uint32_t Identity() const { return 2; }
    constexpr uint32_t Expiry() const { return Identity() + identityLen; }
    constexpr uint32_t Serial() const { return Expiry() + 2; }
    constexpr uint32_t HashAlgorithm() const { return Serial() + 3; }
    constexpr uint32_t KeyAlgorithm() const { return HashAlgorithm() + 1; }
    constexpr uint32_t KeyLength() const { return KeyAlgorithm() + 1; }
    constexpr uint32_t Key() const { return KeyLength() + 2; }
    // The shortest block the layout fits in: no room for any key byte.
    constexpr uint32_t Overhead() const { return Key() + kTail; }
};

constexpr KeyCertificate kIssuerCertificate{
    .inputs = {{0xDF8201, 0x31211}, {0xDF8202, 0x31212}, {0x9F32, 0x31214}, {0x90, 0x31215}},
    .signerModulusTag = 0xDF8201,
    .signerExponentTag = 0xDF8202,
    .certificateTag = 0x90,
    .remainderTag = 0x92,
    .keyTag = 0x9F8232,
    .area = 256,
    .format = 0x02,
    .identityLen = 4,
    .errLength = 0x31219,
    .errSize = velk::kErrCaKeySize,
    .errTrailer = 0x31302,
    .errHeader = 0x31301,
    .errFormat = 0x31303,
    .errNoRemainder = 0x31314,
    .errRemainderLen = 0x31308};
constexpr KeyCertificate kIccCertificate{
    .inputs = {{0x9F47, 0x31217}, {0x9F46, 0x31218}, {0x9F8232, 0x31213}, {0x9F32, 0x31214}},
    .signerModulusTag = 0x9F8232,
    .signerExponentTag = 0x9F32,
    .certificateTag = 0x9F46,
    .remainderTag = 0x9F48,
    .keyTag = 0x9F8233,
    .area = 512,
    .format = 0x04,
    .identityLen = 10,
    .errLength = 0x31402,
    .errSize = velk::kErrIssuerKeySize,
    .errTrailer = 0x31404,
    .errHeader = 0x31403,
    .errFormat = 0x31405,
    .errNoRemainder = 0x31414,
    .errRemainderLen = 0x31415};
static_assert(kIssuerCertificate.Overhead() == 36 && kIssuerCertificate.HashAlgorithm() == 11);
static_assert(kIccCertificate.Overhead() == 42 && kIccCertificate.HashAlgorithm() == 17);

// What both recoveries do in the same order: the inputs present, the
// certificate's length, the
// bounds, the RSA recovery into `block` (c.area bytes, zeroed), trailer,
// header and format, then the start of the hash input (positions 1 to
// N - 22, and the remainder when the key needs one) and the certified
// modulus, which is stored before the hash is checked. On success *n is the
// signer's modulus length. The views taken from the database are stale
// afterwards: the store may have moved it.
uint32_t RecoverKey(const KeyCertificate &c, uint8_t *block, velk::Writer &hash, uint32_t *n) {
    if (const uint32_t missing = velk::FirstAbsent(c.inputs, false); missing != 0) return missing;
    OBJECT_TAG modulus, exponent, certificate;
    Get(c.signerModulusTag, modulus);
    Get(c.signerExponentTag, exponent);
    Get(c.certificateTag, certificate);
    const uint32_t len = modulus.uiLength;
    if (certificate.uiLength != len) return c.errLength;
    if (len > c.area || len < c.Overhead()) return c.errSize;
    *n = len;

    (void)Velk_RSA_Encrypt(modulus.pValue, len, exponent.pValue, exponent.uiLength,
                           certificate.pValue, len, block);
    if (block[len - 1] != velk::kRecoveredTrailer) return c.errTrailer;
    if (block[0] != velk::kRecoveredHeader) return c.errHeader;
    if (block[1] != c.format) return c.errFormat;

    hash.put(block + 1, len - kNotHashed);
    const uint32_t keyLen = block[c.KeyLength()];
    const uint32_t room = len - c.Overhead();
    uint8_t key[kKeyArea] = {};
    velk::Writer assembled(key, sizeof key);
    if (keyLen > room) {
        OBJECT_TAG remainder;
        if (!Get(c.remainderTag, remainder)) return c.errNoRemainder;
        if (remainder.uiLength != keyLen - room) return c.errRemainderLen;
        assembled.put(block + c.Key(), room);
        assembled.put(remainder.pValue, remainder.uiLength);
        hash.put(remainder.pValue, remainder.uiLength);
    } else {
        assembled.put(block + c.Key(), keyLen);
    }
    (void)VelkDataBase_Set_TAG(c.keyTag, assembled.size(), key);
    return 0;
}

// Digits of an F-padded number: up to its first F nibble, high nibble before
// low. A field that starts with F counts as wholly digits, on purpose.
uint32_t DigitCount(const uint8_t *field, uint32_t len) {
    for (uint32_t i = 0; i < len; ++i) {
        if ((field[i] & 0xF0) == 0xF0) return i == 0 ? 2 * len : 2 * i;
        if ((field[i] & 0x0F) == 0x0F) return 2 * i + 1;
    }
    return 2 * len;
}

// The certificate's identity field against the PAN (5A, else Track 2). An
// empty value has no digit to compare and counts as absent. The compare
// reads no further into the PAN than it holds: a PAN shorter than the
// certificate's digits does not match.
uint32_t CheckPan(const uint8_t *field, uint32_t fieldLen) {
    OBJECT_TAG pan;
    if (!GetNonEmpty(0x5A, pan) && !GetNonEmpty(0x57, pan)) {
        // The authentication-only flow may run without Track 2 or PAN.
        return VelkCless_Get_Offline_CAM_Selected_Indicator() == kCamDda ? 0 : kErrNoPan;
    }
    const uint32_t digits = DigitCount(field, fieldLen);
    if ((digits + 1) / 2 > pan.uiLength) return kErrPanMismatch;
    return VelkCless_Data_Compare(field, fieldLen, pan.pValue) == 0 ? 0 : kErrPanMismatch;
}

// 19 for years 50 to 99, 20 for 00 to 49 (both in BCD).
uint8_t Century(uint8_t yy) {
    return yy > 0x4F ? 0x19 : 0x20;
}

}  // namespace

namespace velk {

uint32_t FirstAbsent(const RequiredTag *tags, uint32_t count, bool needValue) {
    for (uint32_t i = 0; i < count; ++i) {
        OBJECT_TAG value;
        if (!Get(tags[i].tag, value) || (needValue && value.uiLength == 0)) return tags[i].code;
    }
    return 0;
}

Writer ExchangeHashInput(bool clearAll) {
    uint8_t *buf = pgbVelkInterface->pCallback_Exchange_Buffer;
    const uint32_t cap = pgbVelkInterface->uiMaxCallback_Exchange_BufferLen;
    Memset_(buf, 0, static_cast<int>(clearAll || cap < 4 ? cap : 4));
    return Writer(buf, cap);
}

void AppendStored(Writer &hash, uint32_t tag) {
    OBJECT_TAG value;
    if (Get(tag, value)) hash.put(value.pValue, value.uiLength);
}

uint32_t CompareHashInput(const Writer &hash, const uint8_t *expected, uint32_t errMismatch) {
    if (!hash.ok()) return kErrHashInputTooLong;
    return VelkCless_Hash_Compare(hash.data(), hash.size(), expected) == 0 ? 0 : errMismatch;
}

}  // namespace velk

extern "C" {

uint32_t Velk_RSA_Encrypt(const uint8_t *pModule, uint32_t ModuleLen, const uint8_t *pExponent,
                          uint32_t ExponentLen, const uint8_t *pInData, uint32_t InDatalen,
                          uint8_t *pOutData) {
    return static_cast<uint32_t>(
        rsa_encrypt_(pModule, ModuleLen, pExponent, ExponentLen, pInData, InDatalen, pOutData));
}

// Selector 1 is the SHA-1 request that sha_ accepts (the enumeration names it
// SHA_128); 0 would hash nothing.
void Velk_SHA1_Compute(const uint8_t *pucInData, uint32_t uiInLen, uint8_t *pucDigest) {
    (void)sha_(SHA_128, pucInData, uiInLen, pucDigest);
}

// DF8201 and DF8202 must each be stored exactly once: the counter adds 1 for
// the modulus and 2 for the exponent, so a reply that repeats one and lacks
// the other (2 or 4) fails like one that has neither. A host with no key for
// the RID and index simply leaves both out.
uint32_t VelkCless_Get_CAPulicKey_Parameters(void) {
    velk::MsgBegin(VELK_CMD_CA_KEY);
    bool built = true;
    OBJECT_TAG value;
    if (Get(0x84, value)) built = velk::MsgAdd(0x9F06, value.pValue, value.uiLength);
    if (Get(0x8F, value)) built = built && velk::MsgAdd(0x8F, value.pValue, value.uiLength);
    if (!built) return kErrCaKeyNotDelivered;
    const uint32_t status = velk::MsgCall();
    if (status != 0) return status;

    uint32_t counter = 0;
    velk::Children walk = velk::ChildrenOf(velk::MsgReply());
    for (uint8_t *child = velk::NextChild(walk); child != nullptr; child = velk::NextChild(walk)) {
        OBJECT_TAG element;
        if (VelkCless_Get_TLV_DataElement(child, &element) != 0) continue;
        if (VelkDataBase_Set_TAG(element.uiTag, TLV_GetLen(child), velk::ElementValue(child)) != 0)
            continue;
        if (element.uiTag == 0xDF8201) counter += 1;
        if (element.uiTag == 0xDF8202) counter += 2;
    }
    return counter == 3 ? 0 : kErrCaKeyNotDelivered;
}

uint32_t VelkCless_Retrieve_IssuerPubKey(void) {
    const KeyCertificate &c = kIssuerCertificate;
    uint8_t block[kIssuerCertificate.area] = {};
    velk::Writer hash = velk::ExchangeHashInput(true);
    uint32_t n = 0;
    const uint32_t rc = RecoverKey(c, block, hash, &n);
    if (rc == c.errNoRemainder && VelkCless_Get_Offline_CAM_Selected_Indicator() == kCamDda)
        G().ucTVR[0] |= kTvr1IccDataMissing;
    if (rc != 0) return rc;

    velk::AppendStored(hash, 0x9F32);
    if (const uint32_t hashed = velk::CompareHashInput(hash, block + n - kTail, kErrHashMismatch))
        return hashed;
    const uint32_t pan = CheckPan(block + c.Identity(), c.identityLen);
    if (pan != 0) return pan;
    if (VelkCless_Check_Cert_ExpDate(block + c.Expiry(), 2) != 0) return 0x31304;
    if (block[c.HashAlgorithm()] != velk::kSha1Indicator) return 0x31309;
    if (block[c.KeyAlgorithm()] != kRsa) return 0x31311;

    // A DF name shorter than a RID or an empty index is sent zero-filled
    // rather than read past its value.
    OBJECT_TAG dfName, index;
    if (Get(0x84, dfName) && Get(0x8F, index)) {
        uint8_t rid[5] = {0, 0, 0, 0, 0};
        uint8_t idx = index.uiLength != 0 ? index.pValue[0] : 0;
        Memcpy_(rid, dfName.pValue, static_cast<int>(dfName.uiLength < 5 ? dfName.uiLength : 5));
        if (VelkCless_IPK_Cert_Revocation(rid, &idx, block + c.Serial()) != 0) return 0x31316;
    }
    return 0;
}

uint32_t VelkCless_Retrieve_ICC_PubKey(void) {
    const KeyCertificate &c = kIccCertificate;
    uint8_t block[kIccCertificate.area] = {};
    velk::Writer hash = velk::ExchangeHashInput(true);
    uint32_t n = 0;
    const uint32_t rc = RecoverKey(c, block, hash, &n);
    if (rc != 0) return rc;
    // Checked before the hash, unlike the issuer certificate's.
    if (block[c.HashAlgorithm()] != velk::kSha1Indicator) return 0x31412;

    velk::AppendStored(hash, 0x9F47);
    const VELK_GLOBALVALUE_STRUCT &g = G();
    const uint32_t odaCap = sizeof g.ODA_AuthData;
    hash.put(g.ODA_AuthData, g.ODA_AuthData_len < odaCap ? g.ODA_AuthData_len : odaCap);
    // Only the first byte of the tag list is looked at: 82 00 names the AIP.
    OBJECT_TAG tagList;
    if (Get(0x9F4A, tagList)) {
        if (tagList.uiLength == 0 || tagList.pValue[0] != 0x82) return 0x31416;
        velk::AppendStored(hash, 0x82);
    }
    if (!hash.ok()) return kErrHashInputTooLong;
    // A record for offline data authentication that was not a template 70,
    // or did not fit, leaves the static data incomplete: it never matches.
    if (g.ODA_Data_From_Record_NOK != 0) return 0x31417;
    const uint32_t hashed = velk::CompareHashInput(hash, block + n - kTail, 0x31417);
    if (hashed != 0) return hashed;

    const uint32_t pan = CheckPan(block + c.Identity(), c.identityLen);
    if (pan != 0) return pan;
    if (VelkCless_Check_Cert_ExpDate(block + c.Expiry(), 2) != 0) return 0x31406;
    if (block[c.KeyAlgorithm()] != kRsa) return 0x31413;
    return 0;
}

// A host that cannot answer (the callback fails, or its reply is not one
// well-formed element) has not cleared the certificate: its status is
// returned, and the issuer key is refused as revoked.
uint32_t VelkCless_IPK_Cert_Revocation(const uint8_t *rid, const uint8_t *index,
                                       const uint8_t *serialNumber) {
    velk::MsgBegin(VELK_CMD_REVOCATION);
    (void)velk::MsgAdd(0x9F06, rid, 5);
    (void)velk::MsgAdd(0x8F, index, 1);
    (void)velk::MsgAdd(0xDF8108, serialNumber, 3);
    const uint32_t status = velk::MsgCall();
    if (status != 0) return status;
    uint8_t *result = TLV_FindTag(velk::MsgReply(), 0xDF8109);
    if (result == nullptr || TLV_GetLen(result) == 0) return 0;
    return velk::ElementValue(result)[0];
}

// Century-year-month of the certificate's MMYY against the transaction
// date's YYMMDD: a certificate is valid through its whole expiry month. An
// absent or short 9A reads as zeros.
uint32_t VelkCless_Check_Cert_ExpDate(const uint8_t *pDate, uint32_t uiDateLen) {
    (void)uiDateLen;
    const uint8_t expiry[3] = {Century(pDate[1]), pDate[1], pDate[0]};
    uint8_t date[3] = {0, 0, 0};
    uint32_t len = 0;
    (void)velk::DbGet(0x9A, date, sizeof date, &len);
    const uint8_t today[3] = {Century(date[0]), date[0], date[1]};
    for (uint32_t i = 0; i < 3; ++i) {
        if (today[i] != expiry[i]) return today[i] > expiry[i] ? kErrExpired : 0;
    }
    return 0;
}

uint32_t VelkCless_Hash_Compare(const uint8_t *pucInData, uint32_t uiInLen,
                                const uint8_t *pHashValue) {
    uint8_t digest[32];
    Memset_(digest, 0, sizeof digest);
    Velk_SHA1_Compute(pucInData, uiInLen, digest);
    return Memcmp_(digest, pHashValue, static_cast<int>(kHashLen)) == 0 ? 0 : kErrHashMismatch;
}

// pSecondData must hold (digits + 1) / 2 bytes.
uint32_t VelkCless_Data_Compare(const uint8_t *pFistData, uint32_t uiFistDatalen,
                                const uint8_t *pSecondData) {
    const uint32_t digits = DigitCount(pFistData, uiFistDatalen);
    const uint32_t whole = digits / 2;
    if (whole != 0 && Memcmp_(pFistData, pSecondData, static_cast<int>(whole)) != 0)
        return kErrDataCompare;
    if ((digits & 1u) != 0 && (pFistData[whole] & 0xF0) != (pSecondData[whole] & 0xF0))
        return kErrDataCompare;
    return 0;
}

}  // extern "C"
