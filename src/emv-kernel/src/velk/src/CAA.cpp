// SPDX-License-Identifier: Apache-2.0
// Card action analysis: the first GENERATE AC and its response.
#include "baseKernel.h"
#include "checked.hpp"
#include "reg_std.h"
#include "tlv.h"

namespace {

constexpr uint8_t kAac = 0x00;
constexpr uint8_t kTc = 0x40;
constexpr uint8_t kCdaRequested = 0x10;
constexpr uint8_t kCdaSelected = 2;
constexpr uint32_t kCdolWork = 300;
// Lc is one byte: CDOL related data of more than 255 bytes cannot be sent,
// and a CDOL asking for more gets no related data (the card then refuses).
constexpr uint32_t kCdolDataCap = 255;
constexpr uint32_t kGacHeader = 5;  // 80 AE P1 00 Lc
constexpr uint32_t kRapduCap = sizeof(VELK_GLOBALVALUE_STRUCT::ucLastRAPDU);

OBJECT_TAG Get(uint32_t tag) {
    OBJECT_TAG obj{};
    if (VelkDataBase_GetTagValue(tag, &obj) != 0) obj.uiLength = 0;
    return obj;
}

// Card asked for a CVM on the consumer's device: by CVM Results (confirmation
// code, not yet performed) on a declined card that sent no C5, or by C5.
bool OnDeviceCvmRequested(const velk::GacObjects &r) {
    if (r.c5) return (r.c5Byte1 & 0x07) == 0x04;
    const OBJECT_TAG results = Get(0x9F34);
    if (results.uiLength < 3) return false;
    const uint8_t code = results.pValue[0];
    return (code == 0x24 || code == 0x64) && results.pValue[2] == 0x00 &&
           (r.cidValue & 0xC0) == kAac;
}

}  // namespace

namespace velk {

bool StoreGacResponse(uint8_t *tpl, uint32_t len, GacObjects *seen) {
    *seen = GacObjects{};
    if (DeclaredLen(tpl, len) != len || WellFormedLen(tpl, len) != len) return false;
    Children walk = ChildrenOf(tpl);
    for (uint8_t *child = NextChild(walk); child != nullptr; child = NextChild(walk)) {
        const uint32_t tag = TLV_GetTag(child);
        if (!CardMaySet(tag)) continue;
        const uint32_t n = TLV_GetLen(child);
        const uint8_t *value = ElementValue(child);
        VelkDataBase_Set_TAG(tag, n, value);
        if (VelkCless_Check_Tag_Length(tag, n) != 0) return false;
        switch (tag) {
            case 0x9F27:
                if (n == 1) {
                    seen->cid = true;
                    seen->cidValue = value[0];
                }
                break;
            case 0x9F36:
                seen->atc = seen->atc || n == 2;
                break;
            case 0x9F26:
                seen->ac = seen->ac || n == 8;
                break;
            case 0x9F4B:
                seen->sdad = true;
                break;
            case 0x9F10:
                seen->iad = true;
                break;
            case 0xC5:
                // An empty C5 has no byte to judge by: not counted.
                if (n != 0) {
                    seen->c5 = true;
                    seen->c5Byte1 = value[0];
                    VelkDataBase_Set_TAG(0x9F9316, n, value);
                }
                break;
            default:
                break;
        }
    }
    return true;
}

uint32_t SendGenerateAc(uint32_t cdolTag, uint8_t p1, uint32_t dataTag, bool markCda) {
    VELK_GLOBALVALUE_STRUCT *g = pgbVelkGlobalValue;
    // A CDOL longer than the work buffer is built over its first 300 bytes.
    uint8_t cdol[kCdolWork] = {};
    uint32_t cdolLen = 0;
    DbGet(cdolTag, cdol, sizeof cdol, &cdolLen);
    VelkDataBase_Set_TAG(0x95, 5, g->ucTVR);

    // 80 AE P1 00 Lc data 00: Lc + 6 bytes, also with no data.
    uint8_t apdu[kGacHeader + kCdolDataCap + 1] = {0x80, 0xAE, p1, 0x00};
    uint32_t dataLen = kCdolDataCap;
    VelkCless_GenerateDOL_Response(cdol, cdolLen, apdu + kGacHeader, &dataLen);
    if (dataTag != 0) VelkDataBase_Set_TAG(dataTag, dataLen, apdu + kGacHeader);
    if (markCda) {
        static constexpr uint8_t kOne = 0x01;
        VelkDataBase_Set_TAG(0x9F820B, 1, &kOne);
    }
    apdu[4] = static_cast<uint8_t>(dataLen);

    uint32_t rlen = kRapduCap;
    const uint32_t rc = VelkCless_ExchangeAPDU(apdu, dataLen + 6, g->ucLastRAPDU, &rlen);
    if (rc == 0) g->uiLastRAPDULen = rlen;
    return rc;
}

}  // namespace velk

extern "C" {

uint32_t VelkCless_Anglyse_Generate_AC_1st_Response(uint8_t *pR_APDU, uint32_t uiR_APDULen) {
    const OBJECT_TAG earlierC5 = Get(0xC5);
    const bool hadC5 = earlierC5.uiLength != 0;
    const uint8_t earlierC5Byte1 = hadC5 ? earlierC5.pValue[0] : 0;

    // Format 1 (tag 80) is refused on purpose, as after GET PROCESSING OPTIONS.
    if (uiR_APDULen < 3 || pR_APDU[0] != 0x77) return velk::EndOnError();
    const uint32_t tplLen = uiR_APDULen - 2;
    velk::GacObjects r{};
    if (!velk::StoreGacResponse(pR_APDU, tplLen, &r)) return velk::EndOnError();
    const uint8_t cryptogram = r.cidValue & 0xC0;

    const bool cdaRequested = VelkCless_Get_CDA_Signature_Requested() != 0;
    if (cdaRequested && r.sdad) VelkCless_ODA_CDA_Save_GAC_Exp9F4B(pR_APDU, tplLen);
    if (cdaRequested && !r.sdad && cryptogram != kAac) return velk::EndOnError();

    if (!r.cid || !r.atc || !r.iad || !(r.ac || r.sdad)) return velk::EndOnError();

    const OBJECT_TAG aip = Get(0x82);
    if (r.sdad && aip.uiLength != 0 && (aip.pValue[0] & 0x01) == 0) return velk::EndOnError();

    if (hadC5 && (!r.c5 || (r.c5Byte1 & 0x07) != (earlierC5Byte1 & 0x07)))
        return velk::EndOnError();

    if (OnDeviceCvmRequested(r)) {
        VelkCless_Financial_Transaction_Completed_On_device_CVM_Requested();
        VelkCless_SetTransactionStep(0);
        return 0;
    }
    // A declined card has no CDA signature to verify.
    if (VelkCless_Get_Offline_CAM_Selected_Indicator() == kCdaSelected && cryptogram == kAac &&
        !r.sdad)
        VelkCless_Set_Offline_CAM_Selected_Indicator(0);

    // An offline decline of a transaction the terminal would have approved
    // is sent to another interface rather than declined, on purpose.
    if ((r.c5 && (r.c5Byte1 & 0x20) != 0) ||
        (VelkCless_Get_Terminal_Action_Analysis_Result() == kTc && cryptogram == kAac)) {
        VelkCless_SetTransactionStep(0);
        VelkCless_Financial_Transaction_Completed_Try_Other_Interface();
        return 0;
    }
    // Approval, decline or online request is settled after the balance step,
    // in kernel de-activation or online processing.
    VelkCless_SetTransactionStep(VelkCless_Check_ImplementationOption_IsTrue(0x40) != 0 ? 0x2630
                                                                                        : 0x2700);
    return 0;
}

uint32_t VelkCless_Generate_AC_1st_Command(void) {
    const uint8_t requested = VelkCless_Get_Terminal_Action_Analysis_Result();
    const bool cda = VelkCless_Get_CDA_Signature_Requested() != 0;
    if (requested == kAac) VelkDataBase_Set_TAG(0x8A, 2, reinterpret_cast<const uint8_t *>("Z1"));
    if (requested == kTc) VelkDataBase_Set_TAG(0x8A, 2, reinterpret_cast<const uint8_t *>("Y1"));
    const uint8_t p1 = static_cast<uint8_t>(requested | (cda ? kCdaRequested : 0));
    const uint32_t rc = velk::SendGenerateAc(0x8C, p1, 0x9F8211, cda);

    if (rc == 0x30102 || rc == 0x30103) {
        // A torn GENERATE AC on a card that can answer ECHO is recovered on
        // the next tap; otherwise the payment is reported as not completed.
        if (VelkCless_Get_ECHO_Command_supported() != 0) {
            static constexpr uint8_t kFirstGacTorn = 0x01;
            VelkDataBase_Set_TAG(0x9F9303, 1, &kFirstGacTorn);
            VelkCless_Set_CommunicationProblemIndicator(1);
            VelkCless_SetTransactionStep(0x3000);
            return 0;
        }
        return velk::EndCommunicationError();
    }
    if (rc == 0x30101) return velk::EndStopped();
    if (rc != 0) {
        VelkCless_Transaction_FinalOutcome_EndApplication();
        VelkCless_SetTransactionStep(0);
        return rc;
    }
    VELK_GLOBALVALUE_STRUCT *g = pgbVelkGlobalValue;
    if (!velk::StatusIs9000(g->ucLastRAPDU, g->uiLastRAPDULen)) return velk::EndOnError();
    return VelkCless_Anglyse_Generate_AC_1st_Response(g->ucLastRAPDU, g->uiLastRAPDULen);
}

uint32_t VelkCless_Card_Action_Analysis_1st_Processing(void) {
    // On a recovered tap the card's ECHO answer already holds the response.
    if (VelkCless_Get_EchoTransactionIndicator() != 0) {
        VELK_GLOBALVALUE_STRUCT *g = pgbVelkGlobalValue;
        return VelkCless_Anglyse_Generate_AC_1st_Response(g->ucLastRAPDU, g->uiLastRAPDULen);
    }
    return VelkCless_Generate_AC_1st_Command();
}

}  // extern "C"
