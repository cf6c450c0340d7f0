// SPDX-License-Identifier: Apache-2.0
// Whole transactions as a host sees them, with a card that answers at once:
// an offline approval (no ODA), an online CDA transaction to its Online
// Request, and the same on a long tap with its second entry (the issuer's
// response, scripts and the second GENERATE AC). The
// scenarios are built with the test builders, checked once against the
// scripted host (exact C-APDUs), and then replayed by a lean host that only
// copies prepared replies, so that the figures are the kernel's.
//
//   transaction_bench [benchmark flags]   Google Benchmark: time per transaction
//   transaction_bench --once NAME [N]     one transaction, its first N entries
//                                         (for callgrind)
//   transaction_bench --stack [NAME...]   the kernel's peak stack, by painting
//   transaction_bench --heap              heap allocations made by the kernel
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "baseKernel.h"
#include "emv_kernel.h"
#include "first_tap.hpp"
#include "global.h"
#include "kernel_fixture.hpp"
#include "oda_card.hpp"
#include "scripted_host.hpp"
#include "tlv.h"

extern "C" void *__libc_malloc(size_t size);

namespace {

using velk::host::Bytes;
using velk::host::FromHex;
using velk::host::Tlv;
using namespace velk::test;

// ---- Heap: every allocation made while the kernel, not the host, runs -------

std::atomic<bool> g_countHeap{false};
bool g_countingEnabled = false;
std::atomic<int> g_hostDepth{0};
std::atomic<long> g_kernelAllocations{0};

}  // namespace

extern "C" void *malloc(size_t size) {
    if (g_countHeap.load(std::memory_order_relaxed) &&
        g_hostDepth.load(std::memory_order_relaxed) == 0)
        g_kernelAllocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

namespace {

// ---- Stack: painted, and repainted below the host's frames -----------------

constexpr size_t kStackSize = 256 * 1024;
constexpr uint8_t kPaint = 0xA5;
uint8_t *g_stackLow = nullptr;
uint8_t *g_stackHigh = nullptr;
size_t g_kernelPeak = 0;

// The deepest painted byte touched so far, as a depth from the stack top.
size_t HighWater() {
    if (g_stackLow == nullptr) return 0;
    const uint8_t *p = g_stackLow;
    while (p < g_stackHigh && *p == kPaint)
        ++p;
    return static_cast<size_t>(g_stackHigh - p);
}

// Host frames are dead once the host returns: their bytes are painted again
// (all but a small margin for this function's own frame), so that only the
// kernel's frames count.
__attribute__((noinline)) void Repaint() {
    if (g_stackLow == nullptr) return;
    auto *top = static_cast<uint8_t *>(__builtin_frame_address(0)) - 256;
    for (volatile uint8_t *p = g_stackLow; p < top; ++p)
        *p = kPaint;
}

struct HostCall {
    HostCall() {
        if (g_stackLow != nullptr && g_kernelPeak < HighWater()) g_kernelPeak = HighWater();
        g_hostDepth.fetch_add(1, std::memory_order_relaxed);
    }
    ~HostCall() {
        g_hostDepth.fetch_sub(1, std::memory_order_relaxed);
        if (g_hostDepth.load(std::memory_order_relaxed) == 0) Repaint();
    }
};

// The platform services the kernel calls, wrapped so that the stack and the
// heap tell the kernel's use from the host's.
emv_kn_glb_t g_original;

void *ShimMemset(void *d, int v, int n) {
    HostCall call;
    return g_original.opt_std.opt_memset(d, v, n);
}
void *ShimMemcpy(void *d, const void *src, int n) {
    HostCall call;
    return g_original.opt_std.opt_memcpy(d, src, n);
}
int ShimMemcmp(const void *a, const void *b, int n) {
    HostCall call;
    return g_original.opt_std.opt_memcmp(a, b, n);
}
int ShimStrlen(const char *t) {
    HostCall call;
    return g_original.opt_std.opt_strlen(t);
}
int ShimRsa(const uint8_t *n, uint32_t nLen, const uint8_t *e, uint32_t eLen, const uint8_t *in,
            uint32_t inLen, uint8_t *out) {
    HostCall call;
    return g_original.opt_alg.opt_rsa_encrypt(n, nLen, e, eLen, in, inLen, out);
}
int ShimSha1(const uint8_t *in, uint32_t inLen, uint8_t *digest) {
    HostCall call;
    return g_original.opt_alg.opt_sha_1(in, inLen, digest);
}

void InstallShims() {
    if (pemv_kn_glb->opt_std.opt_memset == &ShimMemset) return;
    g_original.opt_std = pemv_kn_glb->opt_std;
    g_original.opt_alg = pemv_kn_glb->opt_alg;
    pemv_kn_glb->opt_std.opt_memset = &ShimMemset;
    pemv_kn_glb->opt_std.opt_memcpy = &ShimMemcpy;
    pemv_kn_glb->opt_std.opt_memcmp = &ShimMemcmp;
    pemv_kn_glb->opt_std.opt_strlen = &ShimStrlen;
    pemv_kn_glb->opt_alg.opt_rsa_encrypt = &ShimRsa;
    pemv_kn_glb->opt_alg.opt_sha_1 = &ShimSha1;
}

// ---- Scenarios ----------------------------------------------------------------

struct Entry {
    Bytes input;
    std::vector<Bytes> rapdus;  // the card's answers in order
};

struct Scenario {
    std::string name;
    FirstTap tap;
    std::optional<CaDirectory> directory;
    std::vector<Entry> entries;
    std::string expectedOps;  // of the first entry
    // The second entry: the issuer's response and the card's exchanges, in
    // order (scripts 71, second GENERATE AC, scripts 72), and its outcome.
    std::optional<IssuerResponse> response;
    std::vector<CardExchange> secondExchanges;
    std::string expectedSecondOps;
};

Bytes Reply(const std::vector<Bytes> &children) {
    Bytes value;
    for (const Bytes &c : children)
        value.insert(value.end(), c.begin(), c.end());
    return Tlv(0x7F01, value);
}

Scenario OfflineApproval() {
    Scenario s{"offline", {}, {}, {}, "10F0F0F0A0F0FF00", {}, {}, {}};
    return s;
}

// The first entry to the Online Request of a plain online request: CDA
// with the ARQC.
Scenario OnlineCda() {
    Scenario s{"online-cda", {}, {}, {}, "30F0F0F0A0F0FF00", {}, {}, {}};
    s.tap.AskOnline();
    s.tap.tvr = "0000000000";
    OdaCard oda;
    oda.ApplyTo(s.tap);
    // Kernel capabilities byte 1 bit 0x04: CDA with the ARQC as well.
    Bytes capabilities = FromHex(s.tap.reader.capabilities);
    capabilities[1] |= 0x04;
    s.tap.reader.capabilities = velk::host::ToHex(capabilities);
    s.directory = oda.Directory();
    return s;
}

// The same card on a long tap: the first entry stores the online context
// and ends with the Online Request; the second entry takes the issuer's
// approval with one script of each kind, sends the script commands around
// the second GENERATE AC, and ends approved.
Scenario OnlineCdaLongTap() {
    Scenario s = OnlineCda();
    s.name = "online-cda-long-tap";
    s.expectedOps = "303004F0E0F0FF00";
    s.expectedSecondOps = "10F0F0F0A0F0FF00";
    // Kernel capabilities byte 2 bit 0x10 with implementation options 04
    // and 02: the long tap and the restart after online.
    Bytes capabilities = FromHex(s.tap.reader.capabilities);
    capabilities[2] |= 0x10;
    s.tap.reader.capabilities = velk::host::ToHex(capabilities);
    s.tap.reader.options = "06";
    IssuerResponse response;
    response.scripts = {
        Constructed(0x71, {Tlv(0x9F18, FromHex("00000001")), Tlv(0x86, FromHex("8418000000"))}),
        Constructed(0x72, {Tlv(0x9F18, FromHex("00000002")), Tlv(0x86, FromHex("841E000000"))})};
    s.secondExchanges = {
        Respond(FromHex("8418000000"), FromHex("9000")),
        Respond(s.tap.SecondGacCommand(0x40, response, s.tap.tvr),
                s.tap.card.SecondGacResponse("40")),
        Respond(FromHex("841E000000"), FromHex("9000"))};
    s.response = response;
    return s;
}

void Finish(Scenario &s) {
    Entry first{s.tap.purchase.Input(), {}};
    for (const CardExchange &e : s.tap.Script())
        first.rapdus.push_back(e.rapdu);
    s.entries.push_back(first);
    if (!s.response) return;
    Entry second{s.tap.SecondEntryInput(*s.response), {}};
    for (const CardExchange &e : s.secondExchanges)
        second.rapdus.push_back(e.rapdu);
    s.entries.push_back(second);
}

// ---- The lean host --------------------------------------------------------------

struct LeanHost {
    const Scenario *s = nullptr;
    const Entry *entry = nullptr;
    size_t next = 0;
    size_t apdus = 0;
    Bytes ics, un, caKey, revocation, empty, context;
    std::vector<Bytes> rapdus;
    Bytes fciSignal;
    uint8_t io[VELK_IO_BUFFER_MIN_LEN];
    uint32_t ioLen = 0;
} g_host;

void Put(uint8_t *buffer, uint32_t *len, const Bytes &reply) {
    std::memcpy(buffer, reply.data(), reply.size());
    *len = static_cast<uint32_t>(reply.size());
}

uint32_t LeanCallback(uint8_t *buffer, uint32_t *len) {
    HostCall call;
    LeanHost &h = g_host;
    uint8_t *df00 = TLV_FindTag(buffer, 0xDF00);
    const uint8_t command = df00 == nullptr ? 0 : TLV_GetValue(df00)[0];
    // Requests answered with a prepared reply.
    const std::pair<uint8_t, const Bytes *> fixed[] = {
        {VELK_CMD_ICS_PARAMS, &h.ics},   {VELK_CMD_UNPREDICTABLE_NUMBER, &h.un},
        {VELK_CMD_CA_KEY, &h.caKey},     {VELK_CMD_REVOCATION, &h.revocation},
        {VELK_CMD_AID_PARAMS, &h.empty}, {VELK_CMD_EXCEPTION_FILE, &h.empty}};
    for (const auto &[cmd, reply] : fixed) {
        if (cmd != command) continue;
        Put(buffer, len, *reply);
        return 0;
    }
    switch (command) {
        case VELK_CMD_STORE_CONTEXT: {
            uint8_t *ctx = TLV_FindTag(buffer, 0x7F15);
            h.context =
                ctx == nullptr
                    ? h.empty
                    : Reply({Bytes(TLV_GetValue(ctx), TLV_GetValue(ctx) + TLV_GetLen(ctx))});
            return 0;
        }
        case VELK_CMD_FETCH_CONTEXT:
            Put(buffer, len, h.context.empty() ? h.empty : h.context);
            return 0;
        case VELK_CMD_CARD_ACTIVE: {
            ClessSignal_Message present{0, nullptr, 0};
            Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&present));
            return 0;
        }
        case VELK_CMD_APDU:
            if (h.next >= h.rapdus.size()) return 0x3FFFF;
            ++h.apdus;
            Put(buffer, len, h.rapdus[h.next++]);
            return 0;
        default:
            return 0;  // display, power off: nothing to answer
    }
}

void Prepare(const Scenario &s) {
    LeanHost &h = g_host;
    h.s = &s;
    h.ics = Reply(s.tap.reader.Ics());
    h.un = Reply({Tlv(0x9F37, FromHex("11223344"))});
    h.empty = Reply({});
    if (s.directory) {
        h.caKey = Reply({Tlv(0xDF8201, s.directory->key.n), Tlv(0xDF8202, s.directory->key.e)});
        h.revocation = Reply({Tlv(0xDF8109, Bytes{0})});
    }
    h.fciSignal = With9000(s.tap.card.Fci());
}

// One entry on the bound block; the outcome's DF8129.
Bytes RunEntry(size_t index) {
    LeanHost &h = g_host;
    const Entry &e = h.s->entries[index];
    h.rapdus.clear();
    for (const Bytes &r : e.rapdus)
        h.rapdus.push_back(Reply({Tlv(0xDF03, r)}));
    h.next = 0;
    if (index == 0) {
        ClessSignal_Message fci{VELK_SIGNAL_FCI, h.fciSignal.data(),
                                static_cast<uint32_t>(h.fciSignal.size())};
        Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&fci));
    }
    std::memset(h.io, 0, sizeof h.io);
    std::memcpy(h.io, e.input.data(), e.input.size());
    h.ioLen = static_cast<uint32_t>(e.input.size());
    g_countHeap = g_countingEnabled;
    Kernel_Start_VELK_(h.io, &h.ioLen);
    g_countHeap = false;
    uint8_t *ops = TLV_FindTag(h.io, 0xDF8129);
    return ops == nullptr ? Bytes{} : Bytes(TLV_GetValue(ops), TLV_GetValue(ops) + TLV_GetLen(ops));
}

alignas(8) uint8_t g_block[VELK_LOCAL_PARAM_MIN_LEN];

void Bind() {
    std::memset(g_block, 0, sizeof g_block);
    Kernel_Set_Local_Param_Pointer_VELK_(g_block, sizeof g_block);
    Kernel_load_callback_Routine_VELK_(&LeanCallback, 0);
    Kernel_Init_VELK_(nullptr, 0);
}

// The transaction's first `count` entries (all by default). True when each
// gave its expected outcome.
bool RunTransaction(size_t count = SIZE_MAX) {
    bool ok = true;
    for (size_t i = 0; i < g_host.s->entries.size() && i < count; ++i) {
        const std::string ops = velk::host::ToHex(RunEntry(i));
        ok = ok && ops == (i == 0 ? g_host.s->expectedOps : g_host.s->expectedSecondOps);
    }
    return ok;
}

std::vector<Scenario> &Scenarios() {
    static std::vector<Scenario> all = [] {
        std::vector<Scenario> v = {OfflineApproval(), OnlineCda(), OnlineCdaLongTap()};
        for (Scenario &s : v)
            Finish(s);
        return v;
    }();
    return all;
}

// Each entry once through the scripted host: every C-APDU as scripted.
bool CheckedWithScriptedHost(const Scenario &s) {
    ScriptedHost host;
    if (s.directory) s.directory->Install(host);
    const TapResult r = s.tap.Run(host);
    if (velk::host::ToHex(r.ops) != s.expectedOps || !host.CardDone()) return false;
    if (!s.response) return true;
    const TapResult second = s.tap.RunSecondEntry(host, *s.response, s.secondExchanges);
    return velk::host::ToHex(second.ops) == s.expectedSecondOps && host.CardDone();
}

const Scenario *Find(const std::string &name) {
    for (const Scenario &s : Scenarios())
        if (s.name == name) return &s;
    return nullptr;
}

void BM_Transaction(benchmark::State &state, const char *name) {
    Prepare(*Find(name));
    Bind();
    for (auto _ : state) {
        if (!RunTransaction()) state.SkipWithError("unexpected outcome");
    }
}
BENCHMARK_CAPTURE(BM_Transaction, offline_approval, "offline");
BENCHMARK_CAPTURE(BM_Transaction, online_cda, "online-cda");
BENCHMARK_CAPTURE(BM_Transaction, online_cda_long_tap, "online-cda-long-tap");

// Peak stack of the kernel over the scenarios (those named, or all), on a
// painted thread stack.
std::vector<std::string> g_stackScenarios;

void *StackThread(void *) {
    InstallShims();
    for (const Scenario &s : Scenarios()) {
        if (!g_stackScenarios.empty() &&
            std::find(g_stackScenarios.begin(), g_stackScenarios.end(), s.name) ==
                g_stackScenarios.end())
            continue;
        Prepare(s);
        Bind();
        Repaint();
        RunTransaction();
        if (g_kernelPeak < HighWater()) g_kernelPeak = HighWater();
    }
    return nullptr;
}

int MeasureStack() {
    std::vector<uint8_t> stack(kStackSize, kPaint);
    g_stackLow = stack.data();
    g_stackHigh = stack.data() + stack.size();
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstack(&attr, stack.data(), stack.size());
    pthread_t t;
    if (pthread_create(&t, &attr, &StackThread, nullptr) != 0) return 1;
    pthread_join(t, nullptr);
    std::printf("%zu\n", g_kernelPeak);
    return 0;
}

int CountHeap() {
    InstallShims();
    long total = 0;
    for (const Scenario &s : Scenarios()) {
        Prepare(s);
        Bind();
        g_kernelAllocations = 0;
        g_countingEnabled = true;
        RunTransaction();
        g_countingEnabled = false;
        total += g_kernelAllocations;
    }
    std::printf("%ld\n", total);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    // Not for --once: callgrind counts every Kernel_Start_VELK_ of the run.
    const bool once = (argc == 3 || argc == 4) && std::strcmp(argv[1], "--once") == 0;
    for (Scenario &s : Scenarios()) {
        if (once) break;
        if (!CheckedWithScriptedHost(s)) {
            std::fprintf(stderr, "%s: the scripted entries did not end as expected\n",
                         s.name.c_str());
            return 1;
        }
    }
    if (once) {
        const Scenario *s = Find(argv[2]);
        if (s == nullptr) return 2;
        Prepare(*s);
        Bind();
        return RunTransaction(argc == 4 ? std::strtoul(argv[3], nullptr, 10) : SIZE_MAX) ? 0 : 1;
    }
    if (argc >= 2 && std::strcmp(argv[1], "--stack") == 0) {
        g_stackScenarios.assign(argv + 2, argv + argc);
        return MeasureStack();
    }
    if (argc == 2 && std::strcmp(argv[1], "--heap") == 0) return CountHeap();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
