// SPDX-License-Identifier: Apache-2.0
/*
 * The kernel's processing functions: callback messages, the step machine,
 * kernel start and transaction initialisation, outcomes, data records, and
 * one group per processing step, in the order of the transaction.
 *
 * Conventions: every function returns an unsigned 32-bit status, 0 for
 * success; predicates return 1 or 0. A step turns its own failures into an
 * outcome and returns 0 unless its description says otherwise; any non-zero
 * return ends the transaction.
 *
 * Response buffers: where a function receives bytes into a caller's buffer
 * and takes a pointer to a length (VelkCless_ExchangeAPDU,
 * VelkCless_APDU_GetData, VelkCless_GenerateDOL_Response), the length holds
 * the buffer's capacity on entry and the length received on return. Data that
 * would not fit is refused, never truncated into the buffer.
 */
#ifndef VELK_BASEKERNEL_H
#define VELK_BASEKERNEL_H

#include <stdint.h>

#include "database.h"
#include "global.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Callback message channel (callback) ---------------------------------- */

/* Command codes of callback messages (DF00). */
#define VELK_CMD_STORE_CONTEXT 0xA2u
#define VELK_CMD_FETCH_CONTEXT 0xA3u
#define VELK_CMD_ICS_PARAMS 0xD1u
#define VELK_CMD_AID_PARAMS 0xD3u
#define VELK_CMD_CA_KEY 0xD4u
#define VELK_CMD_UNPREDICTABLE_NUMBER 0xD5u
#define VELK_CMD_CARD_ACTIVE 0xD6u
#define VELK_CMD_DISPLAY 0xD7u
#define VELK_CMD_POWER_OFF 0xDFu
#define VELK_CMD_EXCEPTION_FILE 0xE6u
#define VELK_CMD_REVOCATION 0xE9u
#define VELK_CMD_APDU 0xF1u
#define VELK_CMD_RESTART 0xFEu

/* Signal types. */
#define VELK_SIGNAL_FCI 0xA0u
#define VELK_SIGNAL_STOP 0xA1u
#define VELK_SIGNAL_RAPDU 0xA4u
#define VELK_SIGNAL_COMM_ERROR_A5 0xA5u
#define VELK_SIGNAL_COMM_ERROR_A6 0xA6u

uint32_t VelkCless_GetICS_Param(void);
uint32_t VelkCless_Transaction_Get_AID_Parameter(const uint8_t *AIDName, uint32_t uiAIDNamelen);
uint32_t VelkCless_Get_Unpredictable_Number(void);
uint32_t VelkCless_GetUnpredictableNumber(uint8_t *pRandom, uint32_t uiRandomlen);
uint32_t VelkCless_Card_Active(void);
uint32_t VelkCless_Display_UIRD(const uint8_t *pUIRD, uint32_t uiUIRDLen);
uint32_t VelkCless_Display_UIRD_Stand(uint32_t uiMsgID, uint8_t ucStatus);
uint32_t VelkCless_CardPowerOff(void);
/* *puiRAPDULen: capacity of pucRAPDU on entry, length of the R-APDU on return. */
uint32_t VelkCless_ExchangeAPDU(const uint8_t *pucApdu, uint32_t uiApduLen, uint8_t *pucRAPDU,
                                uint32_t *puiRAPDULen);

/* ---- Step machine, kernel start, transaction initialisation, outcomes ------
 *      (VelkKernel_Process) */

uint32_t VelkCless_Start_Transaction(uint8_t *pInOutData, uint32_t *pInOutDatalen);

uint32_t VelkCless_KernelStart_Step00(uint8_t *pInOutData, uint32_t *pInOutDatalen);
uint32_t VelkCless_Process_FCI(void);
uint32_t VelkCless_Analyse_FCI0(uint8_t *pAPDU, uint32_t uiAPDULen);
uint32_t VelkCless_Analyse_FCI_01(uint8_t *pAPDU, uint32_t uiAPDULen);
uint32_t VelkCless_Analyse_ApplicationSelec_FCIData(void);
uint32_t VelkCless_SaveTLVData_WithChildTAG(uint8_t *pTlvdata, uint32_t uiTlvDatalen);
uint32_t VelkCless_Get_TLV_DataElement(uint8_t *ptlvData, OBJECT_TAG *pTag);

uint8_t VelkCless_CheckTagValue_IsZero(uint32_t uiTAG);
uint8_t VelkCless_CheckTagValue_IsTrue(uint32_t uiTAG);
uint8_t VelkCless_Check_Tag_isPresent_InDynamic_TransactionParam(uint32_t uiTag);
uint8_t VelkCless_Check_Tag_isNotPresent_InDynamic_TransactionParam(uint32_t uiTag);
uint8_t VelkCless_Check_ImplementationOption_IsTrue(uint8_t ucOption);
/* Byte (CheckOption >> 8) of 9F9301, counted from 0, ANDed with the low byte;
 * the AND itself is the result. Bytes beyond the stored value read as 0. */
uint8_t VelkCless_Kernel_Capabilities_IsTrue(uint32_t CheckOption);
uint8_t VelkCless_CheckTransactionType_IsPresent_Trans_Type_Auth_Appli(void);
uint8_t VelkCless_EchoCardIdentifier_9F75_isPartOf_FCI(void);
uint8_t VelkCless_FCI_in_DynamicTransParameters_isEqual_To_DataBase_FCI(void);
uint8_t VelkCless_TAG_IsPresent_DOL(uint32_t uiTag, const uint8_t *pDolData, uint32_t uiDolDataLen);

uint32_t VelkCless_TransactionInitialisation(uint8_t *pTlvData, uint32_t *pTlvDatalen);

/* Outcomes: each writes the whole Outcome Parameter Set and UIRD; all return 0. */
uint32_t VelkCless_Transaction_FinalOutcome_SelectNext(void);
uint32_t VelkCless_Transaction_FinalOutcome_TryAnotherInterface(void);
uint32_t VelkCless_Transaction_FinalOutcome_EndApplication(void);
uint32_t VelkCless_Transaction_FinalOutcome_EndApplication_RestartCommuError(void);
uint32_t VelkCless_Transaction_FinalOutcome_EndApplication_Restart_On_Device_CVM(void);
uint32_t VelkCless_Financial_Transaction_Completed_On_device_CVM_Requested(void);
uint32_t VelkCless_Financial_Transaction_Completed_Transaction_Approved_TC(void);
uint32_t VelkCless_Financial_Transaction_Completed_Transaction_Online_Approved_TC(void);
uint32_t VelkCless_Financial_Transaction_Completed_Transaction_declined_AAC(uint8_t ucNoReadRecord);
uint32_t VelkCless_Financial_Transaction_Completed_Online_Request(void);
uint32_t VelkCless_Financial_Transaction_Completed_Online_Request_LongTap(void);
uint32_t VelkCless_Financial_Transaction_Completed_Online_Request_OnlineTap(void);
uint32_t VelkCless_Financial_Transaction_Completed_Erroneous_Reactivationkernel_AfterOnline(
    uint8_t ucReadRecord);
uint32_t VelkCless_Financial_Transaction_Completed_Try_Other_Interface(void);
uint32_t VelkCless_Transaction_Completed_on_Error(void);
uint32_t VelkCless_Communication_Errors_PaymentTransactionNotCompleted(void);
uint32_t VelkCless_Communication_Errors_Unknown_Payment_Result(void);
uint32_t VelkCless_Transaction_Cancellation_by_Contactless_Reader(void);
uint32_t VelkCless_NonFinancial_Transaction_completed_Retrieval_of_data_elements(
    uint8_t DiscretionaryPresent);
uint32_t VelkCless_NonFinancial_Transaction_completed_Data_Elements_Update(
    uint8_t DiscretionaryPresent);
uint32_t VelkCless_NonFinancial_Transaction_completed_Offline_Authentication(
    uint8_t DiscretionaryPresent);
/* Writes the outcome TLV 7F01 into the caller's buffer, which holds at least
 * VELK_IO_BUFFER_MIN_LEN bytes; an element that would pass that bound is left
 * out whole. */
uint32_t VelkCless_Transaction_FinalOutcome_Packet(uint8_t *pInOutData, uint32_t *pInOutDatalen);

/* ---- Data records and output data lists (Database) ------------------------ */

extern const uint32_t Data_Record_Transaction[34];
extern const uint32_t Application_Authentication_Transaction_Data[4];
extern const uint32_t DiscretionaryData_Transaction[2];
extern const uint32_t Error_OutData[3];

/* The container is written into a work area of VELK_RECORD_WORK_LEN bytes;
 * an element that would pass it is left out. */
#define VELK_RECORD_WORK_LEN 1024u
void VelkCless_Create_DataRecord(uint8_t ucMode, uint8_t *pTlvOutData, uint32_t *pTlvOutDatalen);
uint32_t VelkCless_Add_Taglist_Data_To_DataRecord(const uint8_t *pTaglist, uint32_t uiTagListlen,
                                                  uint8_t *pTlvOutData, uint32_t *pTlvOutDatalen);
void VelkCless_Create_DiscretionaryData(uint8_t *pTlvOutData, uint32_t *pTlvOutDatalen);
void VelkCless_Create_ErrorOutData(uint8_t *pTlvOutData, uint32_t *pTlvOutDatalen);
void VelkCless_Create_2ndGAC_OnlineData_DataRecord(uint8_t *pTlvOutData, uint32_t *pTlvOutDatalen);

/* ---- Pre-processing (PreProcess) ------------------------------------------ */

uint32_t VelkCless_PreProcess(void);
uint32_t VelkCless_Get_A_Single_Unit_of_Currency_Amount(void);

/* ---- Initiate application processing (InitiateApplicationProcessing) ------ */

uint32_t VelkCless_Initiate_Application_Processing(uint8_t *pInOutData, uint32_t *pInOutDatalen);
/* *dol_response_len: capacity on entry, output length on return. A DOL that
 * cannot be parsed, or whose values would pass the capacity, yields 0. */
uint32_t VelkCless_GenerateDOL_Response(const uint8_t *pDolData, uint32_t nDolDataLen,
                                        uint8_t *dol_response, uint32_t *dol_response_len);
uint32_t VelkCless_GPO_Response_Process(uint8_t *pInData, uint32_t uiInDatalen);
uint32_t VelkCless_PDOLMandatoryCheck(const uint8_t *pucPDOL, uint32_t uiPDOLLen);
uint32_t EMV_Check_AFL(void);

/* ---- Read application data (ReadApplicationData) -------------------------- */

uint32_t VelkCless_ReadApplicationData(uint8_t *pInOutData, uint32_t *pInOutDatalen);
uint32_t VelkCless_Read_Record(uint8_t *pInOutData, uint32_t *pInOutDatalen);
uint32_t VelkCless_VerifyMandatoryDataElement_InKernelTransDatabase(void);
uint32_t VelkCless_Compare_5A_57_Data(void);
uint32_t VelkCless_Read_Complete(uint8_t *pInOutData, uint32_t *pInOutDatalen);

/* ---- Offline data authentication (OfflineDataAuthentication, algorithm) --- */

/* Recovered certificate and signed data layouts, read by position. */
typedef struct IPKCertData {
    uint8_t ucHeader;
    uint8_t ucCertificate_Format;
    uint8_t ucIssuer_Identifier[4];
    uint8_t ucExpiration_Date[2];
    uint8_t ucCertificate_Serial_Number[3];
    uint8_t ucHash_Algorithm_Indicator;
    uint8_t ucPub_key_Alg;
    uint8_t ucPub_key_Len;
    uint8_t ucPub_key_Exp_Len;
} IPKCertData;

typedef struct ICC_PK_CertData {
    uint8_t ucHeader;
    uint8_t ucCertificate_Format;
    uint8_t ucApplicationPAN[10];
    uint8_t ucExpiration_Date[2];
    uint8_t ucCertificate_Serial_Number[3];
    uint8_t ucHash_Algorithm_Indicator;
    uint8_t ucPub_key_alg;
    uint8_t ucPub_key_len;
    uint8_t ucPub_key_exp_len;
} ICC_PK_CertData;

typedef struct SDA_RECOVERY {
    uint8_t ucHeader;
    uint8_t ucCertificate_Format;
    uint8_t ucHash_Algorithm_Indicator;
    uint8_t Data_Auth_Code[2];
} SDA_RECOVERY;

typedef struct DDA_SDAD_RECOVERY {
    uint8_t ucHeader;
    uint8_t ucCertificate_Format;
    uint8_t ucHash_Algorithm_Indicator;
    uint8_t ucICC_Dynamic_Data_Length;
    uint8_t ucICC_Dynamic_Data[38];
} DDA_SDAD_RECOVERY;

typedef DDA_SDAD_RECOVERY CDA_SDAD_RECOVERY;

uint32_t VelkCless_ODA_CAM_Selection(void);
uint32_t VelkCless_ODA_CAM_Checking(void);
uint32_t VelkCless_ODA_SDA_Data_Check(void);
uint32_t VelkCless_ODA_DDA_Data_Check(void);
uint32_t VelkCless_ODA_CDA_Data_Check(void);
uint32_t VelkCless_ODA_SDA_Process(void);
uint32_t VelkCless_ODA_DDA_Process(void);
uint32_t VelkCless_ODA_CDA_Process(void);
uint32_t VelkCless_Verify_Signed_Data_SDA(void);
uint32_t VelkCless_ODA_DDA_Get_SDDA(void);
uint32_t VelkCless_ODA_DDA_Dynamic_Signature_Verification(void);
uint32_t VelkCless_ODA_CDA_Dynamic_Signature_Verification(void);
uint32_t VelkCless_ODA_CDA_Save_GAC_Exp9F4B(const uint8_t *response, uint32_t length);

uint32_t VelkCless_Get_CAPulicKey_Parameters(void);
uint32_t VelkCless_Retrieve_IssuerPubKey(void);
uint32_t VelkCless_Retrieve_ICC_PubKey(void);
uint32_t VelkCless_IPK_Cert_Revocation(const uint8_t *rid, const uint8_t *index,
                                       const uint8_t *serialNumber);
uint32_t VelkCless_Check_Cert_ExpDate(const uint8_t *pDate, uint32_t uiDateLen);
uint32_t VelkCless_Hash_Compare(const uint8_t *pucInData, uint32_t uiInLen,
                                const uint8_t *pHashValue);
uint32_t VelkCless_Data_Compare(const uint8_t *pFistData, uint32_t uiFistDatalen,
                                const uint8_t *pSecondData);
uint32_t Velk_RSA_Encrypt(const uint8_t *pModule, uint32_t ModuleLen, const uint8_t *pExponent,
                          uint32_t ExponentLen, const uint8_t *pInData, uint32_t InDatalen,
                          uint8_t *pOutData);
void Velk_SHA1_Compute(const uint8_t *pucInData, uint32_t uiInLen, uint8_t *pucDigest);

/* ---- Processing restrictions (ProcessingRestrictions) --------------------- */

uint32_t VelkCless_Processing_Restrictions(uint8_t *pInOutData, uint32_t *pInOutDatalen);
uint32_t VelkCless_ProRestrictions_Check_Application_Version(void);
uint32_t VelkCless_Application_Usage_Control_Check(void);
uint32_t VelkCless_Application_Date_Check(void);
uint32_t VelkCless_DATE_LeapYearInt(uint32_t year);
uint32_t VelkCless_DATE_MonthDaysInt(uint32_t year, uint32_t month, uint32_t *days);
uint32_t VelkCless_DATE_ValidDateInt(uint32_t year, uint32_t month, uint32_t day);
uint32_t VelkCless_CheckDateValid(const uint8_t *date);
uint32_t VelkCless_GetCardExpDateFromTrack2(uint8_t *out);

/* ---- Cardholder verification (CardholderVerification) --------------------- */

uint32_t VelkCless_Cardholder_Verification(void);
uint32_t VelkCless_Cardholder_Verification_CheckCVMListIsMissing(void);
uint32_t VelkCless_CVM_Process(void);
uint32_t VelkCless_Cardholder_Verification_CVMList(void);
uint32_t VelkCless_CVM_List_Processing(const uint8_t *pCVMList, uint32_t uiCVMListlen,
                                       uint8_t *pCVMResult);
uint32_t VelkCless_CVM_checkCondition(const uint8_t *XAmount, const uint8_t *YAmount,
                                      uint8_t CV_Rule, uint8_t ucCondition);
uint32_t VelkCless_CVM_CheckAmount(const uint8_t *ThresholdAmount, uint8_t Checkflag);
uint32_t VelkCless_CVM_Code_recognized(uint8_t CV_Rule);
uint32_t VelkCless_CVM_Terminal_IsSupport(uint8_t CV_Rule, uint8_t ucCondition);

/* ---- Terminal risk management (TRM) --------------------------------------- */

uint32_t VelkCless_TRM_Process(void);
uint32_t VelkCless_Terminal_Exception_File_Check(void);
uint32_t VelkCless_Random_Transaction_Select(void);
uint32_t VelkCelss_TRM_CheckVelocity(void);

/* ---- Terminal action analysis (TAA) --------------------------------------- */

uint8_t VelkCless_TAC_IAC_TVR(const uint8_t *pTVR, const uint8_t *pTAC, const uint8_t *pIAC);
uint32_t VelkCless_Terminal_Action_Analysis(void);

/* ---- Card action analysis and GENERATE AC (CAA, CAA2) --------------------- */

uint32_t VelkCless_Card_Action_Analysis_1st_Processing(void);
uint32_t VelkCless_Generate_AC_1st_Command(void);
uint32_t VelkCless_Anglyse_Generate_AC_1st_Response(uint8_t *pR_APDU, uint32_t uiR_APDULen);
uint32_t VelkCless_Generate_AC_2nd_Command(uint8_t ucDecion);
uint32_t VelkCless_Anglyse_Generate_AC_2nd_Response(uint8_t *pR_APDU, uint32_t uiR_APDULen);

/* ---- Online processing (OnlineProcessing) --------------------------------- */

#define VELK_ONLINE_CONTEXT_LEN 1236u

uint32_t VelkCless_Online_Processing_Long_Tap(void);
uint32_t VelkCless_Online_Processing_Online_Tap(void);
uint32_t VelkCless_Stores_OnlineTransaction_Context(void);
uint32_t VelkCless_Stores_OnlineTransaction_Context_Callback(const uint8_t *pDatabuffer,
                                                             uint32_t uiDatalen);
uint32_t VelkCless_Get_ONline_Record(uint8_t *pOutDatabuffer, uint32_t *puiOutDatalen);
uint32_t VelkCless_Get_CDOL2_TLVData(uint8_t *pOutTLVData, uint32_t *pOutTLVDataLen);
uint32_t VelkCless_Get_OnlineTransaction_Context(void);
/* pTlvData: the transaction input at the start of its VELK_IO_BUFFER_MIN_LEN-byte
 * buffer (cleared after the input), as the step machine passes it. */
uint8_t VelkCless_Check_Script_IsPresent(const uint8_t *pTlvData, uint32_t uiTag);
uint32_t VelkCless_Online_Response_Processing_and_Kernel_DeActivation(uint8_t *pTlvData,
                                                                      uint32_t *pTlvDatalen);
uint32_t VelkCless_Transaction_OnlineProcessing_KernelDeActivation_K37(
    uint8_t Completion_ID, uint8_t Script_Result_Available);

/* ---- Issuer script processing (IssuerUpDateProcessing) -------------------- */

typedef struct STRUCT_SCRIPT {
    const uint8_t *pScript;
    uint32_t uiScriptLen;
} STRUCT_SCRIPT;

#define VELK_MAX_SCRIPTS 16u

uint32_t VelkCless_BeforeGAC_Script_Processing(uint8_t *pTlvData, uint32_t *pTlvDatalen);
uint32_t VelkCless_AfterGAC_Script_Processing(uint8_t *pTlvData, uint32_t *pTlvDatalen);
uint32_t VelkCless_Script_Process(const uint8_t *pTlvData, uint32_t uiTlvDatalen,
                                  uint8_t *pScriptResult);
uint8_t VelkCless_Check_Script_IsValid(const uint8_t *pCmd, uint32_t uiCmd_len);
uint32_t VelkCless_Issuer_Script_Command(const uint8_t *pCmd, uint32_t uiCmd_len);
uint32_t VelkCless_Set_Script_Fail(uint8_t ucFlag);
uint32_t VelkCless_IssuerUpDataProcess(uint8_t *pInOutData, uint32_t *pInOutDatalen);

/* ---- Kernel de-activation (Kernel_DeActivation) --------------------------- */

uint32_t VelkCless_Kernel_De_Activation(void);

/* ---- Data element retrieval and update (DataElement_EEPROM_Process) ------- */

/* *puiR_APDULen: capacity of pR_APDU on entry, response length on return. */
uint32_t VelkCless_APDU_GetData(uint32_t uiTag, uint8_t *pR_APDU, uint32_t *puiR_APDULen);
uint8_t VelkCless_GDDOLResult_and_DataUpdateResult_IsPresent(void);
uint32_t VelkCless_Retrieval_of_Data_Element_values_in_EEPROM(void);
uint32_t VelkCless_Update_of_Data_Element_values_in_EEPROM(void);
uint32_t VelkCless_Update_of_Data_Element_values_in_EEPROM_after_GPO_command(void);
uint32_t VelkCless_Update_of_Data_Element_values_in_EEPROM_after_CAA(void);

/* ---- Balance retrieval (Balance_Retrieval) -------------------------------- */

uint32_t VelkCless_Retrieval_Card_Balance(void);
uint32_t VelkCless_Read_Card_OK(void);

/* ---- Torn transaction recovery (torn) ------------------------------------- */

uint32_t VelkCless_RecoveryTrans_TapCard_Processing(void);
uint32_t VelkCless_SendOutSignal_Restart(void);
uint32_t VelkCless_RecoveryTrans_SelectAID(void);
uint32_t VelkCless_RecoveryTrans_Send_ECHO_Command(void);
uint32_t VelkCless_Recovery_ECHO_Command_CommunicationProblem_Processing(void);
uint32_t VelkCless_Transaction_Torn_ECHOCommError_Recovery_Tap_SelectAID(void);

#ifdef __cplusplus
}
#endif

#endif /* VELK_BASEKERNEL_H */
