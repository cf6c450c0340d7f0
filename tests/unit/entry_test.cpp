// Rules of the exported entry functions and the signal queue behind them.
#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "emv_kernel.h"
#include "global.h"
#include "kernel_fixture.hpp"

namespace velk::test {
namespace {

TEST(EntryBinding, RefusesAShortOrMisalignedBlockAndKeepsTheOldBinding) {
    BoundKernel first;
    VELK_GLOBALVALUE_STRUCT *bound = pgbVelkGlobalValue;

    KernelBlock other{};
    EXPECT_EQ(Kernel_Set_Local_Param_Pointer_VELK_(other.bytes, VELK_LOCAL_PARAM_MIN_LEN - 1),
              VELK_ERR_BLOCK_TOO_SMALL);
    EXPECT_EQ(pgbVelkGlobalValue, bound);

    alignas(8) static uint8_t big[VELK_LOCAL_PARAM_MIN_LEN + 8];
    EXPECT_EQ(Kernel_Set_Local_Param_Pointer_VELK_(big + 1, VELK_LOCAL_PARAM_MIN_LEN),
              VELK_ERR_BLOCK_MISALIGNED);
    EXPECT_EQ(pgbVelkGlobalValue, bound);

    EXPECT_EQ(Kernel_Set_Local_Param_Pointer_VELK_(other.bytes, VELK_LOCAL_PARAM_MIN_LEN), 0u);
    EXPECT_EQ(static_cast<void *>(pgbVelkGlobalValue), static_cast<void *>(other.bytes));
}

TEST(EntryBinding, TheMinimumBlockIsTheRecordAnd10204BytesOn32BitTargets) {
    EXPECT_EQ(sizeof(VELK_GLOBALVALUE_STRUCT), VELK_LOCAL_PARAM_MIN_LEN);
    if (sizeof(void *) == 4) {
        EXPECT_EQ(VELK_LOCAL_PARAM_MIN_LEN, 10204u);
    }
}

TEST_F(KernelTest, ProprietaryTagSetterChangesNothing) {
    std::array<uint8_t, VELK_LOCAL_PARAM_MIN_LEN> before{};
    std::memcpy(before.data(), kernel_.block(), before.size());
    uint8_t junk[] = {0x9F, 0x02, 0x01, 0x00};
    EXPECT_EQ(Kernel_Set_Proprietary_Tag_VELK_(junk), 0u);
    EXPECT_EQ(Kernel_Set_Proprietary_Tag_VELK_(nullptr), 0u);
    EXPECT_EQ(std::memcmp(before.data(), kernel_.block(), before.size()), 0);
}

ClessSignal_Message Signal(uint8_t type, uint32_t len = 0) {
    return {type, nullptr, len};
}

uint32_t Post(const ClessSignal_Message &m) {
    ClessSignal_Message copy = m;
    return Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&copy));
}

TEST_F(KernelTest, QueueTakesSevenSignalsInOrderAndDropsTheEighthSilently) {
    for (uint32_t i = 0; i < 8; ++i)
        EXPECT_EQ(Post(Signal(0xA4, i)), 0u);
    ClessSignal_Message got{};
    for (uint32_t i = 0; i < 7; ++i) {
        ASSERT_EQ(VelkCless_Query_Event_Message(&got), 1u);
        EXPECT_EQ(got.uiMessageDatalen, i);
    }
    EXPECT_EQ(VelkCless_Query_Event_Message(&got), 0u);
}

TEST_F(KernelTest, QueueInsertReportsTheFillLevelWhichWrapsPastTheEnd) {
    EMV_Queue &q = kernel_.g().EmvQueue;
    const ClessSignal_Message m = Signal(0xA1);
    ClessSignal_Message out{};
    EXPECT_EQ(EMV_Queue_Insert_Element(&q, &m), 1u);
    EXPECT_EQ(EMV_Queue_Insert_Element(&q, &m), 2u);
    for (int i = 0; i < 2; ++i)
        EMV_Queue_Delete_Element(&q, &out);
    // front = rear = 2; six more inserts bring rear round to 0, a seventh fills the queue.
    for (int i = 0; i < 5; ++i)
        EMV_Queue_Insert_Element(&q, &m);
    EXPECT_EQ(EMV_Queue_Insert_Element(&q, &m), static_cast<uint32_t>(0 - 2));
    EXPECT_EQ(EMV_Queue_isFull(&q), 0u);
    EXPECT_EQ(EMV_Queue_Insert_Element(&q, &m), static_cast<uint32_t>(1 - 2));
    EXPECT_EQ(EMV_Queue_isFull(&q), 1u);
    EXPECT_EQ(EMV_Queue_Insert_Element(&q, &m), 0u);
}

TEST(SignalQueueWithoutRecord, WritingYieldsOneAndReceivingZero) {
    VELK_GLOBALVALUE_STRUCT *saved = pgbVelkGlobalValue;
    pgbVelkGlobalValue = nullptr;
    const ClessSignal_Message m = Signal(0xA4);
    ClessSignal_Message out{};
    EXPECT_EQ(VelkCless_writeSignal(&m), 1u);
    EXPECT_EQ(VelkCless_receiveSignal(&out), 0u);
    EXPECT_EQ(EMV_Queue_isEmpty(nullptr), 1u);
    EXPECT_EQ(EMV_Queue_isFull(nullptr), 1u);
    pgbVelkGlobalValue = saved;
}

}  // namespace
}  // namespace velk::test
