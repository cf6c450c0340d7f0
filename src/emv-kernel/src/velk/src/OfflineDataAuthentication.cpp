// SPDX-License-Identifier: Apache-2.0
// Offline data authentication: CAM selection and checking, SDA, DDA and CDA
// verification.
//
// Recovered blocks go into a zeroed 300-byte area; the key and the signed
// block are measured against it and against their layout before any RSA
// call (see checked.hpp for the codes), so every position read below lies
// inside the recovered block.
#include "baseKernel.h"
#include "checked.hpp"
#include "reg_std.h"
#include "tlv.h"

namespace {

using velk::kHashLen;
using velk::kNotHashed;
constexpr uint8_t kHeader = velk::kRecoveredHeader;
constexpr uint8_t kTrailer = velk::kRecoveredTrailer;
constexpr uint32_t kTail = velk::kRecoveredTail;
constexpr uint8_t kSha1 = velk::kSha1Indicator;
constexpr uint32_t kSignatureArea = 300;

// Offline CAM selected indicator.
constexpr uint8_t kCamNone = 0;
constexpr uint8_t kCamSda = 1;
constexpr uint8_t kCamCda = 2;
constexpr uint8_t kCamDda = velk::kCamDda;

// TVR byte 1 and TSI byte 1.
constexpr uint8_t kTvr1OdaNotPerformed = 0x80;
constexpr uint8_t kTvr1SdaFailed = 0x40;
constexpr uint8_t kTvr1IccDataMissing = velk::kTvr1IccDataMissing;
constexpr uint8_t kTvr1DdaFailed = 0x08;
constexpr uint8_t kTvr1CdaFailed = 0x04;
constexpr uint8_t kTvr1SdaSelected = 0x02;
constexpr uint8_t kTsi1OdaPerformed = 0x80;

// AIP byte 1.
constexpr uint8_t kAipSda = 0x40;
constexpr uint8_t kAipDda = 0x20;
constexpr uint8_t kAipCda = 0x01;

// Signed Static Application Data: header, format, hash algorithm and the
// Data Authentication Code (5), then hash and trailer.
constexpr uint32_t kStaticOverhead = 5 + kTail;
// Signed Dynamic Application Data: header, format, hash algorithm, LDD (4),
// then the ICC dynamic data, pad, hash and trailer.
constexpr uint32_t kDynamicData = 4;
constexpr uint32_t kDynamicOverhead = kDynamicData + kTail;
constexpr uint32_t kMaxDynamicNumber = 8;
constexpr uint32_t kCryptogramLen = 8;

// INTERNAL AUTHENTICATE: 00 88 00 00 Lc data 00 in a 300-byte buffer that
// also receives the response. Lc is one byte.
constexpr uint32_t kApduArea = 300;
constexpr uint32_t kCommandHeader = 5;
constexpr uint32_t kMaxDdolData = 255;
constexpr uint32_t kDdolArea = 256;
constexpr uint8_t kDefaultDdol[] = {0x9F, 0x37, 0x04};

VELK_GLOBALVALUE_STRUCT &G() {
    return *pgbVelkGlobalValue;
}

bool Get(uint32_t tag, OBJECT_TAG &out) {
    out = OBJECT_TAG{0, 0, nullptr};
    return VelkDataBase_GetTagValue(tag, &out) == 0;
}

void Tvr1(uint8_t bits) {
    G().ucTVR[0] |= bits;
}

// Implementation option 0x10 with an authentication-only transaction type.
bool AuthenticationType() {
    return VelkCless_Check_ImplementationOption_IsTrue(0x10) != 0 &&
           VelkCless_CheckTransactionType_IsPresent_Trans_Type_Auth_Appli() != 0;
}
// ... and the reader supports authentication-only transactions.
bool AuthenticationFlow() {
    return AuthenticationType() && VelkCless_Kernel_Capabilities_IsTrue(0x340) != 0;
}

// The method's steps in order; the first failure's code.
template <uint32_t (*...Steps)(void)>
uint32_t FirstFailure() {
    uint32_t rc = 0;
    ((rc = rc != 0 ? rc : Steps()), ...);
    return rc;
}

// Turns the stored cryptogram into an AAC in place, so that de-activation
// and the data record see it. Without a stored CID there is nothing to
// downgrade and the database is left as it is.
void DowngradeCid() {
    OBJECT_TAG cid;
    if (Get(0x9F27, cid) && cid.uiLength != 0) cid.pValue[0] = 0x00;
}

// What DDA and CDA share, after their inputs were found present: 9F4B as
// long as the ICC modulus, the recovery into `block`, header, trailer,
// format and hash algorithm, the hash over positions 1 to NIC - 22 and the
// terminal's data (`terminalTag`), then the ICC dynamic data, which must end
// before the hash, and the ICC Dynamic Number (9F4C) inside it.
uint32_t RecoverDynamicSignature(uint8_t *block, uint32_t terminalTag) {
    OBJECT_TAG sdad, exponent, modulus;
    Get(0x9F4B, sdad);
    Get(0x9F47, exponent);
    Get(0x9F8233, modulus);
    const uint32_t n = modulus.uiLength;
    if (sdad.uiLength != n) return 0x31516;
    if (n > kSignatureArea || n < kDynamicOverhead) return velk::kErrIccKeySize;

    (void)Velk_RSA_Encrypt(modulus.pValue, n, exponent.pValue, exponent.uiLength, sdad.pValue, n,
                           block);
    if (block[0] != kHeader) return 0x44452;
    if (block[n - 1] != kTrailer) return 0x44453;
    if (block[1] != 0x05 || block[2] != kSha1) return 0x44454;

    velk::Writer hash = velk::ExchangeHashInput(false);
    hash.put(block + 1, n - kNotHashed);
    velk::AppendStored(hash, terminalTag);
    const uint32_t hashed = velk::CompareHashInput(hash, block + n - kTail, 0x44455);
    if (hashed != 0) return hashed;

    // The dynamic number's length byte is the dynamic data's first byte.
    const uint32_t ldd = block[3];
    if (ldd == 0 || kDynamicData + ldd > n - kTail) return velk::kErrDynamicDataLayout;
    const uint8_t *dynamic = block + kDynamicData;
    const uint32_t ln = dynamic[0];
    if (ln > kMaxDynamicNumber) return 0x44456;
    if (1 + ln > ldd) return velk::kErrDynamicDataLayout;
    (void)VelkDataBase_Set_TAG(0x9F4C, ln, dynamic + 1);
    return 0;
}

// Stores one data object of the INTERNAL AUTHENTICATE response.
uint32_t StoreSddaObject(uint32_t tag, uint32_t len, const uint8_t *value) {
    if (tag == 0x9F4B && len == 0) return 0x31211;
    if (!velk::CardMaySet(tag)) return 0;
    return VelkDataBase_Set_TAG(tag, len, value);
}

}  // namespace

extern "C" {

uint32_t VelkCless_ODA_SDA_Data_Check(void) {
    static constexpr velk::RequiredTag kSdaData[] = {
        {0x8F, 0x31208}, {0x90, 0x31210}, {0x9F32, 0x31209}, {0x93, 0x31211}};
    const uint32_t missing = velk::FirstAbsent(kSdaData, false);
    if (missing != 0) Tvr1(kTvr1SdaFailed | kTvr1IccDataMissing);
    return missing;
}

// DDA and CDA need the same data, each with a value.
uint32_t VelkCless_ODA_DDA_Data_Check(void) {
    static constexpr velk::RequiredTag kDynamicData[] = {
        {0x90, 0x31211}, {0x9F32, 0x31209}, {0x9F46, 0x31211}, {0x9F47, 0x31209}};
    return velk::FirstAbsent(kDynamicData, true);
}

uint32_t VelkCless_ODA_CDA_Data_Check(void) {
    return VelkCless_ODA_DDA_Data_Check();
}

uint32_t VelkCless_ODA_SDA_Process(void) {
    return FirstFailure<VelkCless_Retrieve_IssuerPubKey, VelkCless_Verify_Signed_Data_SDA>();
}

uint32_t VelkCless_ODA_DDA_Process(void) {
    return FirstFailure<VelkCless_Retrieve_IssuerPubKey, VelkCless_Retrieve_ICC_PubKey,
                        VelkCless_ODA_DDA_Dynamic_Signature_Verification>();
}

uint32_t VelkCless_ODA_CDA_Process(void) {
    return FirstFailure<VelkCless_Retrieve_IssuerPubKey, VelkCless_Retrieve_ICC_PubKey,
                        VelkCless_ODA_CDA_Dynamic_Signature_Verification>();
}

// Priority CDA, then DDA (authentication-only transactions only, on
// purpose), then SDA. A failed method never ends the transaction here: it
// leaves its TVR bits, and the indicator at none (or at DDA when only the
// INTERNAL AUTHENTICATE failed).
uint32_t VelkCless_ODA_CAM_Selection(void) {
    OBJECT_TAG aip;
    if (!Get(0x82, aip)) return 0x30417;
    if (aip.uiLength != 2) return 0x30418;
    const uint8_t aip1 = aip.pValue[0];
    G().ucTVR[0] &= static_cast<uint8_t>(~kTvr1OdaNotPerformed);

    if ((aip1 & kAipCda) != 0 && VelkCless_Kernel_Capabilities_IsTrue(0x401) != 0 &&
        !AuthenticationType()) {
        if (VelkCless_Get_CAPulicKey_Parameters() != 0)
            Tvr1(kTvr1CdaFailed);
        else if (VelkCless_ODA_CDA_Data_Check() != 0)
            Tvr1(kTvr1IccDataMissing | kTvr1CdaFailed);
        else
            VelkCless_Set_Offline_CAM_Selected_Indicator(kCamCda);
    } else if ((aip1 & kAipDda) != 0 && VelkCless_Kernel_Capabilities_IsTrue(0x420) != 0 &&
               AuthenticationFlow()) {
        if (VelkCless_ODA_DDA_Data_Check() != 0 || VelkCless_Get_CAPulicKey_Parameters() != 0) {
            Tvr1(kTvr1IccDataMissing | kTvr1DdaFailed);
        } else {
            VelkCless_Set_Offline_CAM_Selected_Indicator(kCamDda);
            if (VelkCless_ODA_DDA_Get_SDDA() != 0) Tvr1(kTvr1DdaFailed);
        }
    } else if ((aip1 & kAipSda) != 0 && VelkCless_Kernel_Capabilities_IsTrue(0x440) != 0) {
        Tvr1(kTvr1SdaSelected);
        if (VelkCless_ODA_SDA_Data_Check() != 0)
            Tvr1(kTvr1IccDataMissing | kTvr1SdaFailed);
        else if (VelkCless_Get_CAPulicKey_Parameters() != 0)
            Tvr1(kTvr1SdaFailed);
        else
            VelkCless_Set_Offline_CAM_Selected_Indicator(kCamSda);
    } else {
        Tvr1(kTvr1OdaNotPerformed);
    }
    VelkCless_SetTransactionStep(AuthenticationFlow() ? 0x2700 : 0x1700);
    return 0;
}

// Runs after the cryptogram. A failed SDA (outside the authentication-only
// flow) or CDA turns the stored CID into an AAC and leaves the TVR as it
// is: the cryptogram is what the outcome and the data record act on now.
// SDA is checked only where it can still change the result: a TC, a reader
// asking for it (TTPI byte 2 bit 0x04, ucTTPI[1] here) or the
// authentication-only flow.
uint32_t VelkCless_ODA_CAM_Checking(void) {
    OBJECT_TAG cid;
    const bool tc = Get(0x9F27, cid) && cid.uiLength != 0 && (cid.pValue[0] & 0xC0) == 0x40;
    switch (VelkCless_Get_Offline_CAM_Selected_Indicator()) {
        case kCamDda:
            if (VelkCless_ODA_DDA_Process() != 0) Tvr1(kTvr1DdaFailed);
            break;
        case kCamSda:
            if (!tc && (G().ucTTPI[1] & 0x04) == 0 && !AuthenticationFlow()) break;
            if (VelkCless_ODA_SDA_Process() == 0) break;
            if (AuthenticationType())
                Tvr1(kTvr1SdaFailed);
            else
                DowngradeCid();
            break;
        case kCamCda:
            if (VelkCless_ODA_CDA_Process() != 0) DowngradeCid();
            break;
        case kCamNone:
        default:
            break;
    }
    (void)VelkDataBase_Set_TAG(0x95, 5, G().ucTVR);
    VelkCless_SetTransactionStep(0x2900);
    return 0;
}

// The tag list must be exactly 82 here, stricter than for the ICC
// certificate, on purpose. The signed block is measured by the length of 93,
// not by the modulus.
uint32_t VelkCless_Verify_Signed_Data_SDA(void) {
    velk::Writer hash = velk::ExchangeHashInput(true);
    OBJECT_TAG signedData, exponent, modulus;
    if (!Get(0x93, signedData) || signedData.uiLength == 0) {
        Tvr1(kTvr1IccDataMissing);
        return 0x31204;
    }
    if (!Get(0x9F32, exponent) || exponent.uiLength == 0) {
        Tvr1(kTvr1IccDataMissing);
        return 0x31205;
    }
    if (!Get(0x9F8232, modulus) || modulus.uiLength == 0) return 0x31206;
    const uint32_t n = signedData.uiLength;
    if (modulus.uiLength > kSignatureArea) return velk::kErrIssuerKeySize;
    if (n > kSignatureArea || n < kStaticOverhead) return velk::kErrSignedStaticSize;

    uint8_t block[kSignatureArea] = {};
    (void)Velk_RSA_Encrypt(modulus.pValue, modulus.uiLength, exponent.pValue, exponent.uiLength,
                           signedData.pValue, n, block);
    if (block[0] != kHeader || block[n - 1] != kTrailer) return 0x31201;
    if (block[1] != 0x03) return 0x31202;
    if (block[2] != kSha1) return 0x31203;

    const VELK_GLOBALVALUE_STRUCT &g = G();
    const uint32_t odaCap = sizeof g.ODA_AuthData;
    hash.put(block + 1, n - kNotHashed);
    hash.put(g.ODA_AuthData, g.ODA_AuthData_len < odaCap ? g.ODA_AuthData_len : odaCap);
    OBJECT_TAG tagList;
    if (Get(0x9F4A, tagList)) {
        if (tagList.uiLength != 1 || tagList.pValue[0] != 0x82) return 0x31416;
        velk::AppendStored(hash, 0x82);
    }
    // Static data known to be incomplete (see VelkCless_Retrieve_ICC_PubKey)
    // never matches.
    if (!hash.ok()) return 0x31006;
    if (g.ODA_Data_From_Record_NOK != 0) return 0x31417;
    const uint32_t hashed = velk::CompareHashInput(hash, block + n - kTail, 0x31417);
    if (hashed != 0) return hashed;
    (void)VelkDataBase_Set_TAG(0x9F45, 2, block + 3);
    return 0;
}

// A DDOL longer than its 256-byte work area is used over its first 256
// bytes; related data that would not fit the one-byte Lc gives an empty
// command data field, which the card then refuses.
uint32_t VelkCless_ODA_DDA_Get_SDDA(void) {
    uint8_t ddol[kDdolArea] = {};
    uint32_t ddolLen = 0;
    if (velk::DbGet(0x9F49, ddol, sizeof ddol, &ddolLen) != 0 &&
        velk::DbGet(0x9F9314, ddol, sizeof ddol, &ddolLen) != 0) {
        ddolLen = sizeof kDefaultDdol;
        Memcpy_(ddol, kDefaultDdol, static_cast<int>(ddolLen));
    }
    if (VelkCless_TAG_IsPresent_DOL(0x9F37, ddol, ddolLen) == 0) {
        Tvr1(kTvr1DdaFailed);
        G().ucTSI[0] |= kTsi1OdaPerformed;
        return 0x31210;
    }

    uint8_t apdu[kApduArea] = {0x00, 0x88, 0x00, 0x00};
    uint32_t dataLen = kMaxDdolData;
    VelkCless_GenerateDOL_Response(ddol, ddolLen, apdu + kCommandHeader, &dataLen);
    (void)VelkDataBase_Set_TAG(0x9F9315, dataLen, apdu + kCommandHeader);
    apdu[4] = static_cast<uint8_t>(dataLen);

    uint32_t rlen = kApduArea;
    const uint32_t rc = VelkCless_ExchangeAPDU(apdu, dataLen + 6, apdu, &rlen);
    if (rc != 0) return rc;
    if (!velk::StatusIs9000(apdu, rlen)) return 0x31213;
    const uint32_t len = rlen - 2;
    apdu[len] = 0x00;
    apdu[len + 1] = 0x00;
    if (velk::DeclaredLen(apdu, len) != len) return 0x31212;

    if (apdu[0] == 0x80) return StoreSddaObject(0x9F4B, TLV_GetLen(apdu), velk::ElementValue(apdu));
    if (apdu[0] != 0x77) return 0x31211;
    if (velk::WellFormedLen(apdu, len) != len) return 0x31212;
    velk::Children walk = velk::ChildrenOf(apdu);
    for (uint8_t *child = velk::NextChild(walk); child != nullptr; child = velk::NextChild(walk)) {
        const uint32_t stored =
            StoreSddaObject(TLV_GetTag(child), TLV_GetLen(child), velk::ElementValue(child));
        if (stored != 0) return stored;
    }
    return 0;
}

uint32_t VelkCless_ODA_DDA_Dynamic_Signature_Verification(void) {
    (void)velk::ExchangeHashInput(false);
    static constexpr velk::RequiredTag kInputs[] = {
        {0x9F4B, 0x44459}, {0x9F47, 0x31217}, {0x9F8233, 0x31216}};
    if (const uint32_t missing = velk::FirstAbsent(kInputs, false); missing != 0) return missing;
    uint8_t block[kSignatureArea] = {};
    return RecoverDynamicSignature(block, 0x9F9315);
}

// The ICC dynamic data of CDA: the ICC Dynamic Number, the CID, the
// Application Cryptogram and the Transaction Data Hash Code, each read only
// from within LDD. Without a stored CID the signed CID byte is not skipped,
// on purpose: the cryptogram is then read from its place.
uint32_t VelkCless_ODA_CDA_Dynamic_Signature_Verification(void) {
    (void)velk::ExchangeHashInput(false);
    static constexpr velk::RequiredTag kInputs[] = {
        {0x9F4B, 0x44459}, {0x9F37, 0x44460}, {0x9F47, 0x31217}, {0x9F8233, 0x31216}};
    if (const uint32_t missing = velk::FirstAbsent(kInputs, false); missing != 0) return missing;
    uint8_t block[kSignatureArea] = {};
    const uint32_t rc = RecoverDynamicSignature(block, 0x9F37);
    if (rc != 0) return rc;

    const uint32_t ldd = block[3];
    const uint8_t *dynamic = block + kDynamicData;
    uint32_t used = 1 + dynamic[0];
    OBJECT_TAG cid;
    if (Get(0x9F27, cid)) {
        if (used + 1 > ldd) return 0x44458;
        uint8_t signedCid = dynamic[used];
        if (cid.uiLength == 0 || cid.pValue[0] != signedCid) {
            const OBJECT_TAG card = {0x9F27, 1, &signedCid};
            (void)VelkDataBase_SetTAG(&card);
            return 0x44457;
        }
        ++used;
    }
    if (used + kCryptogramLen > ldd) return 0x44458;
    (void)VelkDataBase_Set_TAG(0x9F26, kCryptogramLen, dynamic + used);
    used += kCryptogramLen;
    if (ldd - used < kHashLen) return 0x44458;
    const uint8_t *hashCode = dynamic + used;

    velk::Writer hash = velk::ExchangeHashInput(false);
    velk::AppendStored(hash, 0x9F8210);
    velk::AppendStored(hash, 0x9F8211);
    velk::AppendStored(hash, 0x9F8214);
    return velk::CompareHashInput(hash, hashCode, 0x44455);
}

uint32_t VelkCless_ODA_CDA_Save_GAC_Exp9F4B(const uint8_t *response, uint32_t length) {
    // The copy is bounded by its 300-byte work area: a longer response (the
    // first GENERATE AC's is at most 258 bytes) is not kept at all, so CDA
    // verification later finds no 9F8214 and fails rather than hashing a part.
    constexpr uint32_t kWork = 300;
    if (length > kWork) return 0;
    uint8_t tpl[kWork] = {};
    Memcpy_(tpl, response, static_cast<int>(length));
    if (velk::WellFormedLen(tpl, length) != length) return 0;
    TLV_DelTag(tpl, 0x9F4B);
    VelkDataBase_Set_TAG(0x9F8214, TLV_GetLen(tpl), velk::ElementValue(tpl));
    return 0;
}

}  // extern "C"
