// Signal queue and number/text conversions of the common library.
#include "kn_common.h"

#include "reg_std.h"

namespace {

// One writer moves rear, one reader moves front. A slot is filled (or read)
// before the index that hands it over is published with release ordering, and
// each side reads the other's index with acquire ordering, so the pair is also
// correct on weakly ordered cores such as ARM.
uint8_t LoadIndex(const uint8_t *index) {
    return __atomic_load_n(index, __ATOMIC_ACQUIRE);
}
void StoreIndex(uint8_t *index, uint8_t value) {
    __atomic_store_n(index, value, __ATOMIC_RELEASE);
}

bool Usable(const EMV_Queue *q) {
    return q != nullptr && q->pElement != nullptr && q->ucMaxElement != 0;
}

// Field by field: a struct copy could become a library call.
void CopySignal(ClessSignal_Message *dst, const ClessSignal_Message *src) {
    dst->ucSignalType = src->ucSignalType;
    dst->MessageData = src->MessageData;
    dst->uiMessageDatalen = src->uiMessageDatalen;
}

}  // namespace

extern "C" {

uint32_t EMV_Queue_init(EMV_Queue *q) {
    if (q == nullptr) return 0;
    StoreIndex(&q->front, 0);
    StoreIndex(&q->rear, 0);
    if (q->pElement != nullptr) {
        for (uint32_t i = 0; i < q->ucMaxElement; ++i) {
            q->pElement[i].ucSignalType = 0;
            q->pElement[i].MessageData = nullptr;
            q->pElement[i].uiMessageDatalen = 0;
        }
    }
    return 0;
}

uint8_t EMV_Queue_isFull(EMV_Queue *q) {
    if (!Usable(q)) return 1;
    const uint8_t rear = LoadIndex(&q->rear);
    return LoadIndex(&q->front) == static_cast<uint8_t>((rear + 1u) % q->ucMaxElement) ? 1 : 0;
}

uint8_t EMV_Queue_isEmpty(EMV_Queue *q) {
    if (!Usable(q)) return 1;
    return LoadIndex(&q->front) == LoadIndex(&q->rear) ? 1 : 0;
}

uint32_t EMV_Queue_Insert_Element(EMV_Queue *q, const ClessSignal_Message *signMsg) {
    if (signMsg == nullptr || EMV_Queue_isFull(q)) return 0;
    const uint8_t rear = LoadIndex(&q->rear) % q->ucMaxElement;
    CopySignal(&q->pElement[rear], signMsg);
    const uint8_t next = static_cast<uint8_t>((rear + 1u) % q->ucMaxElement);
    StoreIndex(&q->rear, next);
    return static_cast<uint32_t>(next) - static_cast<uint32_t>(LoadIndex(&q->front));
}

uint32_t EMV_Queue_Delete_Element(EMV_Queue *q, ClessSignal_Message *signMsg) {
    if (signMsg == nullptr || EMV_Queue_isEmpty(q)) return 0;
    const uint8_t front = LoadIndex(&q->front) % q->ucMaxElement;
    CopySignal(signMsg, &q->pElement[front]);
    StoreIndex(&q->front, static_cast<uint8_t>((front + 1u) % q->ucMaxElement));
    return 1;
}

// Digits from the right; only the ten lowest count (the multiplier stops at
// 10^9), nibbles above 9 count with their binary value.
uint32_t Bcd_To_Long(const uint8_t *pucSrc, uint32_t uiSrcLen) {
    uint32_t value = 0;
    uint32_t multiplier = 1;
    for (uint32_t digit = 0; digit < uiSrcLen; ++digit) {
        const uint8_t byte = pucSrc[(uiSrcLen + 1) / 2 - 1 - digit / 2];
        const uint32_t nibble = (digit % 2 == 0) ? (byte & 0x0Fu) : (byte >> 4);
        value += nibble * multiplier;
        multiplier = multiplier == 1000000000u ? 0 : multiplier * 10;
    }
    return value;
}

// Big-endian bytes; of more than 4 only the last 4 count.
uint32_t Hex_To_Long(const uint8_t *pucSrc, uint32_t uiSrcLen) {
    uint32_t value = 0;
    for (uint32_t i = 0; i < uiSrcLen; ++i)
        value = (value << 8) | pucSrc[i];
    return value;
}

}  // extern "C"
