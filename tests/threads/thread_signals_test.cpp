// SPDX-License-Identifier: Apache-2.0
// The signal queue with a real second thread: the kernel, bound as velk-term
// binds it, waits (busy, with no time-out) while another thread of the host
// posts. Labelled "threads" for the thread-sanitizer build.
#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <thread>

#include "baseKernel.h"
#include "global.h"
#include "linked_kernel.hpp"
#include "velk/host/tlv.hpp"
#include "velk/term/kernel.hpp"

namespace velk::test {
namespace {

using namespace std::chrono_literals;
using host::Bytes;
using host::FromHex;

// What the host's other thread posts for each callback request, after a
// delay: one signal each, in order; the request itself gets an empty reply.
struct Later {
    uint8_t type;
    Bytes data;
    std::chrono::milliseconds delay;
};
std::deque<Later> g_later;
std::thread g_poster;
ClessSignal_Message g_signal;

struct AnswerFromAnotherThread : velk::term::CallbackHandler {
    uint32_t OnCallback(uint8_t *buf, uint32_t *len) override;
    void OnHostError(const std::string &what) override { ADD_FAILURE() << what; }
};

uint32_t AnswerFromAnotherThread::OnCallback(uint8_t *buf, uint32_t *len) {
    if (g_poster.joinable()) g_poster.join();
    const Later next = g_later.front();
    g_later.pop_front();
    static Bytes data;
    data = next.data;
    g_poster = std::thread([next] {
        std::this_thread::sleep_for(next.delay);
        g_signal = {next.type, data.empty() ? nullptr : data.data(),
                    static_cast<uint32_t>(data.size())};
        Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&g_signal));
    });
    const Bytes reply = FromHex("7F0100");
    std::copy(reply.begin(), reply.end(), buf);
    *len = static_cast<uint32_t>(reply.size());
    return 0;
}

class ThreadSignals : public ::testing::Test {
protected:
    void TearDown() override {
        if (g_poster.joinable()) g_poster.join();
    }
    AnswerFromAnotherThread host_;
    velk::term::KernelSession kernel_{LinkedKernel(), host_};
};

TEST_F(ThreadSignals, CardActivationIsAnsweredFromAnotherThreadAfterADelay) {
    g_later = {{VELK_SIGNAL_COMM_ERROR_A5, {}, 30ms}};
    EXPECT_EQ(VelkCless_Card_Active(), 0x30103u);
}

TEST_F(ThreadSignals, AnApduIsAnsweredLaterByAnA4FromAnotherThread) {
    g_later = {{VELK_SIGNAL_RAPDU, FromHex("9F1701039000"), 30ms},
               {VELK_SIGNAL_RAPDU, FromHex("6A88"), 1ms}};
    const Bytes capdu = FromHex("80CA9F1700");
    for (const char *expected : {"9F1701039000", "6A88"}) {
        uint8_t rapdu[32] = {};
        uint32_t len = sizeof rapdu;
        ASSERT_EQ(VelkCless_ExchangeAPDU(capdu.data(), 5, rapdu, &len), 0u);
        EXPECT_EQ(host::ToHex({rapdu, len}), expected);
        if (g_poster.joinable()) g_poster.join();
    }
}

TEST_F(ThreadSignals, SignalsPostedByAnotherThreadArriveInTheirOrder) {
    std::thread poster([] {
        for (uint8_t i = 0; i < 20; ++i) {
            ClessSignal_Message signal{static_cast<uint8_t>(0x10 + i), nullptr, i};
            // A full queue drops the signal: wait for room as a host would.
            while (EMV_Queue_isFull(&pgbVelkGlobalValue->EmvQueue) != 0)
                std::this_thread::yield();
            Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&signal));
        }
    });
    for (uint8_t i = 0; i < 20; ++i) {
        ClessSignal_Message signal{};
        VelkCless_Waiting_For_Event_Message(&signal);
        EXPECT_EQ(signal.ucSignalType, 0x10 + i);
        EXPECT_EQ(signal.uiMessageDatalen, i);
    }
    poster.join();
}

}  // namespace
}  // namespace velk::test
