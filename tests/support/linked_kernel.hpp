// SPDX-License-Identifier: Apache-2.0
// The kernel of this build, linked in (libvelk.a), as velk-term binds a
// kernel: its entry functions in a KernelApi for velk::term::KernelSession
// and velk::term::RunTransaction. A test swaps single functions to watch or
// steer the binding (the soak keeps one block, the benchmark records).
#pragma once

#include "emv_kernel.h"
#include "velk/term/kernel.hpp"

namespace velk::test {

inline velk::term::KernelApi LinkedKernel() {
    velk::term::KernelApi api;
    api.set_local_param = &Kernel_Set_Local_Param_Pointer_VELK_;
    api.load_callback = &Kernel_load_callback_Routine_VELK_;
    api.init = &Kernel_Init_VELK_;
    api.start = &Kernel_Start_VELK_;
    api.signal = &Kernel_Customized_Contactless_VELK_;
    api.origin = "libvelk.a (linked in)";
    return api;
}

}  // namespace velk::test
