// SPDX-License-Identifier: Apache-2.0
// Issuer script processing: templates 71 and 72 from the issuer response.
#include "baseKernel.h"
#include "checked.hpp"
#include "reg_std.h"
#include "tlv.h"

namespace {

constexpr uint32_t kErrScriptCommand = 0x35003;
constexpr uint32_t kErrScriptFormat = 0x35004;
constexpr uint32_t kErrScriptContent = 0x35005;

constexpr uint32_t kResultLen = 5;
constexpr uint8_t kResultSuccess = 0x20;
constexpr uint8_t kResultFailed = 0x10;
constexpr uint8_t kLastSequence = 14;   // counted commands; later ones report 0xF
constexpr uint32_t kCommandHeader = 5;  // CLA INS P1 P2 Lc
// Lc is one byte: no valid script command is longer.
constexpr uint32_t kLongestCommand = kCommandHeader + 0xFF;
constexpr uint32_t kResponseCap = 260;

constexpr uint8_t kTsi1ScriptPerformed = 0x04;
constexpr uint8_t kTvr5FailedBeforeGac = 0x20;
constexpr uint8_t kTvr5FailedAfterGac = 0x10;

// One kind of script: its template tag, its result list and the capacity the
// list has. Only VELK_MAX_SCRIPTS results are ever recorded (80 bytes), which
// both lists hold, and which 9F73 holds for both kinds together.
struct ScriptKind {
    uint8_t tag;
    uint32_t resultTag;
    uint32_t listCap;
};
constexpr ScriptKind kBeforeGac = {0x71, 0x9F8255, 128};
constexpr ScriptKind kAfterGac = {0x72, 0x9F8256, 256};
static_assert(VELK_MAX_SCRIPTS * kResultLen <= kBeforeGac.listCap);
static_assert(VELK_MAX_SCRIPTS * kResultLen <= kAfterGac.listCap);

bool Accepted(const uint8_t *rapdu, uint32_t len) {
    if (velk::StatusIs9000(rapdu, len)) return true;
    // Warnings: the command was executed.
    return len >= 2 && (rapdu[len - 2] == 0x62 || rapdu[len - 2] == 0x63);
}

// Runs every script of one kind from the transaction input.
//
// The working table holds VELK_MAX_SCRIPTS templates of a kind. Templates
// beyond the 16th are not performed: nothing of them is sent to the card and
// no result is recorded (the result list has a row only for each template of
// the table), and the kind's "script processing failed" bit is set in the
// TVR so that the issuer learns that not all of its scripts ran.
uint32_t RunScripts(uint8_t *input, const uint32_t *len, const ScriptKind &kind) {
    uint8_t *params =
        (input != nullptr && len != nullptr) ? velk::InputTemplate(input, *len) : nullptr;
    if (params == nullptr) return 0;

    STRUCT_SCRIPT ScriptList[VELK_MAX_SCRIPTS];
    uint32_t uiMaxScriptCount = 0;
    bool beyondTable = false;
    velk::Children walk = velk::ChildrenOf(params);
    for (uint8_t *child = velk::NextChild(walk); child != nullptr; child = velk::NextChild(walk)) {
        if (TLV_GetTag(child) != kind.tag) continue;
        if (uiMaxScriptCount == VELK_MAX_SCRIPTS) {
            beyondTable = true;
            continue;
        }
        ScriptList[uiMaxScriptCount].pScript = child;
        ScriptList[uiMaxScriptCount].uiScriptLen = walk.pos - static_cast<uint32_t>(child - params);
        ++uiMaxScriptCount;
    }
    if (uiMaxScriptCount == 0) return 0;

    uint8_t results[VELK_MAX_SCRIPTS * kResultLen];
    Memset_(results, 0, sizeof results);
    uint32_t last = 0;
    for (uint32_t i = 0; i < uiMaxScriptCount; ++i)
        last = VelkCless_Script_Process(ScriptList[i].pScript, ScriptList[i].uiScriptLen,
                                        results + i * kResultLen);
    if (beyondTable) (void)VelkCless_Set_Script_Fail(kind.tag);

    VELK_GLOBALVALUE_STRUCT &g = *pgbVelkGlobalValue;
    g.ucTSI[0] |= kTsi1ScriptPerformed;
    (void)VelkDataBase_Set_TAG(0x9B, sizeof g.ucTSI, g.ucTSI);
    (void)VelkDataBase_Set_TAG(kind.resultTag, uiMaxScriptCount * kResultLen, results);
    return last;
}

uint32_t Failed(uint8_t kind, uint32_t code) {
    (void)VelkCless_Set_Script_Fail(kind);
    return code;
}

}  // namespace

extern "C" {

uint32_t VelkCless_BeforeGAC_Script_Processing(uint8_t *pTlvData, uint32_t *pTlvDatalen) {
    (void)RunScripts(pTlvData, pTlvDatalen, kBeforeGac);
    return 0;
}

uint32_t VelkCless_AfterGAC_Script_Processing(uint8_t *pTlvData, uint32_t *pTlvDatalen) {
    return RunScripts(pTlvData, pTlvDatalen, kAfterGac);
}

uint32_t VelkCless_Script_Process(const uint8_t *pTlvData, uint32_t uiTlvDatalen,
                                  uint8_t *pScriptResult) {
    if (pTlvData == nullptr || uiTlvDatalen == 0) return kErrScriptFormat;
    const uint8_t kind = pTlvData[0];
    uint8_t *tpl = const_cast<uint8_t *>(pTlvData);
    if (velk::WellFormedLen(tpl, uiTlvDatalen) != uiTlvDatalen)
        return Failed(kind, kErrScriptFormat);

    uint8_t ucSeqNumber = 0;
    uint32_t failure = 0;
    velk::Children walk = velk::ChildrenOf(tpl);
    for (uint8_t *child = velk::NextChild(walk); child != nullptr; child = velk::NextChild(walk)) {
        const uint32_t tag = TLV_GetTag(child);
        const uint32_t n = TLV_GetLen(child);
        const uint8_t *value = velk::ElementValue(child);
        if (tag == 0x9F18) {
            if (n == 4) Memcpy_(pScriptResult + 1, value, 4);
        } else if (tag == 0x86) {
            if (VelkCless_Check_Script_IsValid(value, n) == 0)
                return Failed(kind, kErrScriptFormat);
            failure = VelkCless_Issuer_Script_Command(value, n);
            // The 8-bit count cannot wrap: a template of at most 511 bytes
            // holds fewer than 256 commands.
            ++ucSeqNumber;
            if (failure != 0) break;
            pScriptResult[0] = kResultSuccess;
        } else {
            return Failed(kind, kErrScriptContent);
        }
    }
    if (failure == 0) return 0;
    pScriptResult[0] = ucSeqNumber > kLastSequence
                           ? kResultFailed | 0x0F
                           : static_cast<uint8_t>(kResultFailed | ucSeqNumber);
    return Failed(kind, failure);
}

uint8_t VelkCless_Check_Script_IsValid(const uint8_t *pCmd, uint32_t uiCmd_len) {
    return pCmd != nullptr && uiCmd_len > 4 && uiCmd_len == pCmd[4] + kCommandHeader;
}

// Sent as the issuer built it: no Le added, CLA and INS unchanged. The card's
// answer goes to a buffer of its own, so that the last response kept for
// recovery is not touched.
uint32_t VelkCless_Issuer_Script_Command(const uint8_t *pCmd, uint32_t uiCmd_len) {
    if (pCmd == nullptr || uiCmd_len > kLongestCommand) return kErrScriptFormat;
    uint8_t rapdu[kResponseCap];
    uint32_t rlen = sizeof rapdu;
    const uint32_t rc = VelkCless_ExchangeAPDU(pCmd, uiCmd_len, rapdu, &rlen);
    if (rc != 0) return rc;
    return Accepted(rapdu, rlen) ? 0 : kErrScriptCommand;
}

uint32_t VelkCless_Set_Script_Fail(uint8_t ucFlag) {
    VELK_GLOBALVALUE_STRUCT &g = *pgbVelkGlobalValue;
    g.ucTVR[4] |= ucFlag == kBeforeGac.tag ? kTvr5FailedBeforeGac : kTvr5FailedAfterGac;
    (void)VelkDataBase_Set_TAG(0x95, sizeof g.ucTVR, g.ucTVR);
    return 0;
}

uint32_t VelkCless_IssuerUpDataProcess(uint8_t *pInOutData, uint32_t *pInOutDatalen) {
    (void)pInOutData;
    (void)pInOutDatalen;
    return 0;
}

}  // extern "C"
