// SPDX-License-Identifier: Apache-2.0
// The host's answers to requests no real kernel sends: unknown AIDs and
// keys, an online context never stored, malformed requests, unknown
// commands, replies that would not fit, and exceptions that must not reach
// the kernel. (Its replies in a transaction are pinned by the scenarios of
// tests/scenarios/term/dispatcher.json.)
#include <gtest/gtest.h>

#include "term/fake_kernel.hpp"
#include "term/term_test.hpp"
#include "velk/card/faulty_card.hpp"
#include "velk/term/host.hpp"

namespace velk::term::test {
namespace {

class HostTest : public ::testing::Test {
protected:
    HostTest() : card_(CardProfileNamed("offline-cda")), random_(7) {
        FakeKernel::Instance().Reset();
        card_.PowerOn();
        Use(card_);
    }
    // The host answers for this card from now on.
    void Use(velk::card::Card &card) {
        session_.reset();
        host_ = std::make_unique<Host>(terminal_, card, random_, trace_);
        session_ = std::make_unique<KernelSession>(FakeKernel::Api(), *host_);
        host_->Bind(session_.get());
    }
    static FakeKernel &kernel() { return FakeKernel::Instance(); }

    TerminalProfile terminal_ = TerminalNamed("pos");
    velk::card::VirtualCard card_;
    RandomSource random_;
    Trace trace_;
    std::unique_ptr<Host> host_;
    std::unique_ptr<KernelSession> session_;
};

// Each request as the kernel's exchange buffer holds it (hex), the status
// and, where given, the reply.
TEST_F(HostTest, RequestsAnsweredByStatusAndReply) {
    const struct {
        const char *request, *reply;
        uint32_t status;
    } rows[] = {
        {"7F01 0C DF0001D3 9F0605A000000099", nullptr, kHostRefused},  // an AID of no application
        {"7F01 04 DF0001D3", nullptr, kHostRefused},
        {"7F01 11 DF0001D4 9F0607F056454C4B1010 8F0101", "7F0100", 0},  // no such CA key
        {"7F01 09 DF0001D4 9F0602F056", "7F0100", 0},
        {"7F01 04 DF0001E6", "7F0104DF050100", 0},    // no PAN: not on the file
        {"7F01 04 DF0001A3", nullptr, kHostRefused},  // no context stored yet
        {"7F01", nullptr, kHostMalformedRequest},
        {"7F01 03 DF0100", nullptr, kHostMalformedRequest},      // no DF00
        {"7F01 04 DF000200D1", nullptr, kHostMalformedRequest},  // a two-byte command
        {"7F01 04 DF000142", nullptr, kHostUnknownCommand},
        {"7F01 04 DF0001F1", nullptr, kHostMalformedRequest},  // an APDU request without DF01
    };
    for (const auto &row : rows) {
        uint32_t status = 0xFFFFFFFF;
        const Bytes reply = kernel().Raw(FromHex(row.request), &status);
        EXPECT_EQ(status, row.status) << row.request;
        if (row.reply) {
            EXPECT_EQ(reply, FromHex(row.reply)) << row.request;
        }
    }
    EXPECT_GE(host_->Errors().size(), 5u);
    RandomSource os1, os2;  // unseeded: the operating system's numbers
    EXPECT_NE(os1.Next(16), os2.Next(16));
}

TEST_F(HostTest, OnlineContextGoesBackAsItCameUnder7F15) {
    const Bytes context = FromHex("9F821701 20 9505 0000008000");
    kernel().Call(0xA2, velk::host::Tlv(0x7F15, context));
    EXPECT_EQ(host_->OnlineContext(), context);
    EXPECT_EQ(kernel().Call(0xA3, {}), velk::host::Tlv(0x7F15, context));
}

TEST_F(HostTest, CardActivationPostsASignalThatSaysWhetherTheCardCame) {
    kernel().Call(0xD6, {});
    auto s = kernel().TakeSignal();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->type, kSignalCardPresent);
    EXPECT_EQ(s->data, card_.Profile().atr);
    card_.SetPresent(false);
    kernel().Call(0xD6, {});
    s = kernel().TakeSignal();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->type, kSignalNoCard);
    kernel().Call(0xDF, {});  // power-off
    EXPECT_THROW(card_.Transmit(Select(FromHex("F056454C4B1010"))), velk::card::CardError);
}

TEST_F(HostTest, RestartTakesTheOutcomePacketWithItsCommandLast) {
    int restarts = 0;
    host_->on_restart = [&] { ++restarts; };
    uint32_t status = 1;
    const Bytes packet = velk::host::Cat(
        {velk::host::Tlv(0xDF8129, FromHex("7010F0F0C0F01300")),
         velk::host::Tlv(0x9F8117, FromHex("210200000000000000000000000000000000000000")),
         velk::host::Tlv(0xDF00, Bytes{0xFE})});
    EXPECT_EQ(kernel().Raw(velk::host::Tlv(0x7F01, packet), &status), FromHex("7F0100"));
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(restarts, 1);
    EXPECT_EQ(host_->Restarts(), 1);
    EXPECT_THROW(card_.Transmit(Select(FromHex("F056454C4B1010"))), velk::card::CardError);
}

TEST_F(HostTest, AReplyThatWouldNotFitTheExchangeBufferIsNotWritten) {
    terminal_.parameters = velk::host::Tlv(0xDF7F, Bytes(VELK_EXCHANGE_BUFFER_LEN, 0xAA));
    uint32_t status = 0;
    EXPECT_EQ(kernel().Call(0xD1, {}, &status).size(), 7u);  // the request, untouched
    EXPECT_EQ(status, kHostReplyTooLong);
}

// A card that does not answer leaves the reply without DF03; the signal says
// why. The F1 request comes first in the trace, then the exchange it carries.
TEST_F(HostTest, AnApduGoesToTheCardOrASignalSaysWhyNot) {
    const Bytes reply =
        kernel().Call(0xF1, velk::host::Tlv(0xDF01, Select(FromHex("F056454C4B1010"))));
    EXPECT_EQ(velk::card::StatusWord(*FakeKernel::ReplyValue(reply, 0xDF03)), 0x9000);
    const auto &events = trace_.Events();
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(events[events.size() - 2].type, TraceEvent::Type::kCallback);
    EXPECT_EQ(events[events.size() - 2].second, reply);
    EXPECT_EQ(events.back().type, TraceEvent::Type::kApdu);
    for (const auto &[fault, signal] : {std::pair{"cancel@select", kSignalStop},
                                        {"tear@select", kSignalCommError},
                                        {"remove@select", kSignalCommError}}) {
        velk::card::FaultyCard faulty(card_, {velk::card::Fault::Parse(fault)});
        Use(faulty);
        const Bytes r =
            kernel().Call(0xF1, velk::host::Tlv(0xDF01, Select(FromHex("F056454C4B1010"))));
        EXPECT_FALSE(FakeKernel::ReplyValue(r, 0xDF03)) << fault;
        const auto s = kernel().TakeSignal();
        ASSERT_TRUE(s) << fault;
        EXPECT_EQ(s->type, signal) << fault;
    }
}

// A card whose failure is not a card error: the exception stops at the
// trampoline and the kernel gets a failure status.
class ThrowingCard : public velk::card::Card {
public:
    std::string Describe() const override { return "throwing"; }
    Bytes PowerOn() override { return {}; }
    void PowerOff() override {}
    bool Present() override { return true; }
    bool WaitPresent(std::chrono::milliseconds) override { return true; }
    Bytes Transmit(std::span<const uint8_t>) override {
        throw std::runtime_error("the reader caught fire");
    }
};

TEST(HostTrampoline, ExceptionsNeverReachTheKernel) {
    ThrowingCard card;
    const TerminalProfile terminal = TerminalNamed("pos");
    RandomSource random(1);
    Trace trace;
    Host host(terminal, card, random, trace);
    KernelSession session(FakeKernel::Api(), host);
    host.Bind(&session);
    uint32_t status = 0;
    FakeKernel::Instance().Call(0xF1, velk::host::Tlv(0xDF01, FromHex("00A4040000")), &status);
    EXPECT_EQ(status, kHostFailed);
    ASSERT_EQ(host.Errors().size(), 1u);
    EXPECT_EQ(host.Errors()[0], "the reader caught fire");
    EXPECT_THROW(KernelSession(FakeKernel::Api(), host),
                 std::logic_error);  // one session at a time
}

}  // namespace
}  // namespace velk::term::test
