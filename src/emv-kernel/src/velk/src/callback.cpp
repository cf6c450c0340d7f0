// SPDX-License-Identifier: Apache-2.0
// Callback message channel: requests to the host and the APDU exchange.
//
// Every request is a 7F01 { DF00 = command, payload... } built in the kernel's
// exchange buffer; the host answers in the same buffer. The reply is never
// parsed on the strength of the length the host hands back: it must be one
// well-formed element that starts at the buffer's first byte and ends inside
// the buffer, or the requester gets velk::kErrHostReply.
#include "baseKernel.h"
#include "checked.hpp"
#include "reg_std.h"
#include "tlv.h"

namespace {

constexpr uint32_t kErrNoUnpredictableNumber = 0x3020A;
constexpr uint32_t kErrStopped = 0x30101;
constexpr uint32_t kErrCommA6 = 0x30102;
constexpr uint32_t kErrCommA5 = 0x30103;

uint8_t *Buffer() {
    return pgbVelkInterface->pCallback_Exchange_Buffer;
}
uint32_t Capacity() {
    return pgbVelkInterface->uiMaxCallback_Exchange_BufferLen;
}

// The failure a signal stands for where the kernel waits for the card; 0 for
// any other type. The three types are tested one after the other.
uint32_t SignalFailure(uint8_t type) {
    if (type == VELK_SIGNAL_STOP) return kErrStopped;
    if (type == VELK_SIGNAL_COMM_ERROR_A5) return kErrCommA5;
    if (type == VELK_SIGNAL_COMM_ERROR_A6) return kErrCommA6;
    return 0;
}

// Hands `len` bytes at `src` to a caller's response buffer whose capacity is
// *dstLen on entry. Data that would not fit is refused with nothing copied.
uint32_t DeliverResponse(const uint8_t *src, uint32_t len, uint8_t *dst, uint32_t *dstLen) {
    if (len > *dstLen) return velk::kErrResponseTooLong;
    if (len != 0) Memcpy_(dst, src, static_cast<int>(len));
    *dstLen = len;
    return 0;
}

// Stores every child of the host's reply in the database; the status of the
// last store, 0 when there is none.
uint32_t StoreReplyChildren() {
    uint8_t *reply = velk::MsgReply();
    uint32_t status = 0;
    for (uint8_t *child = TLV_GetFirstChildTag(reply); child != nullptr;
         child = TLV_GetNextChildTag(reply)) {
        status = velk::SetHostParameter(child);
    }
    return status;
}

// Asks the host for an unpredictable number; *un is the reply's 9F37.
uint32_t AskUnpredictableNumber(uint8_t **un) {
    velk::MsgBegin(VELK_CMD_UNPREDICTABLE_NUMBER);
    const uint32_t status = velk::MsgCall();
    if (status != 0) return status;
    *un = TLV_FindTag(velk::MsgReply(), 0x9F37);
    return *un == nullptr ? kErrNoUnpredictableNumber : 0;
}

}  // namespace

namespace velk {

void MsgBegin(uint8_t command, bool clear) {
    uint8_t *buf = Buffer();
    if (clear) Memset_(buf, 0, static_cast<int>(Capacity()));
    (void)NewChecked(buf, Capacity(), 0x7F01, nullptr, 0);
    (void)AddTagChecked(buf, Capacity(), 0xDF00, &command, 1);
}

bool MsgAdd(uint32_t tag, const uint8_t *value, uint32_t len) {
    return AddTagChecked(Buffer(), Capacity(), tag, value, len) != 0;
}

uint32_t MsgCall() {
    uint8_t *buf = Buffer();
    uint32_t len = TLV_GetTlvTotalLen(buf);
    const uint32_t status = VELK_CallBack_Application(buf, &len);
    if (status != 0) return status;
    return WellFormedLen(buf, Capacity()) == 0 ? kErrHostReply : 0;
}

uint8_t *MsgReply() {
    return Buffer();
}

}  // namespace velk

extern "C" {

// The stores' results are not the request's: terminal parameters the database
// refuses are simply not there for the steps that would read them.
uint32_t VelkCless_GetICS_Param(void) {
    velk::MsgBegin(VELK_CMD_ICS_PARAMS);
    const uint32_t status = velk::MsgCall();
    if (status != 0) return status;
    (void)StoreReplyChildren();
    return 0;
}

// An AID too long for the exchange buffer can only have come with the
// transaction input (the DF name of an FCI is bounded long before), so the
// request reports the input.
uint32_t VelkCless_Transaction_Get_AID_Parameter(const uint8_t *AIDName, uint32_t uiAIDNamelen) {
    velk::MsgBegin(VELK_CMD_AID_PARAMS);
    const uint8_t type = VelkCless_Get_TransactionType();
    bool built = velk::MsgAdd(0x9F06, AIDName, uiAIDNamelen) && velk::MsgAdd(0x9C, &type, 1);
    OBJECT_TAG currency = {0, 0, nullptr};
    if (VelkDataBase_GetTagValue(0x5F2A, &currency) == 0)
        built = built && velk::MsgAdd(0x5F2A, currency.pValue, currency.uiLength);
    if (!built) return velk::kErrInput;
    const uint32_t status = velk::MsgCall();
    if (status != 0) return status;
    return StoreReplyChildren();
}

// 9F37 is four bytes wherever the kernel uses it: a longer answer is cut to
// four, a shorter one is padded with zeros rather than read beyond its end.
uint32_t VelkCless_Get_Unpredictable_Number(void) {
    uint8_t *un = nullptr;
    const uint32_t status = AskUnpredictableNumber(&un);
    if (status != 0) return status;
    uint8_t value[4] = {0, 0, 0, 0};
    const uint32_t len = TLV_GetLen(un);
    Memcpy_(value, TLV_GetValue(un), static_cast<int>(len < 4 ? len : 4));
    (void)VelkDataBase_Set_TAG(0x9F37, 4, value);
    return 0;
}

uint32_t VelkCless_GetUnpredictableNumber(uint8_t *pRandom, uint32_t uiRandomlen) {
    uint8_t *un = nullptr;
    const uint32_t status = AskUnpredictableNumber(&un);
    if (status != 0) return status;
    const uint32_t len = TLV_GetLen(un);
    const uint32_t n = uiRandomlen < len ? uiRandomlen : len;
    if (n != 0) Memcpy_(pRandom, TLV_GetValue(un), static_cast<int>(n));
    return 0;
}

uint32_t VelkCless_Card_Active(void) {
    velk::MsgBegin(VELK_CMD_CARD_ACTIVE);
    const uint32_t status = velk::MsgCall();
    if (status != 0) return status;
    ClessSignal_Message signal = {0, nullptr, 0};
    (void)VelkCless_Waiting_For_Event_Message(&signal);
    return SignalFailure(signal.ucSignalType);
}

uint32_t VelkCless_Display_UIRD(const uint8_t *pUIRD, uint32_t uiUIRDLen) {
    velk::MsgBegin(VELK_CMD_DISPLAY);
    if (velk::MsgAdd(0xDF8116, pUIRD, uiUIRDLen)) (void)velk::MsgCall();
    return 0;
}

uint32_t VelkCless_Display_UIRD_Stand(uint32_t uiMsgID, uint8_t ucStatus) {
    uint8_t uird[sizeof(User_Interface_Request_Data)];
    Memset_(uird, 0, sizeof uird);
    uird[0] = static_cast<uint8_t>(uiMsgID);
    uird[1] = ucStatus;
    return VelkCless_Display_UIRD(uird, sizeof uird);
}

uint32_t VelkCless_CardPowerOff(void) {
    velk::MsgBegin(VELK_CMD_POWER_OFF);
    (void)velk::MsgCall();
    return 0;
}

// The exchange buffer is not cleared first: only the message itself is
// written. A well-formed reply without DF03 means the host answers later with
// a signal. A signal of any type other than the four below leaves no response:
// the length becomes 0, which no status-word test accepts, so a caller cannot
// mistake stale bytes for the card's answer.
uint32_t VelkCless_ExchangeAPDU(const uint8_t *pucApdu, uint32_t uiApduLen, uint8_t *pucRAPDU,
                                uint32_t *puiRAPDULen) {
    velk::MsgBegin(VELK_CMD_APDU, false);
    if (!velk::MsgAdd(0xDF01, pucApdu, uiApduLen)) return velk::kErrInput;
    const uint32_t status = velk::MsgCall();
    if (status != 0) return status;

    uint8_t *rapdu = TLV_FindTag(velk::MsgReply(), 0xDF03);
    if (rapdu != nullptr)
        return DeliverResponse(TLV_GetValue(rapdu), TLV_GetLen(rapdu), pucRAPDU, puiRAPDULen);

    ClessSignal_Message signal = {0, nullptr, 0};
    (void)VelkCless_Waiting_For_Event_Message(&signal);
    const uint32_t failure = SignalFailure(signal.ucSignalType);
    if (failure != 0) return failure;
    if (signal.ucSignalType == VELK_SIGNAL_RAPDU) {
        if (signal.MessageData == nullptr && signal.uiMessageDatalen != 0)
            return velk::kErrHostReply;
        return DeliverResponse(signal.MessageData, signal.uiMessageDatalen, pucRAPDU, puiRAPDULen);
    }
    *puiRAPDULen = 0;
    return 0;
}

}  // extern "C"
