// The signal queue with a real second thread: the kernel waits (busy, with no
// time-out) while another thread of the host posts. Labelled "threads" for
// the thread-sanitizer build.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "baseKernel.h"
#include "scripted_host.hpp"
#include "transaction_data.hpp"

namespace velk::test {
namespace {

using namespace std::chrono_literals;
using velk::host::FromHex;
using velk::host::ToHex;

TEST(ThreadSignals, CardActivationIsAnsweredFromAnotherThreadAfterADelay) {
    ScriptedHost host;
    host.On(VELK_CMD_CARD_ACTIVE, [&host](const Message &) {
        host.PostFromThread(VELK_SIGNAL_COMM_ERROR_A5, {}, 30ms);
        return Answer::Keep();
    });
    EXPECT_EQ(VelkCless_Card_Active(), 0x30103u);
}

TEST(ThreadSignals, AnApduIsAnsweredLaterByAnA4FromAnotherThread) {
    ScriptedHost host;
    const Bytes capdu = FromHex("80CA9F1700");
    host.card = {RespondLater(capdu, FromHex("9F1701039000"), 30ms),
                 RespondLater(capdu, FromHex("6A88"), 1ms)};
    for (const char *expected : {"9F1701039000", "6A88"}) {
        uint8_t rapdu[32] = {};
        uint32_t len = sizeof rapdu;
        ASSERT_EQ(VelkCless_ExchangeAPDU(capdu.data(), 5, rapdu, &len), 0u);
        EXPECT_EQ(ToHex({rapdu, len}), expected);
    }
}

TEST(ThreadSignals, SignalsPostedByAnotherThreadArriveInTheirOrder) {
    BoundKernel kernel;
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
