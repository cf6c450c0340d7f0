// SPDX-License-Identifier: Apache-2.0
// Whole transactions through the exported entry functions, with the fuzzer's
// bytes as every card response, every host reply and every signal (see
// transaction_script.hpp for the records). Up to four transactions run on one
// bound block, so a second entry (8A in the input, the A3 context from a
// record) follows a first tap as a host would run it.
//
// The kernel waits without a time-out for a signal after D6 and after an APDU
// answered without DF03; the fuzz host always leaves one in the queue there
// (a stop, A1, when the script has none), so that no input hangs.
//
// After every request and every transaction the kernel's lengths must be
// inside their buffers; ASan sees the exchange buffer, the block and the IO
// buffer only from outside, so the lengths inside the block are checked here.
// The shapes are not: the codec's own rules (padding FF, tags of at most four
// bytes) let a host store elements a strict BER reader would parse otherwise.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <vector>

#include "fuzz_input.hpp"
#include "transaction_pki.hpp"
#include "transaction_script.hpp"

#include "baseKernel.h"
#include "checked.hpp"
#include "emv_kernel.h"
#include "global.h"
#include "tlv.h"

namespace {

using namespace velk::fuzz;

// A broken invariant names itself before the abort that libFuzzer reports.
void Check(bool ok, const char *what, int line) {
    if (ok) return;
    std::fprintf(stderr, "transaction_fuzz.cpp:%d: %s\n", line, what);
    Require(false);
}
#define CHECK(x) Check((x), #x, __LINE__)

constexpr int kMaxTransactions = 4;
constexpr uint32_t kRefused = 0x3FFFF;

alignas(8) uint8_t g_block[VELK_LOCAL_PARAM_MIN_LEN];
ScriptReader *g_script = nullptr;
FuzzPki g_pki;
// Signal data stays where the kernel was told it is until the next input.
std::deque<std::vector<uint8_t>> g_signalData;

void CheckState() {
    const VELK_GLOBALVALUE_STRUCT &g = *pgbVelkGlobalValue;
    CHECK(g.uiUseBuflen <= sizeof g.ucDataBasebuf);
    CHECK(TLV_GetTag(g.ucDataBasebuf) == 0x7F01);
    const uint32_t db = TLV_GetTlvTotalLen(g.ucDataBasebuf);
    CHECK(db <= sizeof g.ucDataBasebuf);
    CHECK(g.uiDynamicTransactionParametersLen <= sizeof g.ucDynamicTransactionParameters);
    CHECK(g.uiLastRAPDULen <= sizeof g.ucLastRAPDU);
    CHECK(g.ODA_AuthData_len <= sizeof g.ODA_AuthData);
}

void Post(const Record &r, bool withData) {
    const uint8_t type = r.size > 0 ? r.data[0] : 0;
    ClessSignal_Message signal{type, nullptr, 0};
    if (withData) {
        g_signalData.emplace_back(r.data + (r.size > 0 ? 1 : 0), r.data + r.size);
        signal.MessageData = g_signalData.back().data();
        signal.uiMessageDatalen = static_cast<uint32_t>(g_signalData.back().size());
    } else {
        signal.uiMessageDatalen = r.size > 1 ? Be32(r.data + 1, r.size - 1) : 0;
    }
    Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&signal));
}

void Write(uint8_t *buffer, uint32_t *len, const uint8_t *data, size_t size) {
    const size_t n = size < VELK_EXCHANGE_BUFFER_LEN ? size : VELK_EXCHANGE_BUFFER_LEN;
    if (n != 0) std::memcpy(buffer, data, n);
    *len = static_cast<uint32_t>(n);
}

// 7F01 { [DF03] data }, the value cut to what the exchange buffer holds.
void WriteWrapped(uint8_t *buffer, uint32_t *len, const Record &r, bool rapdu) {
    const uint32_t room = VELK_EXCHANGE_BUFFER_LEN - 16;
    const uint32_t n = static_cast<uint32_t>(r.size < room ? r.size : room);
    if (rapdu) {
        velk::NewChecked(buffer, VELK_EXCHANGE_BUFFER_LEN, 0x7F01, nullptr, 0);
        *len = velk::AddTagChecked(buffer, VELK_EXCHANGE_BUFFER_LEN, 0xDF03, r.data, n);
    } else {
        *len = velk::NewChecked(buffer, VELK_EXCHANGE_BUFFER_LEN, 0x7F01, r.data, n);
    }
}

// Answers one request from the script: signals first, then the answer.
uint32_t Answer(uint8_t *buffer, uint32_t *len) {
    while (!g_script->Done() && g_script->PeekKind() != kStart) {
        const Record r = g_script->Next();
        switch (r.kind) {
            case kPost:
                Post(r, true);
                break;
            case kPostNull:
                Post(r, false);
                break;
            case kReplyRaw:
                Write(buffer, len, r.data, r.size);
                return 0;
            case kReplyLying:
                Write(buffer, len, r.data + (r.size < 4 ? r.size : 4), r.size < 4 ? 0 : r.size - 4);
                *len = Be32(r.data, r.size);
                return 0;
            case kWrapped:
            case kRapdu:
                WriteWrapped(buffer, len, r, r.kind == kRapdu);
                return 0;
            case kFail:
                return r.size >= 4 ? Be32(r.data, r.size) : kRefused;
            case kKeep:
                return 0;
            default:
                break;  // an unknown record is skipped
        }
    }
    return kRefused;  // the script is over: every further request fails
}

// Whether the kernel is about to wait for a signal after this answer; when in
// doubt, yes (a spare signal is harmless, a missing one hangs).
bool KernelWaits(uint8_t command, uint32_t status, const uint8_t *buffer) {
    if (status != 0) return false;
    if (command == VELK_CMD_CARD_ACTIVE) return true;
    if (command != VELK_CMD_APDU) return false;
    if (velk::WellFormedLen(buffer, VELK_EXCHANGE_BUFFER_LEN) == 0) return false;
    return TLV_FindTag(const_cast<uint8_t *>(buffer), 0xDF03) == nullptr;
}

uint32_t Callback(uint8_t *buffer, uint32_t *len) {
    CheckState();
    CHECK(*len <= VELK_EXCHANGE_BUFFER_LEN);
    CHECK(velk::WellFormedLen(buffer, *len) == *len);
    CHECK(TLV_GetTag(buffer) == 0x7F01);
    uint8_t *df00 = TLV_FindTag(buffer, 0xDF00);
    CHECK(df00 != nullptr && TLV_GetLen(df00) == 1);
    const uint8_t cmd = TLV_GetValue(df00)[0];
    Bytes command;
    if (uint8_t *df01 = TLV_FindTag(buffer, 0xDF01); df01 != nullptr && cmd == VELK_CMD_APDU)
        command.assign(TLV_GetValue(df01), TLV_GetValue(df01) + TLV_GetLen(df01));

    const uint32_t status = Answer(buffer, len);
    if (status == 0 && g_pki.On()) {
        if (cmd == VELK_CMD_CA_KEY) g_pki.AnswerCaKey(buffer, len);
        if (cmd == VELK_CMD_APDU) g_pki.SignResponse(buffer, len, command);
    }
    if (KernelWaits(cmd, status, buffer) && EMV_Queue_isEmpty(&pgbVelkGlobalValue->EmvQueue) != 0) {
        ClessSignal_Message stop{VELK_SIGNAL_STOP, nullptr, 0};
        Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&stop));
    }
    return status;
}

void RunTransaction(const Record &r) {
    // Exactly the documented size on the heap, so that ASan sees any write
    // past it.
    std::vector<uint8_t> io(VELK_IO_BUFFER_MIN_LEN, 0);
    const size_t n = r.size < io.size() ? r.size : io.size();
    if (n != 0) std::memcpy(io.data(), r.data, n);
    uint32_t len = static_cast<uint32_t>(n);
    const uint32_t status = Kernel_Start_VELK_(io.data(), &len);
    (void)status;
    CHECK(len <= VELK_IO_BUFFER_MIN_LEN);
    if (len != 0) {
        CHECK(TLV_GetTag(io.data()) == 0x7F01);
        CHECK(TLV_GetTlvTotalLen(io.data()) == len);
    }
    CheckState();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::memset(g_block, 0, sizeof g_block);
    CHECK(Kernel_Set_Local_Param_Pointer_VELK_(g_block, sizeof g_block) == 0);
    Kernel_load_callback_Routine_VELK_(&Callback, 0);
    Kernel_Init_VELK_(nullptr, 0);
    g_signalData.clear();
    g_pki.Reset();

    ScriptReader script(data, size);
    g_script = &script;
    int transactions = 0;
    while (!script.Done() && transactions < kMaxTransactions) {
        const Record r = script.Next();
        if (r.kind == kStart) {
            RunTransaction(r);
            ++transactions;
        } else if (r.kind == kPost) {
            Post(r, true);
        } else if (r.kind == kPostNull) {
            Post(r, false);
        } else if (r.kind == kSign) {
            g_pki.Configure(r);
        }
    }
    g_script = nullptr;
    return 0;
}
