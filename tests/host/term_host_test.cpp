// The host's answer to every callback command, as the kernel reads it, and
// its refusals: malformed requests, unknown commands, replies that would not
// fit, and exceptions that must not reach the kernel.
#include <gtest/gtest.h>

#include "term/fake_kernel.hpp"
#include "term/term_test.hpp"
#include "velk/card/faulty_card.hpp"
#include "velk/term/host.hpp"

namespace velk::term::test {
namespace {

using velk::host::Cat;
using velk::host::Tlv;

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

    Bytes Call(uint8_t command, const Bytes &payload = {}, uint32_t expected_status = 0) {
        uint32_t status = 0xFFFFFFFF;
        const Bytes reply = kernel().Call(command, payload, &status);
        EXPECT_EQ(status, expected_status) << "command " << velk::host::ToHex(Bytes{command});
        return reply;
    }
    static FakeKernel &kernel() { return FakeKernel::Instance(); }
    static std::optional<Bytes> Value(const Bytes &reply, uint32_t tag) {
        return FakeKernel::ReplyValue(reply, tag);
    }

    TerminalProfile terminal_ = TerminalNamed("pos");
    velk::card::VirtualCard card_;
    RandomSource random_;
    Trace trace_;
    std::unique_ptr<Host> host_;
    std::unique_ptr<KernelSession> session_;
};

TEST_F(HostTest, TerminalParametersAreTheProfilesDataObjects) {
    EXPECT_EQ(Call(0xD1), Tlv(0x7F01, terminal_.parameters));
}

TEST_F(HostTest, ApplicationParametersByAidAndARefusalForAnUnknownOne) {
    const Bytes reply =
        Call(0xD3, Cat({Tlv(0x9F06, FromHex("F056454C4B1010")), Tlv(0x9C, Bytes{0})}));
    EXPECT_EQ(reply, Tlv(0x7F01, terminal_.FindApplication(FromHex("F056454C4B1010"))->parameters));
    Call(0xD3, Tlv(0x9F06, FromHex("A000000099")), kHostRefused);
    Call(0xD3, {}, kHostRefused);
}

TEST_F(HostTest, CaPublicKeyByRidAndIndexOrAnEmptyAnswer) {
    const Bytes reply =
        Call(0xD4, Cat({Tlv(0x9F06, FromHex("F056454C4B1010")), Tlv(0x8F, Bytes{0xF1})}));
    const CaKey *key = terminal_.FindCaKey(FromHex("F056454C4B"), 0xF1);
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(Value(reply, 0xDF8201), key->modulus);
    EXPECT_EQ(Value(reply, 0xDF8202), key->exponent);
    EXPECT_EQ(Call(0xD4, Cat({Tlv(0x9F06, FromHex("F056454C4B1010")), Tlv(0x8F, Bytes{0x01})})),
              FromHex("7F0100"));
    EXPECT_EQ(Call(0xD4, Tlv(0x9F06, FromHex("F056"))), FromHex("7F0100"));
}

TEST_F(HostTest, UnpredictableNumbersRepeatWithTheSameSeed) {
    const Bytes first = *Value(Call(0xD5), 0x9F37);
    EXPECT_EQ(first.size(), 4u);
    RandomSource same(7);
    EXPECT_EQ(first, same.Next(4));
    EXPECT_NE(*Value(Call(0xD5), 0x9F37), first);
    RandomSource os1, os2;
    EXPECT_NE(os1.Next(16), os2.Next(16));
}

TEST_F(HostTest, CardActivationPostsASignalThatSaysWhetherTheCardCame) {
    Call(0xD6);
    auto s = kernel().TakeSignal();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->type, kSignalCardPresent);
    EXPECT_EQ(s->data, card_.Profile().atr);
    card_.SetPresent(false);
    Call(0xD6);
    s = kernel().TakeSignal();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->type, kSignalNoCard);
}

TEST_F(HostTest, DisplayPowerOffExceptionFileAndRevocation) {
    const Bytes uird = FromHex("17040000000000000000000000000000000000000000");
    EXPECT_EQ(Call(0xD7, Tlv(0xDF8116, uird)), FromHex("7F0100"));
    const auto &events = trace_.Events();
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(events[events.size() - 2].type, TraceEvent::Type::kCallback);  // then what it does
    EXPECT_EQ(events.back().type, TraceEvent::Type::kDisplay);
    EXPECT_EQ(events.back().first, uird);

    const auto listed = [&](const char *pan, const char *psn) {
        return Value(Call(0xE6, Cat({Tlv(0x5A, FromHex(pan)), Tlv(0x5F34, FromHex(psn))})), 0xDF05);
    };
    EXPECT_EQ(listed("8999123456789136", "01"), Bytes{0x01});
    EXPECT_EQ(listed("8999123456789136", "02"), Bytes{0x00});
    EXPECT_EQ(listed("8999123456789011", "01"), Bytes{0x00});
    EXPECT_EQ(Value(Call(0xE6), 0xDF05), Bytes{0x00});

    const auto revoked = [&](const char *serial) {
        return Value(Call(0xE9, Cat({Tlv(0x9F06, FromHex("F056454C4B")), Tlv(0x8F, Bytes{0xF1}),
                                     Tlv(0xDF8108, FromHex(serial))})),
                     0xDF8109);
    };
    EXPECT_EQ(revoked("000999"), Bytes{0x01});
    EXPECT_EQ(revoked("000101"), Bytes{0x00});

    Call(0xDF);
    EXPECT_THROW(card_.Transmit(Select(FromHex("F056454C4B1010"))), velk::card::CardError);
}

TEST_F(HostTest, OnlineContextGoesBackAsItCameUnder7F15) {
    Call(0xA3, {}, kHostRefused);  // nothing stored yet
    const Bytes context = Cat({Tlv(0x9F8217, Bytes{0x20}), Tlv(0x95, FromHex("0000008000"))});
    Call(0xA2, Tlv(0x7F15, context));
    EXPECT_EQ(host_->OnlineContext(), context);
    EXPECT_EQ(Call(0xA3), Tlv(0x7F15, context));
}

TEST_F(HostTest, RestartTakesTheOutcomePacketWithItsCommandLast) {
    int restarts = 0;
    host_->on_restart = [&] { ++restarts; };
    const Bytes restart_ui = FromHex("210200000000000000000000000000000000000000");
    const Bytes msg = Tlv(0x7F01, Cat({Tlv(0xDF8129, FromHex("7010F0F0C0F01300")),
                                       Tlv(0x9F8117, restart_ui), Tlv(0xDF00, Bytes{0xFE})}));
    uint32_t status = 1;
    EXPECT_EQ(kernel().Raw(msg, &status), FromHex("7F0100"));
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(restarts, 1);
    EXPECT_EQ(host_->Restarts(), 1);
    EXPECT_THROW(card_.Transmit(Select(FromHex("F056454C4B1010"))), velk::card::CardError);
}

TEST_F(HostTest, MalformedRequestsAndUnknownCommandsAreRefused) {
    uint32_t status = 0;
    kernel().Raw(FromHex("7F01"), &status);
    EXPECT_EQ(status, kHostMalformedRequest);
    kernel().Raw(FromHex("7F0103DF0100"), &status);  // no DF00
    EXPECT_EQ(status, kHostMalformedRequest);
    kernel().Raw(FromHex("7F0104DF000200D1"), &status);  // a two-byte command
    EXPECT_EQ(status, kHostMalformedRequest);
    Call(0x42, {}, kHostUnknownCommand);
    Call(0xF1, {}, kHostMalformedRequest);  // an APDU request without DF01
    EXPECT_GE(host_->Errors().size(), 4u);
}

TEST_F(HostTest, AReplyThatWouldNotFitTheExchangeBufferIsNotWritten) {
    terminal_.parameters = Tlv(0xDF7F, Bytes(VELK_EXCHANGE_BUFFER_LEN, 0xAA));
    const Bytes reply = Call(0xD1, {}, kHostReplyTooLong);
    EXPECT_EQ(reply.size(), 7u);  // the request, untouched
}

class ApduHostTest : public HostTest,
                     public ::testing::WithParamInterface<std::tuple<const char *, uint8_t>> {};

// A card that does not answer leaves the reply without DF03; the signal says why.
TEST_P(ApduHostTest, NoResponseMeansASignal) {
    velk::card::FaultyCard faulty(card_, {velk::card::Fault::Parse(std::get<0>(GetParam()))});
    Use(faulty);
    const Bytes reply = Call(0xF1, Tlv(0xDF01, Select(FromHex("F056454C4B1010"))));
    EXPECT_FALSE(Value(reply, 0xDF03));
    const auto s = kernel().TakeSignal();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->type, std::get<1>(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Faults, ApduHostTest,
                         ::testing::Values(std::make_tuple("cancel@select", kSignalStop),
                                           std::make_tuple("tear@select", kSignalCommError),
                                           std::make_tuple("remove@select", kSignalCommError)),
                         [](const auto &info) { return std::to_string(info.index); });

TEST_F(HostTest, AnApduGoesToTheCardAndItsResponseComesBackInDf03) {
    const Bytes reply = Call(0xF1, Tlv(0xDF01, Select(FromHex("F056454C4B1010"))));
    const auto r = Value(reply, 0xDF03);
    ASSERT_TRUE(r);
    EXPECT_EQ(velk::card::StatusWord(*r), 0x9000);
    // The F1 request comes first, then the exchange it carries.
    const auto &events = trace_.Events();
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(events[events.size() - 2].type, TraceEvent::Type::kCallback);
    EXPECT_EQ(events[events.size() - 2].second, reply);
    EXPECT_EQ(events.back().type, TraceEvent::Type::kApdu);
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
    const Bytes reply =
        FakeKernel::Instance().Call(0xF1, Tlv(0xDF01, FromHex("00A4040000")), &status);
    EXPECT_EQ(status, kHostFailed);
    ASSERT_EQ(host.Errors().size(), 1u);
    EXPECT_EQ(host.Errors()[0], "the reader caught fire");
    EXPECT_THROW(KernelSession(FakeKernel::Api(), host),
                 std::logic_error);  // one session at a time
}

}  // namespace
}  // namespace velk::term::test
