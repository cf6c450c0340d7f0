// SPDX-License-Identifier: Apache-2.0
// The exported entry functions. Each is a thin forward to the VELK_Kernel_
// layer; this module also owns the kernel's only exchange buffer.
#include "baseKernel.h"
#include "emv_kernel.h"
#include "global.h"
#include "reg_std.h"

extern "C" {

uint8_t g_auchCallbackBuffer[2048];

VELK_API uint32_t Kernel_Set_Local_Param_Pointer_VELK_(uint8_t *pointer, uint32_t len) {
    return VelkLocalInit(pointer, len);
}

// The length argument is ignored on purpose: the exchange buffer is always the
// kernel's own 2048-byte one.
VELK_API uint32_t Kernel_load_callback_Routine_VELK_(pCallback_Process_EntryPoint_Fun pszRecvData,
                                                     uint32_t dwRecvDataLen) {
    (void)dwRecvDataLen;
    (void)VELK_Kernel_Load_Callback_Function(pszRecvData, g_auchCallbackBuffer,
                                             sizeof g_auchCallbackBuffer);
    return 0;
}

VELK_API uint32_t Kernel_Init_VELK_(uint8_t *tlv_buffer, uint32_t len) {
    (void)VELK_Kernel_Init(tlv_buffer, len);
    return 0;
}

VELK_API uint32_t Kernel_Start_VELK_(uint8_t *tlv_buffer, uint32_t *len) {
    return VELK_Kernel_StartTransaction(tlv_buffer, len);
}

VELK_API uint32_t Kernel_Customized_Contactless_VELK_(uint8_t *buffer) {
    (void)VELK_Kernel_SendMessage(buffer);
    return 0;
}

VELK_API uint32_t Kernel_Set_Proprietary_Tag_VELK_(uint8_t *buffer) {
    (void)buffer;
    return 0;
}

void Velk_trace_value(const uint8_t *pbuf, uint32_t cnt) {
    for (uint32_t i = 0; i < cnt; ++i)
        Printf_("%02X ", pbuf[i]);
    Printf_("\r\n");
}

void Velk_trace_ascii(const uint8_t *pbuf, uint32_t cnt) {
    for (uint32_t i = 0; i < cnt; ++i)
        Printf_("%c", pbuf[i]);
    Printf_("\r\n");
}

void Velk_trace_data(const uint8_t *pbuf, uint32_t cnt) {
    Velk_trace_ascii(pbuf, cnt);
}

}  // extern "C"
