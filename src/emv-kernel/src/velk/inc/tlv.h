// SPDX-License-Identifier: Apache-2.0
/*
 * The kernel's BER-TLV codec. Works in place on caller-owned buffers and
 * allocates nothing. Deliberately narrower than full BER: tags of at most 4
 * bytes, lengths of at most 3 length bytes (a length byte 84 or above reads as
 * 83). Walkers skip 0x00/0xFF padding where their description says so.
 *
 * The builders check no capacity: callers reserve room (see checked.hpp for
 * the bounded forms the kernel uses on fixed buffers). Child iteration keeps
 * module state: one iteration at a time unless saved with
 * TLV_GetNextChlidTagPosition and restored with TLV_SetNextChlidTagPosition.
 */
#ifndef VELK_TLV_H
#define VELK_TLV_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One open constructed element during a depth-first walk. */
typedef struct TLVStackStruct {
    uint32_t nPos;
    uint32_t nLen;
} TLVStackStruct;

/* Saved next-child iteration state. */
typedef struct TLV_GetNextChildTagPosition {
    uint32_t uiCurrentChildPosition;
    uint32_t uiTLVTotalPosition;
} TLV_GetNextChildTagPosition;

/* Depth of the walkers' stack of open elements; deeper data is refused. */
#define TLV_MAX_DEPTH 48u

/* Module-level child-iteration state. */
extern int32_t dataIndex;
extern uint32_t dataIndexNextChild;
extern uint32_t dataTotalParentLen;

/* Decoding. */
uint32_t GetLen(const uint8_t *pTLVData, uint32_t *lenLen, uint32_t *len);
void GetTagAndLen(const uint8_t *pTLVData, uint32_t *pnCurTag, uint32_t *pnCurTagLen,
                  uint32_t *pnCurLen, uint32_t *pnCurLenLen);
uint32_t Get_TagAndLen_Ex(const uint8_t *pTLVData, uint32_t *pnCurTag, uint32_t *pnCurLen);
uint32_t Get_TagAndLen_Dol(const uint8_t *pTLVData, uint32_t *pnCurTag, uint32_t *pnCurLen);
void GetTag_xx(const uint8_t *pTLVData, uint32_t *pnCurTag, uint32_t *pnCurTagLen);
uint32_t TLV_ReadTag(const uint8_t *Buffer, uint32_t *Tag);
uint32_t TLV_GetTag(const uint8_t *pTLVData);
uint32_t TLV_GetLen(const uint8_t *pTLVData);
uint8_t *TLV_GetValue(uint8_t *pTLVData);
uint32_t TLV_GetTlvTotalLen(const uint8_t *pTLVData);
uint32_t TLV_Get_Tag_Len(uint32_t uiTag, uint8_t *Tag_buffer);
uint8_t *TLV_Init(uint8_t *data, uint32_t dataLen);

/* Building. */
uint32_t TLV_GenLen(uint32_t len, uint8_t *buffer);
uint32_t TLV_New(uint8_t *pTLVData, uint32_t tag, const uint8_t *value, uint32_t len);
uint32_t TLV_AddTag(uint8_t *pTLVData, uint32_t tag, const uint8_t *value, uint32_t len);
uint32_t TLV_AddTag_TLV(uint8_t *pTLVData, const uint8_t *pNewTLVData);
uint32_t TLV_AddTag_UpDataMode(uint8_t *pTLVData, uint32_t tag, const uint8_t *value, uint32_t len);
uint32_t TLV_DelTag(uint8_t *pTLVData, uint32_t tag);

/* Searching and iterating. */
uint8_t *TLV_FindTag(uint8_t *pTLVData, uint32_t nTag);
uint8_t *TLV_FindTag_Ex(uint8_t *pTLVData, uint32_t nTag);
uint8_t *TLV_FindChildTag(uint8_t *pTLVData, uint32_t nTag);
uint8_t *TLV_GetFirstChildTag(uint8_t *pTLVData);
uint8_t *TLV_GetNextChildTag(uint8_t *pTLVData);
uint8_t *TLV_GetNextTagSibling(uint8_t *pTLVData);
uint8_t *TLV_GetFirstChildTag_Ex(uint8_t *pTLVData);
uint8_t *TLV_GetNextChildTag_Ex(uint8_t *pTLVData);
uint8_t *TLV_GetNextTagSibling_Ex(uint8_t *pTLVData);
uint32_t TLV_GetNextChlidTagPosition(TLV_GetNextChildTagPosition *pGetNextChildPosition);
uint32_t TLV_SetNextChlidTagPosition(const TLV_GetNextChildTagPosition *pGetNextChildPosition);

/* Checking: 1 when the buffer is a well-formed element tree, else 0. */
uint8_t TLV_Check_Format(const uint8_t *pTLVData, const uint32_t *pTLVDataLen);
uint8_t TLV_Check_Format2(const uint8_t *pTLVData, const uint32_t *pTLVDataLen);
uint8_t Parse_TLV_buffer(const uint8_t *pTLVData, uint32_t nTLVDataLen);

#ifdef __cplusplus
}
#endif

#endif /* VELK_TLV_H */
