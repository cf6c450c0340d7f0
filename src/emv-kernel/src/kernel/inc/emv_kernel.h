// SPDX-License-Identifier: Apache-2.0
/*
 * libvelk — contactless EMV payment kernel: the host's interface.
 *
 * Call order (the kernel records none of it and checks none of it):
 *
 *   1. Kernel_Set_Local_Param_Pointer_VELK_(block, len)
 *        block: at least VELK_LOCAL_PARAM_MIN_LEN bytes, aligned to
 *        VELK_LOCAL_PARAM_ALIGN, filled with zeros, owned by the host and left
 *        untouched by it while the kernel is in use. All of the kernel's
 *        per-transaction state lives there. May be called again to move the
 *        kernel to another block.
 *   2. Kernel_load_callback_Routine_VELK_(callback, 0)
 *        The callback carries every request of the kernel (card APDUs, terminal
 *        and AID parameters, unpredictable numbers, display, CA keys, ...) as a
 *        TLV message in the kernel's VELK_EXCHANGE_BUFFER_LEN-byte exchange
 *        buffer; the host answers in the same buffer.
 *   3. Kernel_Init_VELK_(NULL, 0)
 *        Prepares the signal queue's slots and empties the tag database.
 *   4. For each transaction: Kernel_Start_VELK_(io, &len)
 *        io holds the transaction input TLV (len bytes): an optional DF09
 *        (kernel identifier) followed by the constructed 7F11 with the
 *        transaction's data elements; 7F11 comes last. The call returns when
 *        the transaction has reached an outcome; io and len then hold the
 *        outcome TLV 7F01. io must be at least VELK_IO_BUFFER_MIN_LEN bytes:
 *        the kernel never writes beyond that many bytes of it.
 *
 *        The input must be a sequence of TLV elements of at most
 *        VELK_IO_BUFFER_MIN_LEN bytes, and the children of 7F11 must fill its
 *        value; otherwise no step runs, the outcome is End Application and
 *        the result 0x33003. What the children hold is not checked here: an
 *        issuer script template (71, 72) that is malformed inside is passed
 *        on as the issuer sent it and fails alone when it is run (its result
 *        00, the TVR's script failure bit set). Top-level elements after 7F11
 *        are ignored, and the bytes of io from len up to
 *        VELK_IO_BUFFER_MIN_LEN are cleared before the transaction starts. The children of 7F11 (the
 *        transaction's dynamic parameters) must fit in 511 bytes once
 *        re-encoded in a 7F01, else the result is 0x31007. The FCI of the
 *        selected application (signal 0xA0 posted before the call, or 9F8201
 *        among the children of 7F11) must be at most 300 bytes with its status
 *        word and its DF name at most 32 bytes; a longer one selects the next
 *        application like any other bad FCI.
 *
 *        Card data element retrieval and update (implementation options
 *        0x80 and 0x40 of 9F9302; transaction types 0x78 and 0x79) are
 *        configured by two templates, given among the children of 7F11 or
 *        in the reply to D1 or D3 (a later one replaces an earlier one), in
 *        their natural shape:
 *          BF71 { 9F70 GDDOL }: the tags to read with GET DATA, as tag and
 *            length pairs (the lengths are not used); the first 256 bytes of
 *            9F70 count, an entry cut at that end is dropped.
 *          BF70 { A2 {...} A3 {...} A4 {...} ... }: update entries, applied
 *            in order before GPO (A2), after the GPO response (A3) and after
 *            the first GENERATE AC (A4). An entry's value begins with the
 *            data element to write (its tag gives P1 P2 of PUT DATA, its
 *            value, at most 255 bytes, the data) and may hold 85 whose first
 *            byte is the entry's setting (0x01: a failed update stops the
 *            transaction; 0x80, 0x40, 0x20: conditions of A4 entries). An
 *            entry is at most 300 bytes; one the kernel cannot send counts
 *            as a failed update.
 *        The kernel keeps each template with its whole encoding as its
 *        database value (tag, length and value: BF70 L A2 ... A3 ...); all
 *        other elements are kept by their value. The results come back as
 *        discretionary data FF8106: 9F71 (the retrieved elements as tag,
 *        length, value; an element that would take 9F71 past 1008 bytes is
 *        left out) and 9F74 (result 01 failed or 02 succeeded, and the
 *        number of elements updated).
 *
 *        The outcome TLV holds DF8129 (Outcome Parameter Set), DF8116 and
 *        9F8117 (the UIRDs), FF8106 (discretionary data), FF8105 (data record)
 *        and 9F8211 (01, for a reader that set it in the input), each when the
 *        outcome announces it; an element that would not fit in
 *        VELK_IO_BUFFER_MIN_LEN bytes is left out whole.
 *
 *      A first tap (no 8A among the children of 7F11) starts from a clean
 *      transaction state: the tag database, the TVR/TSI, the indicators and
 *      the outcome of the previous transaction are cleared. The second entry
 *      of an online transaction (8A present) clears them as well and takes
 *      what it needs from the online context that the host hands back on the
 *      kernel's A3 request. Only the signal queue survives from one call to
 *      the next: signals the host posted and the kernel did not take are seen
 *      by the next transaction.
 *
 *   While a transaction runs, another thread of the host (or the callback
 *   itself) may post signals with Kernel_Customized_Contactless_VELK_: one
 *   writer and one reader may work at once. The kernel waits for a signal
 *   without a time-out where it needs one (card activation, an APDU
 *   answered asynchronously); the host must always post one eventually.
 *
 * One transaction at a time per process: the exchange buffer and the
 * interface record are single instances.
 *
 * All results are unsigned 32-bit status codes, 0 for success. Failure codes
 * are six hexadecimal digits 0x3GGNN (see docs/integration.md for the list).
 */
#ifndef EMV_KERNEL_H
#define EMV_KERNEL_H

#include <stdint.h>

#include "emv_kernel_global.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define VELK_API __attribute__((visibility("default")))
#else
#define VELK_API
#endif

/* Minimum size of the block bound with Kernel_Set_Local_Param_Pointer_VELK_:
 * the size of the kernel's global record. It is 10204 bytes on 32-bit (ILP32)
 * targets such as armhf; on 64-bit targets its pointer fields make it larger. */
#if UINTPTR_MAX == 0xFFFFFFFFu
#define VELK_LOCAL_PARAM_MIN_LEN 10204u
#define VELK_LOCAL_PARAM_ALIGN 4u
#else
#define VELK_LOCAL_PARAM_MIN_LEN 10312u
#define VELK_LOCAL_PARAM_ALIGN 8u
#endif

/* Size of the kernel's exchange buffer: a host reply to a callback message
 * must fit in it. */
#define VELK_EXCHANGE_BUFFER_LEN 2048u

/* Minimum size of the buffer passed to Kernel_Start_VELK_. It holds the input
 * on entry and the outcome on return; the kernel never writes past this many
 * bytes of it. */
#define VELK_IO_BUFFER_MIN_LEN 4096u

/* Results of the entry functions that a host checks for. */
#define VELK_OK 0u
#define VELK_ERR_BLOCK_TOO_SMALL 0x31008u  /* block shorter than VELK_LOCAL_PARAM_MIN_LEN */
#define VELK_ERR_BLOCK_MISALIGNED 0x31009u /* block not aligned to VELK_LOCAL_PARAM_ALIGN */

/* The host's callback: pInOutData is the exchange buffer holding the request
 * (a constructed TLV 7F01 whose DF00 names the command), *puiInOutDatalen its
 * length. The host writes its reply into the same buffer (at most
 * VELK_EXCHANGE_BUFFER_LEN bytes) and may update the length. A non-zero result
 * means the request failed.
 *
 * The reply is read from the buffer's first byte as one well-formed TLV that
 * ends inside the buffer, whatever length the host hands back; anything else
 * fails the request with 0x30104. An APDU reply (request F1) carries the
 * response in DF03; a well-formed reply without DF03 means the response
 * follows as a signal (0xA4 with the R-APDU, or 0xA1/0xA5/0xA6 instead). A
 * response longer than the buffer the kernel receives it in fails with
 * 0x30105 and is not copied. */
typedef uint32_t (*pCallback_Function)(uint8_t *pInOutData, uint32_t *puiInOutDatalen);
typedef uint32_t (*pCallback_Process_EntryPoint_Fun)(uint8_t *pInOutData,
                                                     uint32_t *puiInOutDatalen);

/* A signal posted by the host. MessageData is owned by the host and must stay
 * valid until the kernel has taken the signal. Types: 0xA0 SELECT response of
 * the chosen application (FCI and status word), 0xA1 stop (cancel), 0xA4 a
 * response APDU, 0xA5 and 0xA6 communication errors. */
typedef struct ClessSignal_Message {
    uint8_t ucSignalType;
    uint8_t *MessageData;
    uint32_t uiMessageDatalen;
} ClessSignal_Message;

VELK_API uint32_t Kernel_Set_Local_Param_Pointer_VELK_(uint8_t *pointer, uint32_t len);
VELK_API uint32_t Kernel_load_callback_Routine_VELK_(pCallback_Process_EntryPoint_Fun pszRecvData,
                                                     uint32_t dwRecvDataLen);
VELK_API uint32_t Kernel_Init_VELK_(uint8_t *tlv_buffer, uint32_t len);
VELK_API uint32_t Kernel_Start_VELK_(uint8_t *tlv_buffer, uint32_t *len);
/* buffer points at one ClessSignal_Message; it is copied into the queue. A
 * full queue (7 signals waiting) drops the signal; the result is 0 regardless. */
VELK_API uint32_t Kernel_Customized_Contactless_VELK_(uint8_t *buffer);
/* Deliberately a no-op. */
VELK_API uint32_t Kernel_Set_Proprietary_Tag_VELK_(uint8_t *buffer);

#ifdef __cplusplus
}
#endif

#endif /* EMV_KERNEL_H */
