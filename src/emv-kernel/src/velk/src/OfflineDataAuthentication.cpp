// Offline data authentication: CAM selection and checking, SDA, DDA and CDA verification.
#include "baseKernel.h"
#include "checked.hpp"
#include "reg_std.h"
#include "tlv.h"

extern "C" {

uint32_t VelkCless_ODA_CAM_Selection(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

uint32_t VelkCless_ODA_CAM_Checking(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
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
