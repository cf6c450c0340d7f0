// SPDX-License-Identifier: Apache-2.0
// The database's everyday pair on a database filled like a real transaction:
// about a hundred elements of the tags and sizes a payment stores (terminal
// data, FCI, GPO and record data, certificates, GENERATE AC response, the
// kernel's configuration and intermediate results).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "database.h"
#include "emv_kernel.h"
#include "global.h"
#include "tlv.h"

namespace {

struct Element {
    uint32_t tag;
    uint32_t len;
};

// In the order a transaction stores them.
constexpr Element kTransaction[] = {
    {0x9F9301, 8}, {0x9F9302, 8}, {0x9F9304, 1}, {0x9F9307, 2}, {0x9F9309, 4},  {0x9F9311, 12},
    {0x9F1A, 2},   {0x5F2A, 2},   {0x9F35, 1},   {0x9F33, 3},   {0x9F40, 5},    {0x9F09, 2},
    {0x9F15, 2},   {0x9F16, 15},  {0x9F1C, 8},   {0x9F1E, 8},   {0x9F4E, 20},   {0x9F02, 6},
    {0x9F03, 6},   {0x9C, 1},     {0x9A, 3},     {0x9F21, 3},   {0x9F37, 4},    {0x9F8201, 60},
    {0x84, 7},     {0x50, 10},    {0x87, 1},     {0x9F38, 18},  {0x5F2D, 4},    {0x9F11, 1},
    {0x9F12, 16},  {0xBF0C, 12},  {0xA5, 40},    {0x6F, 51},    {0x9F06, 7},    {0xDF8120, 5},
    {0xDF8121, 5}, {0xDF8122, 5}, {0xDF8123, 6}, {0xDF8124, 6}, {0xDF8125, 6},  {0xDF8126, 6},
    {0x9F1B, 4},   {0x9F66, 4},   {0x82, 2},     {0x94, 12},    {0x9F6E, 4},    {0x57, 19},
    {0x5A, 8},     {0x5F24, 3},   {0x5F25, 3},   {0x5F28, 2},   {0x5F34, 1},    {0x9F07, 2},
    {0x9F0D, 5},   {0x9F0E, 5},   {0x9F0F, 5},   {0x8C, 33},    {0x8D, 24},     {0x8E, 14},
    {0x9F42, 2},   {0x9F44, 1},   {0x5F30, 2},   {0x9F08, 2},   {0x90, 176},    {0x92, 36},
    {0x9F32, 1},   {0x8F, 1},     {0x9F46, 176}, {0x9F47, 1},   {0x9F48, 42},   {0x9F49, 3},
    {0x9F4A, 1},   {0x5F20, 26},  {0x9F1F, 40},  {0x95, 5},     {0x9B, 2},      {0x9F34, 3},
    {0x9F8202, 1}, {0x9F8203, 1}, {0x9F8204, 2}, {0x9F8205, 4}, {0x9F8211, 30}, {0x9F27, 1},
    {0x9F36, 2},   {0x9F26, 8},   {0x9F10, 32},  {0x9F4B, 128}, {0x9F4C, 8},    {0x9F69, 7},
    {0x9F7C, 32},  {0x9F45, 2},   {0x9F4D, 2},   {0x9F71, 10},  {0x9F74, 6},    {0x9F77, 12},
    {0x9F73, 4},   {0x9F24, 29},  {0x9F19, 6},   {0x9F25, 2},
};
constexpr size_t kCount = sizeof kTransaction / sizeof kTransaction[0];

alignas(8) uint8_t g_block[VELK_LOCAL_PARAM_MIN_LEN];

void Fill() {
    std::memset(g_block, 0, sizeof g_block);
    Kernel_Set_Local_Param_Pointer_VELK_(g_block, sizeof g_block);
    Kernel_Init_VELK_(nullptr, 0);
    uint8_t value[256];
    for (size_t i = 0; i < kCount; ++i) {
        std::memset(value, static_cast<int>(i), sizeof value);
        VelkDataBase_Set_TAG(kTransaction[i].tag, kTransaction[i].len, value);
    }
}

uint32_t DatabaseSize() {
    return TLV_GetTlvTotalLen(pgbVelkGlobalValue->ucDataBasebuf);
}

void GetTag(benchmark::State &state, uint32_t tag) {
    Fill();
    OBJECT_TAG o{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(VelkDataBase_GetTagValue(tag, &o));
        benchmark::DoNotOptimize(o);
    }
    state.counters["elements"] = static_cast<double>(kCount);
    state.counters["db_bytes"] = DatabaseSize();
}

// A value of the stored length: overwritten in place.
void SetInPlace(benchmark::State &state, uint32_t tag, uint32_t len) {
    Fill();
    uint8_t value[32] = {};
    for (auto _ : state) {
        value[0]++;
        benchmark::DoNotOptimize(VelkDataBase_Set_TAG(tag, len, value));
    }
}

// Another length for the element at the front of the database, each time:
// it is removed, everything behind it moves, and it is appended at the end,
// so that the next iteration finds another element at the front. (A single
// tag cannot be set twice; it is deleted and set again, which moves the same
// bytes.)
void SetMovingFront(benchmark::State &state) {
    Fill();
    uint8_t *db = pgbVelkGlobalValue->ucDataBasebuf;
    uint8_t value[256] = {};
    for (auto _ : state) {
        const uint8_t *front = TLV_GetFirstChildTag_Ex(db);
        const uint32_t tag = TLV_GetTag(front);
        const uint32_t len = TLV_GetLen(front);
        if (VelkCless_Check_IsMultiTagForbidden(tag)) {
            VelkDataBase_Del_TAG(tag);
            benchmark::DoNotOptimize(VelkDataBase_Set_TAG(tag, len, value));
        } else {
            benchmark::DoNotOptimize(VelkDataBase_Set_TAG(tag, len ^ 1, value));
        }
    }
    state.counters["db_bytes"] = DatabaseSize();
}

// Another length for the last element: it moves only past itself.
void SetMovingLast(benchmark::State &state) {
    Fill();
    uint8_t value[32] = {};
    uint32_t len = kTransaction[kCount - 1].len;
    for (auto _ : state) {
        len ^= 1;
        benchmark::DoNotOptimize(VelkDataBase_Set_TAG(kTransaction[kCount - 1].tag, len, value));
    }
}

}  // namespace

BENCHMARK_CAPTURE(GetTag, early_9F9302, 0x9F9302u);
BENCHMARK_CAPTURE(GetTag, middle_5A, 0x5Au);
BENCHMARK_CAPTURE(GetTag, late_9F25, 0x9F25u);
BENCHMARK_CAPTURE(GetTag, absent_DF8129, 0xDF8129u);
BENCHMARK_CAPTURE(SetInPlace, late_9F26, 0x9F26u, 8u);
BENCHMARK_CAPTURE(SetInPlace, early_9F02, 0x9F02u, 6u);
BENCHMARK(SetMovingFront);
BENCHMARK(SetMovingLast);
