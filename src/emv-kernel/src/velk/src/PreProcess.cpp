// SPDX-License-Identifier: Apache-2.0
// Pre-processing: the amount against the reader's contactless limits.
#include "baseKernel.h"
#include "checked.hpp"
#include "kn_common.h"
#include "tlv.h"

namespace {

// An amount or limit in BCD, read where it lies: all of its digits count as
// Bcd_To_Long counts them (the ten lowest).
uint32_t BcdValue(const uint8_t *value, uint32_t len) {
    return Bcd_To_Long(value, 2 * len);
}

// A limit read from the database: present (whatever its length) or not.
struct Limit {
    bool present;
    uint32_t length;
    uint32_t value;
};

Limit BcdLimit(uint32_t tag) {
    OBJECT_TAG element = {0, 0, nullptr};
    if (VelkDataBase_GetTagValue(tag, &element) != 0) return {false, 0, 0};
    return {true, element.uiLength, BcdValue(element.pValue, element.uiLength)};
}

// The Terminal Floor Limit is binary: its first four bytes big-endian, with
// zeros standing in for bytes a shorter value does not have.
Limit BinaryLimit(uint32_t tag) {
    OBJECT_TAG element = {0, 0, nullptr};
    if (VelkDataBase_GetTagValue(tag, &element) != 0) return {false, 0, 0};
    uint32_t value = 0;
    for (uint32_t i = 0; i < 4; ++i)
        value = (value << 8) | (i < element.uiLength ? element.pValue[i] : 0u);
    return {true, element.uiLength, value};
}

uint32_t Amount() {
    uint8_t *amount = velk::DtpFind(0x9F02);
    if (amount == nullptr) return 0;
    return BcdValue(TLV_GetValue(amount), TLV_GetLen(amount));
}

}  // namespace

extern "C" {

uint32_t VelkCless_Get_A_Single_Unit_of_Currency_Amount(void) {
    uint8_t exponent = 0;
    OBJECT_TAG element = {0, 0, nullptr};
    if (VelkDataBase_GetTagValue(0x5F36, &element) == 0 && element.uiLength != 0)
        exponent = element.pValue[0];
    uint32_t unit = 1;
    for (uint8_t i = 0; i < exponent; ++i)
        unit *= 10;
    return unit;
}

// Every limit test is "greater than or equal": an amount exactly at a limit
// exceeds it, the floor limit included. All compares are unsigned 32-bit.
uint32_t VelkCless_PreProcess(void) {
    // An online response resumes a transaction whose limits were applied on
    // the first tap.
    if (VelkCless_Check_Tag_isPresent_InDynamic_TransactionParam(0x8A) != 0) {
        VelkCless_SetTransactionStep(0x1100);
        return 0;
    }

    const uint32_t amount = Amount();
    if (VelkCless_CheckTagValue_IsTrue(0x9F8221) != 0 &&
        amount == VelkCless_Get_A_Single_Unit_of_Currency_Amount())
        (void)VelkCless_Set_Contactless_PreProcessing_Indicators(0x80);

    // Zero amounts are allowed unless the reader says otherwise (9F8222 = 00);
    // they are not refused here either way.
    if (amount == 0 && VelkCless_CheckTagValue_IsZero(0x9F8222) == 0)
        (void)VelkCless_Set_Contactless_PreProcessing_Indicators(0x40);

    const Limit transaction = BcdLimit(0x9F8208);
    if (transaction.present && amount >= transaction.value)
        (void)VelkCless_Set_Contactless_PreProcessing_Indicators(0x08);

    Limit floor = BcdLimit(0x9F820A);
    if (!floor.present || floor.length == 0) floor = BinaryLimit(0x9F1B);
    if (floor.present && floor.length != 0 && amount >= floor.value)
        (void)VelkCless_Set_Contactless_PreProcessing_Indicators(0x10);

    const Limit cvm = BcdLimit(0x9F8209);
    if (cvm.present && cvm.length != 0 && amount >= cvm.value)
        (void)VelkCless_Set_Contactless_PreProcessing_Indicators(0x20);

    VelkCless_SetTransactionStep(0x1100);
    return 0;
}

}  // extern "C"
