// SPDX-License-Identifier: Apache-2.0
// Balance retrieval and the card-read message.
#include "baseKernel.h"
#include "checked.hpp"
#include "tlv.h"

namespace {

constexpr uint8_t kTc = 0x40;
constexpr uint8_t kArqc = 0x80;
constexpr uint32_t kGetDataWork = 256;

// GET DATA into a 256-byte buffer; the data length (status word removed), or
// -1 when the exchange failed or the card did not answer 9000.
int32_t GetDataOk(uint32_t tag, uint8_t *resp) {
    uint32_t len = kGetDataWork;
    if (VelkCless_APDU_GetData(tag, resp, &len) != 0 || !velk::StatusIs9000(resp, len)) return -1;
    return static_cast<int32_t>(len - 2);
}

void StoreElement(uint8_t *element) {
    VelkDataBase_Set_TAG(TLV_GetTag(element), TLV_GetLen(element), velk::ElementValue(element));
}

// Balance data, when the reader reads it. Failures of any kind only leave
// the balance out of the outcome.
void ReadBalance() {
    uint8_t resp[kGetDataWork] = {};
    int32_t n = GetDataOk(0x9F50, resp);
    // The first data object, whatever its tag, as long as it lies within
    // the answer.
    if (n > 0) {
        const uint32_t size = velk::DeclaredLen(resp, static_cast<uint32_t>(n));
        if (size != 0 && size <= static_cast<uint32_t>(n)) StoreElement(resp);
    }

    uint8_t cd[kGetDataWork] = {};
    n = GetDataOk(0xCD, cd);
    if (n <= 0) return;
    // Padding before the answer is skipped, never past the data received.
    uint32_t start = 0;
    while (start < static_cast<uint32_t>(n) && (cd[start] == 0x00 || cd[start] == 0xFF))
        ++start;
    uint8_t *found = velk::FindInSequence(cd + start, static_cast<uint32_t>(n) - start, 0xCD);
    if (found != nullptr && TLV_GetLen(found) != 0) StoreElement(found);
}

}  // namespace

extern "C" {

uint32_t VelkCless_Read_Card_OK(void) {
    VelkCless_Display_UIRD_Stand(0x17, 0x04);
    return 0;
}

uint32_t VelkCless_Retrieval_Card_Balance(void) {
    if (VelkCless_Kernel_Capabilities_IsTrue(0x308) != 0) ReadBalance();

    OBJECT_TAG cid{};
    const bool hasCid = VelkDataBase_GetTagValue(0x9F27, &cid) == 0 && cid.uiLength != 0;
    const uint8_t type = hasCid ? (cid.pValue[0] & 0xC0) : 0;
    const bool odaAnyway = VelkCless_Kernel_Capabilities_IsTrue(0x301) != 0;
    const bool authenticationOnly =
        VelkCless_CheckTransactionType_IsPresent_Trans_Type_Auth_Appli() != 0 &&
        VelkCless_Check_ImplementationOption_IsTrue(0x10) != 0;

    // A card that may go into a long tap must not be told to leave the field.
    if (!authenticationOnly && (!hasCid || type == kArqc) &&
        VelkCless_Check_ImplementationOption_IsTrue(0x04) != 0) {
        VelkCless_SetTransactionStep((type == kTc || odaAnyway) ? 0x1620 : 0x2900);
        return 0;
    }
    VelkCless_Read_Card_OK();
    VelkCless_SetTransactionStep((type != kTc && !odaAnyway) ? 0x2900 : 0x1620);
    return 0;
}

}  // extern "C"
