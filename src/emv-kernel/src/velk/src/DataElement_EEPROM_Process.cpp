// SPDX-License-Identifier: Apache-2.0
// Data element retrieval and update in the card's memory.
//
// The host configures both in the database: BF71 holds the GDDOL 9F70 (the
// tags to read with GET DATA), BF70 the update entries (A2 before GPO, A3
// after the GPO response, A4 after the first GENERATE AC), each beginning
// with the data element to write with PUT DATA. BF70 and BF71 are stored with
// their whole encoding as their value (see SetHostParameter), so the entries
// and the GDDOL are the children of the first element of the stored value.
//
// Bounds, each with a defined result:
// - The GDDOL is read from a 256-byte work list: a longer 9F70 counts with
//   its first 256 bytes, and an entry cut at that end is dropped.
// - The retrieved elements (9F71) must travel in the outcome's discretionary
//   data together with 9F74, whose work area is VELK_RECORD_WORK_LEN bytes:
//   an element that would take 9F71 past kMaxGddolResult bytes is left out,
//   and retrieval goes on with the next tag (the card sees the same commands
//   whatever the lengths, and a shorter later element may still fit).
// - A GET DATA or PUT DATA response longer than a short R-APDU (256 data
//   bytes and the status word) is an exchange failure (0x30105).
// - An update entry the kernel cannot send (longer than its 300-byte copy, no
//   well-formed leading element inside the entry, or a value too long for a
//   short APDU's Lc) is refused: it counts as a failed update, with its
//   setting byte's stop bit, exactly as if the card had refused it. Skipping
//   it instead would report an update that never happened as a success.
#include "baseKernel.h"
#include "checked.hpp"
#include "reg_std.h"
#include "tlv.h"

namespace velk {

uint32_t SetHostParameter(uint8_t *element) {
    const uint32_t tag = TLV_GetTag(element);
    if (tag == 0xBF70 || tag == 0xBF71)
        return VelkDataBase_Set_TAG(tag, TLV_GetTlvTotalLen(element), element);
    return VelkDataBase_Set_TAG(tag, TLV_GetLen(element), TLV_GetValue(element));
}

}  // namespace velk

namespace {

constexpr uint32_t kStopped = 0x30101;
constexpr uint8_t kRetrievalType = 0x78;
constexpr uint8_t kUpdateType = 0x79;
constexpr uint8_t kOptionRetrieval = 0x80;
constexpr uint8_t kOptionUpdate = 0x40;

constexpr uint32_t kStepGpo = 0x1300;
constexpr uint32_t kStepReadRecord = 0x1400;
constexpr uint32_t kStepUpdateBeforeGpo = 0x2610;
constexpr uint32_t kStepBalance = 0x2700;

constexpr uint32_t kGddolLen = 256;
// The longest header Get_TagAndLen_Ex reads (4 tag bytes, 4 length bytes):
// zeros behind the work list keep an entry cut at its end inside the array.
constexpr uint32_t kHeaderSlack = 8;
// A short R-APDU: 256 data bytes and the status word.
constexpr uint32_t kResponseLen = 258;
constexpr uint32_t kEntryLen = 300;
constexpr uint32_t kMaxLc = 255;
constexpr uint32_t kPutDataHeader = 5;  // 00 DA P1 P2 Lc

constexpr uint32_t kUpdateResult = 0x9F74;
constexpr uint32_t kGddolResult = 0x9F71;
constexpr uint32_t kContainer = 0x7F00;
constexpr uint32_t kLongLen = 0xFFFF;  // stands for a three-byte length field

// 9F71's value may grow until the discretionary data FF8106 {9F71, 9F74}
// fills its work area exactly.
constexpr uint32_t kMaxGddolResult =
    VELK_RECORD_WORK_LEN - (velk::TagSize(0xFF8106) + velk::LenSize(kLongLen)) -
    velk::ElementSize(kUpdateResult, 2) - (velk::TagSize(kGddolResult) + velk::LenSize(kLongLen));
static_assert(velk::ElementSize(0xFF8106, velk::ElementSize(kGddolResult, kMaxGddolResult) +
                                              velk::ElementSize(kUpdateResult, 2)) ==
              VELK_RECORD_WORK_LEN);
// The work container 7F00 whose value becomes 9F71.
constexpr uint32_t kContainerCap = velk::ElementSize(kContainer, kMaxGddolResult);
static_assert(kContainerCap <= 1024);

constexpr uint8_t kResultFailed = 1;
constexpr uint8_t kResultSucceeded = 2;
constexpr uint8_t kSettingStop = 0x01;

uint8_t Type() {
    return VelkCless_Get_TransactionType();
}

bool Option(uint8_t bit) {
    return VelkCless_Check_ImplementationOption_IsTrue(bit) != 0;
}

uint32_t &UpdatedCount() {
    return pgbVelkGlobalValue->NumOfDataElementUpDated;
}

uint32_t NextStep(uint32_t step) {
    VelkCless_SetTransactionStep(step);
    return 0;
}

uint32_t EndWith(uint32_t (*outcome)(uint8_t), uint8_t flag) {
    (void)outcome(flag);
    return NextStep(0);
}

// The first element of a host template's stored value (its whole encoding,
// BF70 L ... or BF71 L ...), checked to lie well formed inside the value; null
// when the template is absent, has nothing inside, or is not in that shape.
uint8_t *StoredTemplate(uint32_t tag) {
    OBJECT_TAG t = {0, 0, nullptr};
    if (VelkDataBase_GetTagValue(tag, &t) != 0 || t.uiLength == 0) return nullptr;
    if (velk::WellFormedLen(t.pValue, t.uiLength) == 0 || TLV_GetLen(t.pValue) == 0) return nullptr;
    return t.pValue;
}

// ---- Retrieval ---------------------------------------------------------------

// The first byte of a tag held in the low-order bytes.
uint8_t FirstTagByte(uint32_t tag) {
    while (tag > 0xFF)
        tag >>= 8;
    return static_cast<uint8_t>(tag);
}

// The value the card gave for a requested tag: the value of the first
// element of the response data, when the card accepted the command and that
// element is well formed. A constructed tag takes it only when it is a
// well-formed sequence of elements, so 9F71 stays one well-formed tree.
// Anything else counts as a refusal: the tag with an empty value.
struct Retrieved {
    const uint8_t *value = nullptr;
    uint32_t len = 0;
};
Retrieved RetrievedValue(uint32_t tag, uint8_t *rapdu, uint32_t rlen) {
    Retrieved r;
    if (!velk::StatusIs9000(rapdu, rlen)) return r;
    const uint32_t dataLen = rlen - 2;
    if (velk::WellFormedLen(rapdu, dataLen) == 0) return r;
    uint8_t *value = TLV_GetValue(rapdu);
    uint32_t len = TLV_GetLen(rapdu);
    if ((FirstTagByte(tag) & 0x20) != 0 && len != 0 && TLV_Check_Format(value, &len) == 0) return r;
    r.value = value;
    r.len = len;
    return r;
}

// Puts a retrieved element into the work container with the semantics of
// TLV_AddTag_UpDataMode (a tag already there takes the new value), as a
// direct child only: a tag that the container holds as its own tag or inside
// a constructed element would be edited in place there, breaking the lengths
// around it, so the new element is left out. Also left out when the
// container would pass its bound (the earlier value of a repeated tag stays).
// Whether the element went in.
bool PutRetrieved(uint8_t *container, uint32_t tag, const Retrieved &r) {
    const uint8_t *anywhere = TLV_FindTag(container, tag);
    if (anywhere != nullptr && anywhere != TLV_FindChildTag(container, tag)) return false;
    return velk::ReplaceChildChecked(container, kContainerCap, tag, r.value, r.len) != 0;
}

// GET DATA for each tag of the GDDOL in order, the results collected in the
// container. 0, or kStopped when the reader cancelled; any other exchange
// failure ends the list with what was collected. *put tells whether any
// element was put.
uint32_t RetrieveList(const uint8_t *gddol, uint32_t gddolLen, uint8_t *container, bool *put) {
    uint8_t list[kGddolLen + kHeaderSlack];
    Memset_(list, 0, sizeof list);
    const uint32_t n = gddolLen < kGddolLen ? gddolLen : kGddolLen;
    if (n != 0) Memcpy_(list, gddol, static_cast<int>(n));

    uint32_t pos = 0;
    while (pos < n) {
        uint32_t tag = 0;
        uint32_t len = 0;
        const uint32_t header = Get_TagAndLen_Ex(list + pos, &tag, &len);
        if (header == 0) {  // a padding byte between entries
            ++pos;
            continue;
        }
        if (header > n - pos) break;  // an entry cut at the end of the list
        pos += header;

        uint8_t rapdu[kResponseLen];
        uint32_t rlen = sizeof rapdu;
        const uint32_t rc = VelkCless_APDU_GetData(tag, rapdu, &rlen);
        if (rc == kStopped) return kStopped;
        if (rc != 0) break;
        if (PutRetrieved(container, tag, RetrievedValue(tag, rapdu, rlen))) *put = true;
    }
    return 0;
}

// Steps 3 to 5 of the retrieval: 9F71 stored when anything was collected.
uint32_t RetrieveElements(bool *put) {
    uint8_t *bf71 = StoredTemplate(0xBF71);
    if (bf71 == nullptr) return 0;
    uint8_t *gddol = TLV_FindTag(bf71, 0x9F70);
    if (gddol == nullptr || TLV_GetLen(gddol) == 0) return 0;

    uint8_t container[kContainerCap];
    (void)TLV_New(container, kContainer, nullptr, 0);
    // The GDDOL is copied first: the database does not move while the list is
    // read, but the list must not depend on that.
    const uint32_t rc = RetrieveList(TLV_GetValue(gddol), TLV_GetLen(gddol), container, put);
    if (rc != 0) return rc;
    const uint32_t len = TLV_GetLen(container);
    if (len != 0) (void)VelkDataBase_Set_TAG(kGddolResult, len, TLV_GetValue(container));
    return 0;
}

// ---- Updates -----------------------------------------------------------------

// What one update moment found; the working flags of the update steps.
struct UpdateRun {
    bool processed = false;  // UpDate
    uint8_t result = 0;      // DataElementsUpdateResult: 0 none, 1 failed, 2 succeeded
    bool communicationProblem = false;
    bool stopped = false;  // the reader cancelled (0x30101)
    uint8_t setting = 0;   // MemorySlotUpdateEntrySetting of the last entry processed
};

// The setting byte of an entry: the first value byte of its tag 85, 0 when
// there is none (or it is empty).
uint8_t SettingOf(uint8_t *entry) {
    uint8_t *setting = TLV_FindTag(entry, 0x85);
    if (setting == nullptr || TLV_GetLen(setting) == 0) return 0;
    return *TLV_GetValue(setting);
}

enum class Sent : uint8_t { Accepted, Refused, ExchangeFailed, Stopped };

// PUT DATA for the leading element of an entry: 00 DA P1 P2 Lc data, P1 P2
// the low 16 bits of the element's tag, the data its value.
Sent PutData(const uint8_t *entry, uint32_t entryLen) {
    if (entryLen > kEntryLen) return Sent::Refused;
    uint8_t copy[kEntryLen];
    Memcpy_(copy, entry, static_cast<int>(entryLen));

    const uint32_t valueLen = TLV_GetLen(copy);
    uint8_t *element = TLV_GetValue(copy);
    if (velk::WellFormedLen(element, valueLen) == 0) return Sent::Refused;
    const uint32_t tag = TLV_GetTag(element);
    const uint32_t lc = TLV_GetLen(element);
    if (lc > kMaxLc) return Sent::Refused;

    uint8_t apdu[kPutDataHeader + kMaxLc];
    velk::Writer w(apdu, sizeof apdu);
    const uint8_t header[kPutDataHeader] = {0x00, 0xDA, static_cast<uint8_t>(tag >> 8),
                                            static_cast<uint8_t>(tag), static_cast<uint8_t>(lc)};
    (void)w.put(header, sizeof header);
    (void)w.put(TLV_GetValue(element), lc);

    uint8_t rapdu[kResponseLen];
    uint32_t rlen = sizeof rapdu;
    const uint32_t rc = VelkCless_ExchangeAPDU(w.data(), w.size(), rapdu, &rlen);
    if (rc == kStopped) return Sent::Stopped;
    if (rc != 0) return Sent::ExchangeFailed;
    return velk::StatusIs9000(rapdu, rlen) ? Sent::Accepted : Sent::Refused;
}

// Processes the entries of one kind (A2, A3 or A4) of the stored BF70 in
// order: each entry that `skip` does not leave out raises the count, sends
// its PUT DATA and records the result; the first failure ends the run.
template <typename Skip>
void ProcessEntries(uint8_t *bf70, uint32_t kind, UpdateRun &run, Skip skip) {
    for (uint8_t *entry = TLV_GetFirstChildTag(bf70); entry != nullptr;
         entry = TLV_GetNextChildTag(bf70)) {
        if (TLV_GetTag(entry) != kind) continue;
        const uint8_t setting = SettingOf(entry);
        if (skip(setting)) continue;
        run.processed = true;
        run.setting = setting;
        ++UpdatedCount();
        run.result = kResultSucceeded;

        // The exchange goes through the host; the iteration over BF70 must
        // come back exactly where it was, whatever the codec did meanwhile.
        TLV_GetNextChildTagPosition at = {0, 0};
        (void)TLV_GetNextChlidTagPosition(&at);
        const Sent sent = PutData(entry, TLV_GetTlvTotalLen(entry));
        (void)TLV_SetNextChlidTagPosition(&at);

        if (sent == Sent::Accepted) continue;
        run.result = kResultFailed;
        run.stopped = sent == Sent::Stopped;
        run.communicationProblem = sent == Sent::ExchangeFailed;
        return;
    }
}

constexpr auto kNoSkip = [](uint8_t) { return false; };

// 9F74: the result, and the elements updated (the failed one not counted).
// The count is one byte; more than 255 updates read as 255.
void StoreUpdateResult(uint8_t result) {
    uint32_t count = UpdatedCount();
    if (result == kResultFailed && count != 0) --count;
    const uint8_t value[2] = {result, static_cast<uint8_t>(count > 0xFF ? 0xFF : count)};
    (void)VelkDataBase_Set_TAG(kUpdateResult, sizeof value, value);
}

void StoreIfUpdated(const UpdateRun &run) {
    if (UpdatedCount() != 0 && run.processed) StoreUpdateResult(run.result);
}

// The first byte of 9F74 as stored now, 0 when absent or empty.
uint8_t UpdateResultByte() {
    OBJECT_TAG t = {0, 0, nullptr};
    if (VelkDataBase_GetTagValue(kUpdateResult, &t) != 0 || t.uiLength == 0) return 0;
    return t.pValue[0];
}

bool FailedWithStop(const UpdateRun &run) {
    return run.result == kResultFailed && (run.setting & kSettingStop) != 0;
}

// The after-GPO and after-GENERATE AC moments: nothing is sent once an
// earlier moment recorded a failure.
template <typename Skip>
UpdateRun LaterMoment(uint32_t kind, Skip skip) {
    UpdateRun run;
    if (UpdateResultByte() == kResultFailed) {
        run.result = kResultFailed;
        return run;
    }
    uint8_t *bf70 = StoredTemplate(0xBF70);
    if (bf70 != nullptr) ProcessEntries(bf70, kind, run, skip);
    return run;
}

}  // namespace

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
    const bool retrieval = Type() == kRetrievalType;
    if (!Option(kOptionRetrieval)) {
        if (retrieval)
            return EndWith(VelkCless_NonFinancial_Transaction_completed_Retrieval_of_data_elements,
                           0);
        return NextStep(kStepUpdateBeforeGpo);
    }
    bool put = false;
    if (RetrieveElements(&put) == kStopped) return velk::EndStopped();
    if (!retrieval) return NextStep(Option(kOptionUpdate) ? kStepUpdateBeforeGpo : kStepGpo);
    return EndWith(VelkCless_NonFinancial_Transaction_completed_Retrieval_of_data_elements,
                   put ? 1 : 0);
}

uint32_t VelkCless_Update_of_Data_Element_values_in_EEPROM(void) {
    UpdatedCount() = 0;
    const bool update = Type() == kUpdateType;
    if (!update && !Option(kOptionUpdate)) return NextStep(kStepGpo);

    UpdateRun run;
    uint8_t *bf70 = Option(kOptionUpdate) ? StoredTemplate(0xBF70) : nullptr;
    if (bf70 != nullptr) {
        run.processed = true;
        ProcessEntries(bf70, 0xA2, run, kNoSkip);
    }
    if (run.stopped) return velk::EndStopped();

    // Looked for before 9F74 is stored: bf70 points into the database, and
    // storing 9F74 can grow the database's length field and move every
    // element behind it.
    const bool noA3 = bf70 != nullptr && TLV_FindTag(bf70, 0xA3) == nullptr;
    StoreIfUpdated(run);
    const uint8_t flag = run.processed ? 1 : 0;
    if (run.communicationProblem) {
        if (!update) return velk::EndCommunicationError();
        return EndWith(VelkCless_NonFinancial_Transaction_completed_Data_Elements_Update, flag);
    }
    // An update transaction without anything to do before GPO, or without
    // anything left for after it, ends here; a payment only on a failed
    // update that its entry marks as stopping.
    bool terminate = false;
    if (!run.processed)
        terminate = update;
    else if (update)
        terminate = FailedWithStop(run) || noA3;
    else
        terminate = FailedWithStop(run);
    if (terminate)
        return EndWith(VelkCless_NonFinancial_Transaction_completed_Data_Elements_Update, flag);
    return NextStep(kStepGpo);
}

uint32_t VelkCless_Update_of_Data_Element_values_in_EEPROM_after_GPO_command(void) {
    if (!Option(kOptionUpdate)) return NextStep(kStepReadRecord);
    const UpdateRun run = LaterMoment(0xA3, kNoSkip);
    if (run.stopped) return velk::EndStopped();

    const bool update = Type() == kUpdateType;
    if (run.communicationProblem && !update) return velk::EndCommunicationError();
    StoreIfUpdated(run);
    if (update)
        return EndWith(VelkCless_NonFinancial_Transaction_completed_Data_Elements_Update,
                       VelkCless_GDDOLResult_and_DataUpdateResult_IsPresent());
    if (FailedWithStop(run)) {
        (void)VelkCless_Financial_Transaction_Completed_Transaction_declined_AAC(1);
        return NextStep(0);
    }
    return NextStep(kStepReadRecord);
}

uint32_t VelkCless_Update_of_Data_Element_values_in_EEPROM_after_CAA(void) {
    // Without updates this step goes back to READ RECORD, like the step after
    // GPO; the analysis of GENERATE AC never sends it here then.
    if (!Option(kOptionUpdate)) return NextStep(kStepReadRecord);

    // The conditions of the A4 entries compare their setting byte with the
    // first byte of 9F74 as it stands now, not with the cryptogram the card
    // returned; integrators configure the entries for exactly that.
    const uint8_t b = UpdateResultByte();
    const UpdateRun run = LaterMoment(0xA4, [b](uint8_t s) {
        return ((b & 0x80) != 0 && (s & 0x80) != 0) || ((b & 0x40) != 0 && (s & 0x40) != 0) ||
               ((b & 0xC0) == 0 && (s & 0x20) != 0);
    });
    if (run.stopped) return velk::EndStopped();
    // A communication problem only ends the entries here: the payment's
    // result is already settled by GENERATE AC.
    StoreIfUpdated(run);
    return NextStep(kStepBalance);
}

}  // extern "C"
