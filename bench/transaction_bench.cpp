// SPDX-License-Identifier: Apache-2.0
// Whole transactions as a host sees them, with a card that answers at once:
// an offline approval, an online transaction with CDA asked for the ARQC to
// its Online Request, and the same on a long tap with its second entry (the
// issuer's response, scripts and the second GENERATE AC). Each is a scenario
// file (bench/scenarios) run once by velk-term's transaction runner on the
// linked kernel, with its host, the virtual card and the issuer, and checked
// against the file's expectations; what crossed the kernel's boundary is
// recorded, and a lean host replays it (the card's and the host's replies as
// recorded, every entry's output compared), so that the figures are the
// kernel's.
//
//   transaction_bench [benchmark flags]   Google Benchmark: time per transaction
//   transaction_bench --once NAME [N]     one transaction, its first N entries
//                                         (for callgrind: the recording run is
//                                         not counted)
//   transaction_bench --stack [NAME...]   the kernel's peak stack, by painting
//   transaction_bench --heap              heap allocations made by the kernel
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <valgrind/callgrind.h>

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
#include "linked_kernel.hpp"
#include "velk/card/virtual_card.hpp"
#include "velk/term/profiles.hpp"
#include "velk/term/scenario.hpp"

extern "C" void *__libc_malloc(size_t size);

namespace {

using velk::host::Bytes;
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
const uint8_t *g_entrySp = nullptr;  // the stack pointer at the call into the kernel
size_t g_kernelPeak = 0;

// The deepest painted byte touched so far, as a depth below the stack
// pointer at the call of Kernel_Start_VELK_: the kernel's frames (its return
// address included), not the bench's.
size_t HighWater() {
    // Only the painted stack's entries count.
    if (g_stackLow == nullptr || g_entrySp < g_stackLow || g_entrySp > g_stackHigh) return 0;
    const uint8_t *p = g_stackLow;
    while (p < g_stackHigh && *p == kPaint)
        ++p;
    return p < g_entrySp ? static_cast<size_t>(g_entrySp - p) : 0;
}

__attribute__((noinline)) uint32_t StartKernel(uint8_t *io, uint32_t *len) {
#if defined(__x86_64__)
    const uint8_t *sp;
    asm volatile("mov %%rsp, %0" : "=r"(sp));
    g_entrySp = sp;
#else
    g_entrySp = static_cast<const uint8_t *>(__builtin_frame_address(0));
#endif
    return Kernel_Start_VELK_(io, len);
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

// ---- Scenarios: recorded once through velk-term ----------------------------------

// What crossed the kernel's boundary, in order: the signals the host posted,
// each entry (its input; its status and output) and each callback (the
// request; the reply and the status the host gave).
struct Crossing {
    enum Kind : uint8_t { kSignal, kStart, kCallback } kind;
    uint8_t signal;  // kSignal: its type
    Bytes in;        // the signal's data, the entry's input, the request
    Bytes out;       // the entry's output, the reply
    uint32_t status;
};

struct Scenario {
    std::string name;
    std::vector<Crossing> crossings;
};

std::vector<Crossing> *g_recording = nullptr;
pCallback_Process_EntryPoint_Fun g_hostCallback = nullptr;

uint32_t RecordCallback(uint8_t *buffer, uint32_t *len) {
    Crossing c{Crossing::kCallback, 0, Bytes(buffer, buffer + *len), {}, 0};
    c.status = g_hostCallback(buffer, len);
    c.out.assign(buffer, buffer + *len);
    g_recording->push_back(std::move(c));
    return g_recording->back().status;
}

uint32_t RecordLoadCallback(pCallback_Process_EntryPoint_Fun callback, uint32_t mode) {
    g_hostCallback = callback;
    return Kernel_load_callback_Routine_VELK_(&RecordCallback, mode);
}

uint32_t RecordSignal(uint8_t *message) {
    const auto *m = reinterpret_cast<const ClessSignal_Message *>(message);
    const uint8_t *data = m->MessageData;
    g_recording->push_back(
        {Crossing::kSignal, m->ucSignalType, Bytes(data, data + m->uiMessageDatalen), {}, 0});
    return Kernel_Customized_Contactless_VELK_(message);
}

uint32_t RecordStart(uint8_t *io, uint32_t *len) {
    const size_t at = g_recording->size();
    g_recording->push_back({Crossing::kStart, 0, Bytes(io, io + *len), {}, 0});
    const uint32_t status = Kernel_Start_VELK_(io, len);
    (*g_recording)[at].out.assign(io, io + *len);
    (*g_recording)[at].status = status;
    return status;
}

// bench/scenarios/NAME.json run once by velk-term's transaction runner (its
// host, the virtual card, the issuer) on the linked kernel, every crossing
// recorded. Exits when the run misses the file's expectations.
Scenario Record(const std::string &name) {
    const velk::term::Scenario file =
        velk::term::LoadScenario(std::string(VELK_BENCH_SCENARIOS "/") + name + ".json");
    const velk::term::ScenarioSetup setup = velk::term::SetUpScenario(file);
    velk::card::VirtualCard card(setup.card);
    velk::term::KernelApi kernel = LinkedKernel();
    kernel.load_callback = &RecordLoadCallback;
    kernel.signal = &RecordSignal;
    kernel.start = &RecordStart;
    Scenario s{name, {}};
    g_recording = &s.crossings;
    const velk::term::TransactionReport report = velk::term::RunTransaction(
        kernel, setup.terminal, card, setup.options, velk::term::SecretsOf(card));
    g_recording = nullptr;
    std::vector<std::string> wrong = velk::term::CheckExpectations(file.expect, report);
    wrong.insert(wrong.end(), report.host_errors.begin(), report.host_errors.end());
    for (const std::string &w : wrong)
        std::fprintf(stderr, "%s: %s\n", name.c_str(), w.c_str());
    if (!wrong.empty()) std::exit(1);
    return s;
}

std::vector<Scenario> &Scenarios() {
    static std::vector<Scenario> all = {Record("offline"), Record("online-cda"),
                                        Record("online-cda-long-tap")};
    return all;
}

const Scenario *Find(const std::string &name) {
    for (const Scenario &s : Scenarios())
        if (s.name == name) return &s;
    return nullptr;
}

// ---- The lean host: the recorded crossings replayed --------------------------------

struct LeanHost {
    const Scenario *s = nullptr;
    size_t next = 0;             // the next crossing
    bool checkRequests = false;  // each request as recorded (not while timed)
    bool strayed = false;        // a request that is not the recorded one
    uint8_t io[VELK_IO_BUFFER_MIN_LEN];
    uint32_t ioLen = 0;
} g_host;

// Posts the signals recorded before the next callback or entry.
void PostSignals() {
    LeanHost &h = g_host;
    const std::vector<Crossing> &all = h.s->crossings;
    for (; h.next < all.size() && all[h.next].kind == Crossing::kSignal; ++h.next) {
        const Crossing &c = all[h.next];
        ClessSignal_Message m{c.signal, const_cast<uint8_t *>(c.in.empty() ? nullptr : c.in.data()),
                              static_cast<uint32_t>(c.in.size())};
        Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&m));
    }
}

uint32_t LeanCallback(uint8_t *buffer, uint32_t *len) {
    HostCall call;
    LeanHost &h = g_host;
    PostSignals();
    if (h.next >= h.s->crossings.size() || h.s->crossings[h.next].kind != Crossing::kCallback) {
        h.strayed = true;
        return 0x3FF01;
    }
    const Crossing &c = h.s->crossings[h.next++];
    if (h.checkRequests && (*len != c.in.size() || std::memcmp(buffer, c.in.data(), *len) != 0))
        h.strayed = true;
    std::memcpy(buffer, c.out.data(), c.out.size());
    *len = static_cast<uint32_t>(c.out.size());
    return c.status;
}

// The next entry on the bound block. True when its status and output are
// the recorded ones.
bool RunEntry() {
    LeanHost &h = g_host;
    PostSignals();
    const Crossing &e = h.s->crossings[h.next++];
    std::memset(h.io, 0, sizeof h.io);
    std::memcpy(h.io, e.in.data(), e.in.size());
    h.ioLen = static_cast<uint32_t>(e.in.size());
    g_countHeap = g_countingEnabled;
    const uint32_t status = StartKernel(h.io, &h.ioLen);
    g_countHeap = false;
    return status == e.status && h.ioLen == e.out.size() &&
           std::memcmp(h.io, e.out.data(), e.out.size()) == 0;
}

alignas(VELK_LOCAL_PARAM_ALIGN) uint8_t g_block[VELK_LOCAL_PARAM_MIN_LEN];

void Bind(const Scenario &s) {
    g_host.s = &s;
    std::memset(g_block, 0, sizeof g_block);
    Kernel_Set_Local_Param_Pointer_VELK_(g_block, sizeof g_block);
    Kernel_load_callback_Routine_VELK_(&LeanCallback, 0);
    Kernel_Init_VELK_(nullptr, 0);
}

// The transaction's first `count` entries (all by default). True when each
// ended as recorded, with the recorded requests.
bool RunTransaction(size_t count = SIZE_MAX) {
    LeanHost &h = g_host;
    h.next = 0;
    h.strayed = false;
    bool ok = true;
    for (size_t entries = 0; entries < count; ++entries) {
        PostSignals();
        if (h.next >= h.s->crossings.size()) break;
        ok = RunEntry() && ok;
    }
    return ok && !h.strayed;
}

void BM_Transaction(benchmark::State &state, const char *name) {
    Bind(*Find(name));
    for (auto _ : state) {
        if (!RunTransaction()) state.SkipWithError("not as recorded");
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
        if (!g_stackScenarios.empty() && std::find(g_stackScenarios.begin(), g_stackScenarios.end(),
                                                   s.name) == g_stackScenarios.end())
            continue;
        Bind(s);
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
        Bind(s);
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
    if ((argc == 3 || argc == 4) && std::strcmp(argv[1], "--once") == 0) {
        const Scenario *s = Find(argv[2]);
        if (s == nullptr) return 2;
        // callgrind counts every Kernel_Start_VELK_: the recording runs are
        // not the figure.
        CALLGRIND_ZERO_STATS;
        Bind(*s);
        return RunTransaction(argc == 4 ? std::strtoul(argv[3], nullptr, 10) : SIZE_MAX) ? 0 : 1;
    }
    // Each replay once with its requests compared to the recorded ones.
    g_host.checkRequests = true;
    for (const Scenario &s : Scenarios()) {
        Bind(s);
        if (!RunTransaction()) {
            std::fprintf(stderr, "%s: the replay did not go as recorded\n", s.name.c_str());
            return 1;
        }
    }
    g_host.checkRequests = false;
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
