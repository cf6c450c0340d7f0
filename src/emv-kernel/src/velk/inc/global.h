// SPDX-License-Identifier: Apache-2.0
/*
 * The kernel's global state: the record in the host's bound block, the
 * interface record with the exchange buffer and the host callback, and the
 * accessors that wrap the indicators steering later steps.
 */
#ifndef VELK_GLOBAL_H
#define VELK_GLOBAL_H

#include <stdint.h>

#include "emv_kernel.h"
#include "kn_common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Outcome Parameter Set (wire format of DF8129). */
typedef struct FINAL_OUTCOME {
    uint8_t ucStatus;
    uint8_t ucStart;
    uint8_t ucOnline_Response_Data;
    uint8_t ucCVM;
    uint8_t ucPresence;
    uint8_t ucAlternate_Interface_Preference;
    uint8_t ucField_Off_Request;
    uint8_t ucRemoval_Timeout;
} FINAL_OUTCOME;

/* User Interface Request Data (wire format of DF8116 and 9F8117). */
typedef struct User_Interface_Request_Data {
    uint8_t ucMessageIdentifier;
    uint8_t ucStatus;
    uint8_t ucHoldTime[3];
    uint8_t ucLanguagePreference[8];
    uint8_t ucValueQualifier;
    uint8_t ucValue[6];
    uint8_t ucCurrencyCode[2];
} User_Interface_Request_Data;

/* The kernel's whole per-transaction state, in the host's block. */
typedef struct VELK_GLOBALVALUE_STRUCT {
    uint32_t Transaction_Step;
    uint8_t ucDataBasebuf[8192];
    uint32_t uiUseBuflen;
    uint8_t ucTTPI[6];
    uint8_t ucTVR[5];
    uint8_t ucTSI[2];
    uint8_t ucCVM;
    uint8_t ucCVMResult[4];
    uint8_t ucTransationType;
    uint8_t ucTAAResult;
    uint8_t ucDynamicTransactionParameters[512];
    uint32_t uiDynamicTransactionParametersLen;
    uint8_t ucLastRAPDU[260];
    uint32_t uiLastRAPDULen;
    FINAL_OUTCOME FinalOutCome;
    User_Interface_Request_Data UIRD;
    User_Interface_Request_Data UIRD_Restart;
    EMV_Queue EmvQueue;
    ClessSignal_Message SignalMessageList[8];
    uint8_t ODA_AuthData[1024];
    uint32_t ODA_AuthData_len;
    uint8_t ODA_Data_From_Record_NOK;
    uint8_t ucTranResult;
    uint8_t ucContactlessApplicationNotAllowedindicator;
    uint32_t uiProcessErrorCode;
    uint32_t NumOfDataElementUpDated;
    uint8_t EchoTransactionIndicator;
    uint8_t CommunicationProblemIndicator;
    uint8_t Offline_CAM_Selected_Indicator;
    uint8_t CDA_Signature_Requested;
    uint8_t ECHO_Command_supported;
    uint8_t Contactless_Pre_Processing_Indicators;
    uint8_t ucVelkReader;
    uint8_t ucKernelID;
} VELK_GLOBALVALUE_STRUCT;

/* The exchange buffer, its capacity and the host callback. */
typedef struct VELK_INTERFACE {
    uint8_t *pCallback_Exchange_Buffer;
    uint32_t uiMaxCallback_Exchange_BufferLen;
    pCallback_Function CallbackFucntion;
} VELK_INTERFACE;

extern VELK_GLOBALVALUE_STRUCT *pgbVelkGlobalValue;
extern VELK_INTERFACE gbVelkInterface;
extern VELK_INTERFACE *pgbVelkInterface;
extern uint8_t gbTVR[5];
extern uint8_t g_auchCallbackBuffer[2048];

/* Binding and the VELK_Kernel_ layer under the entry functions. */
uint32_t VelkLocalInit(uint8_t *puchPointer, uint32_t uiLength);
uint32_t VelkCless_initMemery(void);
uint32_t VelkCless_initInterface(void);
uint32_t VelkCless_Init_MemorySpace(uint8_t *pbuffer, uint32_t uiLength);
uint32_t VELK_Kernel_Load_Callback_Function(pCallback_Function pcallbackfun, uint8_t *pCallbackbuf,
                                            uint32_t uiMaxCallBackBuflen);
uint32_t VELK_Kernel_Init(uint8_t *pInData, uint32_t uiInDatalen);
uint32_t VELK_Kernel_StartTransaction(uint8_t *pInOutData, uint32_t *puiInOutDatalen);
uint32_t VELK_Kernel_SendMessage(uint8_t *pMessage);
uint32_t VELK_Kernel_Init_ExMemorySpace(uint8_t *pExMemorySpaceAdr, uint32_t uiMaxLength);
uint32_t VELK_CallBack_Application(uint8_t *pInOutData, uint32_t *puiInOutDatalen);

/* Accessors. Setters return 0. */
uint32_t VelkCless_SetTransactionStep(uint32_t uiStep);
uint32_t VelkCless_GetTransactionStep(void);
uint32_t VelkCless_SetCVM(uint8_t ucCVM);
uint8_t VelkCless_GetCVM(void);
uint32_t VelkCless_Set_Terminal_Action_Analysis_Result(uint8_t ucMode);
uint8_t VelkCless_Get_Terminal_Action_Analysis_Result(void);
uint32_t VelkCless_Set_Terminal_Transaction_Result(uint8_t ucTranResult);
uint8_t VelkCless_Get_Terminal_Transaction_Result(void);
uint32_t VelkCless_Set_CDA_Signature_Requested(uint8_t ucIndicator);
uint8_t VelkCless_Get_CDA_Signature_Requested(void);
uint32_t VelkCless_Set_EchoTransactionIndicator(uint8_t ucIndicator);
uint8_t VelkCless_Get_EchoTransactionIndicator(void);
uint32_t VelkCless_Set_CommunicationProblemIndicator(uint8_t ucIndicator);
uint8_t VelkCless_Get_CommunicationProblemIndicator(void);
uint32_t VelkCless_Set_Offline_CAM_Selected_Indicator(uint8_t ucIndicator);
uint8_t VelkCless_Get_Offline_CAM_Selected_Indicator(void);
uint32_t VelkCless_Set_TransactionType(uint8_t ucTransType);
uint8_t VelkCless_Get_TransactionType(void);
uint32_t VelkCless_Set_ContactlessApplicationNotAllowedindicator(uint8_t ucFlag);
uint8_t VelkCless_Get_ContactlessApplicationNotAllowedindicator(void);
uint32_t VelkCless_Set_Contactless_PreProcessing_Indicators(uint8_t ucSetbit);
uint8_t VelkCless_Get_Contactless_PreProcessing_Indicators(uint8_t ucCheckbit);
uint32_t VelkCless_Set_ECHO_Command_supported(uint8_t ucSupported);
uint8_t VelkCless_Get_ECHO_Command_supported(void);
uint32_t VelkCless_GlobalValue_init(void);
uint32_t BaseKernel_GetTVR(uint8_t *pTVR);
uint32_t BaseKernel_SetTVR(const uint8_t *pTVR);
uint32_t BaseKernel_Init(uint8_t *pInData, uint32_t uiInDataLen);

/* Signal queue of the global record. */
uint32_t VelkCless_writeSignal(const ClessSignal_Message *pmsg);
uint32_t VelkCless_Kernel_WriteSignal(uint8_t *pInData);
uint32_t VelkCless_receiveSignal(ClessSignal_Message *msg);
uint32_t VelkCless_Query_Event_Message(ClessSignal_Message *pSignalMessage);
uint32_t VelkCless_Waiting_For_Event_Message(ClessSignal_Message *pSignalMessage);
uint32_t VelkCless_InitSignal(void);

/* Byte dumps of the entry module; they print through Printf_, which discards
 * everything in this build. */
void Velk_trace_value(const uint8_t *pbuf, uint32_t cnt);
void Velk_trace_ascii(const uint8_t *pbuf, uint32_t cnt);
void Velk_trace_data(const uint8_t *pbuf, uint32_t cnt);

#ifdef __cplusplus
}
#endif

#endif /* VELK_GLOBAL_H */
