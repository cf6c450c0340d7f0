// The kernel transaction database, its tag property table, and data records.
// (Minimal placeholder until the database is written: an empty 7F01 that
// stores nothing.)
#include "database.h"
#include "global.h"

extern "C" {

uint32_t VelkDataBase_Init(void) {
    uint8_t *db = pgbVelkGlobalValue->ucDataBasebuf;
    db[0] = 0x7F;
    db[1] = 0x01;
    db[2] = 0x00;
    return 0;
}

uint32_t VelkDataBase_Set_TAG(uint32_t uiTAG, uint32_t uiLen, const uint8_t *inData) {
    (void)uiTAG;
    (void)uiLen;
    (void)inData;
    return 0x31003;
}

uint32_t VelkDataBase_GetTagValue(uint32_t uiTAG, OBJECT_TAG *pObjectTag) {
    (void)uiTAG;
    (void)pObjectTag;
    return 0x31004;
}

}  // extern "C"
