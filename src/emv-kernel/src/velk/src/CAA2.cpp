// SPDX-License-Identifier: Apache-2.0
// Card action analysis: the second GENERATE AC and its response.
#include "baseKernel.h"
#include "checked.hpp"

extern "C" {

uint32_t VelkCless_Generate_AC_2nd_Command(uint8_t ucDecion) {
    // Every failure is left to online processing, which knows the context.
    return velk::SendGenerateAc(0x8D, ucDecion, 0, false);
}

uint32_t VelkCless_Anglyse_Generate_AC_2nd_Response(uint8_t *pR_APDU, uint32_t uiR_APDULen) {
    // The status word is overwritten first, so that the buffer ends in zeros.
    for (uint32_t i = uiR_APDULen >= 2 ? uiR_APDULen - 2 : 0; i < uiR_APDULen; ++i)
        pR_APDU[i] = 0x00;
    if (uiR_APDULen < 3 || pR_APDU[0] != 0x77) return 0x35001;

    velk::GacObjects r{};
    if (!velk::StoreGacResponse(pR_APDU, uiR_APDULen - 2, &r)) return velk::EndOnError();
    return (r.cid && r.atc && r.ac && r.iad) ? 0 : 0x35002;
}

}  // extern "C"
