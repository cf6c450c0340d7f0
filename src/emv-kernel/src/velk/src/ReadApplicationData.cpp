// SPDX-License-Identifier: Apache-2.0
// Read application data: READ RECORD over the AFL and the ODA record collection.
#include "baseKernel.h"
#include "checked.hpp"
#include "reg_std.h"
#include "tlv.h"

namespace {

constexpr uint32_t kWorkLen = 300;  // READ RECORD command and response
constexpr uint32_t kAflLen = 260;
constexpr uint32_t kMandatoryListLen = 256;
constexpr uint32_t kOdaCapacity = sizeof(VELK_GLOBALVALUE_STRUCT::ODA_AuthData);

struct AflEntry {
    uint8_t sfiByte;  // the SFI in the high five bits
    uint8_t first;
    uint8_t last;
    uint8_t odaCount;

    uint8_t Sfi() const { return sfiByte >> 3; }
    // A bad entry ends the reading of records without an error: the
    // mandatory-data check that follows decides whether enough was read.
    bool Usable() const {
        if (Sfi() == 0 || Sfi() > 30) return false;
        if (first == 0 || first > last) return false;
        return static_cast<int32_t>(odaCount) <= static_cast<int32_t>(last) - first + 1;
    }
};

bool IsPresentNonEmpty(uint32_t tag) {
    OBJECT_TAG obj{};
    return VelkDataBase_GetTagValue(tag, &obj) == 0 && obj.uiLength != 0;
}

// Stores the data objects of a record's template 70 (whole tree checked).
uint32_t StoreRecordTemplate(uint8_t *tpl) {
    velk::Children walk = velk::ChildrenOf(tpl);
    for (uint8_t *child = velk::NextChild(walk); child != nullptr; child = velk::NextChild(walk)) {
        const uint32_t tag = TLV_GetTag(child);
        if (VelkCless_Check_DataResoure_NotAllow(TAG_SRC_CARD, tag) != 0) continue;
        const uint32_t len = TLV_GetLen(child);
        // Stored first, then judged: a value out of its range still ends the
        // transaction, with the value left in the database.
        if (VelkDataBase_Set_TAG(tag, len, velk::ElementValue(child)) == 0x31001) return 0x31001;
        if (VelkCless_Check_Tag_Length(tag, len) != 0) return 0x3020B;
    }
    return 0;
}

// Adds a record to the static data for offline data authentication.
void CollectForOda(uint8_t *resp, uint32_t dataLen, uint8_t sfi) {
    VELK_GLOBALVALUE_STRUCT *g = pgbVelkGlobalValue;
    if (dataLen == 0 || resp[0] != 0x70) {
        g->ODA_Data_From_Record_NOK = 1;
        return;
    }
    const uint8_t *from = resp;
    uint32_t n = dataLen;
    if (sfi <= 10) {
        from = velk::ElementValue(resp);
        n = TLV_GetLen(resp);
    }
    // Static data that does not fit in ODA_AuthData is not cut short: nothing
    // more is appended and the record is flagged like a non-70 one, so that
    // offline data authentication fails instead of signing off a part.
    velk::Writer oda(g->ODA_AuthData, kOdaCapacity, g->ODA_AuthData_len);
    if (!oda.put(from, n)) {
        g->ODA_Data_From_Record_NOK = 1;
        return;
    }
    g->ODA_AuthData_len = oda.size();
}

uint32_t ReadOneRecord(const AflEntry &e, uint32_t record) {
    uint8_t cmd[kWorkLen] = {0x00, 0xB2, static_cast<uint8_t>(record),
                             static_cast<uint8_t>((e.sfiByte & 0xF8) | 0x04), 0x00};
    uint8_t resp[kWorkLen] = {};
    uint32_t rlen = kWorkLen;
    const uint32_t rc = VelkCless_ExchangeAPDU(cmd, 5, resp, &rlen);
    if (rc != 0) return rc;
    if (!velk::StatusIs9000(resp, rlen)) return 0x30503;
    uint32_t dataLen = rlen - 2;
    if (TLV_Check_Format(resp, &dataLen) == 0) return 0x30504;

    const uint8_t sfi = e.Sfi();
    if (sfi <= 10) {
        if (dataLen == 0 || resp[0] != 0x70) return 0x30505;
        const uint32_t rc2 = StoreRecordTemplate(resp);
        if (rc2 != 0) return rc2;
    }
    if (e.odaCount != 0 && record < static_cast<uint32_t>(e.first) + e.odaCount)
        CollectForOda(resp, dataLen, sfi);
    return 0;
}

}  // namespace

extern "C" {

uint32_t VelkCless_Read_Record(uint8_t *pInOutData, uint32_t *pInOutDatalen) {
    (void)pInOutData;
    (void)pInOutDatalen;
    VELK_GLOBALVALUE_STRUCT *g = pgbVelkGlobalValue;
    g->ODA_Data_From_Record_NOK = 0;
    Memset_(g->ODA_AuthData, 0, static_cast<int>(kOdaCapacity));
    g->ODA_AuthData_len = 0;

    // An AFL longer than the work buffer is read over its first 260 bytes
    // (65 entries).
    uint8_t afl[kAflLen] = {};
    uint32_t aflLen = 0;
    if (velk::DbGet(0x94, afl, sizeof afl, &aflLen) != 0) return 0x30408;
    if (aflLen == 0) return 0x30407;
    if (aflLen % 4 != 0) return 0x30506;

    for (uint32_t pos = 0; pos < aflLen; pos += 4) {
        const AflEntry e{afl[pos], afl[pos + 1], afl[pos + 2], afl[pos + 3]};
        if (!e.Usable()) return 0;
        // At most 255 records per entry: the counter is wider than a record
        // number, so last = 255 ends the loop.
        for (uint32_t record = e.first; record <= e.last; ++record) {
            const uint32_t rc = ReadOneRecord(e, record);
            if (rc != 0) return rc;
        }
    }
    return 0;
}

uint32_t VelkCless_VerifyMandatoryDataElement_InKernelTransDatabase(void) {
    if (VelkCless_Check_ImplementationOption_IsTrue(0x10) != 0 &&
        VelkCless_CheckTransactionType_IsPresent_Trans_Type_Auth_Appli() != 0 &&
        VelkCless_Kernel_Capabilities_IsTrue(0x340) != 0)
        return 0;
    if (!IsPresentNonEmpty(0x8C)) return 0x30509;
    if (!IsPresentNonEmpty(0x57)) return 0x30510;

    uint8_t list[kMandatoryListLen] = {};
    uint32_t len = 0;
    if (velk::DbGet(0x9F9312, list, sizeof list, &len) != 0) return 0;
    uint32_t pos = 0;
    while (pos < len) {
        // A tag cut by the end of the list is read from zero-filled bytes.
        uint8_t raw[4] = {};
        const uint32_t left = len - pos;
        Memcpy_(raw, list + pos, static_cast<int>(left < sizeof raw ? left : sizeof raw));
        uint32_t tag = 0;
        uint32_t tagLen = 0;
        GetTag_xx(raw, &tag, &tagLen);
        // A tag that takes no bytes would never advance: the list ends there.
        if (tagLen == 0) break;
        if (tag != 0 && VelkDataBase_Tag_IsNotPresent(tag) != 0) return 0x30508;
        pos += tagLen;
    }
    return 0;
}

uint32_t VelkCless_Compare_5A_57_Data(void) {
    OBJECT_TAG pan{};
    OBJECT_TAG track2{};
    if (VelkDataBase_GetTagValue(0x5A, &pan) != 0 || pan.uiLength == 0) return 0;
    if (VelkDataBase_GetTagValue(0x57, &track2) != 0 || track2.uiLength == 0) return 0;
    const uint32_t n = pan.uiLength;
    // A Track 2 shorter than the PAN cannot agree with it.
    if (track2.uiLength < n) return 0x30507;
    const uint8_t *p = pan.pValue;
    const uint8_t *t = track2.pValue;
    // Bit 0 of the last byte is taken as an F pad nibble: a PAN of an even
    // number of digits ending in an odd digit is judged as padded and so
    // fails. This is the kernel's defined behaviour.
    if ((p[n - 1] & 0x01) != 0) {
        if ((t[n - 1] & 0x0F) != 0x0D) return 0x30507;
        if (n > 1 && Memcmp_(p, t, static_cast<int>(n - 1)) != 0) return 0x30507;
        if ((p[n - 1] & 0xF0) != (t[n - 1] & 0xF0)) return 0x30507;
        return 0;
    }
    return Memcmp_(p, t, static_cast<int>(n)) == 0 ? 0 : 0x30507;
}

uint32_t VelkCless_Read_Complete(uint8_t *pInOutData, uint32_t *pInOutDatalen) {
    (void)pInOutData;
    (void)pInOutDatalen;
    if (VelkCless_Check_MandatoryDataIsMissing() != 0) {
        VelkCless_Transaction_FinalOutcome_EndApplication();
        return 0x30601;
    }
    if (VelkCless_Compare_5A_57_Data() != 0) {
        VelkCless_Transaction_FinalOutcome_EndApplication();
        return 0x30507;
    }
    VelkCless_SetTransactionStep(0x1610);
    return 0;
}

uint32_t VelkCless_ReadApplicationData(uint8_t *pInOutData, uint32_t *pInOutDatalen) {
    const uint32_t rc = VelkCless_Read_Record(pInOutData, pInOutDatalen);
    if (rc == 0x30103) return velk::EndCommunicationError();
    if (rc == 0x30101) return velk::EndStopped();
    if (rc != 0 || VelkCless_VerifyMandatoryDataElement_InKernelTransDatabase() != 0)
        return velk::EndOnError();
    VelkCless_SetTransactionStep(0x1610);
    return 0;
}

}  // extern "C"
