// SPDX-License-Identifier: Apache-2.0
// Initiate application processing: GET PROCESSING OPTIONS and the DOL builder.
#include "baseKernel.h"
#include "checked.hpp"
#include "reg_std.h"
#include "tlv.h"

namespace velk {

bool StatusIs9000(const uint8_t *rapdu, uint32_t len) {
    return len >= 2 && rapdu[len - 2] == 0x90 && rapdu[len - 1] == 0x00;
}

uint32_t EndCommunicationError() {
    VelkCless_Communication_Errors_PaymentTransactionNotCompleted();
    VelkCless_SetTransactionStep(0);
    return 0;
}

uint32_t EndStopped() {
    VelkCless_Transaction_Cancellation_by_Contactless_Reader();
    VelkCless_SetTransactionStep(0);
    return 0x30101;
}

uint32_t EndOnError() {
    VelkCless_Transaction_Completed_on_Error();
    VelkCless_SetTransactionStep(0);
    return 0;
}

uint32_t DeclaredLen(const uint8_t *p, uint32_t n) {
    // The codec reads a header of up to 4 tag bytes and 4 length bytes; it
    // reads it here from a zero-filled copy so that a header cut short by the
    // end of the data never makes it read past the caller's bytes.
    uint8_t head[8] = {};
    const uint32_t take = n < sizeof head ? n : static_cast<uint32_t>(sizeof head);
    if (take == 0) return 0;
    Memcpy_(head, p, static_cast<int>(take));
    const uint32_t total = TLV_GetTlvTotalLen(head);
    const uint32_t valueLen = TLV_GetLen(head);
    if (total < valueLen || total - valueLen > take) return 0;
    return total;
}

uint8_t *ElementValue(uint8_t *element) {
    return element + (TLV_GetTlvTotalLen(element) - TLV_GetLen(element));
}

Children ChildrenOf(uint8_t *parent) {
    const uint32_t total = TLV_GetTlvTotalLen(parent);
    const uint32_t header = total - TLV_GetLen(parent);
    return Children{parent, header, total};
}

uint8_t *NextChild(Children &walk) {
    uint32_t pos = walk.pos;
    while (pos < walk.end && walk.parent[pos] == 0xFF)
        ++pos;
    while (pos < walk.end && walk.parent[pos] == 0x00)
        ++pos;
    if (pos >= walk.end) {
        walk.pos = walk.end;
        return nullptr;
    }
    uint8_t *child = walk.parent + pos;
    const uint32_t size = DeclaredLen(child, walk.end - pos);
    if (size == 0 || size > walk.end - pos) {
        walk.pos = walk.end;
        return nullptr;
    }
    walk.pos = pos + size;
    return child;
}

}  // namespace velk

namespace {

constexpr uint32_t kWorkLen = 300;  // PDOL, PDOL related data and the GPO command/response
constexpr uint32_t kGpoHeader = 5;  // 80 A8 00 00 Lc
constexpr uint32_t kCardSource = TAG_SRC_CARD;

// The PDOL related data may not make the command (header, 83 wrapper, Le)
// pass the 300-byte work buffer: 290 bytes wrap into 83 82 01 22 (294 bytes).
constexpr uint32_t kPdolDataCap = 290;
static_assert(kGpoHeader + velk::ElementSize(0x83, kPdolDataCap) + 1 <= kWorkLen);
static_assert(kGpoHeader + velk::ElementSize(0x83, kPdolDataCap + 1) + 1 > kWorkLen);

bool IsConstructedDolTag(uint32_t tag) {
    // A two- or three-byte tag is tested on bit 0x2000 of its value, which in
    // a three-byte tag is a bit of the middle byte, not of the first: kept so,
    // the card sees the same related data as from every other reader of ours.
    return tag < 0x100 ? (tag & 0x20u) != 0 : (tag & 0x2000u) != 0;
}

// Appends one DOL entry's value of exactly n bytes to out.
void PutDolValue(velk::Writer &out, uint32_t tag, uint32_t n) {
    OBJECT_TAG obj{};
    if (IsConstructedDolTag(tag) || VelkDataBase_GetTagValue(tag, &obj) != 0) {
        out.zeros(n);
        return;
    }
    const uint32_t have = obj.uiLength;
    const uint32_t format = VelkCless_Get_Tag_Format(tag);
    if (have >= n) {
        // Too long: a number keeps its low-order (rightmost) digits, anything
        // else its leading bytes.
        const uint32_t skip = (format == TAG_FMT_N) ? have - n : 0;
        out.put(obj.pValue + skip, n);
        return;
    }
    if (format == TAG_FMT_N) {
        out.zeros(n - have);
        out.put(obj.pValue, have);
    } else if (format == TAG_FMT_CN) {
        out.put(obj.pValue, have);
        for (uint32_t i = have; i < n; ++i)
            out.put(0xFF);
    } else {
        out.put(obj.pValue, have);
        out.zeros(n - have);
    }
}

void StoreZeros(uint32_t tag, uint32_t len) {
    static constexpr uint8_t kZeros[6] = {};
    VelkDataBase_Set_TAG(tag, len, kZeros);
}

// A transaction that only authenticates the application carries no amount;
// the PDOL still finds the amounts, currency and (for kernel 25) the
// terminal's country and date, all zero.
void SetAuthenticationOnlyDefaults() {
    if (VelkCless_Check_ImplementationOption_IsTrue(0x10) == 0 ||
        VelkCless_CheckTransactionType_IsPresent_Trans_Type_Auth_Appli() == 0)
        return;
    StoreZeros(0x9F02, 6);
    StoreZeros(0x9F03, 6);
    StoreZeros(0x5F2A, 2);
    if (pgbVelkGlobalValue->ucKernelID == 0x25) {
        StoreZeros(0x9F1A, 2);
        StoreZeros(0x9A, 3);
        StoreZeros(0x9F21, 3);
    }
}

}  // namespace

namespace velk {

// The codec sees a zero-filled copy of what is left of the DOL.
uint32_t ReadDolEntry(const uint8_t *dol, uint32_t len, uint32_t pos, uint32_t *tag, uint32_t *n) {
    uint8_t entry[8] = {};
    const uint32_t left = len - pos;
    Memcpy_(entry, dol + pos, static_cast<int>(left < sizeof entry ? left : sizeof entry));
    const uint32_t size = Get_TagAndLen_Dol(entry, tag, n);
    return (size == 0 || size > left) ? 0 : size;
}

}  // namespace velk

extern "C" {

uint32_t VelkCless_GenerateDOL_Response(const uint8_t *pDolData, uint32_t nDolDataLen,
                                        uint8_t *dol_response, uint32_t *dol_response_len) {
    velk::Writer out(dol_response, *dol_response_len);
    uint32_t pos = 0;
    while (pos < nDolDataLen) {
        if (pDolData[pos] == 0x00 || pDolData[pos] == 0xFF) {
            ++pos;
            continue;
        }
        uint32_t tag = 0;
        uint32_t n = 0;
        const uint32_t size = velk::ReadDolEntry(pDolData, nDolDataLen, pos, &tag, &n);
        if (size == 0) break;
        PutDolValue(out, tag, n);
        if (!out.ok()) break;
        pos += size;
    }
    // An entry that cannot be read, or values that would pass the caller's
    // capacity, give no related data at all rather than a part of them.
    const uint32_t built = (pos >= nDolDataLen && out.ok()) ? out.size() : 0;
    *dol_response_len = built;
    return built;
}

uint32_t VelkCless_GPO_Response_Process(uint8_t *pInData, uint32_t uiInDatalen) {
    // Format 1 (tag 80) is refused on purpose: this kernel needs the card's
    // data objects by tag.
    if (uiInDatalen == 0 || pInData[0] != 0x77) return 0x30414;
    if (velk::DeclaredLen(pInData, uiInDatalen) != uiInDatalen) return 0x30411;
    if (velk::WellFormedLen(pInData, uiInDatalen) != uiInDatalen) return 0x30413;

    bool aip = false;
    bool afl = false;
    bool c5 = false;
    uint8_t c5Byte1 = 0;
    velk::Children walk = velk::ChildrenOf(pInData);
    for (uint8_t *child = velk::NextChild(walk); child != nullptr; child = velk::NextChild(walk)) {
        const uint32_t tag = TLV_GetTag(child);
        if (VelkCless_Check_DataResoure_NotAllow(kCardSource, tag) != 0) continue;
        const uint32_t len = TLV_GetLen(child);
        const uint8_t *value = velk::ElementValue(child);
        if (tag == 0x82 && len == 2) aip = true;
        if (tag == 0x94) afl = true;
        // An empty C5 carries no CCID byte to decide on: not counted.
        if (tag == 0xC5 && len != 0) {
            c5 = true;
            c5Byte1 = value[0];
        }
        if (VelkDataBase_Set_TAG(tag, len, value) == 0x31001) return 0x31001;
    }
    if (!aip || !afl) return 0x30415;

    if (c5) {
        if ((c5Byte1 & 0x20) != 0) {
            VelkCless_Financial_Transaction_Completed_Try_Other_Interface();
            VelkCless_SetTransactionStep(0);
            return 0;
        }
        if ((c5Byte1 & 0x07) == 0x04) {
            VelkCless_Financial_Transaction_Completed_On_device_CVM_Requested();
            VelkCless_SetTransactionStep(0);
            return 0;
        }
        if ((c5Byte1 & 0xC0) == 0 && VelkCless_Kernel_Capabilities_IsTrue(0x302) != 0) {
            VelkCless_Financial_Transaction_Completed_Transaction_declined_AAC(1);
            VelkCless_SetTransactionStep(0);
            return 0;
        }
    }
    VelkCless_SetTransactionStep(VelkCless_Check_ImplementationOption_IsTrue(0x40) != 0 ? 0x2620
                                                                                        : 0x1400);
    return 0;
}

uint32_t VelkCless_Initiate_Application_Processing(uint8_t *pInOutData, uint32_t *pInOutDatalen) {
    (void)pInOutData;
    (void)pInOutDatalen;
    VELK_GLOBALVALUE_STRUCT *g = pgbVelkGlobalValue;

    SetAuthenticationOnlyDefaults();
    VelkDataBase_Set_TAG(0xC7, 5, g->ucTTPI);
    VelkDataBase_Set_TAG(0x95, 5, g->ucTVR);

    // This kernel requires a PDOL, on purpose. A PDOL longer than the work
    // buffer is built over its first 300 bytes (an entry cut there makes the
    // related data empty).
    uint8_t pdol[kWorkLen] = {};
    uint32_t pdolLen = 0;
    if (velk::DbGet(0x9F38, pdol, sizeof pdol, &pdolLen) != 0 || pdolLen == 0) {
        VelkCless_Transaction_FinalOutcome_SelectNext();
        VelkCless_SetTransactionStep(0);
        return 0;
    }

    uint8_t data[kWorkLen] = {};
    uint32_t dataLen = kPdolDataCap;
    VelkCless_GenerateDOL_Response(pdol, pdolLen, data, &dataLen);
    VelkDataBase_Set_TAG(0x9F8210, dataLen, data);

    // 80 A8 00 00 Lc 83 L V Le. Lc is the low byte of the wrapped data's
    // length; Le is the zero the cleared buffer leaves behind it.
    uint8_t apdu[kWorkLen] = {0x80, 0xA8, 0x00, 0x00};
    const uint32_t wrapped =
        velk::NewChecked(apdu + kGpoHeader, kWorkLen - kGpoHeader - 1, 0x83, data, dataLen);
    apdu[4] = static_cast<uint8_t>(wrapped & 0xFF);
    uint32_t rlen = kWorkLen;
    const uint32_t rc = VelkCless_ExchangeAPDU(apdu, wrapped + 6, apdu, &rlen);
    if (rc == 0x30103) return velk::EndCommunicationError();
    if (rc == 0x30101) return velk::EndStopped();
    if (rc != 0) {
        VelkCless_Transaction_FinalOutcome_EndApplication();
        return rc;
    }
    if (!velk::StatusIs9000(apdu, rlen) || VelkCless_GPO_Response_Process(apdu, rlen - 2) != 0)
        return velk::EndOnError();
    return 0;
}

uint32_t VelkCless_PDOLMandatoryCheck(const uint8_t *pucPDOL, uint32_t uiPDOLLen) {
    uint32_t pos = 0;
    while (pos < uiPDOLLen) {
        if (pucPDOL[pos] == 0x00 || pucPDOL[pos] == 0xFF) {
            ++pos;
            continue;
        }
        // Entries are read with the header rule of a TLV (a length byte 81
        // takes the next byte as a length), as this check always did.
        uint8_t entry[8] = {};
        const uint32_t left = uiPDOLLen - pos;
        Memcpy_(entry, pucPDOL + pos, static_cast<int>(left < sizeof entry ? left : sizeof entry));
        uint32_t tag = 0;
        uint32_t len = 0;
        const uint32_t size = Get_TagAndLen_Ex(entry, &tag, &len);
        if (tag == 0x9F66) return 0;
        if (size == 0) break;
        pos += size;
    }
    return 0x30212;
}

uint32_t EMV_Check_AFL(void) {
    uint8_t afl[256] = {};
    uint32_t len = 0;
    const uint32_t rc = velk::DbGet(0x94, afl, sizeof afl, &len);
    if (rc != 0) return rc;
    if (len % 4 != 0) return 0x30409;
    // Every pass looks at the first entry again; only that entry is checked,
    // len / 4 times. Its SFI byte is masked before the test of its low bits,
    // so that test (0x30409) never fires.
    for (uint32_t pos = 0; pos < len; pos += 4) {
        const uint8_t sfiByte = afl[0] & 0xF8;
        if ((sfiByte & 0x07) != 0) return 0x30409;
        const uint8_t sfi = afl[0] >> 3;
        if (sfi == 0 || sfi > 30) return 0x30501;
        if (afl[1] == 0) return 0x30402;
        if (afl[1] > afl[2]) return 0x30403;
        if (afl[3] > afl[2] - afl[1] + 1) return 0x30404;
    }
    return 0;
}

}  // extern "C"
