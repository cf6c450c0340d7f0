// SPDX-License-Identifier: Apache-2.0
// Online processing: the long tap and the online tap with their online
// context, and the issuer's response on the second entry (scripts, second
// GENERATE AC, final outcome).
#include "baseKernel.h"
#include "checked.hpp"
#include "reg_std.h"
#include "tlv.h"

namespace {

constexpr uint32_t kContextTag = 0x7F15;
constexpr uint8_t kDecisionTc = 0x40;
constexpr uint8_t kDecisionAac = 0x00;
constexpr uint8_t kSecondGacTorn = 0x02;
constexpr uint32_t kScriptResultsLen = 256;

// Completion_ID of online response processing.
enum Completion : uint8_t { kNotCompleted = 0, kInvalid = 1, kApprovedTc = 2, kDeclinedAac = 3 };

VELK_GLOBALVALUE_STRUCT &G() {
    return *pgbVelkGlobalValue;
}

// 8A and 91 belong to the issuer's response of this entry: a context that
// carries them from the first tap must not overwrite them.
bool IssuerResponseTag(uint32_t tag) {
    return tag == 0x8A || tag == 0x91;
}

OBJECT_TAG Stored(uint32_t tag) {
    OBJECT_TAG obj{};
    if (VelkDataBase_GetTagValue(tag, &obj) != 0) obj.uiLength = 0;
    return obj;
}

// Appends a stored element to the container under `as` when it is present
// (empty values included); one that would pass the working buffer is left out.
void AddStored(uint8_t *context, uint32_t *len, uint32_t tag, uint32_t as) {
    OBJECT_TAG obj{};
    if (VelkDataBase_GetTagValue(tag, &obj) != 0) return;
    const uint32_t total =
        velk::AddTagChecked(context, VELK_ONLINE_CONTEXT_LEN, as, obj.pValue, obj.uiLength);
    if (total != 0) *len = total;
}

uint32_t StoreContextAndRaise(uint32_t (*outcome)(void)) {
    (void)VelkCless_Stores_OnlineTransaction_Context();
    (void)outcome();
    VelkCless_SetTransactionStep(0);
    return 0;
}

bool IssuerApproved() {
    const OBJECT_TAG arc = Stored(0x8A);
    return arc.uiLength == 2 && arc.pValue[0] == '0' && arc.pValue[1] == '0';
}

// Completion_ID from the second GENERATE AC response once it was analysed.
// A card that approves what the issuer declined is declined all the same.
uint8_t CompletionOf(uint32_t analysis) {
    if (analysis != 0) return kInvalid;
    const OBJECT_TAG cid = Stored(0x9F27);
    const uint8_t cidByte = cid.uiLength != 0 ? cid.pValue[0] : 0;
    if ((cidByte & 0x40) == 0) return kDeclinedAac;
    return IssuerApproved() ? kApprovedTc : kInvalid;
}

// The analysis ends the transaction itself (step 0) only when it refuses
// the template as malformed: the objects it stored before the fault are not
// to be judged, and such a response counts as invalid, never as approved.
uint8_t AnalyseSecondResponse() {
    VELK_GLOBALVALUE_STRUCT &g = G();
    VelkCless_SetTransactionStep(0x2800);
    const uint32_t analysis =
        VelkCless_Anglyse_Generate_AC_2nd_Response(g.ucLastRAPDU, g.uiLastRAPDULen);
    if (VelkCless_GetTransactionStep() == 0) return kInvalid;
    return CompletionOf(analysis);
}

bool NonEmpty(uint32_t tag) {
    return Stored(tag).uiLength != 0;
}

// Sends the second GENERATE AC. True when the step ends here with *status
// (recovery or a failed exchange); false when the Completion_ID is known.
bool SecondGenerateAc(uint8_t *completion, uint32_t *status) {
    const uint32_t rc =
        VelkCless_Generate_AC_2nd_Command(IssuerApproved() ? kDecisionTc : kDecisionAac);
    if (rc == 0x30102 || rc == 0x30103) {
        if (VelkCless_Get_ECHO_Command_supported() == 0) {
            *status = velk::EndCommunicationError();
            return true;
        }
        static constexpr uint8_t kTorn = kSecondGacTorn;
        (void)VelkDataBase_Set_TAG(0x9F9303, 1, &kTorn);
        (void)VelkCless_Set_CommunicationProblemIndicator(kSecondGacTorn);
        VelkCless_SetTransactionStep(0x3000);
        *status = 0;
        return true;
    }
    if (rc == 0x30101) {
        *status = velk::EndStopped();
        return true;
    }
    if (rc != 0) {
        (void)VelkCless_Transaction_FinalOutcome_EndApplication();
        VelkCless_SetTransactionStep(0);
        *status = rc;
        return true;
    }
    const VELK_GLOBALVALUE_STRUCT &g = G();
    // Any other status word than 9000 leaves the transaction not completed.
    if (velk::StatusIs9000(g.ucLastRAPDU, g.uiLastRAPDULen)) *completion = AnalyseSecondResponse();
    return false;
}

// The 7F11 of a transaction input that lies at the start of a
// VELK_IO_BUFFER_MIN_LEN-byte buffer (cleared after the input), or null.
uint8_t *InputTemplateIn(const uint8_t *input) {
    return velk::InputTemplate(const_cast<uint8_t *>(input), VELK_IO_BUFFER_MIN_LEN);
}

}  // namespace

extern "C" {

uint32_t VelkCless_Online_Processing_Long_Tap(void) {
    return StoreContextAndRaise(VelkCless_Financial_Transaction_Completed_Online_Request_LongTap);
}

uint32_t VelkCless_Online_Processing_Online_Tap(void) {
    return StoreContextAndRaise(VelkCless_Financial_Transaction_Completed_Online_Request_OnlineTap);
}

// The context is built in its working buffer in a fixed order; an element
// that would take it past the buffer is left out whole and the next ones are
// still tried, so the host always gets a well-formed context.
uint32_t VelkCless_Stores_OnlineTransaction_Context(void) {
    uint8_t ucOnlineTransConText[VELK_ONLINE_CONTEXT_LEN];
    Memset_(ucOnlineTransConText, 0, sizeof ucOnlineTransConText);
    uint8_t *context = ucOnlineTransConText;
    uint32_t len = velk::NewChecked(context, VELK_ONLINE_CONTEXT_LEN, kContextTag, nullptr, 0);
    velk::CreateOnlineRecord(context, VELK_ONLINE_CONTEXT_LEN, &len);

    const uint8_t cvm = VelkCless_GetCVM();
    const uint32_t total = velk::AddTagChecked(context, VELK_ONLINE_CONTEXT_LEN, 0x9F8217, &cvm, 1);
    if (total != 0) len = total;
    struct Saved {
        uint32_t tag;
        uint32_t as;
    };
    // AIP travels under its own context tag.
    static constexpr Saved kSaved[] = {{0x8D, 0x8D},     {0x9F0D, 0x9F0D},     {0x9F8201, 0x9F8201},
                                       {0x82, 0x9F9233}, {0x9F9304, 0x9F9304}, {0x9F74, 0x9F74}};
    for (const Saved &s : kSaved)
        AddStored(context, &len, s.tag, s.as);
    (void)VelkCless_Get_CDOL2_TLVData(context, &len);

    return VelkCless_Stores_OnlineTransaction_Context_Callback(TLV_GetValue(context),
                                                               TLV_GetLen(context));
}

// The host's answer is not examined: a context it failed to keep shows on the
// second entry, which then has no CDOL2 and no second GENERATE AC.
uint32_t VelkCless_Stores_OnlineTransaction_Context_Callback(const uint8_t *pDatabuffer,
                                                             uint32_t uiDatalen) {
    velk::MsgBegin(VELK_CMD_STORE_CONTEXT);
    if (uiDatalen != 0 && !velk::MsgAdd(kContextTag, pDatabuffer, uiDatalen)) return 0;
    (void)velk::MsgCall();
    return 0;
}

// pOutDatabuffer is a started container in a work area of
// VELK_RECORD_WORK_LEN bytes.
uint32_t VelkCless_Get_ONline_Record(uint8_t *pOutDatabuffer, uint32_t *puiOutDatalen) {
    VelkCless_Create_2ndGAC_OnlineData_DataRecord(pOutDatabuffer, puiOutDatalen);
    return 0;
}

// pOutTLVData is the context being built, a started container in an area of
// VELK_ONLINE_CONTEXT_LEN bytes; *pOutTLVDataLen follows its total length.
uint32_t VelkCless_Get_CDOL2_TLVData(uint8_t *pOutTLVData, uint32_t *pOutTLVDataLen) {
    OBJECT_TAG cdol2{};
    if (pOutTLVData == nullptr || VelkDataBase_GetTagValue(0x8D, &cdol2) != 0) return 0;
    for (uint32_t pos = 0; pos < cdol2.uiLength;) {
        if (cdol2.pValue[pos] == 0x00 || cdol2.pValue[pos] == 0xFF) {
            ++pos;
            continue;
        }
        uint32_t tag = 0;
        uint32_t n = 0;
        const uint32_t size = velk::ReadDolEntry(cdol2.pValue, cdol2.uiLength, pos, &tag, &n);
        if (size == 0) break;
        pos += size;
        if (IssuerResponseTag(tag) || TLV_FindTag(pOutTLVData, tag) != nullptr) continue;
        AddStored(pOutTLVData, pOutTLVDataLen, tag, tag);
    }
    return 0;
}

// The reply's root is the constructed object whose children are the saved
// data objects. A reply the exchange refused, or a primitive root, restores
// nothing. 95 and 9B set the kernel's TVR and TSI only with their exact
// lengths.
uint32_t VelkCless_Get_OnlineTransaction_Context(void) {
    velk::MsgBegin(VELK_CMD_FETCH_CONTEXT);
    const uint32_t status = velk::MsgCall();
    if (status != 0) return status;
    uint8_t *reply = velk::MsgReply();
    if ((reply[0] & 0x20) == 0) return 0;
    VELK_GLOBALVALUE_STRUCT &g = G();
    velk::Children walk = velk::ChildrenOf(reply);
    for (uint8_t *child = velk::NextChild(walk); child != nullptr; child = velk::NextChild(walk)) {
        const uint32_t tag = TLV_GetTag(child);
        const uint32_t n = TLV_GetLen(child);
        const uint8_t *value = velk::ElementValue(child);
        if (IssuerResponseTag(tag)) continue;
        if (tag == 0x9F8217 && n != 0) (void)VelkCless_SetCVM(value[0]);
        if (tag == 0x95 && n == sizeof g.ucTVR) Memcpy_(g.ucTVR, value, sizeof g.ucTVR);
        if (tag == 0x9B && n == sizeof g.ucTSI) Memcpy_(g.ucTSI, value, sizeof g.ucTSI);
        (void)VelkDataBase_Set_TAG(tag, n, value);
    }
    return 0;
}

uint8_t VelkCless_Check_Script_IsPresent(const uint8_t *pTlvData, uint32_t uiTag) {
    if (pTlvData == nullptr) return 0;
    uint8_t *params = InputTemplateIn(pTlvData);
    if (params == nullptr) return 0;
    velk::Children walk = velk::ChildrenOf(params);
    for (uint8_t *child = velk::NextChild(walk); child != nullptr; child = velk::NextChild(walk))
        if (TLV_GetTag(child) == uiTag) return 1;
    return 0;
}

uint32_t VelkCless_Online_Response_Processing_and_Kernel_DeActivation(uint8_t *pTlvData,
                                                                      uint32_t *pTlvDatalen) {
    uint8_t completion = kNotCompleted;
    uint8_t scripts = 0;
    if (VelkCless_Get_EchoTransactionIndicator() != 0) {
        // The ECHO already brought the torn second GENERATE AC's response.
        (void)VelkCless_Set_EchoTransactionIndicator(0);
        completion = AnalyseSecondResponse();
    } else if (VelkCless_Get_CommunicationProblemIndicator() == 3) {
        // Another card came back for the online tap: declined, nothing sent.
        return VelkCless_Transaction_OnlineProcessing_KernelDeActivation_K37(kInvalid, 0);
    } else {
        if (VelkCless_Check_Script_IsPresent(pTlvData, 0x71) != 0) {
            (void)VelkCless_BeforeGAC_Script_Processing(pTlvData, pTlvDatalen);
            scripts = 1;
        }
        if (NonEmpty(0x91) && NonEmpty(0x8D)) {
            uint32_t status = 0;
            if (SecondGenerateAc(&completion, &status)) return status;
        }
    }
    // Scripts after GENERATE AC run once, also on the recovered road.
    if (VelkCless_Check_Script_IsPresent(pTlvData, 0x72) != 0) {
        (void)VelkCless_AfterGAC_Script_Processing(pTlvData, pTlvDatalen);
        scripts = 1;
    }
    return VelkCless_Transaction_OnlineProcessing_KernelDeActivation_K37(completion, scripts);
}

uint32_t VelkCless_Transaction_OnlineProcessing_KernelDeActivation_K37(
    uint8_t Completion_ID, uint8_t Script_Result_Available) {
    // Each result list holds at most VELK_MAX_SCRIPTS results of 5 bytes, so
    // both together always fit.
    uint8_t results[kScriptResultsLen];
    velk::Writer joined(results, sizeof results);
    static constexpr uint32_t kLists[] = {0x9F8255, 0x9F8256};
    for (const uint32_t tag : kLists) {
        const OBJECT_TAG list = Stored(tag);
        if (list.uiLength != 0) (void)joined.put(list.pValue, list.uiLength);
    }
    if (joined.size() != 0) (void)VelkDataBase_Set_TAG(0x9F73, joined.size(), results);

    const bool withScripts = Script_Result_Available != 0;
    switch (Completion_ID) {
        case kApprovedTc:
            (void)VelkCless_Financial_Transaction_Completed_Transaction_Online_Approved_TC();
            break;
        case kDeclinedAac:
            (void)VelkCless_Financial_Transaction_Completed_Transaction_declined_AAC(0);
            break;
        case kInvalid:
            // Inverted on purpose: an invalid answer with script results
            // carries the data record, one without does not.
            (void)VelkCless_Financial_Transaction_Completed_Transaction_declined_AAC(
                withScripts ? 0 : 1);
            break;
        default:
            (void)
                VelkCless_Financial_Transaction_Completed_Erroneous_Reactivationkernel_AfterOnline(
                    withScripts ? 1 : 0);
            break;
    }
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
