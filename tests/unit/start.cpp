// SPDX-License-Identifier: Apache-2.0
// Drivers of kernel start and transaction initialisation: a transaction from
// the entry point, or its first steps as the step machine runs them.
//
//   signal:type:bytes        posts a signal carrying the bytes (an FCI)
//   to_step:input:status:step
//     kernel start, pre-processing and transaction initialisation in turn,
//     stopping at the first other step or failure ("" step: unchecked)
//   start:input[:len[:fill]] Kernel_Start_VELK_ on a 4096-byte io buffer
//                            holding the input, the rest filled (00)
//   started:status:tags      its result and the outcome's tags in order
//                            ("" tags: unchecked)
//   out:tag:bytes            a child of the outcome ("-": absent)
//   last_tag:tag             the outcome's last child
//   cleared                  the io buffer is zero past input and outcome
//   dyn_has:bytes            the dynamic transaction parameters hold them
#include <algorithm>
#include <deque>

#include "baseKernel.h"
#include "emv_kernel.h"
#include "global.h"
#include "rows.hpp"

namespace velk::test {
namespace {

struct Started {
    uint32_t status = 0;
    size_t inputLen = 0;
    Bytes io, out;
} last_;

VELK_DRIVER(signal) {
    // The queue keeps pointers: the bytes stay until the program ends.
    static std::deque<Bytes> kept;
    Bytes &data = kept.emplace_back(row.Hex(1));
    ClessSignal_Message m{static_cast<uint8_t>(row.U(0)), data.data(),
                          static_cast<uint32_t>(data.size())};
    Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&m));
}

VELK_DRIVER(to_step) {
    Bytes io = row.Hex(0);
    io.resize(VELK_IO_BUFFER_MIN_LEN);
    uint32_t len = static_cast<uint32_t>(row.Hex(0).size());
    uint32_t status = 0;
    VelkCless_SetTransactionStep(0x1000);
    for (;;) {
        const uint32_t step = VelkCless_GetTransactionStep();
        if (step == 0x1000)
            status = VelkCless_KernelStart_Step00(io.data(), &len);
        else if (step == 0x1200)
            status = VelkCless_PreProcess();
        else if (step == 0x1100)
            status = VelkCless_TransactionInitialisation(io.data(), &len);
        else
            break;
        if (status != 0) break;
    }
    row.Eq("status", row.U(1), status);
    if (!row.Arg(2).empty()) row.Eq("step", row.U(2), VelkCless_GetTransactionStep());
}

VELK_DRIVER(start) {
    const Bytes input = row.Hex(0);
    last_ = Started{};
    last_.inputLen = input.size();
    last_.io.assign(VELK_IO_BUFFER_MIN_LEN, row.Arg(2).empty() ? 0 : uint8_t(row.U(2)));
    std::copy(input.begin(), input.end(), last_.io.begin());
    uint32_t len = row.Arg(1).empty() ? static_cast<uint32_t>(input.size()) : row.U(1);
    last_.status = Kernel_Start_VELK_(last_.io.data(), &len);
    row.Eq("outcome within the buffer", true, len <= VELK_IO_BUFFER_MIN_LEN);
    last_.out.assign(last_.io.begin(), last_.io.begin() + std::min<uint32_t>(len, 4096));
}

std::vector<host::TlvNode> Children() {
    const auto nodes = host::ParseTlv(last_.out, false);
    return nodes.size() == 1 && nodes[0].tag == 0x7F01 ? nodes[0].children
                                                       : std::vector<host::TlvNode>{};
}

VELK_DRIVER(started) {
    row.Eq("status", row.U(0), last_.status);
    if (row.Arg(1).empty()) return;
    std::string tags;
    for (const auto &n : Children())
        tags += (tags.empty() ? "" : " ") + host::ToHex(host::EncodeTag(n.tag));
    row.Eq("outcome's tags", row.Arg(1), tags);
}

VELK_DRIVER(out) {
    std::string got = "-";
    for (const auto &n : Children())
        if (n.tag == row.U(0)) got = host::ToHex(n.value);
    row.Eq(row.Arg(0), row.Arg(1) == "-" ? "-" : host::ToHex(row.Hex(1)), got);
}

VELK_DRIVER(last_tag) {
    const auto children = Children();
    row.Eq("last tag", row.U(0), children.empty() ? 0u : children.back().tag);
}

VELK_DRIVER(dyn_has) {
    const auto *g = pgbVelkGlobalValue;
    const std::string dyn = host::ToHex(
        Bytes(g->ucDynamicTransactionParameters,
              g->ucDynamicTransactionParameters + g->uiDynamicTransactionParametersLen));
    const std::string want = host::ToHex(row.Hex(0));
    row.Eq("in the dynamic parameters", want, dyn.find(want) % 2 == 0 ? want : dyn);
}

VELK_DRIVER(cleared) {
    const size_t from = std::max(last_.inputLen, last_.out.size());
    row.Eq("non-zero bytes past input and outcome", 0u,
           std::count_if(last_.io.begin() + long(from), last_.io.end(),
                         [](uint8_t b) { return b != 0; }));
}

}  // namespace
}  // namespace velk::test
