// A kernel bound to a fresh zero-filled block, as a host binds it: the block,
// a callback (none by default) and Kernel_Init_VELK_. Tests of internal rules
// (codec, database, accessors) use it to get a valid global record.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "baseKernel.h"
#include "emv_kernel.h"
#include "global.h"

namespace velk::test {

struct alignas(8) KernelBlock {
    uint8_t bytes[VELK_LOCAL_PARAM_MIN_LEN];
};

class BoundKernel {
public:
    explicit BoundKernel(pCallback_Process_EntryPoint_Fun callback = nullptr)
        : block_(std::make_unique<KernelBlock>()) {
        std::memset(block_->bytes, 0, sizeof block_->bytes);
        EXPECT_EQ(Kernel_Set_Local_Param_Pointer_VELK_(block_->bytes, sizeof block_->bytes), 0u);
        if (callback != nullptr) Kernel_load_callback_Routine_VELK_(callback, 0);
        Kernel_Init_VELK_(nullptr, 0);
    }
    VELK_GLOBALVALUE_STRUCT &g() const { return *pgbVelkGlobalValue; }
    uint8_t *block() const { return block_->bytes; }

private:
    std::unique_ptr<KernelBlock> block_;
};

// Fixture for tests that need the global record and the database.
class KernelTest : public ::testing::Test {
protected:
    BoundKernel kernel_;
};

}  // namespace velk::test
