// SPDX-License-Identifier: Apache-2.0
// A stand-in for libvelk in the simulator's own tests: it has the kernel's
// entry functions, sends callback messages the way the kernel does (7F01 {
// DF00 command, payload } in its own 2048-byte exchange buffer) and takes
// the signals the host posts. What it does in a transaction is a program the
// test gives it, so the host side can be checked against exact requests.
#pragma once

#include <cstring>
#include <deque>
#include <functional>
#include <optional>

#include "velk/host/tlv.hpp"
#include "velk/term/kernel.hpp"

namespace velk::term::test {

using velk::host::Bytes;

struct TakenSignal {
    uint8_t type;
    Bytes data;
};

class FakeKernel {
public:
    // The program of one Kernel_Start: gets the input, returns the output.
    using Program = std::function<Bytes(const Bytes &input)>;

    static FakeKernel &Instance() {
        static FakeKernel k;
        return k;
    }

    static KernelApi Api() {
        KernelApi api;
        api.set_local_param = [](uint8_t *, uint32_t len) -> uint32_t {
            return len < VELK_LOCAL_PARAM_MIN_LEN ? VELK_ERR_BLOCK_TOO_SMALL : 0u;
        };
        api.load_callback = [](pCallback_Process_EntryPoint_Fun cb, uint32_t) -> uint32_t {
            Instance().callback_ = cb;
            return 0;
        };
        api.init = [](uint8_t *, uint32_t) -> uint32_t { return 0; };
        api.start = [](uint8_t *io, uint32_t *len) -> uint32_t {
            FakeKernel &k = Instance();
            k.inputs.emplace_back(io, io + *len);
            const Bytes out = k.programs.empty() ? Bytes{} : k.programs.front()(k.inputs.back());
            if (!k.programs.empty()) k.programs.pop_front();
            if (!out.empty()) std::memcpy(io, out.data(), out.size());
            *len = static_cast<uint32_t>(out.size());
            return k.status;
        };
        api.signal = [](uint8_t *buffer) -> uint32_t {
            ClessSignal_Message m;
            std::memcpy(&m, buffer, sizeof m);
            Instance().signals.push_back(
                {m.ucSignalType, Bytes(m.MessageData, m.MessageData + m.uiMessageDatalen)});
            return 0;
        };
        api.origin = "fake kernel";
        return api;
    }

    void Reset() {
        programs.clear();
        inputs.clear();
        signals.clear();
        status = 0;
    }

    // Sends a request as the kernel builds it and returns the reply bytes;
    // *result gets the callback's status.
    Bytes Call(uint8_t command, const Bytes &payload, uint32_t *result = nullptr) {
        return Raw(velk::host::Tlv(
                       0x7F01, velk::host::Cat({velk::host::Tlv(0xDF00, Bytes{command}), payload})),
                   result);
    }

    // Sends any bytes as a request.
    Bytes Raw(const Bytes &msg, uint32_t *result = nullptr) {
        std::memset(buffer_, 0, sizeof buffer_);
        std::memcpy(buffer_, msg.data(), msg.size());
        uint32_t len = static_cast<uint32_t>(msg.size());
        const uint32_t rv = callback_(buffer_, &len);
        if (result) *result = rv;
        return Bytes(buffer_, buffer_ + std::min<uint32_t>(len, sizeof buffer_));
    }

    // The first child with the tag in a reply, or nullopt.
    static std::optional<Bytes> ReplyValue(const Bytes &reply, uint32_t tag) {
        try {
            const auto nodes = velk::host::ParseTlv(reply, false);
            if (nodes.empty()) return std::nullopt;
            for (const auto &c : nodes[0].children)
                if (c.tag == tag) return c.value;
        } catch (const std::invalid_argument &) {
        }
        return std::nullopt;
    }

    std::optional<TakenSignal> TakeSignal() {
        if (signals.empty()) return std::nullopt;
        TakenSignal s = signals.front();
        signals.pop_front();
        return s;
    }

    std::deque<Program> programs;
    std::vector<Bytes> inputs;
    std::deque<TakenSignal> signals;
    uint32_t status = 0;

private:
    pCallback_Process_EntryPoint_Fun callback_ = nullptr;
    uint8_t buffer_[VELK_EXCHANGE_BUFFER_LEN] = {};
};

// An outcome TLV 7F01 with an Outcome Parameter Set and, optionally, a data record.
inline Bytes Outcome(uint8_t status, uint8_t online_response = 0xF0, const Bytes &record = {}) {
    Bytes ops{status,
              0xF0,
              online_response,
              0xF0,
              static_cast<uint8_t>(record.empty() ? 0x00 : 0x20),
              0xF0,
              0xFF,
              0x00};
    Bytes children = velk::host::Tlv(0xDF8129, ops);
    if (!record.empty()) children = velk::host::Cat({children, velk::host::Tlv(0xFF8105, record)});
    return velk::host::Tlv(0x7F01, children);
}

}  // namespace velk::term::test
