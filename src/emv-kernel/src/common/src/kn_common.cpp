// SPDX-License-Identifier: Apache-2.0
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

// An index taken modulo the queue's size (a usable queue's size is not 0;
// an index is at most 256).
uint8_t Wrap(uint32_t index, const EMV_Queue *q) {
    while (index >= q->ucMaxElement)
        index -= q->ucMaxElement;
    return static_cast<uint8_t>(index);
}

// Field by field: a struct copy could become a library call.
void CopySignal(ClessSignal_Message *dst, const ClessSignal_Message *src) {
    dst->ucSignalType = src->ucSignalType;
    dst->MessageData = src->MessageData;
    dst->uiMessageDatalen = src->uiMessageDatalen;
}

}  // namespace

extern "C" {

uint32_t udivmod_(uint32_t n, uint32_t d, uint32_t *rem) {
    uint32_t q = 0;
    uint32_t r = 0;
    if (d == 0) {
        q = 0xFFFFFFFFu;
        r = n;
    } else {
        for (uint32_t bit = 32; bit-- > 0;) {
            // A remainder with its top bit set doubles past 32 bits, and
            // then certainly reaches d.
            const bool carry = (r >> 31) != 0;
            r = (r << 1) | ((n >> bit) & 1u);
            if (carry || r >= d) {
                r -= d;
                q |= 1u << bit;
            }
        }
    }
    if (rem != nullptr) *rem = r;
    return q;
}

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
    return LoadIndex(&q->front) == Wrap(rear + 1u, q) ? 1 : 0;
}

uint8_t EMV_Queue_isEmpty(EMV_Queue *q) {
    if (!Usable(q)) return 1;
    return LoadIndex(&q->front) == LoadIndex(&q->rear) ? 1 : 0;
}

uint32_t EMV_Queue_Insert_Element(EMV_Queue *q, const ClessSignal_Message *signMsg) {
    if (signMsg == nullptr || EMV_Queue_isFull(q)) return 0;
    const uint8_t rear = Wrap(LoadIndex(&q->rear), q);
    CopySignal(&q->pElement[rear], signMsg);
    const uint8_t next = Wrap(rear + 1u, q);
    StoreIndex(&q->rear, next);
    return static_cast<uint32_t>(next) - static_cast<uint32_t>(LoadIndex(&q->front));
}

uint32_t EMV_Queue_Delete_Element(EMV_Queue *q, ClessSignal_Message *signMsg) {
    if (signMsg == nullptr || EMV_Queue_isEmpty(q)) return 0;
    const uint8_t front = Wrap(LoadIndex(&q->front), q);
    CopySignal(signMsg, &q->pElement[front]);
    StoreIndex(&q->front, Wrap(front + 1u, q));
    return 1;
}

}  // extern "C"

// ---- Number and text conversions ------------------------------------------
//
// Each reads and writes only inside the lengths it is given (the text
// functions: the text's own length, and the room that length implies in the
// output), whatever the values; no digit or character is validated. A null
// pointer gives 0 and writes nothing.

namespace {

// BCD digit pairs of a 32-bit number, most significant first: 10 digits in 5
// bytes.
constexpr uint32_t kBcdPairDivisors[] = {100000000u, 1000000u, 10000u, 100u, 1u};
constexpr uint32_t kBcdBytes = sizeof kBcdPairDivisors / sizeof kBcdPairDivisors[0];
// Digits past the tenth count nothing: 10^10 does not fit in 32 bits.
constexpr uint32_t kMaxBcdDigits = 2 * kBcdBytes;
constexpr uint32_t kLongBytes = 4;

constexpr uint32_t Min(uint32_t a, uint32_t b) {
    return a < b ? a : b;
}

}  // namespace

extern "C" {

// Lower-case 'a' to 'f' give 0x2A to 0x2F on purpose: every caller keeps only
// the low nibble, which is right for both cases.
uint8_t aschextobin(uint8_t thechar) {
    const uint8_t c = thechar & 0x7F;
    return static_cast<uint8_t>(c < 0x3A ? c - 0x30 : c - 0x37);
}

uint8_t bintoaschex(uint8_t thebin) {
    return static_cast<uint8_t>(thebin <= 9 ? '0' + thebin : thebin + 0x37);
}

uint32_t Asc_To_Hex(const char *src, uint8_t *dest, uint32_t *num_digits) {
    if (src == nullptr || dest == nullptr) {
        if (num_digits != nullptr) *num_digits = 0;
        return 0;
    }
    const auto n = static_cast<uint32_t>(Strlen_(src));
    for (uint32_t i = 0; i + 1 < n; i += 2) {
        const auto high = static_cast<uint8_t>(aschextobin(static_cast<uint8_t>(src[i])) << 4);
        const auto low = static_cast<uint8_t>(aschextobin(static_cast<uint8_t>(src[i + 1])) & 0x0F);
        dest[i / 2] = static_cast<uint8_t>(high | low);
    }
    // An odd last character still gives its byte (low nibble 0), which the
    // count leaves out.
    if ((n & 1u) != 0) {
        dest[n / 2] = static_cast<uint8_t>(aschextobin(static_cast<uint8_t>(src[n - 1])) << 4);
    }
    if (num_digits != nullptr) *num_digits = n / 2;
    return 0;
}

uint32_t Hex_To_Asc(const uint8_t *lpbInBuf, uint32_t dwInLen, char *lpbOutBuf) {
    if (lpbInBuf == nullptr || lpbOutBuf == nullptr) return 0;
    for (uint32_t i = 0; i < dwInLen; ++i) {
        const uint8_t nibbles[2] = {static_cast<uint8_t>(lpbInBuf[i] >> 4),
                                    static_cast<uint8_t>(lpbInBuf[i] & 0x0F)};
        for (uint32_t k = 0; k < 2; ++k) {
            const uint8_t v = nibbles[k];
            lpbOutBuf[2 * i + k] = static_cast<char>(v < 10 ? '0' + v : 'A' + (v - 10));
        }
    }
    lpbOutBuf[2 * dwInLen] = '\0';
    return 2 * dwInLen;
}

// Digits are counted from the right, so only the last five bytes of the field
// are ever read.
uint32_t Bcd_To_Long(const uint8_t *pucSrc, uint32_t uiSrcLen) {
    if (pucSrc == nullptr) return 0;
    const uint32_t bytes = uiSrcLen / 2 + (uiSrcLen & 1u);
    const uint32_t digits = Min(uiSrcLen, kMaxBcdDigits);
    uint32_t value = 0;
    uint32_t weight = 1;
    for (uint32_t i = 0; i < digits; ++i) {
        const uint8_t byte = pucSrc[bytes - 1 - i / 2];
        const uint32_t digit = (i & 1u) == 0 ? (byte & 0x0Fu) : (byte >> 4);
        value += digit * weight;
        weight *= 10;
    }
    return value;
}

uint32_t Hex_To_Long(const uint8_t *pucSrc, uint32_t uiSrcLen) {
    if (pucSrc == nullptr) return 0;
    uint32_t value = 0;
    for (uint32_t i = uiSrcLen - Min(uiSrcLen, kLongBytes); i < uiSrcLen; ++i) {
        value = (value << 8) | pucSrc[i];
    }
    return value;
}

uint32_t Long_to_Hex(uint8_t *pucDest, uint32_t uiLen, const uint32_t *pulSrc) {
    if (pucDest == nullptr || pulSrc == nullptr) return 0;
    Memset_(pucDest, 0, static_cast<int>(uiLen));
    const uint32_t count = Min(uiLen, kLongBytes);
    for (uint32_t i = 0; i < count; ++i) {
        pucDest[uiLen - 1 - i] = static_cast<uint8_t>(*pulSrc >> (8 * i));
    }
    return 0;
}

uint32_t Long_To_Bcd(uint8_t *pucDest, uint32_t uiDestLen, const uint32_t *pulSrc) {
    if (pucDest == nullptr || pulSrc == nullptr) return 0;
    uint8_t bcd[kBcdBytes];
    for (uint32_t k = 0; k < kBcdBytes; ++k) {
        uint32_t pair = 0;
        (void)udivmod_(udivmod_(*pulSrc, kBcdPairDivisors[k], nullptr), 100, &pair);
        uint32_t low = 0;
        bcd[k] = static_cast<uint8_t>(udivmod_(pair, 10, &low) * 16 + low);
    }
    Memset_(pucDest, 0, static_cast<int>(uiDestLen));
    const uint32_t count = Min(uiDestLen, kBcdBytes);
    for (uint32_t i = 0; i < count; ++i)
        pucDest[uiDestLen - 1 - i] = bcd[kBcdBytes - 1 - i];
    return 0;
}

}  // extern "C"
