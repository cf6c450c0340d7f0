// SPDX-License-Identifier: Apache-2.0
// Transaction control: the step machine, kernel start with FCI analysis,
// transaction initialisation, and the outcomes with the final outcome packet.
#include <stddef.h>

#include "baseKernel.h"
#include "checked.hpp"
#include "reg_std.h"
#include "tlv.h"

namespace {

using StepFn = uint32_t (*)(uint8_t *, uint32_t *);

// Steps that do not read the caller's buffer share the table's signature
// through this adapter.
template <uint32_t (*F)(void)>
uint32_t NoBuffer(uint8_t *, uint32_t *) {
    return F();
}

struct Step {
    uint32_t code;
    StepFn run;
};

// Every step code of the transaction. A code that is not here, and the
// reserved codes 0x2200, 0x2300 and 0x2400, run nothing (and, left in place,
// keep the loop spinning: every step sets a code from this table or 0).
constexpr Step kSteps[] = {
    {0x1000, VelkCless_KernelStart_Step00},
    {0x1100, VelkCless_TransactionInitialisation},
    {0x1200, NoBuffer<VelkCless_PreProcess>},
    {0x1300, VelkCless_Initiate_Application_Processing},
    {0x1400, VelkCless_ReadApplicationData},
    {0x1610, NoBuffer<VelkCless_ODA_CAM_Selection>},
    {0x1620, NoBuffer<VelkCless_ODA_CAM_Checking>},
    {0x1700, VelkCless_Processing_Restrictions},
    {0x1800, NoBuffer<VelkCless_Cardholder_Verification>},
    {0x1900, NoBuffer<VelkCless_TRM_Process>},
    {0x2000, NoBuffer<VelkCless_Terminal_Action_Analysis>},
    {0x2100, NoBuffer<VelkCless_Card_Action_Analysis_1st_Processing>},
    {0x2210, NoBuffer<VelkCless_Online_Processing_Long_Tap>},
    {0x2220, NoBuffer<VelkCless_Online_Processing_Online_Tap>},
    {0x2500, NoBuffer<VelkCless_Retrieval_of_Data_Element_values_in_EEPROM>},
    {0x2610, NoBuffer<VelkCless_Update_of_Data_Element_values_in_EEPROM>},
    {0x2620, NoBuffer<VelkCless_Update_of_Data_Element_values_in_EEPROM_after_GPO_command>},
    {0x2630, NoBuffer<VelkCless_Update_of_Data_Element_values_in_EEPROM_after_CAA>},
    {0x2700, NoBuffer<VelkCless_Retrieval_Card_Balance>},
    {0x2800, VelkCless_Online_Response_Processing_and_Kernel_DeActivation},
    {0x2900, NoBuffer<VelkCless_Kernel_De_Activation>},
    {0x3000, NoBuffer<VelkCless_RecoveryTrans_TapCard_Processing>},
};

constexpr uint32_t kRecoveryStep = 0x3000;

StepFn FindStep(uint32_t code) {
    for (const Step &s : kSteps)
        if (s.code == code) return s.run;
    return nullptr;
}

// A new call from the host starts from a clean transaction state: everything
// in the record but the signal queue (signals the host posted before the call,
// such as the FCI, must survive) is cleared and the database emptied. The
// second entry of an online transaction is no exception: what it needs comes
// back in the online context. The recovery restart inside one call (kernel
// start entered again from transaction initialisation) does not come here.
void ResetTransactionState() {
    VELK_GLOBALVALUE_STRUCT *g = pgbVelkGlobalValue;
    uint8_t *base = reinterpret_cast<uint8_t *>(g);
    const size_t queue_begin = offsetof(VELK_GLOBALVALUE_STRUCT, EmvQueue);
    const size_t queue_end = offsetof(VELK_GLOBALVALUE_STRUCT, ODA_AuthData);
    Memset_(base, 0, static_cast<int>(queue_begin));
    Memset_(base + queue_end, 0, static_cast<int>(sizeof(VELK_GLOBALVALUE_STRUCT) - queue_end));
    (void)VelkDataBase_Init();
}

// The transaction input must be a sequence of elements inside the minimum
// buffer, and the children of its 7F11 must fill it. Nothing deeper is looked
// at here: the issuer's scripts among the children are judged one by one
// where they run, so that a malformed one fails alone. The rest of the
// buffer is cleared so that any later walk of the input ends in zero bytes
// rather than in whatever the host left there.
bool AcceptInput(uint8_t *io, uint32_t *len) {
    if (io == nullptr || len == nullptr || *len > VELK_IO_BUFFER_MIN_LEN) return false;
    if (!velk::SequenceFits(io, *len)) return false;
    const uint8_t *params = velk::InputTemplate(io, *len);
    if (params != nullptr && velk::OuterLen(params, *len - static_cast<uint32_t>(params - io)) == 0)
        return false;
    Memset_(io + *len, 0, static_cast<int>(VELK_IO_BUFFER_MIN_LEN - *len));
    return true;
}

// ---- Small helpers of kernel start and transaction initialisation ------------

VELK_GLOBALVALUE_STRUCT &G() {
    return *pgbVelkGlobalValue;
}

uint8_t *Dtp() {
    return G().ucDynamicTransactionParameters;
}

// The dynamic transaction parameters may never reach 512 bytes.
constexpr uint32_t kDtpCapacity =
    sizeof(VELK_GLOBALVALUE_STRUCT::ucDynamicTransactionParameters) - 1;
constexpr uint32_t kErrDtpFull = 0x31007;

bool DtpAppend(uint32_t tag, const uint8_t *value, uint32_t len) {
    const uint32_t total = velk::AddTagChecked(Dtp(), kDtpCapacity, tag, value, len);
    if (total == 0) return false;
    G().uiDynamicTransactionParametersLen = total;
    return true;
}

bool InDtp(uint32_t tag) {
    return VelkCless_Check_Tag_isPresent_InDynamic_TransactionParam(tag) != 0;
}

bool Option(uint8_t bit) {
    return VelkCless_Check_ImplementationOption_IsTrue(bit) != 0;
}

bool AuthenticationType() {
    return VelkCless_CheckTransactionType_IsPresent_Trans_Type_Auth_Appli() != 0;
}

uint32_t EndTransaction(uint32_t (*outcome)(void)) {
    (void)outcome();
    VelkCless_SetTransactionStep(0);
    return 0;
}

// ---- Kernel start -------------------------------------------------------------

constexpr uint32_t kErrAidParameters = 0x3020C;
constexpr uint32_t kSteerOnlineResponse = 0x30;
constexpr uint32_t kSteerContextFirst = 0x10;

// Every child of the input's 7F11 goes into the dynamic transaction parameters
// and, but for the issuer scripts, into the database.
uint32_t TakeInputParameters(uint8_t *input, uint32_t len) {
    uint8_t *params = velk::InputTemplate(input, len);
    if (params == nullptr) return 0;
    for (uint8_t *child = TLV_GetFirstChildTag(params); child != nullptr;
         child = TLV_GetNextChildTag(params)) {
        const uint32_t tag = TLV_GetTag(child);
        const uint32_t n = TLV_GetLen(child);
        const uint8_t *value = TLV_GetValue(child);
        if (tag == 0x9C && n != 0) VelkCless_Set_TransactionType(value[0]);
        if (tag != 0x71 && tag != 0x72) (void)velk::SetHostParameter(child);
        if (!DtpAppend(tag, value, n)) return kErrDtpFull;
    }
    return 0;
}

// The steering byte 9F872B (0 when absent); sets the reader flag from 9F8211
// on the way.
uint8_t ReadSteering() {
    uint8_t steering = 0;
    for (uint8_t *child = TLV_GetFirstChildTag(Dtp()); child != nullptr;
         child = TLV_GetNextChildTag(Dtp())) {
        if (TLV_GetLen(child) == 0) continue;
        const uint32_t tag = TLV_GetTag(child);
        if (tag == 0x9F872B) steering = *TLV_GetValue(child);
        if (tag == 0x9F8211) G().ucVelkReader = *TLV_GetValue(child);
    }
    return steering;
}

uint32_t RestartAfterOnlineResponse() {
    (void)VelkCless_Get_OnlineTransaction_Context();
    (void)VelkCless_InitSignal();
    uint8_t *aid = velk::DtpFind(0x9F06);
    if (aid != nullptr &&
        VelkCless_Transaction_Get_AID_Parameter(TLV_GetValue(aid), TLV_GetLen(aid)) != 0) {
        (void)VelkCless_Transaction_FinalOutcome_EndApplication();
        return kErrAidParameters;
    }
    VelkCless_SetTransactionStep(0x1100);
    return 0;
}

// An FCI that fails its checks sends the host on to the next application;
// a reader on the context-first road ends the application instead.
uint32_t FciFailure(uint8_t steering) {
    if (steering == kSteerContextFirst && G().ucVelkReader == 1)
        return EndTransaction(VelkCless_Transaction_FinalOutcome_EndApplication);
    return EndTransaction(VelkCless_Transaction_FinalOutcome_SelectNext);
}

constexpr uint32_t kDfNameMax = 32;

// The DF name (84) of the FCI becomes the transaction's AID.
uint32_t TakeDfName(const uint8_t *dfName, uint8_t (&aid)[kDfNameMax], uint32_t *aidLen) {
    const uint32_t n = TLV_GetLen(dfName);
    if (n > kDfNameMax) return velk::kErrDfNameTooLong;
    if (n != 0) Memcpy_(aid, TLV_GetValue(const_cast<uint8_t *>(dfName)), static_cast<int>(n));
    *aidLen = n;
    (void)VelkDataBase_Set_TAG(0x9F06, n, aid);
    return 0;
}

// ---- FCI analysis ---------------------------------------------------------------

constexpr uint32_t kFciWorkLen = 300;
constexpr uint32_t kErrStatusWord = 0x30203;
constexpr uint32_t kErrFciLength = 0x30204;
constexpr uint32_t kErrFciFormat = 0x30201;
constexpr uint32_t kErrTagLength = 0x3020B;

// Total length of the element at p as its header declares it, reading no byte
// at or beyond p + n: a header cut off by the end reads as if zeros followed,
// which always yields more than n.
uint32_t DeclaredLength(const uint8_t *p, uint32_t n) {
    uint8_t header[8];
    Memset_(header, 0, sizeof header);
    Memcpy_(header, p, static_cast<int>(n < sizeof header ? n : sizeof header));
    return TLV_GetTlvTotalLen(header);
}

uint32_t CheckFciFormat(const uint8_t *fci, uint32_t len) {
    if (DeclaredLength(fci, len) != len) return kErrFciLength;
    if (TLV_Check_Format(fci, &len) == 0) return kErrFciFormat;
    return 0;
}

struct MandatoryTemplate {
    uint32_t tag;
    uint32_t error;
};
// Tested in this order.
constexpr MandatoryTemplate kFciTemplates[] = {{0x6F, 0x30206}, {0x84, 0x30208}, {0xA5, 0x30207}};

uint32_t CheckFciTemplates(uint8_t *fci) {
    for (const MandatoryTemplate &t : kFciTemplates) {
        const uint8_t *found = TLV_FindTag(fci, t.tag);
        if (found == nullptr || TLV_GetLen(found) == 0) return t.error;
    }
    return 0;
}

// Stores the children of a well-formed element, depth first, each constructed
// child after its own children. Each level keeps the codec's iteration state
// of the level above.
uint32_t SaveChildren(uint8_t *parent) {
    TLV_GetNextChildTagPosition saved = {0, 0};
    (void)TLV_GetNextChlidTagPosition(&saved);
    uint32_t status = 0;
    for (uint8_t *child = TLV_GetFirstChildTag(parent); child != nullptr && status == 0;
         child = TLV_GetNextChildTag(parent)) {
        const uint32_t tag = TLV_GetTag(child);
        const uint32_t n = TLV_GetLen(child);
        if (VelkCless_Check_Tag_Length(tag, n) != 0) {
            status = kErrTagLength;
            break;
        }
        if ((*child & 0x20) != 0) status = SaveChildren(child);
        if (status == 0 && velk::CardMaySet(tag))
            (void)VelkDataBase_Set_TAG(tag, n, TLV_GetValue(child));
    }
    (void)TLV_SetNextChlidTagPosition(&saved);
    return status;
}

// ---- Transaction initialisation ------------------------------------------------

enum Failure : uint8_t { kNoFailure = 0, kCompletedOnError = 1, kErroneousReactivation = 2 };

constexpr uint32_t kErrRestartRefused = 0x33001;
constexpr uint32_t kErrNoCapabilities = 0x33002;
constexpr uint32_t kErrCommunication = 0x30103;
// The recovery hands back a raw signal type on one of its roads; it counts as
// the communication error it stands for.
constexpr uint32_t kSignalA6AsResult = 0xA6;

uint8_t MandatoryDataFailure(bool online) {
    if (online) return InDtp(0x9F02) && InDtp(0x5F2A) ? kNoFailure : kErroneousReactivation;
    if (!InDtp(0x9C)) return kCompletedOnError;
    const uint8_t type = VelkCless_Get_TransactionType();
    if (Option(0x80) && type == 0x78)
        return VelkDataBase_Tag_IsPresent(0xBF71) ? kNoFailure : kCompletedOnError;
    if (Option(0x40) && type == 0x79)
        return VelkDataBase_Tag_IsPresent(0xBF70) ? kNoFailure : kCompletedOnError;
    if (Option(0x10) && AuthenticationType()) {
        // Authentication transactions carry no amount. The capability is asked
        // and its answer deliberately not used.
        (void)VelkCless_Kernel_Capabilities_IsTrue(0x340);
        return kNoFailure;
    }
    const bool complete =
        InDtp(0x9F02) && InDtp(0x5F2A) && InDtp(0x9A) && VelkDataBase_Tag_IsPresent(0x9F1A) != 0;
    return complete ? kNoFailure : kCompletedOnError;
}

// The same card is back after a torn GENERATE AC and the ECHO can fetch the
// lost response: the first GENERATE AC was torn on a first tap, the second
// one on the online response.
bool EchoRecoveryApplies(bool online) {
    const uint8_t problem = VelkCless_Get_CommunicationProblemIndicator();
    return VelkCless_EchoCardIdentifier_9F75_isPartOf_FCI() != 0 &&
           VelkCless_CheckTagValue_IsTrue(0x9F9304) != 0 &&
           VelkCless_FCI_in_DynamicTransParameters_isEqual_To_DataBase_FCI() != 0 && problem != 0 &&
           Option(0x10) && !AuthenticationType() && problem == (online ? 2 : 1);
}

bool LastResponseIs9000() {
    const VELK_GLOBALVALUE_STRUCT &g = G();
    const uint32_t n = g.uiLastRAPDULen;
    return n >= 2 && n <= sizeof g.ucLastRAPDU && g.ucLastRAPDU[n - 2] == 0x90 &&
           g.ucLastRAPDU[n - 1] == 0x00;
}

// The ECHO of a torn second GENERATE AC broke off as well and the card has
// been selected again: kernel start runs anew on the same input, less the
// torn transaction's AID and steering, with the new FCI, which it also finds
// waiting as a SELECT response in the signal queue.
uint32_t RestartFromKernelStart(uint8_t *input, uint32_t *len) {
    const uint8_t *fci = velk::DtpFind(0x9F8201);
    const uint8_t *fciValue = fci != nullptr ? TLV_GetValue(const_cast<uint8_t *>(fci)) : nullptr;
    if (!velk::EchoRestartInput(input, len, fciValue, fci != nullptr ? TLV_GetLen(fci) : 0)) {
        (void)VelkCless_Transaction_FinalOutcome_EndApplication();
        return velk::kErrInput;
    }
    ClessSignal_Message select = {VELK_SIGNAL_FCI, G().ucLastRAPDU, G().uiLastRAPDULen};
    (void)VelkCless_writeSignal(&select);
    (void)VelkDataBase_Init();
    VelkCless_SetTransactionStep(0x1000);
    return 0;
}

// Sends the ECHO. True when transaction initialisation ends here with
// *status; false when it goes on (with *failure set after a status word other
// than 9000).
bool RecoverWithEcho(uint8_t *input, uint32_t *len, uint8_t *failure, uint32_t *status) {
    const uint8_t problem = VelkCless_Get_CommunicationProblemIndicator();
    const uint32_t sent = VelkCless_RecoveryTrans_Send_ECHO_Command();
    if (sent == 0) {
        const bool answered = LastResponseIs9000();
        VelkCless_Set_EchoTransactionIndicator(answered ? 1 : 0);
        if (!answered) *failure = problem;
        return false;
    }
    *status = sent;
    if (sent != kErrCommunication && sent != kSignalA6AsResult) return true;
    if (problem != 2) {
        *status = EndTransaction(VelkCless_Communication_Errors_PaymentTransactionNotCompleted);
        return true;
    }
    *status = VelkCless_Recovery_ECHO_Command_CommunicationProblem_Processing();
    if (*status == 0) *status = RestartFromKernelStart(input, len);
    return true;
}

struct IndicatorBit {
    uint8_t preProcessing;
    uint8_t ttpi;
};
constexpr IndicatorBit kPreProcessingToTtpi[] = {
    {0x10, 0x80},  // floor limit exceeded
    {0x20, 0x40},  // CVM required limit exceeded
    {0x80, 0x20},  // status check requested
    {0x40, 0x10},  // zero amount
};

// Sets up the terminal transaction processing indicators and the TVR of a
// first tap.
//
// ucTTPI is indexed from 0 here, while the steps that read it number its
// bytes from 1 as EMV does: their "byte 1" is ucTTPI[0], the kernel
// capabilities' byte 0 with its CVM bits 0x02 and 0x04; their "byte 2" is
// ucTTPI[1], which carries the pre-processing results and, in bit 0x04,
// capability 0x301 (byte 3 bit 0x01) that balance retrieval also reads.
// ucTTPI[2] keeps only its top three bits (0x20: the reader supports ECHO);
// ucTTPI[3] is not used.
uint32_t SetUpProcessingIndicators() {
    VELK_GLOBALVALUE_STRUCT &g = G();
    Memset_(g.ucTTPI, 0, sizeof g.ucTTPI);
    uint8_t capabilities[6];
    Memset_(capabilities, 0, sizeof capabilities);
    uint32_t n = 0;
    if (velk::DbGet(0x9F9301, capabilities, sizeof capabilities, &n) != 0 || n == 0)
        return kErrNoCapabilities;
    Memcpy_(g.ucTTPI, capabilities, 5);
    g.ucTTPI[2] &= 0xE0;
    g.ucTTPI[3] = 0;
    for (const IndicatorBit &bit : kPreProcessingToTtpi)
        if (VelkCless_Get_Contactless_PreProcessing_Indicators(bit.preProcessing) != 0)
            g.ucTTPI[1] |= bit.ttpi;
    if ((capabilities[3] & 0x01) != 0) g.ucTTPI[1] |= 0x04;

    (void)VelkCless_Set_Offline_CAM_Selected_Indicator(0);
    Memset_(g.ucTVR, 0, sizeof g.ucTVR);
    g.ucTVR[0] = 0x80;
    const bool echo =
        VelkCless_EchoCardIdentifier_9F75_isPartOf_FCI() != 0 && (g.ucTTPI[2] & 0x20) != 0;
    (void)VelkCless_Set_ECHO_Command_supported(echo ? 1 : 0);
    if (VelkCless_Get_Contactless_PreProcessing_Indicators(0x10) != 0) g.ucTVR[3] |= 0x80;
    return 0;
}

uint32_t FirstTapStep() {
    if (VelkCless_Get_EchoTransactionIndicator() != 0) return 0x2100;
    // Asked, and its answer deliberately not used.
    if (Option(0x10)) (void)AuthenticationType();
    if (Option(0x80) || !Option(0x40)) return 0x2500;
    return 0x2610;
}

// ---- Outcomes -------------------------------------------------------------------

// How the presence byte grows from the row's value. D is "the card returned
// data elements or updated some" (VelkCless_GDDOLResult_and_DataUpdateResult_IsPresent).
enum class Presence : uint8_t {
    Fixed,
    PlusD,               // + 0x10 when D
    PlusDReceipt,        // + 0x10 when D, + 0x08 (receipt) with the signature CVM
    RecordUnlessArgD,    // + 0x20 unless the argument is set (no record read), + 0x10 when D
    RecordIfArg,         // + 0x20 when the argument is set (a record was read)
    DiscretionaryIfArg,  // + 0x10 when the argument is set
    OnlyDiscretionary,   // exactly 0x10 when D: the UIRD is then not sent
};

// How the message identifier is chosen from the row's value.
enum class Message : uint8_t {
    Fixed,
    SignatureElse,  // 0x1A with the signature CVM, else the row's
    OnlinePinElse,  // 0x09 with the online PIN CVM, else the row's
};

// Card data copied into the UIRD.
enum class Copies : uint8_t { None, Language, LanguageAndBalance };

struct OutcomeRow {
    uint8_t status;
    uint8_t start = 0xF0;
    uint8_t onlineData = 0xF0;
    bool cvmFromRecord = false;  // else 0xF0
    uint8_t presence = 0x00;
    Presence presenceRule = Presence::Fixed;
    uint8_t alternate = 0xF0;
    uint8_t fieldOff = 0xFF;
    bool removalFrom9F9307 = false;  // else 0
    uint8_t message = 0x00;
    Message messageRule = Message::Fixed;
    uint8_t uirdStatus = 0x00;
    bool holdTime = false;  // 00 00 13
    bool restart = false;   // writes UIRD_Restart with the two bytes below
    uint8_t restartMessage = 0x00;
    uint8_t restartStatus = 0x00;
    Copies copies = Copies::None;
};

constexpr uint8_t kCvmSignature = 0x10;
constexpr uint8_t kCvmOnlinePin = 0x20;

enum OutcomeId : uint8_t {
    kSelectNext,
    kTryAnotherInterface,
    kEndApplication,
    kRestartCommError,
    kRestartOnDeviceCvm,
    kOnDeviceCvmRequested,
    kApproved,
    kOnlineApproved,
    kDeclined,
    kOnlineRequest,
    kOnlineRequestLongTap,
    kOnlineRequestOnlineTap,
    kErroneousReactivationAfterOnline,
    kTryOtherInterface,
    kCompletedOnErrorOutcome,
    kCommErrorNotCompleted,
    kCancelledByReader,
    kRetrievalCompleted,
    kUpdateCompleted,
    kOfflineAuthenticationCompleted,
    kOutcomeCount
};

// One row per outcome, in the order of OutcomeId; unnamed fields keep the
// defaults above (not applicable, no UIRD).
constexpr OutcomeRow kOutcomes[kOutcomeCount] = {
    /* kSelectNext */ {.status = 0x50, .start = 0x20},
    /* kTryAnotherInterface */
    {.status = 0x60, .presence = 0x80, .alternate = 0x00, .message = 0x1D, .uirdStatus = 0x05},
    /* kEndApplication */ {.status = 0x40, .presence = 0x80, .message = 0x1C, .uirdStatus = 0x05},
    // The hold time is set although the presence byte does not announce the UIRD.
    /* kRestartCommError */
    {.status = 0x70, .start = 0x10, .message = 0x21, .uirdStatus = 0x05, .holdTime = true},
    /* kRestartOnDeviceCvm */
    {.status = 0x40,
     .start = 0x10,
     .presence = 0xC0,
     .fieldOff = 0x13,
     .message = 0x20,
     .uirdStatus = 0x05,
     .holdTime = true,
     .restart = true,
     .restartMessage = 0x21,
     .restartStatus = 0x02},
    /* kOnDeviceCvmRequested */
    {.status = 0x40,
     .start = 0x10,
     .presence = 0xC0,
     .presenceRule = Presence::PlusD,
     .fieldOff = 0x13,
     .message = 0x20,
     .uirdStatus = 0x05,
     .holdTime = true,
     .restart = true,
     .restartMessage = 0x21,
     .restartStatus = 0x02},
    /* kApproved */
    {.status = 0x10,
     .cvmFromRecord = true,
     .presence = 0xA0,
     .presenceRule = Presence::PlusDReceipt,
     .message = 0x03,
     .messageRule = Message::SignatureElse,
     .uirdStatus = 0x04,
     .copies = Copies::LanguageAndBalance},
    /* kOnlineApproved */
    {.status = 0x10,
     .cvmFromRecord = true,
     .presence = 0xA0,
     .presenceRule = Presence::PlusDReceipt,
     .message = 0xB0,
     .messageRule = Message::SignatureElse,
     .uirdStatus = 0x04,
     .copies = Copies::LanguageAndBalance},
    /* kDeclined */
    {.status = 0x20,
     .presence = 0x80,
     .presenceRule = Presence::RecordUnlessArgD,
     .message = 0x07,
     .uirdStatus = 0x04,
     .copies = Copies::LanguageAndBalance},
    /* kOnlineRequest */
    {.status = 0x30,
     .cvmFromRecord = true,
     .presence = 0xA0,
     .presenceRule = Presence::PlusD,
     .message = 0x1B,
     .messageRule = Message::OnlinePinElse,
     .uirdStatus = 0x04,
     .copies = Copies::LanguageAndBalance},
    /* kOnlineRequestLongTap */
    {.status = 0x30,
     .start = 0x30,
     .onlineData = 0x04,
     .cvmFromRecord = true,
     .presence = 0xE0,
     .presenceRule = Presence::PlusD,
     .removalFrom9F9307 = true,
     .message = 0x1B,
     .messageRule = Message::OnlinePinElse,
     .uirdStatus = 0x04,
     .restart = true,
     .restartMessage = 0x16,
     .restartStatus = 0x03,
     .copies = Copies::LanguageAndBalance},
    /* kOnlineRequestOnlineTap */
    {.status = 0x30,
     .start = 0x10,
     .onlineData = 0x03,
     .cvmFromRecord = true,
     .presence = 0xE0,
     .presenceRule = Presence::PlusD,
     .message = 0x1B,
     .messageRule = Message::OnlinePinElse,
     .uirdStatus = 0x04,
     .restart = true,
     .restartMessage = 0x21,
     .restartStatus = 0x02,
     .copies = Copies::LanguageAndBalance},
    /* kErroneousReactivationAfterOnline */
    {.status = 0x40, .presenceRule = Presence::RecordIfArg},
    /* kTryOtherInterface */
    {.status = 0x60,
     .presence = 0x80,
     .presenceRule = Presence::OnlyDiscretionary,
     .alternate = 0x01,
     .message = 0x18,
     .uirdStatus = 0x02,
     .copies = Copies::Language},
    /* kCompletedOnErrorOutcome */ {.status = 0x50, .start = 0x20},
    /* kCommErrorNotCompleted */
    {.status = 0x70,
     .start = 0x10,
     .presence = 0xC0,
     .fieldOff = 0x13,
     .message = 0x21,
     .uirdStatus = 0x05,
     .holdTime = true,
     .restart = true,
     .restartMessage = 0x21,
     .restartStatus = 0x02},
    /* kCancelledByReader */
    {.status = 0x40, .presence = 0x80, .message = 0x1C, .uirdStatus = 0x05},
    /* kRetrievalCompleted */
    {.status = 0x40,
     .presence = 0x80,
     .presenceRule = Presence::DiscretionaryIfArg,
     .message = 0x10,
     .uirdStatus = 0x04},
    /* kUpdateCompleted */
    {.status = 0x40,
     .presence = 0x80,
     .presenceRule = Presence::DiscretionaryIfArg,
     .message = 0x10,
     .uirdStatus = 0x04},
    /* kOfflineAuthenticationCompleted */
    {.status = 0x40,
     .presence = 0xA0,
     .presenceRule = Presence::DiscretionaryIfArg,
     .message = 0x10,
     .uirdStatus = 0x04},
};

bool D() {
    return VelkCless_GDDOLResult_and_DataUpdateResult_IsPresent() != 0;
}

uint8_t PresenceOf(const OutcomeRow &row, uint8_t cvm, uint8_t arg) {
    switch (row.presenceRule) {
        case Presence::Fixed:
            return row.presence;
        case Presence::PlusD:
            return row.presence | (D() ? 0x10 : 0x00);
        case Presence::PlusDReceipt:
            return row.presence | (D() ? 0x10 : 0x00) | (cvm == kCvmSignature ? 0x08 : 0x00);
        case Presence::RecordUnlessArgD:
            return row.presence | (arg == 0 ? 0x20 : 0x00) | (D() ? 0x10 : 0x00);
        case Presence::RecordIfArg:
            return row.presence | (arg != 0 ? 0x20 : 0x00);
        case Presence::DiscretionaryIfArg:
            return row.presence | (arg != 0 ? 0x10 : 0x00);
        case Presence::OnlyDiscretionary:
            return D() ? 0x10 : row.presence;
    }
    return row.presence;
}

uint8_t MessageOf(const OutcomeRow &row, uint8_t cvm) {
    if (row.messageRule == Message::SignatureElse && cvm == kCvmSignature) return 0x1A;
    if (row.messageRule == Message::OnlinePinElse && cvm == kCvmOnlinePin) return 0x09;
    return row.message;
}

// Copies up to cap bytes of a database element into dst; false when absent.
bool CopyFromDatabase(uint32_t tag, uint8_t *dst, uint32_t cap) {
    OBJECT_TAG element = {0, 0, nullptr};
    if (VelkDataBase_GetTagValue(tag, &element) != 0) return false;
    const uint32_t n = element.uiLength < cap ? element.uiLength : cap;
    if (n != 0) Memcpy_(dst, element.pValue, static_cast<int>(n));
    return true;
}

// Language preference, and the balance with its currency when 9F50 is there.
// Values are taken up to the size of their field, never read beyond their own
// end.
void CopyCardData(Copies copies, User_Interface_Request_Data &uird) {
    if (copies == Copies::None) return;
    (void)CopyFromDatabase(0x5F2D, uird.ucLanguagePreference, sizeof uird.ucLanguagePreference);
    if (copies != Copies::LanguageAndBalance) return;
    if (!CopyFromDatabase(0x9F50, uird.ucValue, sizeof uird.ucValue)) return;
    uird.ucValueQualifier = 0x20;
    (void)CopyFromDatabase(0xCD, uird.ucCurrencyCode, sizeof uird.ucCurrencyCode);
}

uint8_t RemovalTimeout() {
    uint8_t timeout = 0;
    (void)CopyFromDatabase(0x9F9307, &timeout, 1);
    return timeout;
}

// Writes the whole Outcome Parameter Set and UIRD from a row. UIRD_Restart is
// written only by the restart rows and cleared by none: an earlier restart
// UIRD stays until another restart row replaces it.
uint32_t Raise(OutcomeId id, uint8_t arg = 0) {
    const OutcomeRow &row = kOutcomes[id];
    VELK_GLOBALVALUE_STRUCT &g = G();
    FINAL_OUTCOME &ops = g.FinalOutCome;
    User_Interface_Request_Data &uird = g.UIRD;
    Memset_(&ops, 0, sizeof ops);
    Memset_(&uird, 0, sizeof uird);
    const uint8_t cvm = VelkCless_GetCVM();

    ops.ucStatus = row.status;
    ops.ucStart = row.start;
    ops.ucOnline_Response_Data = row.onlineData;
    ops.ucCVM = row.cvmFromRecord ? cvm : 0xF0;
    ops.ucPresence = PresenceOf(row, cvm, arg);
    ops.ucAlternate_Interface_Preference = row.alternate;
    ops.ucField_Off_Request = row.fieldOff;
    ops.ucRemoval_Timeout = row.removalFrom9F9307 ? RemovalTimeout() : 0;

    uird.ucMessageIdentifier = MessageOf(row, cvm);
    uird.ucStatus = row.uirdStatus;
    if (row.holdTime) uird.ucHoldTime[2] = 0x13;
    if (row.restart) {
        Memset_(&g.UIRD_Restart, 0, sizeof g.UIRD_Restart);
        g.UIRD_Restart.ucMessageIdentifier = row.restartMessage;
        g.UIRD_Restart.ucStatus = row.restartStatus;
    }
    CopyCardData(row.copies, uird);
    return 0;
}

const uint8_t *Bytes(const void *record) {
    return static_cast<const uint8_t *>(record);
}

// Adds a container built by `build` in a cleared work area (its own tag,
// length and value) as one child of the packet.
template <typename Build>
uint32_t AddContainer(uint8_t *packet, uint32_t cap, Build build) {
    uint8_t work[VELK_RECORD_WORK_LEN];
    Memset_(work, 0, sizeof work);
    uint32_t len = 0;
    build(work, &len);
    if (TLV_GetTag(work) == 0) return 0;
    return velk::AddTagChecked(packet, cap, TLV_GetTag(work), TLV_GetValue(work), TLV_GetLen(work));
}

}  // namespace

// ---- Helpers shared with later steps ----------------------------------------------

namespace velk {

uint8_t *InputTemplate(uint8_t *input, uint32_t len) {
    return FindInInput(input, len, 0x7F11);
}

bool EchoRestartInput(uint8_t *input, uint32_t *len, const uint8_t *fci, uint32_t fciLen) {
    uint8_t *params = InputTemplate(input, *len);
    if (params == nullptr) return false;
    const uint32_t offset = static_cast<uint32_t>(params - input);
    const uint32_t room = VELK_IO_BUFFER_MIN_LEN - offset;
    const auto remove = [params](uint32_t tag) {
        uint8_t *child = TLV_FindChildTag(params, tag);
        if (child != nullptr) (void)DelChild(params, child);
    };
    remove(0x9F06);
    remove(0x9F872B);
    if (fci != nullptr) {
        remove(0x9F8201);
        if (AddTagChecked(params, room, 0x9F8201, fci, fciLen) == 0) return false;
    }
    const uint32_t total = OuterLen(params, room);
    if (total == 0) return false;
    *len = offset + total;
    Memset_(input + *len, 0, static_cast<int>(VELK_IO_BUFFER_MIN_LEN - *len));
    return true;
}

uint8_t *DtpFind(uint32_t tag) {
    // The kernel builds the 7F01 itself: its header is read as it stands.
    uint8_t *dtp = Dtp();
    return FindInInput(TLV_GetValue(dtp), TLV_GetLen(dtp), tag, false);
}

bool DtpReplace(uint32_t tag, const uint8_t *value, uint32_t len) {
    const uint32_t total = ReplaceChildChecked(Dtp(), kDtpCapacity, tag, value, len);
    if (total == 0) return false;
    G().uiDynamicTransactionParametersLen = total;
    return true;
}

void BuildOutcomePacket(uint8_t *out, uint32_t cap, uint32_t *len) {
    if (NewChecked(out, cap, 0x7F01, nullptr, 0) == 0) return;
    *len = TLV_GetTlvTotalLen(out);
    const auto keep = [len](uint32_t total) {
        if (total != 0) *len = total;
    };
    const VELK_GLOBALVALUE_STRUCT &g = G();
    const uint8_t presence = g.FinalOutCome.ucPresence;
    keep(AddTagChecked(out, cap, 0xDF8129, Bytes(&g.FinalOutCome), sizeof g.FinalOutCome));
    if ((presence & 0x80) != 0)
        keep(AddTagChecked(out, cap, 0xDF8116, Bytes(&g.UIRD), sizeof g.UIRD));
    if ((presence & 0x40) != 0)
        keep(AddTagChecked(out, cap, 0x9F8117, Bytes(&g.UIRD_Restart), sizeof g.UIRD_Restart));
    if ((presence & 0x10) != 0) keep(AddContainer(out, cap, VelkCless_Create_DiscretionaryData));
    if ((presence & 0x20) != 0)
        keep(AddContainer(out, cap, [](uint8_t *work, uint32_t *workLen) {
            VelkCless_Create_DataRecord(1, work, workLen);
        }));
    if (g.ucVelkReader == 1) {
        const uint8_t reader = 0x01;
        keep(AddTagChecked(out, cap, 0x9F8211, &reader, 1));
    }
}

}  // namespace velk

extern "C" {

uint32_t VelkCless_Start_Transaction(uint8_t *pInOutData, uint32_t *pInOutDatalen) {
    ResetTransactionState();
    if (!AcceptInput(pInOutData, pInOutDatalen)) {
        (void)VelkCless_Transaction_FinalOutcome_EndApplication();
        (void)VelkCless_Transaction_FinalOutcome_Packet(pInOutData, pInOutDatalen);
        return velk::kErrInput;
    }

    uint32_t result = 0;
    VelkCless_SetTransactionStep(0x1000);
    while (VelkCless_GetTransactionStep() != 0) {
        const uint32_t code = VelkCless_GetTransactionStep();
        const StepFn run = FindStep(code);
        if (run == nullptr) continue;
        const uint32_t status = run(pInOutData, pInOutDatalen);
        // Recovery's own result is discarded: only the step it leaves decides.
        if (code != kRecoveryStep) result = status;
        if (result != 0) break;
    }

    (void)VelkCless_Transaction_FinalOutcome_Packet(pInOutData, pInOutDatalen);
    return result;
}

// ---- Kernel start -----------------------------------------------------------

uint32_t VelkCless_KernelStart_Step00(uint8_t *pInOutData, uint32_t *pInOutDatalen) {
    VELK_GLOBALVALUE_STRUCT &g = G();
    const uint8_t *kernelId = velk::FindInInput(pInOutData, *pInOutDatalen, 0xDF09);
    if (kernelId != nullptr && TLV_GetLen(kernelId) != 0)
        g.ucKernelID = *TLV_GetValue(const_cast<uint8_t *>(kernelId));
    (void)VelkCless_Set_ContactlessApplicationNotAllowedindicator(0);
    g.uiDynamicTransactionParametersLen = TLV_New(Dtp(), 0x7F01, nullptr, 0);

    const uint32_t taken = TakeInputParameters(pInOutData, *pInOutDatalen);
    if (taken != 0) return taken;

    (void)VelkCless_GetICS_Param();
    (void)VelkCless_Get_Unpredictable_Number();

    const uint8_t steering = ReadSteering();
    if (steering == kSteerOnlineResponse && InDtp(0x8A)) return RestartAfterOnlineResponse();

    if (VelkCless_Process_FCI() != 0) return FciFailure(steering);

    OBJECT_TAG fci = {0, 0, nullptr};
    const uint32_t missing = VelkDataBase_GetTagValue(0x9F8201, &fci);
    if (missing != 0) return missing;
    // An FCI that came with the input has not been checked: its DF name is
    // looked for only if it is well formed.
    const uint8_t *dfName = velk::FindInSequence(fci.pValue, fci.uiLength, 0x84);
    if (dfName == nullptr) return EndTransaction(VelkCless_Transaction_FinalOutcome_SelectNext);

    uint8_t aid[kDfNameMax];
    uint32_t aidLen = 0;
    if (TakeDfName(dfName, aid, &aidLen) != 0) return FciFailure(steering);
    if (VelkCless_Transaction_Get_AID_Parameter(aid, aidLen) != 0) {
        (void)VelkCless_Transaction_FinalOutcome_EndApplication();
        return kErrAidParameters;
    }
    if (steering == kSteerContextFirst && InDtp(0x8A))
        (void)VelkCless_Get_OnlineTransaction_Context();
    VelkCless_SetTransactionStep(0x1200);
    return 0;
}

// Only one signal is looked at: the SELECT response, if the host posted it
// before the start. Without it the FCI must have come with the input.
uint32_t VelkCless_Process_FCI(void) {
    ClessSignal_Message signal = {0, nullptr, 0};
    if (VelkCless_Query_Event_Message(&signal) == 0 || signal.ucSignalType != VELK_SIGNAL_FCI)
        return 0;
    const uint32_t len = signal.MessageData != nullptr ? signal.uiMessageDatalen : 0;
    if (len > kFciWorkLen) return velk::kErrFciTooLong;
    uint8_t work[kFciWorkLen];
    Memset_(work, 0, sizeof work);
    if (len != 0) Memcpy_(work, signal.MessageData, static_cast<int>(len));
    // A response of fewer than 2 bytes has no status word and fails the check
    // below without being kept.
    if (len >= 2) {
        (void)VelkDataBase_Set_TAG(0x9F8201, len - 2, work);
        if (!DtpAppend(0x9F8201, work, len - 2)) return kErrDtpFull;
    }
    return VelkCless_Analyse_FCI0(work, len);
}

uint32_t VelkCless_Analyse_FCI0(uint8_t *pAPDU, uint32_t uiAPDULen) {
    if (uiAPDULen < 2 || pAPDU[uiAPDULen - 2] != 0x90 || pAPDU[uiAPDULen - 1] != 0x00)
        return kErrStatusWord;
    const uint32_t len = uiAPDULen - 2;
    const uint32_t status = CheckFciFormat(pAPDU, len);
    if (status != 0) return status;
    pAPDU[len] = 0;
    pAPDU[len + 1] = 0;
    (void)VelkCless_SaveTLVData_WithChildTAG(pAPDU, len);
    return CheckFciTemplates(pAPDU);
}

uint32_t VelkCless_Analyse_FCI_01(uint8_t *pAPDU, uint32_t uiAPDULen) {
    const uint32_t status = CheckFciFormat(pAPDU, uiAPDULen);
    if (status != 0) return status;
    return CheckFciTemplates(pAPDU);
}

// The check only reads, so the FCI is checked where it lies in the database:
// no copy, and no second limit on its length.
uint32_t VelkCless_Analyse_ApplicationSelec_FCIData(void) {
    OBJECT_TAG fci = {0, 0, nullptr};
    const uint32_t status = VelkDataBase_GetTagValue(0x9F8201, &fci);
    if (status != 0) return status;
    return VelkCless_Analyse_FCI_01(fci.pValue, fci.uiLength);
}

uint32_t VelkCless_SaveTLVData_WithChildTAG(uint8_t *pTlvdata, uint32_t uiTlvDatalen) {
    if (velk::WellFormedLen(pTlvdata, uiTlvDatalen) == 0) return kErrFciFormat;
    return SaveChildren(pTlvdata);
}

// ---- Transaction initialisation ----------------------------------------------

uint32_t VelkCless_TransactionInitialisation(uint8_t *pTlvData, uint32_t *pTlvDatalen) {
    (void)VelkCless_Set_EchoTransactionIndicator(0);
    const bool online = InDtp(0x8A);
    const uint8_t kind = online ? kErroneousReactivation : kCompletedOnError;
    uint8_t failure = MandatoryDataFailure(online);

    if (failure == kNoFailure && InDtp(0x9F8201)) {
        if (VelkCless_Analyse_ApplicationSelec_FCIData() != 0) {
            failure = kind;
        } else if (EchoRecoveryApplies(online)) {
            uint32_t status = 0;
            if (RecoverWithEcho(pTlvData, pTlvDatalen, &failure, &status)) return status;
        }
        // Also after a failure: the indicators are set up for every first tap
        // that is not an ECHO recovery.
        if (!online && VelkCless_Get_EchoTransactionIndicator() == 0) {
            const uint32_t status = SetUpProcessingIndicators();
            if (status != 0) {
                VelkCless_SetTransactionStep(0);
                return status;
            }
        }
    } else if (failure == kNoFailure) {
        // No FCI: only issuer scripts may be processed, and only where the
        // reader and its options allow it.
        const bool scripts = InDtp(0x91) || InDtp(0x71) || InDtp(0x72);
        if (!scripts || VelkCless_Kernel_Capabilities_IsTrue(0x210) == 0 || !Option(0x04))
            failure = kind;
    }

    if (failure == kNoFailure) {
        if (!online) {
            VelkCless_SetTransactionStep(FirstTapStep());
            return 0;
        }
        if (Option(0x04) && Option(0x02)) {
            if (InDtp(0x9F8201) && VelkCless_Get_EchoTransactionIndicator() == 0) {
                const bool sameCard =
                    VelkCless_FCI_in_DynamicTransParameters_isEqual_To_DataBase_FCI() != 0;
                (void)VelkCless_Set_CommunicationProblemIndicator(sameCard ? 0 : 3);
            }
            VelkCless_SetTransactionStep(0x2800);
            return 0;
        }
        failure = kErroneousReactivation;
    }

    if (failure == kCompletedOnError)
        return EndTransaction(VelkCless_Transaction_Completed_on_Error);
    (void)VelkCless_Financial_Transaction_Completed_Erroneous_Reactivationkernel_AfterOnline(0);
    VelkCless_SetTransactionStep(0);
    return kErrRestartRefused;
}

// ---- Outcomes and the final outcome packet -------------------------------------

uint32_t VelkCless_Transaction_FinalOutcome_SelectNext(void) {
    return Raise(kSelectNext);
}
uint32_t VelkCless_Transaction_FinalOutcome_TryAnotherInterface(void) {
    return Raise(kTryAnotherInterface);
}
uint32_t VelkCless_Transaction_FinalOutcome_EndApplication(void) {
    return Raise(kEndApplication);
}
uint32_t VelkCless_Transaction_FinalOutcome_EndApplication_RestartCommuError(void) {
    return Raise(kRestartCommError);
}
uint32_t VelkCless_Transaction_FinalOutcome_EndApplication_Restart_On_Device_CVM(void) {
    return Raise(kRestartOnDeviceCvm);
}
uint32_t VelkCless_Financial_Transaction_Completed_On_device_CVM_Requested(void) {
    return Raise(kOnDeviceCvmRequested);
}
uint32_t VelkCless_Financial_Transaction_Completed_Transaction_Approved_TC(void) {
    return Raise(kApproved);
}
uint32_t VelkCless_Financial_Transaction_Completed_Transaction_Online_Approved_TC(void) {
    return Raise(kOnlineApproved);
}
uint32_t VelkCless_Financial_Transaction_Completed_Transaction_declined_AAC(
    uint8_t ucNoReadRecord) {
    return Raise(kDeclined, ucNoReadRecord);
}
uint32_t VelkCless_Financial_Transaction_Completed_Online_Request(void) {
    return Raise(kOnlineRequest);
}
uint32_t VelkCless_Financial_Transaction_Completed_Online_Request_LongTap(void) {
    return Raise(kOnlineRequestLongTap);
}
uint32_t VelkCless_Financial_Transaction_Completed_Online_Request_OnlineTap(void) {
    return Raise(kOnlineRequestOnlineTap);
}
uint32_t VelkCless_Financial_Transaction_Completed_Erroneous_Reactivationkernel_AfterOnline(
    uint8_t ucReadRecord) {
    return Raise(kErroneousReactivationAfterOnline, ucReadRecord);
}
uint32_t VelkCless_Financial_Transaction_Completed_Try_Other_Interface(void) {
    return Raise(kTryOtherInterface);
}
uint32_t VelkCless_Transaction_Completed_on_Error(void) {
    return Raise(kCompletedOnErrorOutcome);
}
uint32_t VelkCless_Communication_Errors_PaymentTransactionNotCompleted(void) {
    return Raise(kCommErrorNotCompleted);
}
uint32_t VelkCless_Communication_Errors_Unknown_Payment_Result(void) {
    return VelkCless_Communication_Errors_PaymentTransactionNotCompleted();
}
uint32_t VelkCless_Transaction_Cancellation_by_Contactless_Reader(void) {
    return Raise(kCancelledByReader);
}
uint32_t VelkCless_NonFinancial_Transaction_completed_Retrieval_of_data_elements(
    uint8_t DiscretionaryPresent) {
    return Raise(kRetrievalCompleted, DiscretionaryPresent);
}
uint32_t VelkCless_NonFinancial_Transaction_completed_Data_Elements_Update(
    uint8_t DiscretionaryPresent) {
    return Raise(kUpdateCompleted, DiscretionaryPresent);
}
uint32_t VelkCless_NonFinancial_Transaction_completed_Offline_Authentication(
    uint8_t DiscretionaryPresent) {
    return Raise(kOfflineAuthenticationCompleted, DiscretionaryPresent);
}

uint32_t VelkCless_Transaction_FinalOutcome_Packet(uint8_t *pInOutData, uint32_t *pInOutDatalen) {
    if (pInOutData == nullptr || pInOutDatalen == nullptr) return 0;
    velk::BuildOutcomePacket(pInOutData, VELK_IO_BUFFER_MIN_LEN, pInOutDatalen);
    return 0;
}

}  // extern "C"
