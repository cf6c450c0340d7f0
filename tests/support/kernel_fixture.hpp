// SPDX-License-Identifier: Apache-2.0
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

// With `bound`, the kernel stays on a block the caller bound and initialised
// once (a soak runs every transaction on one block); only the callback is
// loaded.
class BoundKernel {
public:
    explicit BoundKernel(pCallback_Process_EntryPoint_Fun callback = nullptr,
                         uint8_t *bound = nullptr)
        : block_(bound == nullptr ? std::make_unique<KernelBlock>() : nullptr),
          bytes_(bound == nullptr ? block_->bytes : bound) {
        if (bound == nullptr) {
            std::memset(bytes_, 0, sizeof block_->bytes);
            EXPECT_EQ(Kernel_Set_Local_Param_Pointer_VELK_(bytes_, sizeof block_->bytes), 0u);
        }
        if (callback != nullptr) Kernel_load_callback_Routine_VELK_(callback, 0);
        if (bound == nullptr) Kernel_Init_VELK_(nullptr, 0);
    }
    VELK_GLOBALVALUE_STRUCT &g() const { return *pgbVelkGlobalValue; }
    uint8_t *block() const { return bytes_; }

private:
    std::unique_ptr<KernelBlock> block_;
    uint8_t *bytes_;
};

// Fixture for tests that need the global record and the database.
class KernelTest : public ::testing::Test {
protected:
    BoundKernel kernel_;
};

}  // namespace velk::test
