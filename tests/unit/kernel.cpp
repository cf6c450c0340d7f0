// SPDX-License-Identifier: Apache-2.0
// Drivers shared by the kernel's rule families: set and expect kernel state,
// call a kernel function by name, and look at the database's own bytes.
//
//   state:9F02=000000000100, tvr=0000000000      set fields and tags
//   expect:9F34=3F0001, step=1900, 8E=-          compare them
//   call:VelkCless_Kernel_Capabilities_IsTrue:0208:8
//     arguments in hex (numbers, or bytes for a pointer; "-" a null pointer),
//     then the result
#include <cstring>
#include <deque>
#include <tuple>
#include <type_traits>
#include <utility>

#include "baseKernel.h"
#include "checked.hpp"
#include "database.h"
#include "kn_common.h"
#include "kn_tlv.h"
#include "state.hpp"
#include "tlv.h"

namespace velk::test {
namespace {

using Args = std::vector<std::string>;

// The buffers of the last call: its pointer arguments, in order, as they
// were left (row "buffer:index:bytes" compares one).
std::vector<Bytes> &LastBuffers() {
    static std::vector<Bytes> buffers;
    return buffers;
}
// Its uint32_t pointer arguments as they were left ("number:index:value").
std::deque<uint32_t> &LastNumbers() {
    static std::deque<uint32_t> numbers;
    return numbers;
}

// A pointer argument: bytes ("-" null); a uint32_t pointer points at the
// number given.
template <class P>
P Convert(const std::string &s, std::vector<Bytes> &keep, std::deque<uint32_t> &numbers) {
    if constexpr (std::is_pointer_v<P>) {
        if (s == "-") return nullptr;
    }
    if constexpr (std::is_pointer_v<P> &&
                  std::is_same_v<std::remove_cv_t<std::remove_pointer_t<P>>, uint32_t>) {
        return &numbers.emplace_back(static_cast<uint32_t>(std::stoul(s, nullptr, 16)));
    } else if constexpr (std::is_pointer_v<P>) {
        keep.push_back(Row::ParseHex(s));
        if (keep.back().empty()) keep.back().reserve(1);  // never a null data(); others exact size
        return reinterpret_cast<P>(keep.back().data());
    } else {
        return static_cast<P>(std::stoul(s, nullptr, 16));
    }
}

std::string Hex32(uint32_t v) {
    char b[12];
    std::snprintf(b, sizeof b, "%X", v);
    return b;
}

// Calls F with the row's arguments; the result in hex, a pointer result as
// its offset into the first pointer argument ("-" null).
template <auto F>
struct Fn;
template <class R, class... P, R (*F)(P...)>
struct Fn<F> {
    static std::string Call(const Args &a) { return Invoke(a, std::index_sequence_for<P...>{}); }
    template <size_t... I>
    static std::string Invoke(const Args &a, std::index_sequence<I...>) {
        std::vector<Bytes> keep;
        keep.reserve(sizeof...(P));
        std::deque<uint32_t> numbers;
        // A braced list converts the arguments in order, left to right.
        std::tuple<P...> args{Convert<P>(a.at(I), keep, numbers)...};
        std::string result = "0";
        if constexpr (std::is_void_v<R>) {
            std::apply(F, args);
        } else if constexpr (std::is_pointer_v<R>) {
            auto *base = keep.empty() ? nullptr : keep.front().data();
            const auto *r = reinterpret_cast<const uint8_t *>(std::apply(F, args));
            result = r == nullptr ? "-" : Hex32(static_cast<uint32_t>(r - base));
        } else {
            result = Hex32(static_cast<uint32_t>(std::apply(F, args)));
        }
        LastBuffers() = std::move(keep);
        LastNumbers() = std::move(numbers);
        return result;
    }
    static constexpr size_t kArity = sizeof...(P);
};

struct Callable {
    const char *name;
    std::string (*call)(const Args &);
    size_t arity;
};
#define VELK_FN(f)                              \
    Callable {                                  \
#f, &Fn < &f> ::Call, Fn < &f> ::kArity \
    }
#define VELK_FN_AS(name, f)                 \
    Callable {                              \
        name, &Fn<&f>::Call, Fn<&f>::kArity \
    }
constexpr Callable kCallables[] = {
    VELK_FN(TLV_GetValue),
    VELK_FN(TLV_GenLen),
    VELK_FN(TLV_Get_Tag_Len),
    VELK_FN(TLV_New),
    VELK_FN(TLV_AddTag),
    VELK_FN(TLV_AddTag_TLV),
    VELK_FN(TLV_AddTag_UpDataMode),
    VELK_FN(TLV_DelTag),
    VELK_FN(TLV_FindTag),
    VELK_FN(TLV_FindTag_Ex),
    VELK_FN(TLV_FindChildTag),
    VELK_FN(TLV_Check_Format),
    VELK_FN(TLV_Check_Format2),
    VELK_FN(Parse_TLV_buffer),
    VELK_FN_AS("WellFormedLen", velk::WellFormedLen),
    VELK_FN_AS("FindInSequence", velk::FindInSequence),
    VELK_FN_AS("NewChecked", velk::NewChecked),
    VELK_FN_AS("AddTagChecked", velk::AddTagChecked),
    VELK_FN_AS("AddTagUpdateChecked", velk::AddTagUpdateChecked),
    VELK_FN(tlv_new_),
    VELK_FN(tlv_get_t_),
    VELK_FN(tlv_get_t_len_),
    VELK_FN(tlv_get_l_),
    VELK_FN(tlv_get_l_len_),
    VELK_FN(tlv_get_v_),
    VELK_FN(tlv_get_node_l_),
    VELK_FN(tlv_is_composite_),
    VELK_FN(tlv_add_child_),
    VELK_FN(tlv_replace_),
    VELK_FN(tlv_modify_),
    VELK_FN(tlv_move_),
    VELK_FN(tlv_batch_move_),
    VELK_FN(aschextobin),
    VELK_FN(bintoaschex),
    VELK_FN(Asc_To_Hex),
    VELK_FN(Hex_To_Asc),
    VELK_FN(Bcd_To_Long),
    VELK_FN(Hex_To_Long),
    VELK_FN(Long_to_Hex),
    VELK_FN(Long_To_Bcd),
    VELK_FN(udivmod_),
    VELK_FN(VelkDataBase_Init),
    VELK_FN(VelkDataBase_Del_TAG),
    VELK_FN(VelkDataBase_Tag_IsPresent),
    VELK_FN(VelkDataBase_Tag_IsNotPresent),
    VELK_FN(VelkCless_Check_Tag_Length),
    VELK_FN(VelkCless_Check_IsMultiTagForbidden),
    VELK_FN(VelkCless_Check_MandatoryDataIsMissing),
    VELK_FN(VelkCless_Check_DataResoure_NotAllow),
    VELK_FN(VelkCless_CheckTagValue_IsZero),
    VELK_FN(VelkCless_CheckTagValue_IsTrue),
    VELK_FN(VelkCless_Check_Tag_isPresent_InDynamic_TransactionParam),
    VELK_FN(VelkCless_Check_Tag_isNotPresent_InDynamic_TransactionParam),
    VELK_FN(VelkCless_Check_ImplementationOption_IsTrue),
    VELK_FN(VelkCless_Kernel_Capabilities_IsTrue),
    VELK_FN(VelkCless_CheckTransactionType_IsPresent_Trans_Type_Auth_Appli),
    VELK_FN(VelkCless_EchoCardIdentifier_9F75_isPartOf_FCI),
    VELK_FN(VelkCless_FCI_in_DynamicTransParameters_isEqual_To_DataBase_FCI),
    VELK_FN(VelkCless_TAG_IsPresent_DOL),
    VELK_FN(VelkCless_PDOLMandatoryCheck),
    VELK_FN(VelkCless_DATE_LeapYearInt),
    VELK_FN(VelkCless_DATE_ValidDateInt),
    VELK_FN(VelkCless_CheckDateValid),
    VELK_FN(VelkCless_Cardholder_Verification),
    VELK_FN(VelkCless_Cardholder_Verification_CVMList),
    VELK_FN(VelkCless_CVM_Code_recognized),
    VELK_FN(VelkCless_CVM_Terminal_IsSupport),
    VELK_FN(VelkCless_TRM_Process),
    VELK_FN(VelkCless_Terminal_Exception_File_Check),
    VELK_FN(VelkCless_Random_Transaction_Select),
    VELK_FN(VelkCelss_TRM_CheckVelocity),
    VELK_FN(VelkCless_TAC_IAC_TVR),
    VELK_FN(VelkCless_Terminal_Action_Analysis),
    VELK_FN(VelkCless_SetTransactionStep),
    VELK_FN(VelkCless_GetTransactionStep),
    VELK_FN(VelkCless_Set_TransactionType),
    VELK_FN(VelkCless_Set_Contactless_PreProcessing_Indicators),
    VELK_FN(VelkCless_Set_Terminal_Action_Analysis_Result),
    VELK_FN(VelkCless_Processing_Restrictions),
    VELK_FN(VelkCless_CVM_checkCondition),
    VELK_FN(VelkCless_Set_Offline_CAM_Selected_Indicator),
    VELK_FN(VelkCless_Set_CDA_Signature_Requested),
    VELK_FN(VelkCless_Get_CDA_Signature_Requested),
    VELK_FN(VelkCless_Get_Offline_CAM_Selected_Indicator),
    VELK_FN(VelkCless_Get_Terminal_Action_Analysis_Result),
    VELK_FN(VelkCless_Compare_5A_57_Data),
    VELK_FN(VelkCless_Read_Complete),
    VELK_FN(VelkCless_VerifyMandatoryDataElement_InKernelTransDatabase),
    VELK_FN(VelkCless_GenerateDOL_Response),
    VELK_FN(VelkCless_Initiate_Application_Processing),
    VELK_FN(EMV_Check_AFL),
    VELK_FN(VelkCless_Read_Record),
    VELK_FN(VelkCless_ODA_CAM_Selection),
    VELK_FN(VelkCless_ODA_CAM_Checking),
    VELK_FN(VelkCless_BeforeGAC_Script_Processing),
    VELK_FN(VelkCless_AfterGAC_Script_Processing),
    VELK_FN(VelkCless_Check_Script_IsPresent),
    VELK_FN(VelkCless_Script_Process),
    VELK_FN(VelkCless_Stores_OnlineTransaction_Context),
    VELK_FN(VelkCless_Transaction_FinalOutcome_SelectNext),
    VELK_FN(VelkCless_Transaction_FinalOutcome_TryAnotherInterface),
    VELK_FN(VelkCless_Transaction_FinalOutcome_EndApplication),
    VELK_FN(VelkCless_Transaction_FinalOutcome_EndApplication_RestartCommuError),
    VELK_FN(VelkCless_Transaction_FinalOutcome_EndApplication_Restart_On_Device_CVM),
    VELK_FN(VelkCless_Financial_Transaction_Completed_On_device_CVM_Requested),
    VELK_FN(VelkCless_Financial_Transaction_Completed_Transaction_Approved_TC),
    VELK_FN(VelkCless_Financial_Transaction_Completed_Transaction_Online_Approved_TC),
    VELK_FN(VelkCless_Financial_Transaction_Completed_Transaction_declined_AAC),
    VELK_FN(VelkCless_Financial_Transaction_Completed_Online_Request),
    VELK_FN(VelkCless_Financial_Transaction_Completed_Online_Request_LongTap),
    VELK_FN(VelkCless_Financial_Transaction_Completed_Online_Request_OnlineTap),
    VELK_FN(VelkCless_Financial_Transaction_Completed_Erroneous_Reactivationkernel_AfterOnline),
    VELK_FN(VelkCless_Financial_Transaction_Completed_Try_Other_Interface),
    VELK_FN(VelkCless_Transaction_Completed_on_Error),
    VELK_FN(VelkCless_Communication_Errors_PaymentTransactionNotCompleted),
    VELK_FN(VelkCless_Communication_Errors_Unknown_Payment_Result),
    VELK_FN(VelkCless_Transaction_Cancellation_by_Contactless_Reader),
    VELK_FN(VelkCless_NonFinancial_Transaction_completed_Retrieval_of_data_elements),
    VELK_FN(VelkCless_NonFinancial_Transaction_completed_Data_Elements_Update),
    VELK_FN(VelkCless_NonFinancial_Transaction_completed_Offline_Authentication),
    VELK_FN(VelkCless_SetCVM),
    VELK_FN(VelkCless_ExchangeAPDU),
    VELK_FN(VelkCless_Card_Active),
    VELK_FN(VelkCless_Get_Unpredictable_Number),
    VELK_FN(VelkCless_GetUnpredictableNumber),
    VELK_FN(VelkCless_GetICS_Param),
    VELK_FN(VelkCless_Transaction_Get_AID_Parameter),
    VELK_FN(VelkCless_Display_UIRD_Stand),
    VELK_FN(VelkCless_CardPowerOff),
    VELK_FN(VelkCless_Create_DataRecord),
    VELK_FN(VelkCless_Add_Taglist_Data_To_DataRecord),
    VELK_FN(VelkCless_Create_DiscretionaryData),
    VELK_FN(VelkCless_Create_ErrorOutData),
    VELK_FN(VelkCless_Create_2ndGAC_OnlineData_DataRecord),
    VELK_FN_AS("CreateOnlineRecord", velk::CreateOnlineRecord),
    VELK_FN_AS("EchoRestartInput", velk::EchoRestartInput),
    VELK_FN_AS("InputTemplate", velk::InputTemplate),
    VELK_FN_AS("SetHostParameter", velk::SetHostParameter),
    VELK_FN(VelkCless_Update_of_Data_Element_values_in_EEPROM),
    VELK_FN(VelkCless_Update_of_Data_Element_values_in_EEPROM_after_CAA),
    VELK_FN(VelkCless_Retrieval_of_Data_Element_values_in_EEPROM),
    VELK_FN(VelkCless_PreProcess),
    VELK_FN(VelkCless_Get_A_Single_Unit_of_Currency_Amount),
    VELK_FN(VelkCless_Set_ECHO_Command_supported),
    VELK_FN(VelkCless_Get_ECHO_Command_supported),
    VELK_FN(VelkCless_Retrieval_Card_Balance),
    VELK_FN(VelkCless_Kernel_De_Activation),
    VELK_FN(VelkCless_Card_Action_Analysis_1st_Processing),
    VELK_FN(VelkCless_Generate_AC_2nd_Command),
    VELK_FN(VelkCless_Anglyse_Generate_AC_2nd_Response),
    VELK_FN(VelkCless_ODA_CDA_Save_GAC_Exp9F4B),
    VELK_FN(VelkCless_ReadApplicationData),
    VELK_FN(VelkCless_Get_CAPulicKey_Parameters),
    VELK_FN(VelkCless_Retrieve_IssuerPubKey),
    VELK_FN(VelkCless_Retrieve_ICC_PubKey),
    VELK_FN(VelkCless_IPK_Cert_Revocation),
    VELK_FN(VelkCless_Check_Cert_ExpDate),
    VELK_FN(VelkCless_Data_Compare),
    VELK_FN(VelkCless_Verify_Signed_Data_SDA),
    VELK_FN(VelkCless_ODA_DDA_Get_SDDA),
    VELK_FN(VelkCless_ODA_DDA_Dynamic_Signature_Verification),
    VELK_FN(VelkCless_ODA_CDA_Dynamic_Signature_Verification),
    VELK_FN(VelkCless_KernelStart_Step00),
    VELK_FN(VelkCless_RecoveryTrans_TapCard_Processing),
    VELK_FN(VelkCless_Transaction_OnlineProcessing_KernelDeActivation_K37),
    VELK_FN(VelkCless_Process_FCI),
    VELK_FN(VelkCless_Analyse_FCI0),
    VELK_FN(VelkCless_TransactionInitialisation),
};
#undef VELK_FN
#undef VELK_FN_AS

// cvm_list:list:code (VelkCless_CVM_List_Processing into the CVM Results)
VELK_DRIVER(cvm_list) {
    const Bytes l = row.Hex(0);
    row.Eq("code", row.U(1),
           VelkCless_CVM_List_Processing(l.data(), static_cast<uint32_t>(l.size()),
                                         pgbVelkGlobalValue->ucCVMResult));
}

// state:items
VELK_DRIVER(state) {
    SetState(row, row.Arg(0));
}

// expect:items
VELK_DRIVER(expect) {
    ExpectState(row, row.Arg(0));
}

// buffer:index:bytes (the start of the last call's index-th pointer
// argument; "??*N" leaves N bytes unchecked)
VELK_DRIVER(buffer) {
    const size_t i = row.U(0);
    row.Matches("buffer", row.Arg(1), i < LastBuffers().size() ? LastBuffers()[i] : Bytes{});
}

// number:index:value (the last call's index-th uint32_t pointer argument)
VELK_DRIVER(number) {
    const size_t i = row.U(0);
    row.Eq("number", row.U(1), i < LastNumbers().size() ? LastNumbers()[i] : 0xDEADu);
}

// call:function:arguments...:result
VELK_DRIVER(call) {
    for (const Callable &c : kCallables) {
        if (row.Arg(0) != c.name) continue;
        if (row.args.size() != c.arity + 2) {
            row.Eq("arguments", c.arity + 2, row.args.size());
            return;
        }
        const Args a(row.args.begin() + 1, row.args.end() - 1);
        const std::string &want = row.Arg(c.arity + 1);
        row.Eq(row.Arg(0), want == "-" ? want : Hex32(row.U(c.arity + 1)), c.call(a));
        return;
    }
    row.Eq("function", row.Arg(0), "none of that name");
}

// db:bytes (the database area's 7F01 as it stands, and that it is one
// well-formed element inside the area)
VELK_DRIVER(db) {
    const uint8_t *d = pgbVelkGlobalValue->ucDataBasebuf;
    const uint32_t total = TLV_GetTlvTotalLen(d);
    row.Eq("database", row.Hex(0), Bytes(d, d + std::min<uint32_t>(total, VELK_DATABASE_LEN)));
    if (total <= 3) return;
    row.Eq("well-formed length", total, velk::WellFormedLen(d, VELK_DATABASE_LEN));
}

// snapshot, then unchanged:tag (the database as at the snapshot once that
// tag is deleted)
Bytes &Snapshot() {
    static Bytes snapshot;
    return snapshot;
}
Bytes DatabaseBytes() {
    const uint8_t *d = pgbVelkGlobalValue->ucDataBasebuf;
    return Bytes(d, d + std::min<uint32_t>(TLV_GetTlvTotalLen(d), VELK_DATABASE_LEN));
}
VELK_DRIVER(snapshot) {
    Snapshot() = DatabaseBytes();
}
VELK_DRIVER(unchanged) {
    VelkDataBase_Del_TAG(row.U(0));
    row.Eq("database", Snapshot(), DatabaseBytes());
}

// db_used:count (uiUseBuflen)
VELK_DRIVER(db_used) {
    row.Eq("uiUseBuflen", row.U(0), pgbVelkGlobalValue->uiUseBuflen);
}

// set:tag:value:code (VelkDataBase_Set_TAG); set_obj the same through
// VelkDataBase_SetTAG
VELK_DRIVER(set) {
    const Bytes v = row.Hex(1);
    row.Eq("code", row.U(2),
           VelkDataBase_Set_TAG(row.U(0), static_cast<uint32_t>(v.size()), v.data()));
}
VELK_DRIVER(set_obj) {
    Bytes v = row.Hex(1);
    OBJECT_TAG o{row.U(0), static_cast<uint32_t>(v.size()), v.data()};
    row.Eq("code", row.U(2), VelkDataBase_SetTAG(&o));
}

// set_from:tag:source tag:offset:length:code (a value taken from the
// database's own bytes)
VELK_DRIVER(set_from) {
    OBJECT_TAG o{};
    row.Eq("source present", 0u, VelkDataBase_GetTagValue(row.U(1), &o));
    if (o.pValue == nullptr) return;
    row.Eq("code", row.U(4), VelkDataBase_Set_TAG(row.U(0), row.U(3), o.pValue + row.U(2)));
}

// get:tag:capacity:code:length:bytes (VelkDataBase_Get_TagValue with a
// buffer, "0" capacity for the length alone, and DbGet bounded by it); a
// failed get leaves the length at 77
VELK_DRIVER(get) {
    const uint32_t cap = row.U(1);
    uint8_t out[64];
    std::memset(out, 0xEE, sizeof out);
    uint32_t len = 0x77;
    if (cap == 0) {
        row.Eq("code", row.U(2), VelkDataBase_Get_TagValue(row.U(0), &len, nullptr));
    } else {
        uint8_t full[300];
        uint32_t fullLen = 0x77;
        row.Eq("whole-value code", row.U(2), VelkDataBase_Get_TagValue(row.U(0), &fullLen, full));
        if (fullLen <= row.U(1))
            row.Eq("whole value", row.Hex(4), Bytes(full, full + std::min<uint32_t>(fullLen, 300)));
        if (row.Eq("code", row.U(2), velk::DbGet(row.U(0), out, cap, &len)) && row.U(2) == 0)
            row.Eq("bytes", row.Hex(4), Bytes(out, out + std::min<uint32_t>(len, sizeof out)));
    }
    row.Eq("length", row.U(3), len);
    OBJECT_TAG o{1, 2, nullptr};
    if (VelkDataBase_GetTagValue(row.U(0), &o) != 0) row.Eq("object untouched", 1u, o.uiTag);
}

// element:bytes:code:tag:length:value offset (VelkCless_Get_TLV_DataElement;
// "-" bytes: a null pointer; a refusal leaves the view untouched)
VELK_DRIVER(element) {
    Bytes e = row.Arg(0) == "-" ? Bytes{} : row.Hex(0);
    OBJECT_TAG o{1, 1, nullptr};
    row.Eq("code", row.U(1), VelkCless_Get_TLV_DataElement(e.empty() ? nullptr : e.data(), &o));
    row.Eq("tag", row.U(2), o.uiTag);
    row.Eq("length", row.U(3), o.uiLength);
    if (o.pValue != nullptr)
        row.Eq("value offset", row.U(4), static_cast<uint32_t>(o.pValue - e.data()));
}

// wipe:count (zeroes the first bytes of the database area)
VELK_DRIVER(wipe) {
    std::memset(pgbVelkGlobalValue->ucDataBasebuf, 0, row.U(0));
}

// month_days:year:month:code:days (VelkCless_DATE_MonthDaysInt, decimal
// year and month; "-" days: a null output)
VELK_DRIVER(month_days) {
    uint32_t days = 0;
    const bool null = row.Arg(3) == "-";
    row.Eq("code", row.U(2),
           VelkCless_DATE_MonthDaysInt(static_cast<uint32_t>(std::stoul(row.Arg(0))),
                                       static_cast<uint32_t>(std::stoul(row.Arg(1))),
                                       null ? nullptr : &days));
    if (!null) row.Eq("days", std::stoul(row.Arg(3)), days);
}

}  // namespace
}  // namespace velk::test
