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

}  // namespace

extern "C" {

uint32_t VelkCless_Start_Transaction(uint8_t *pInOutData, uint32_t *pInOutDatalen) {
    ResetTransactionState();

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
    (void)pInOutData;
    (void)pInOutDatalen;
    VelkCless_SetTransactionStep(0);
    return 0;
}

// ---- Transaction initialisation ----------------------------------------------

uint32_t VelkCless_TransactionInitialisation(uint8_t *pTlvData, uint32_t *pTlvDatalen) {
    (void)pTlvData;
    (void)pTlvDatalen;
    VelkCless_SetTransactionStep(0);
    return 0;
}

// ---- Outcomes and the final outcome packet -------------------------------------

uint32_t VelkCless_Transaction_FinalOutcome_Packet(uint8_t *pInOutData, uint32_t *pInOutDatalen) {
    (void)pInOutData;
    (void)pInOutDatalen;
    return 0;
}

}  // extern "C"
