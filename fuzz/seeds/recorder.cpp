// SPDX-License-Identifier: Apache-2.0
// Records what a host does with the kernel as transaction_fuzz records
// (transaction_script.hpp). Built as a stand-in kernel library: it exports the
// entry functions, forwards each call to the real library ($VELK_SEED_LIB)
// and writes one seed per bound kernel block into $VELK_SEED_DIR, named by a
// hash of its bytes. fuzz/seeds/record.sh runs velk-term's bundled scenarios
// through it. The card's and the host's replies are recorded as they reached
// the kernel, signals with their data, the inputs as they were handed over.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "transaction_script.hpp"

#include "emv_kernel.h"

namespace {

using namespace velk::fuzz;

std::mutex g_mutex;
std::vector<uint8_t> g_seed;
bool g_started = false;
pCallback_Process_EntryPoint_Fun g_host = nullptr;

// The real library's entry point `name`.
template <typename Fn>
Fn Real(const char *name) {
    static void *lib = [] {
        const char *path = std::getenv("VELK_SEED_LIB");
        void *h = path != nullptr ? dlopen(path, RTLD_NOW | RTLD_LOCAL) : nullptr;
        if (h == nullptr) {
            std::fprintf(stderr, "seed recorder: set VELK_SEED_LIB to libvelk.so (%s)\n",
                         dlerror());
            std::abort();
        }
        return h;
    }();
    return reinterpret_cast<Fn>(dlsym(lib, name));
}

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

// One element's header at p (n bytes left): its tag, header size and value
// length; false when it does not fit.
bool Header(const uint8_t *p, uint32_t n, uint32_t *tag, uint32_t *head, uint32_t *len) {
    uint32_t i = 0;
    if (n == 0) return false;
    *tag = p[i++];
    if ((*tag & 0x1F) == 0x1F) do {
            if (i >= n || i > 3) return false;
            *tag = (*tag << 8) | p[i];
        } while ((p[i++] & 0x80) != 0);
    if (i >= n) return false;
    const uint8_t first = p[i++];
    *len = first;
    if (first >= 0x80) {
        if (first > 0x83 || i + (first - 0x80u) > n) return false;
        *len = 0;
        for (uint32_t k = 0; k < first - 0x80u; ++k)
            *len = (*len << 8) | p[i++];
    }
    *head = i;
    return *len <= n - i;
}

// A reply that is one 7F01 filling the handed-back length is recorded by its
// children (or its DF03 alone), so that the fuzzer's mutations keep the outer
// length right; anything else byte for byte.
void RecordReply(const uint8_t *b, uint32_t len) {
    uint32_t tag = 0, head = 0, vlen = 0;
    if (len <= VELK_EXCHANGE_BUFFER_LEN && Header(b, len, &tag, &head, &vlen) && tag == 0x7F01 &&
        head + vlen == len) {
        uint32_t ctag = 0, chead = 0, clen = 0;
        if (Header(b + head, vlen, &ctag, &chead, &clen) && ctag == 0xDF03 &&
            chead + clen == vlen) {
            AppendRecord(g_seed, kRapdu, b + head + chead, clen);
            return;
        }
        AppendRecord(g_seed, kWrapped, b + head, vlen);
        return;
    }
    AppendRecord(g_seed, kReplyRaw, b, len);
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

__attribute__((visibility("default"))) uint32_t Kernel_Set_Local_Param_Pointer_VELK_(
    uint8_t *pointer, uint32_t len) {
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        Flush();
    }
    return Real<uint32_t (*)(uint8_t *, uint32_t)>(__func__)(pointer, len);
}

__attribute__((visibility("default"))) uint32_t Kernel_load_callback_Routine_VELK_(
    pCallback_Process_EntryPoint_Fun cb, uint32_t n) {
    g_host = cb;
    return Real<uint32_t (*)(pCallback_Process_EntryPoint_Fun, uint32_t)>(__func__)(
        cb != nullptr ? &Recorder : nullptr, n);
}

__attribute__((visibility("default"))) uint32_t Kernel_Init_VELK_(uint8_t *tlv, uint32_t len) {
    return Real<uint32_t (*)(uint8_t *, uint32_t)>(__func__)(tlv, len);
}

__attribute__((visibility("default"))) uint32_t Kernel_Start_VELK_(uint8_t *io, uint32_t *len) {
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        AppendRecord(g_seed, kStart, io,
                     *len < VELK_IO_BUFFER_MIN_LEN ? *len : VELK_IO_BUFFER_MIN_LEN);
        g_started = true;
    }
    return Real<uint32_t (*)(uint8_t *, uint32_t *)>(__func__)(io, len);
}

__attribute__((visibility("default"))) uint32_t Kernel_Customized_Contactless_VELK_(
    uint8_t *buffer) {
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
    return Real<uint32_t (*)(uint8_t *)>(__func__)(buffer);
}

}  // extern "C"
