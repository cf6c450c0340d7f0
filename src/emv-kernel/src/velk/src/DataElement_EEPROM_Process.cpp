// Data element retrieval and update in the card's memory.
#include "baseKernel.h"
#include "reg_std.h"

extern "C" {

uint32_t VelkCless_APDU_GetData(uint32_t uiTag, uint8_t *pR_APDU, uint32_t *puiR_APDULen) {
    // 80 CA P1 P2 00; a one-byte tag gives P1 = 00.
    uint8_t apdu[32];
    Memset_(apdu, 0, sizeof apdu);
    apdu[0] = 0x80;
    apdu[1] = 0xCA;
    apdu[2] = static_cast<uint8_t>(uiTag >> 8);
    apdu[3] = static_cast<uint8_t>(uiTag);
    return VelkCless_ExchangeAPDU(apdu, 5, pR_APDU, puiR_APDULen);
}

// The card returned data elements (9F71) or updated some (9F74): the outcome
// then carries them as discretionary data.
uint8_t VelkCless_GDDOLResult_and_DataUpdateResult_IsPresent(void) {
    return VelkDataBase_Tag_IsPresent(0x9F71) != 0 || VelkDataBase_Tag_IsPresent(0x9F74) != 0 ? 1
                                                                                              : 0;
}

uint32_t VelkCless_Retrieval_of_Data_Element_values_in_EEPROM(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

uint32_t VelkCless_Update_of_Data_Element_values_in_EEPROM(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

uint32_t VelkCless_Update_of_Data_Element_values_in_EEPROM_after_GPO_command(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

uint32_t VelkCless_Update_of_Data_Element_values_in_EEPROM_after_CAA(void) {
    VelkCless_SetTransactionStep(0);
    return 0;
}

}  // extern "C"
