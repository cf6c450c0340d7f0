// Records what the host side of the scripted tests does as transaction_fuzz
// records (transaction_script.hpp): linked into a copy of the transaction
// tests with the host's entry calls wrapped (-Wl,--wrap), it writes one seed
// per bound kernel block into $VELK_SEED_DIR, named by a hash of its bytes.
// The card's and the host's replies are recorded as they reached the kernel,
// signals with their data, the inputs as they were handed over.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "transaction_script.hpp"

#include "checked.hpp"
#include "emv_kernel.h"
#include "tlv.h"

namespace {

using namespace velk::fuzz;

std::mutex g_mutex;
std::vector<uint8_t> g_seed;
bool g_started = false;
pCallback_Process_EntryPoint_Fun g_host = nullptr;

void Flush() {
    const char *dir = std::getenv("VELK_SEED_DIR");
    if (dir != nullptr && g_started) {
        uint64_t hash = 1469598103934665603ull;  // FNV-1a
        for (uint8_t b : g_seed)
            hash = (hash ^ b) * 1099511628211ull;
        char name[32];
        std::snprintf(name, sizeof name, "/%016llx", static_cast<unsigned long long>(hash));
        if (FILE *f = std::fopen((std::string(dir) + name).c_str(), "wb")) {
            std::fwrite(g_seed.data(), 1, g_seed.size(), f);
            std::fclose(f);
        }
    }
    g_seed.clear();
    g_started = false;
}

struct FlushAtExit {
    ~FlushAtExit() { Flush(); }
} g_flushAtExit;

// A reply that is one 7F01 filling the handed-back length is recorded by its
// children (or its DF03 alone), so that the fuzzer's mutations keep the outer
// length right; anything else byte for byte.
void RecordReply(const uint8_t *buffer, uint32_t len) {
    auto *b = const_cast<uint8_t *>(buffer);
    if (len <= VELK_EXCHANGE_BUFFER_LEN && velk::WellFormedLen(b, len) == len &&
        TLV_GetTag(b) == 0x7F01) {
        uint8_t *first = TLV_GetFirstChildTag(b);
        if (first != nullptr && TLV_GetTag(first) == 0xDF03 &&
            TLV_GetTlvTotalLen(first) == TLV_GetLen(b)) {
            AppendRecord(g_seed, kRapdu, TLV_GetValue(first), TLV_GetLen(first));
            return;
        }
        AppendRecord(g_seed, kWrapped, TLV_GetValue(b), TLV_GetLen(b));
        return;
    }
    AppendRecord(g_seed, kReplyRaw, buffer, len);
}

uint32_t Recorder(uint8_t *buffer, uint32_t *len) {
    const uint32_t status = g_host(buffer, len);
    std::lock_guard<std::mutex> lock(g_mutex);
    if (status != 0) {
        const uint8_t be[4] = {static_cast<uint8_t>(status >> 24),
                               static_cast<uint8_t>(status >> 16),
                               static_cast<uint8_t>(status >> 8), static_cast<uint8_t>(status)};
        AppendRecord(g_seed, kFail, be, sizeof be);
    } else {
        RecordReply(buffer, *len);
    }
    return status;
}

}  // namespace

extern "C" {

uint32_t __real_Kernel_Set_Local_Param_Pointer_VELK_(uint8_t *pointer, uint32_t len);
uint32_t __real_Kernel_load_callback_Routine_VELK_(pCallback_Process_EntryPoint_Fun cb, uint32_t n);
uint32_t __real_Kernel_Start_VELK_(uint8_t *io, uint32_t *len);
uint32_t __real_Kernel_Customized_Contactless_VELK_(uint8_t *buffer);

uint32_t __wrap_Kernel_Set_Local_Param_Pointer_VELK_(uint8_t *pointer, uint32_t len) {
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        Flush();
    }
    return __real_Kernel_Set_Local_Param_Pointer_VELK_(pointer, len);
}

uint32_t __wrap_Kernel_load_callback_Routine_VELK_(pCallback_Process_EntryPoint_Fun cb,
                                                   uint32_t n) {
    g_host = cb;
    return __real_Kernel_load_callback_Routine_VELK_(cb != nullptr ? &Recorder : nullptr, n);
}

uint32_t __wrap_Kernel_Start_VELK_(uint8_t *io, uint32_t *len) {
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        AppendRecord(g_seed, kStart, io,
                     *len < VELK_IO_BUFFER_MIN_LEN ? *len : VELK_IO_BUFFER_MIN_LEN);
        g_started = true;
    }
    return __real_Kernel_Start_VELK_(io, len);
}

uint32_t __wrap_Kernel_Customized_Contactless_VELK_(uint8_t *buffer) {
    if (buffer != nullptr) {
        ClessSignal_Message s;
        std::memcpy(&s, buffer, sizeof s);
        std::lock_guard<std::mutex> lock(g_mutex);
        if (s.MessageData == nullptr) {
            const uint8_t rec[5] = {s.ucSignalType, static_cast<uint8_t>(s.uiMessageDatalen >> 24),
                                    static_cast<uint8_t>(s.uiMessageDatalen >> 16),
                                    static_cast<uint8_t>(s.uiMessageDatalen >> 8),
                                    static_cast<uint8_t>(s.uiMessageDatalen)};
            AppendRecord(g_seed, kPostNull, rec, s.uiMessageDatalen == 0 ? 1 : sizeof rec);
        } else {
            std::vector<uint8_t> rec{s.ucSignalType};
            rec.insert(rec.end(), s.MessageData, s.MessageData + s.uiMessageDatalen);
            AppendRecord(g_seed, kPost, rec.data(), rec.size());
        }
    }
    return __real_Kernel_Customized_Contactless_VELK_(buffer);
}

}  // extern "C"
