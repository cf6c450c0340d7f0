// SPDX-License-Identifier: Apache-2.0
/*
 * The kernel transaction database: every data element of the transaction as
 * one constructed TLV 7F01 in ucDataBasebuf, and the tag property table.
 */
#ifndef VELK_DATABASE_H
#define VELK_DATABASE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A view of one database element; pValue points into the database and is
 * valid until the next set or delete. */
typedef struct OBJECT_TAG {
    uint32_t uiTag;
    uint32_t uiLength;
    uint8_t *pValue;
} OBJECT_TAG;

/* One row of the tag property table. */
typedef struct TAGPRPPERITY {
    uint32_t tag;
    uint32_t property;
    uint32_t format;
    uint32_t min_len;
    uint32_t max_len;
} TAGPRPPERITY;

/* Property bits. */
#define TAG_SRC_TERMINAL 0x01000000u
#define TAG_SRC_CARD 0x02000000u
#define TAG_SRC_ISSUER 0x08000000u
#define TAG_MANDATORY 0x00010000u
#define TAG_SINGLE 0x00000200u
#define TAG_MULTI 0x00000400u

/* Format codes. */
#define TAG_FMT_N 1u
#define TAG_FMT_CN 2u
#define TAG_FMT_AN 3u
#define TAG_FMT_ANS 4u
#define TAG_FMT_B 5u

#define VELK_DATABASE_LEN 8192u
#define VELK_TAG_PROPERTY_ROWS 103u

extern const TAGPRPPERITY gbTagPropreity[VELK_TAG_PROPERTY_ROWS];

uint32_t VelkDataBase_Init(void);
uint32_t VelkDataBase_Set_TAG(uint32_t uiTAG, uint32_t uiLen, const uint8_t *inData);
uint32_t VelkDataBase_SetTAG(const OBJECT_TAG *pObjectTag);
uint32_t VelkDataBase_Del_TAG(uint32_t uiTAG);
/* Copies the whole value into pucOutData (which must hold it) unless it is
 * null; kernel code reading into a fixed buffer uses velk::DbGet instead. */
uint32_t VelkDataBase_Get_TagValue(uint32_t uiTAG, uint32_t *uiLen, uint8_t *pucOutData);
uint32_t VelkDataBase_GetTagValue(uint32_t uiTAG, OBJECT_TAG *pObjectTag);
uint8_t VelkDataBase_Tag_IsPresent(uint32_t uiTag);
uint8_t VelkDataBase_Tag_IsNotPresent(uint32_t uiTag);

uint32_t VelkCless_Get_Tag_Format(uint32_t tag);
uint8_t VelkCless_Check_Tag_Length(uint32_t tag, uint32_t uiLen);
uint8_t VelkCless_Check_IsMultiTagForbidden(uint32_t tag);
uint8_t VelkCless_Check_MandatoryDataIsMissing(void);
uint8_t VelkCless_Check_DataResoure_NotAllow(uint32_t uiResoureType, uint32_t tag);

#ifdef __cplusplus
}
#endif

#endif /* VELK_DATABASE_H */
