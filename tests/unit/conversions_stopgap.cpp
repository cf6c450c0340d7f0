// STOPGAP until the platform branch brings the number conversions of the
// common library: Bcd_To_Long and Hex_To_Long as the kernel uses them, so
// that the tests link. Delete this file when kn_common.cpp defines them.
#include "kn_common.h"

extern "C" {

uint32_t Bcd_To_Long(const uint8_t *pucSrc, uint32_t uiSrcLen) {
    uint32_t value = 0;
    uint32_t multiplier = 1;
    const uint32_t bytes = (uiSrcLen + 1) / 2;
    for (uint32_t i = 0; i < uiSrcLen; ++i) {
        const uint8_t b = pucSrc[bytes - 1 - i / 2];
        const uint32_t digit = (i % 2 == 0) ? (b & 0x0F) : (b >> 4);
        value += digit * multiplier;
        multiplier = multiplier == 1000000000u ? 0 : multiplier * 10;
    }
    return value;
}

uint32_t Hex_To_Long(const uint8_t *pucSrc, uint32_t uiSrcLen) {
    uint32_t value = 0;
    for (uint32_t i = 0; i < uiSrcLen; ++i)
        value = (value << 8) | pucSrc[i];
    return value;
}

}  // extern "C"
