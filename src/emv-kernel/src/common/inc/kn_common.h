// SPDX-License-Identifier: Apache-2.0
/*
 * Kernel-independent common code: the signal queue and the number and text
 * conversions.
 */
#ifndef KN_COMMON_H
#define KN_COMMON_H

#include <stdint.h>

#include "emv_kernel.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Circular queue of signals over a caller-owned slot array. Empty when
 * front == rear, full when front == (rear + 1) mod ucMaxElement: one slot
 * always stays free. One writer (advances rear) and one reader (advances
 * front) may work at once; the indices are published with release/acquire
 * ordering. */
typedef struct EMV_Queue {
    ClessSignal_Message *pElement;
    uint8_t front;
    uint8_t rear;
    uint8_t ucMaxElement;
} EMV_Queue;

uint32_t EMV_Queue_init(EMV_Queue *q);
uint8_t EMV_Queue_isFull(EMV_Queue *q);
uint8_t EMV_Queue_isEmpty(EMV_Queue *q);
/* 0 when q is null or full (the signal is dropped); otherwise rear - front
 * after the insertion, as an unsigned 32-bit value. */
uint32_t EMV_Queue_Insert_Element(EMV_Queue *q, const ClessSignal_Message *signMsg);
/* 0 when q is null or empty; otherwise 1 with the oldest signal in *signMsg. */
uint32_t EMV_Queue_Delete_Element(EMV_Queue *q, ClessSignal_Message *signMsg);

/* Unsigned division by shifts and subtractions: n / d, with n % d in *rem
 * when rem is not null. The kernel's few divisions go through it, so that a
 * build for a core without a divide instruction carries no run-time division
 * routine. A divisor of 0 gives 0xFFFFFFFF with the remainder n. */
uint32_t udivmod_(uint32_t n, uint32_t d, uint32_t *rem);

/* Conversions between binary numbers, packed BCD, big-endian byte strings and
 * hexadecimal text. Numbers are unsigned 32-bit and wrap. */
uint8_t aschextobin(uint8_t thechar);
uint8_t bintoaschex(uint8_t thebin);
uint32_t Asc_To_Hex(const char *src, uint8_t *dest, uint32_t *num_digits);
uint32_t Hex_To_Asc(const uint8_t *lpbInBuf, uint32_t dwInLen, char *lpbOutBuf);
/* uiSrcLen is a number of digits; only the 10 lowest digits count. */
uint32_t Bcd_To_Long(const uint8_t *pucSrc, uint32_t uiSrcLen);
uint32_t Hex_To_Long(const uint8_t *pucSrc, uint32_t uiSrcLen);
uint32_t Long_to_Hex(uint8_t *pucDest, uint32_t uiLen, const uint32_t *pulSrc);
uint32_t Long_To_Bcd(uint8_t *pucDest, uint32_t uiDestLen, const uint32_t *pulSrc);

#ifdef __cplusplus
}
#endif

#endif /* KN_COMMON_H */
