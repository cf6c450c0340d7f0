// Data element retrieval and update in the card's memory.
#include "baseKernel.h"

extern "C" {

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
