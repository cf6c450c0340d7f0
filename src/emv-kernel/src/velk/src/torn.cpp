// SPDX-License-Identifier: Apache-2.0
// Torn transaction recovery with the ECHO command: the restart message, the
// card presented again, the re-selection and the ECHO that fetches the torn
// GENERATE AC's response.
#include "baseKernel.h"
#include "checked.hpp"
#include "reg_std.h"
#include "tlv.h"

namespace {

constexpr uint32_t kErrStopped = 0x30101;
constexpr uint32_t kErrCommunication = 0x30103;
constexpr uint32_t kErrSelectRefused = 0x31213;
// The exchange hands back a raw signal type on one of its roads; it counts as
// the communication error it stands for, on purpose.
constexpr uint32_t kSignalA6AsResult = 0xA6;

constexpr uint8_t kFirstGacTorn = 1;
constexpr uint8_t kOtherCard = 3;
constexpr uint32_t kUnpredictableNumberLen = 4;
constexpr uint32_t kIssuerAuthenticationLen = 8;
constexpr uint32_t kCaseFourHeader = 5;  // CLA INS P1 P2 Lc
constexpr uint32_t kLongestData = 0xFF;
constexpr uint32_t kSelectResponseCap = sizeof(VELK_GLOBALVALUE_STRUCT::ucLastRAPDU);
// DF00 01 FE, and one more length byte the packet's header may grow by.
constexpr uint32_t kRestartCommandRoom = velk::ElementSize(0xDF00, 1) + 1;

VELK_GLOBALVALUE_STRUCT &G() {
    return *pgbVelkGlobalValue;
}

bool IsCommunicationError(uint32_t rc) {
    return rc == kErrCommunication || rc == kSignalA6AsResult;
}

// CLA INS P1 P2 Lc data 00: Lc + 6 bytes.
uint32_t SendCaseFour(uint8_t cla, uint8_t ins, uint8_t p1, const uint8_t *data, uint32_t lc,
                      uint8_t *rapdu, uint32_t *rlen) {
    uint8_t apdu[kCaseFourHeader + kLongestData + 1] = {cla, ins, p1, 0x00,
                                                        static_cast<uint8_t>(lc)};
    if (lc != 0) Memcpy_(apdu + kCaseFourHeader, data, static_cast<int>(lc));
    apdu[kCaseFourHeader + lc] = 0x00;
    return VelkCless_ExchangeAPDU(apdu, lc + kCaseFourHeader + 1, rapdu, rlen);
}

// SELECT by the transaction's AID (9F06). A missing AID is sent with Lc 00;
// one too long for a one-byte Lc cannot have been selected and is sent the
// same way.
uint32_t SendSelect(uint8_t *rapdu, uint32_t *rlen) {
    OBJECT_TAG aid{};
    if (VelkDataBase_GetTagValue(0x9F06, &aid) != 0 || aid.uiLength > kLongestData)
        aid.uiLength = 0;
    return SendCaseFour(0x00, 0xA4, 0x04, aid.pValue, aid.uiLength, rapdu, rlen);
}

// The re-selection of both recovery roads. The answer goes to rapdu (cap
// bytes); *kept, when not null, receives its length before the status word
// is judged. The FCI replaces the dynamic transaction parameters' 9F8201.
//
// Exchange failures map as the recovery needs them: a communication error
// starts another restart, a stop stops, and any other failure (0x30102
// included) is deliberately taken as success with no new FCI. An answer
// longer than its buffer, or an FCI the dynamic transaction parameters cannot
// hold, is refused like a status word other than 9000.
uint32_t Reselect(uint8_t *rapdu, uint32_t cap, uint32_t *kept) {
    uint32_t rlen = cap;
    const uint32_t rc = SendSelect(rapdu, &rlen);
    if (rc == velk::kErrResponseTooLong) return kErrSelectRefused;
    if (IsCommunicationError(rc)) return kErrCommunication;
    if (rc == kErrStopped) return kErrStopped;
    if (rc != 0) return 0;
    if (kept != nullptr) *kept = rlen;
    if (!velk::StatusIs9000(rapdu, rlen)) return kErrSelectRefused;
    return velk::DtpReplace(0x9F8201, rapdu, rlen - 2) ? 0 : kErrSelectRefused;
}

uint32_t EndErroneousReactivation(uint32_t rc) {
    (void)VelkCless_Financial_Transaction_Completed_Erroneous_Reactivationkernel_AfterOnline(0);
    VelkCless_SetTransactionStep(0);
    return rc;
}

}  // namespace

extern "C" {

uint32_t VelkCless_RecoveryTrans_TapCard_Processing(void) {
    (void)VelkCless_SendOutSignal_Restart();
    const uint32_t active = VelkCless_Card_Active();
    if (active != 0) return EndErroneousReactivation(active);
    const uint32_t selected = VelkCless_RecoveryTrans_SelectAID();
    if (selected == 0) {
        VelkCless_SetTransactionStep(0x1100);
        return 0;
    }
    if (selected == kErrCommunication) {
        // Another restart and tap, as often as the card keeps breaking off.
        VelkCless_SetTransactionStep(0x3000);
        return 0;
    }
    if (VelkCless_Get_CommunicationProblemIndicator() != kOtherCard)
        return EndErroneousReactivation(selected);
    VelkCless_SetTransactionStep(0x2800);
    return 0;
}

// The outcome packet of the communication error, with DF00 = FE after it, in
// the exchange buffer; the host's answer is not examined.
uint32_t VelkCless_SendOutSignal_Restart(void) {
    (void)VelkCless_Communication_Errors_PaymentTransactionNotCompleted();
    VELK_INTERFACE &io = *pgbVelkInterface;
    Memset_(io.pCallback_Exchange_Buffer, 0, static_cast<int>(io.uiMaxCallback_Exchange_BufferLen));
    uint32_t len = 0;
    // The packet leaves room for the command byte: an element that would
    // crowd it out is left out of the packet.
    velk::BuildOutcomePacket(io.pCallback_Exchange_Buffer,
                             io.uiMaxCallback_Exchange_BufferLen - kRestartCommandRoom, &len);
    const uint8_t command = VELK_CMD_RESTART;
    if (velk::MsgAdd(0xDF00, &command, 1)) (void)velk::MsgCall();
    return 0;
}

uint32_t VelkCless_RecoveryTrans_SelectAID(void) {
    uint8_t rapdu[kSelectResponseCap];
    return Reselect(rapdu, sizeof rapdu, nullptr);
}

uint32_t VelkCless_Transaction_Torn_ECHOCommError_Recovery_Tap_SelectAID(void) {
    VELK_GLOBALVALUE_STRUCT &g = G();
    return Reselect(g.ucLastRAPDU, sizeof g.ucLastRAPDU, &g.uiLastRAPDULen);
}

// P1 is the communication problem indicator: 1 sends the unpredictable
// number, any other value the first 8 bytes of the Issuer Authentication
// Data; absent data goes as zeros. A failure other than a communication
// error or a stop leaves no response (length 0), so that the status word
// test of transaction initialisation never judges a stale one.
uint32_t VelkCless_RecoveryTrans_Send_ECHO_Command(void) {
    VELK_GLOBALVALUE_STRUCT &g = G();
    const uint8_t problem = VelkCless_Get_CommunicationProblemIndicator();
    const bool first = problem == kFirstGacTorn;
    uint8_t data[kIssuerAuthenticationLen] = {};
    const uint32_t lc = first ? kUnpredictableNumberLen : kIssuerAuthenticationLen;
    uint32_t got = 0;
    (void)velk::DbGet(first ? 0x9F37 : 0x91, data, lc, &got);

    uint32_t rlen = sizeof g.ucLastRAPDU;
    const uint32_t rc = SendCaseFour(0x80, 0xDF, problem, data, lc, g.ucLastRAPDU, &rlen);
    if (rc == 0) {
        g.uiLastRAPDULen = rlen;
        return 0;
    }
    if (IsCommunicationError(rc)) {
        (void)velk::EndCommunicationError();
        return kErrCommunication;
    }
    if (rc == kErrStopped) return velk::EndStopped();
    g.uiLastRAPDULen = 0;
    return 0;
}

uint32_t VelkCless_Recovery_ECHO_Command_CommunicationProblem_Processing(void) {
    (void)VelkCless_SendOutSignal_Restart();
    const uint32_t active = VelkCless_Card_Active();
    if (active != 0) return EndErroneousReactivation(active);
    const uint32_t selected = VelkCless_Transaction_Torn_ECHOCommError_Recovery_Tap_SelectAID();
    if (selected != 0) return EndErroneousReactivation(selected);
    VelkCless_SetTransactionStep(0x1100);
    return 0;
}

}  // extern "C"
