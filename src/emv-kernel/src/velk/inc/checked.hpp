// SPDX-License-Identifier: Apache-2.0
// Bounded building and reading for the kernel's fixed buffers (C++ only).
//
// The kernel's named functions keep their signatures and their behaviour on
// well-formed data; where they build into a fixed area or read bytes that a
// card or a host could have made, they go through the helpers below, which
// know the area's capacity and refuse to pass it.
#ifndef VELK_CHECKED_HPP
#define VELK_CHECKED_HPP

#include <stdint.h>

#include "reg_std.h"

namespace velk {

// Failure codes the bounds add to the kernel's own.
inline constexpr uint32_t kErrHostReply =
    0x30104;  // host reply not one well-formed TLV in the exchange buffer
inline constexpr uint32_t kErrResponseTooLong =
    0x30105;                                            // response longer than its receiving buffer
inline constexpr uint32_t kErrFciTooLong = 0x3020D;     // FCI longer than its 300-byte work area
inline constexpr uint32_t kErrDfNameTooLong = 0x3020E;  // DF name longer than its 32-byte area
inline constexpr uint32_t kErrInput = 0x33003;          // transaction input not well-formed

// Bytes a TLV with this tag and value length occupies when written by TLV_New.
constexpr uint32_t TagSize(uint32_t tag) {
    return 1u + ((tag >> 24) != 0) + (((tag >> 16) & 0xFF) != 0) + (((tag >> 8) & 0xFF) != 0);
}
constexpr uint32_t LenSize(uint32_t len) {
    return len <= 0x7F ? 1u : 2u + ((len >> 8) != 0) + ((len >> 16) != 0) + ((len >> 24) != 0);
}
constexpr uint32_t ElementSize(uint32_t tag, uint32_t len) {
    return TagSize(tag) + LenSize(len) + len;
}

// One checked writer for a fixed buffer: every write either fits whole or is
// refused (nothing written, ok() turns false).
class Writer {
public:
    Writer(uint8_t *buf, uint32_t cap, uint32_t used = 0) : buf_(buf), cap_(cap), len_(used) {}

    bool put(uint8_t b) {
        if (!fits(1)) return false;
        buf_[len_++] = b;
        return true;
    }
    // Out of line (tlv.cpp): one copy for every step that writes.
    bool put(const uint8_t *src, uint32_t n);
    bool zeros(uint32_t n);
    uint8_t *data() const { return buf_; }
    uint32_t size() const { return len_; }
    uint32_t capacity() const { return cap_; }
    uint32_t room() const { return cap_ - len_; }
    bool ok() const { return ok_; }

private:
    bool fits(uint32_t n) {
        if (n > cap_ - len_) ok_ = false;
        return ok_;
    }
    uint8_t *buf_;
    uint32_t cap_;
    uint32_t len_;
    bool ok_ = true;
};

// ---- Codec bounds (tlv.cpp) -------------------------------------------------

// Copies n bytes, correctly also when the two ranges overlap (a move inside
// one buffer runs in the direction that keeps the source intact).
void CopyBytes(uint8_t *dst, const uint8_t *src, uint32_t n);

// TLV_New into dst only if the element fits in cap bytes; bytes written or 0.
uint32_t NewChecked(uint8_t *dst, uint32_t cap, uint32_t tag, const uint8_t *value, uint32_t len);

// TLV_AddTag to the constructed element at parent, which lives at the start
// of an area of cap bytes, only if the parent (with any header growth) still
// fits; the parent's new total length, or 0 when refused.
uint32_t AddTagChecked(uint8_t *parent, uint32_t cap, uint32_t tag, const uint8_t *value,
                       uint32_t len);

// TLV_AddTag_UpDataMode with the same bound.
uint32_t AddTagUpdateChecked(uint8_t *parent, uint32_t cap, uint32_t tag, const uint8_t *value,
                             uint32_t len);

// TLV_AddTag_UpDataMode with the same bound, for a direct child only: the
// first child with the tag takes the value in place when it has the same
// length, else it leaves and the new element goes to the end. No search
// enters the children, so one that is malformed inside changes nothing.
uint32_t ReplaceChildChecked(uint8_t *parent, uint32_t cap, uint32_t tag, const uint8_t *value,
                             uint32_t len);

// The database's lookup over the children in [first, end) of its 7F01: the
// first child with the tag, or null. The same result as TLV_FindChildTag on
// a list written only by the codec's builders, as the database is.
uint8_t *FindStoredChild(uint8_t *first, const uint8_t *end, uint32_t tag);

// Removes child, an element inside the value of the constructed parent (as
// TLV_FindChildTag returns it), rewriting only the parent's length the way
// TLV_DelTag does. The parent's new total length; 0 (nothing changed) when
// child does not lie whole inside the parent's value.
uint32_t DelChild(uint8_t *parent, uint8_t *child);

// Total length of the element at p when its header and its whole tree lie
// within n bytes and are well formed (TLV_Check_Format's walk over that
// length, the first byte taken as the tag even when it is FF); 0 otherwise.
// Use it before walking bytes whose length is not trusted.
uint32_t WellFormedLen(const uint8_t *p, uint32_t n);

// Depth-first search like TLV_FindTag, over a sequence of top-level elements
// filling exactly len bytes (checked first); null when absent or malformed.
uint8_t *FindInSequence(uint8_t *p, uint32_t len, uint32_t tag);

// The shape of the host's transaction input as kernel start takes it, read
// without looking inside the elements: the issuer's scripts among them are
// judged one by one where they run, and one malformed inside must not cost
// the rest.
//
// True when elements (padding skipped before each, as TLV_Check_Format skips
// it) fill exactly len bytes at p, each within the bytes left.
bool SequenceFits(const uint8_t *p, uint32_t len);
// Total length of the element at p when it lies within n bytes and, if it is
// constructed, its children fill its value as SequenceFits says; 0 otherwise.
uint32_t OuterLen(const uint8_t *p, uint32_t n);
// Depth-first search like FindInSequence over len bytes whose top-level
// elements fit (SequenceFits), where an element malformed inside another one
// ends only that one's walk: the search goes on behind it. Null when absent.
// Without `padding` no padding is skipped, as TLV_FindTag skips none.
uint8_t *FindInInput(uint8_t *p, uint32_t len, uint32_t tag, bool padding = true);

// ---- Database bounds (Database.cpp) ------------------------------------------

// VelkDataBase_Get_TagValue into a buffer of cap bytes: copies at most cap
// value bytes (the "read up to N bytes" of the processing steps); *len receives the number copied.
// 0, or 0x31004 when the tag is absent (*len untouched).
uint32_t DbGet(uint32_t tag, uint8_t *out, uint32_t cap, uint32_t *len);

// The kernel's own tags (configuration, intermediate results, outcome), which
// no card source may set; and the check every card source applies.
bool KernelOwnTag(uint32_t tag);
bool CardMaySet(uint32_t tag);

// ---- Data records (Database.cpp) ----------------------------------------------

// VelkCless_Create_2ndGAC_OnlineData_DataRecord into a container of cap bytes
// (the constructed element already started at container); *len receives the
// container's total length after each element added.
void CreateOnlineRecord(uint8_t *container, uint32_t cap, uint32_t *len);

// ---- Callback messages (callback.cpp) ----------------------------------------

// Starts a callback message 7F01 { DF00 = command } in the exchange buffer,
// clearing the whole buffer first when clear is true.
void MsgBegin(uint8_t command, bool clear = true);
// Appends a payload element; false (nothing written) when the exchange buffer
// would overflow.
bool MsgAdd(uint32_t tag, const uint8_t *value, uint32_t len);
// Calls the host with the message. 0; the callback's own non-zero status; or
// kErrHostReply when the reply is not one well-formed TLV inside the buffer.
uint32_t MsgCall();
// The root of the host's reply (meaningful after MsgCall returned 0).
uint8_t *MsgReply();

// ---- Host parameters (DataElement_EEPROM_Process.cpp) -------------------------

// Stores one element of the host's parameters (a child of the input's 7F11 or
// of a D1 or D3 reply, inside a tree already checked well formed) in the
// database: BF70 and BF71 with their whole encoding (tag, length and value)
// as the stored value, so that the data element steps reach the update
// entries and the GDDOL as the children of the stored value's first element;
// every other tag with its value. The result of VelkDataBase_Set_TAG.
uint32_t SetHostParameter(uint8_t *element);

// ---- Offline data authentication (algorithm.cpp) -----------------------------

// Failure codes of the recovery bounds. A key or a signed block that its
// fixed recovery area or its layout cannot hold is refused before any RSA
// call or copy, so that no position of a layout is ever computed from a
// length too short for it.
inline constexpr uint32_t kErrCaKeySize =
    0x31220;  // CA modulus over the 256-byte area or under the 36 bytes of the layout
inline constexpr uint32_t kErrIssuerKeySize =
    0x31221;  // issuer modulus over its area (512 bytes, SDA 300) or under 42 bytes
inline constexpr uint32_t kErrIccKeySize =
    0x31222;  // ICC modulus over the 300-byte area or under 25 bytes
inline constexpr uint32_t kErrSignedStaticSize =
    0x31223;  // Signed Static Application Data over 300 bytes or under 26
inline constexpr uint32_t kErrDynamicDataLayout =
    0x31224;  // ICC dynamic data reaching the hash, or a dynamic number past it

// The frame of every recovered block: header 6A at position 0, then the
// 20-byte hash and the trailer BC at the end. The hash input starts at
// position 1 and stops before the hash (N - 22 bytes).
inline constexpr uint8_t kRecoveredHeader = 0x6A;
inline constexpr uint8_t kRecoveredTrailer = 0xBC;
inline constexpr uint32_t kHashLen = 20;
inline constexpr uint32_t kRecoveredTail = kHashLen + 1;
inline constexpr uint32_t kNotHashed = 1 + kRecoveredTail;
inline constexpr uint8_t kSha1Indicator = 0x01;
inline constexpr uint8_t kCamDda = 3;  // Offline_CAM_Selected_Indicator
inline constexpr uint8_t kTvr1IccDataMissing = 0x20;

// A data element that must be stored, and the failure its absence gives.
struct RequiredTag {
    uint32_t tag;
    uint32_t code;
};
// The code of the first tag absent (or, with needValue, empty); 0 when all
// are there.
uint32_t FirstAbsent(const RequiredTag *tags, uint32_t count, bool needValue);
template <uint32_t N>
uint32_t FirstAbsent(const RequiredTag (&tags)[N], bool needValue) {
    return FirstAbsent(tags, N, needValue);
}

// A checked writer over the exchange buffer for a hash input, from its first
// byte. With clearAll the whole buffer is zeroed first, else its first 4
// bytes.
Writer ExchangeHashInput(bool clearAll);
// Appends a stored value to a hash input when the tag is present.
void AppendStored(Writer &hash, uint32_t tag);
// SHA-1 of the writer's bytes against the 20 bytes at expected: 0 when they
// agree, errMismatch when not, 0x31006 when the input did not fit in the
// buffer (it is refused there, after it was assembled, and nothing was
// written past the buffer).
uint32_t CompareHashInput(const Writer &hash, const uint8_t *expected, uint32_t errMismatch);

// ---- Transaction control (VelkKernel_Process.cpp) ----------------------------

// The constructed 7F11 of the transaction input (len bytes at input, found
// as FindInInput finds it); null when it is absent.
uint8_t *InputTemplate(uint8_t *input, uint32_t len);

// The input edits of the restart after an ECHO communication error: 9F06 and
// 9F872B leave the 7F11 (as direct children), the FCI (when fci is not null)
// takes the place of any 9F8201 in it, whatever followed the 7F11 is dropped
// and cleared, and *len becomes the input's new length. The 7F11 stays inside
// the first VELK_IO_BUFFER_MIN_LEN bytes of input. False, with *len unchanged
// (the removals may already be done), when the input has no 7F11, the FCI
// does not fit or the 7F11 would no longer hold whole children.
bool EchoRestartInput(uint8_t *input, uint32_t *len, const uint8_t *fci, uint32_t fciLen);

// The first element with this tag in the dynamic transaction parameters
// (depth first, as FindInInput finds it without padding), or null.
uint8_t *DtpFind(uint32_t tag);

// Replaces the child of the dynamic transaction parameters with this tag (or
// adds it), keeping them under 512 bytes; false, with nothing changed, when
// it would not fit.
bool DtpReplace(uint32_t tag, const uint8_t *value, uint32_t len);

// The outcome TLV 7F01 of the current outcome, written into cap bytes at out.
// *len follows the packet's length after each element; an element that would
// pass cap is left out whole and the packet stays well formed. Nothing is
// written when not even the empty 7F01 fits.
void BuildOutcomePacket(uint8_t *out, uint32_t cap, uint32_t *len);

// ---- Card responses of the payment steps (InitiateApplicationProcessing.cpp,
//      CAA.cpp) -----------------------------------------------------------------

// True when a response of len bytes ends in the status word 90 00. A response
// shorter than 2 bytes has no status word and never passes.
bool StatusIs9000(const uint8_t *rapdu, uint32_t len);

// Endings shared by the steps that talk to the card. Each raises its outcome,
// sets step 0 and returns what the step returns: a communication error ends
// the payment as not completed (0), a stop by the reader ends with the
// cancellation (0x30101), a broken card answer with Transaction Completed on
// Error (0).
uint32_t EndCommunicationError();
uint32_t EndStopped();
uint32_t EndOnError();

// Reads the tag and requested length of the DOL entry at dol[pos] (pos below
// len) without reading past the DOL. The entry's size, or 0 when it runs past
// the end of the DOL.
uint32_t ReadDolEntry(const uint8_t *dol, uint32_t len, uint32_t pos, uint32_t *tag, uint32_t *n);

// Total length that the header at p declares for its element, decoded from at
// most n bytes; 0 when the header itself does not fit in n bytes.
uint32_t DeclaredLen(const uint8_t *p, uint32_t n);

// The value of an element inside a checked tree, located from the same header
// decoding as its total length. (TLV_GetValue reads a length byte 84 or above
// as a longer field than the one the total length counts, so on card data
// its pointer plus the length could pass the element.)
uint8_t *ElementValue(uint8_t *element);

// The children of a constructed element whose whole tree was checked
// (WellFormedLen or TLV_Check_Format). Padding (a run of FF then a run of 00)
// is skipped as the codec does, but never past the parent's end, and the
// walk keeps no module state, so it nests freely with the codec's iterators.
struct Children {
    uint8_t *parent;
    uint32_t pos;  // offset from parent of the next byte to look at
    uint32_t end;  // the parent's total length
};
Children ChildrenOf(uint8_t *parent);
// The next child, or null at the end (or at a child that would pass the end).
uint8_t *NextChild(Children &walk);

// What a GENERATE AC response template held: the objects the analysis needs,
// each counted only with the length the analysis requires.
struct GacObjects {
    bool cid;   // 9F27, 1 byte
    bool atc;   // 9F36, 2 bytes
    bool ac;    // 9F26, 8 bytes
    bool sdad;  // 9F4B, any length
    bool iad;   // 9F10, any length
    bool c5;    // C5 with at least its first byte (copied to 9F9316)
    uint8_t cidValue;
    uint8_t c5Byte1;
};
// Stores every data object of the GENERATE AC response template at tpl (tag
// 77 already tested), which must fill exactly len bytes and be well formed.
// false when it does not, or at the first object whose length is outside its
// range in the tag property table (objects before it stay stored).
bool StoreGacResponse(uint8_t *tpl, uint32_t len, GacObjects *seen);

// Sends GENERATE AC with reference control parameter p1 and the related data
// of the CDOL stored under cdolTag (95 is written first so that the CDOL may
// ask for the TVR); the related data are stored under dataTag unless it is 0,
// and 9F820B = 01 is written after them when markCda is set. The response
// goes to ucLastRAPDU (260 bytes) and its length to uiLastRAPDULen. The
// result of VelkCless_ExchangeAPDU.
uint32_t SendGenerateAc(uint32_t cdolTag, uint8_t p1, uint32_t dataTag, bool markCda);

}  // namespace velk

#endif  // VELK_CHECKED_HPP
