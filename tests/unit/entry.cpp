// SPDX-License-Identifier: Apache-2.0
// Drivers of entry.data: the exported entry functions and the signal queue
// behind them.
#include <cstring>
#include <vector>

#include "emv_kernel.h"
#include "global.h"
#include "kn_common.h"
#include "rows.hpp"

namespace velk::test {
namespace {

// post:type:length:result (Kernel_Customized_Contactless_VELK_ with one
// signal record)
VELK_DRIVER(post) {
    ClessSignal_Message m{static_cast<uint8_t>(row.U(0)), nullptr, row.U(1)};
    row.Eq("result", row.U(2),
           Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&m)));
}

// take:result:length (one non-blocking receive and the signal's length)
VELK_DRIVER(take) {
    ClessSignal_Message m{};
    row.Eq("taken", row.U(0), VelkCless_Query_Event_Message(&m));
    if (row.U(0) != 0) row.Eq("length", row.U(1), m.uiMessageDatalen);
}

// insert:result / remove:result / full:result (the queue of the record)
VELK_DRIVER(insert) {
    const ClessSignal_Message m{0xA1, nullptr, 0};
    row.Eq("result", row.U(0), EMV_Queue_Insert_Element(&pgbVelkGlobalValue->EmvQueue, &m));
}
VELK_DRIVER(remove) {
    ClessSignal_Message m{};
    row.Eq("result", row.U(0), EMV_Queue_Delete_Element(&pgbVelkGlobalValue->EmvQueue, &m));
}
VELK_DRIVER(full) {
    row.Eq("full", row.U(0), EMV_Queue_isFull(&pgbVelkGlobalValue->EmvQueue));
}

// unbound: without a record, writing yields 1 and receiving 0
VELK_DRIVER(unbound) {
    VELK_GLOBALVALUE_STRUCT *saved = pgbVelkGlobalValue;
    pgbVelkGlobalValue = nullptr;
    const ClessSignal_Message m{0xA4, nullptr, 0};
    ClessSignal_Message out{};
    row.Eq("write", 1u, VelkCless_writeSignal(&m));
    row.Eq("receive", 0u, VelkCless_receiveSignal(&out));
    row.Eq("empty", 1u, EMV_Queue_isEmpty(nullptr));
    row.Eq("full", 1u, EMV_Queue_isFull(nullptr));
    pgbVelkGlobalValue = saved;
}

// bind:offset:length:result (a block at that offset from an 8-aligned
// area, its length "min" or "min-1" for the minimum; a refusal keeps the
// record bound before)
VELK_DRIVER(bind) {
    alignas(8) static uint8_t area[VELK_LOCAL_PARAM_MIN_LEN + 16];
    VELK_GLOBALVALUE_STRUCT *before = pgbVelkGlobalValue;
    const uint32_t len = VELK_LOCAL_PARAM_MIN_LEN - (row.Arg(1) == "min-1" ? 1 : 0);
    const uint32_t r = Kernel_Set_Local_Param_Pointer_VELK_(area + row.U(0), len);
    row.Eq("result", row.U(2), r);
    const void *want = r == 0 ? static_cast<void *>(area + row.U(0)) : static_cast<void *>(before);
    row.Eq("bound", true, want == static_cast<void *>(pgbVelkGlobalValue));
    pgbVelkGlobalValue = before;
}

// record_size: the minimum block is the record, 10204 bytes on 32-bit targets
VELK_DRIVER(record_size) {
    row.Eq("minimum", sizeof(VELK_GLOBALVALUE_STRUCT), VELK_LOCAL_PARAM_MIN_LEN);
    if (sizeof(void *) == 4) row.Eq("on 32 bits", 10204u, VELK_LOCAL_PARAM_MIN_LEN);
}

// proprietary:bytes (Kernel_Set_Proprietary_Tag_VELK_ returns 0 and changes
// nothing in the record, also for a null buffer)
VELK_DRIVER(proprietary) {
    const auto *block = reinterpret_cast<const uint8_t *>(pgbVelkGlobalValue);
    const std::vector<uint8_t> before(block, block + VELK_LOCAL_PARAM_MIN_LEN);
    Bytes b = row.Hex(0);
    row.Eq("result", 0u, Kernel_Set_Proprietary_Tag_VELK_(b.empty() ? nullptr : b.data()));
    row.Eq("record unchanged", true, std::memcmp(before.data(), block, before.size()) == 0);
}

}  // namespace
}  // namespace velk::test
