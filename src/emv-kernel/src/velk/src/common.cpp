// SPDX-License-Identifier: Apache-2.0
// The kernel's side of the signal queue in the global record.
#include "global.h"
#include "reg_std.h"

extern "C" {

uint32_t VelkCless_writeSignal(const ClessSignal_Message *pmsg) {
    if (pgbVelkGlobalValue == nullptr) return 1;
    return EMV_Queue_Insert_Element(&pgbVelkGlobalValue->EmvQueue, pmsg);
}

// The host's record is copied byte-wise first: the host's pointer need not be
// aligned for the record. A dropped signal is not reported to the host.
uint32_t VelkCless_Kernel_WriteSignal(uint8_t *pInData) {
    if (pInData == nullptr) return 0;
    ClessSignal_Message msg;
    Memcpy_(&msg, pInData, sizeof msg);
    (void)VelkCless_writeSignal(&msg);
    return 0;
}

uint32_t VelkCless_receiveSignal(ClessSignal_Message *msg) {
    if (msg == nullptr || pgbVelkGlobalValue == nullptr) return 0;
    return EMV_Queue_Delete_Element(&pgbVelkGlobalValue->EmvQueue, msg);
}

uint32_t VelkCless_Query_Event_Message(ClessSignal_Message *pSignalMessage) {
    return VelkCless_receiveSignal(pSignalMessage) != 0 ? 1 : 0;
}

// Spins until the host posts a signal: no time-out and no sleep, by design.
uint32_t VelkCless_Waiting_For_Event_Message(ClessSignal_Message *pSignalMessage) {
    uint32_t polls = 0;
    while (VelkCless_receiveSignal(pSignalMessage) == 0) {
        if (polls == 65535) polls = 0;
        ++polls;
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
        __asm__ __volatile__("yield");
#endif
    }
    return 0;
}

uint32_t VelkCless_InitSignal(void) {
    if (pgbVelkGlobalValue == nullptr) return 0;
    pgbVelkGlobalValue->EmvQueue.pElement = pgbVelkGlobalValue->SignalMessageList;
    pgbVelkGlobalValue->EmvQueue.ucMaxElement = 8;
    return EMV_Queue_init(&pgbVelkGlobalValue->EmvQueue);
}

}  // extern "C"
