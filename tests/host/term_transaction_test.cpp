// SPDX-License-Identifier: Apache-2.0
// Whole transactions as velk-term runs them, against a stand-in kernel that
// plays the kernel's part: the inputs of both entries, the signals, the
// online flows and what is reported. (Select Next, the plain online request
// and a restart run against the real kernel in the scenario folder.)
#include <gtest/gtest.h>

#include "term/fake_kernel.hpp"
#include "term/term_test.hpp"
#include "velk/term/host.hpp"
#include "velk/term/profiles.hpp"
#include "velk/term/transaction.hpp"

namespace velk::term::test {
namespace {

using velk::host::Cat;
using velk::host::Tlv;
using velk::host::TlvNode;

std::vector<uint32_t> ChildTags(const Bytes &input, uint32_t parent) {
    std::vector<uint32_t> out;
    for (const TlvNode &n : velk::host::ParseTlv(input, false))
        if (n.tag == parent)
            for (const TlvNode &c : n.children)
                out.push_back(c.tag);
    return out;
}

std::optional<Bytes> InputValue(const Bytes &input, uint32_t tag) {
    const auto nodes = velk::host::ParseTlv(input, false);
    const TlvNode *n = velk::host::Find(nodes, tag);
    return n ? std::optional<Bytes>(n->value) : std::nullopt;
}

class TransactionTest : public ::testing::Test {
protected:
    TransactionTest() { kernel().Reset(); }

    static FakeKernel &kernel() { return FakeKernel::Instance(); }

    TransactionReport Run(const std::string &card_name, const std::string &terminal = "pos") {
        const TerminalProfile t = TerminalNamed(terminal);
        card_ = std::make_unique<velk::card::VirtualCard>(CardProfileNamed(card_name));
        return RunTransaction(FakeKernel::Api(), t, *card_, options_, SecretsOf(*card_));
    }

    PayOptions options_ = [] {
        PayOptions o;
        o.amount = "12.34";
        o.date = FromHex("250615");
        o.time = FromHex("101112");
        o.seed = 3;
        o.card_wait = std::chrono::milliseconds(0);
        return o;
    }();
    std::unique_ptr<velk::card::VirtualCard> card_;
};

TEST_F(TransactionTest, TheFirstTapGetsTheSelectResponseAndTheTransactionData) {
    Bytes fci;
    kernel().programs.push_back([&](const Bytes &) {
        const auto s = kernel().TakeSignal();
        EXPECT_TRUE(s && s->type == kSignalFci);
        if (s) fci = s->data;
        return Outcome(0x10);
    });
    const TransactionReport r = Run("offline-cda");
    ASSERT_EQ(kernel().inputs.size(), 1u);
    const Bytes &input = kernel().inputs[0];
    EXPECT_EQ(ChildTags(input, 0x7F11),
              (std::vector<uint32_t>{0x9C, 0x9F02, 0x9F03, 0x5F2A, 0x9A, 0x9F21}));
    EXPECT_EQ(InputValue(input, 0x9F02), FromHex("000000001234"));
    EXPECT_EQ(InputValue(input, 0x9F03), FromHex("000000000000"));
    EXPECT_EQ(InputValue(input, 0x9A), FromHex("250615"));
    EXPECT_FALSE(InputValue(input, 0xDF09));  // no kernel identifier configured
    EXPECT_EQ(velk::card::StatusWord(fci), 0x9000);
    EXPECT_EQ(fci[0], 0x6F);
    EXPECT_TRUE(r.completed);
    EXPECT_EQ(r.result, "APPROVED");
    EXPECT_EQ(r.amount, "12.34");
    EXPECT_EQ(r.currency, "EUR");
    EXPECT_EQ(velk::host::ToHex(*r.aid), "F056454C4B1010");
}

// An APDU sent to the card through the host, as the kernel sends it.
Bytes CardExchange(const Bytes &apdu) {
    return FakeKernel::ReplyValue(FakeKernel::Instance().Call(0xF1, Tlv(0xDF01, apdu)), 0xDF03)
        .value_or(Bytes{});
}

// An online request whose data record holds what the issuer needs: the
// card's own first GENERATE AC, asked through the host as the kernel would.
Bytes FirstGenerateAc(const velk::card::Application &app) {
    const Bytes gpo = CardExchange(Gpo(app.pdol.RelatedLength()));
    (void)gpo;
    Bytes cdol(app.cdol1.RelatedLength(), 0x00);
    cdol[5] = 0x34;
    cdol[4] = 0x12;
    const Bytes r = CardExchange(GenerateAc(0x80, cdol));
    const auto data = velk::card::ResponseData(r);
    const auto nodes = velk::host::ParseTlv(Bytes(data.begin(), data.end()), false);
    Bytes record = Tlv(0x9F02, FromHex("000000001234"));
    for (const TlvNode &n : nodes[0].children)
        if (n.tag == 0x9F26 || n.tag == 0x9F36) record = Cat({record, Tlv(n.tag, n.value)});
    return Cat({record, Tlv(0x82, app.aip), Tlv(0x5A, *app.RecordValue(0x5A))});
}

TEST_F(TransactionTest, LongTapSendsTheIssuersResponseOnASecondEntry) {
    kernel().programs.push_back([&](const Bytes &) {
        kernel().TakeSignal();
        return Outcome(0x30, 0x04, FirstGenerateAc(card_->Profile().applications[0]));
    });
    kernel().programs.push_back([](const Bytes &) { return Outcome(0x10); });
    const TransactionReport r = Run("online-cda");
    ASSERT_EQ(kernel().inputs.size(), 2u);
    const Bytes &second = kernel().inputs[1];
    EXPECT_EQ(InputValue(second, 0x9F872B), Bytes{0x30});
    EXPECT_EQ(InputValue(second, 0x8A), FromHex("3030"));
    EXPECT_EQ(InputValue(second, 0x9F06), FromHex("F056454C4B1010"));
    EXPECT_EQ(InputValue(second, 0x9F02), FromHex("000000001234"));
    EXPECT_TRUE(InputValue(second, 0x5F2A));
    EXPECT_FALSE(InputValue(second, 0x9F8201));  // the card never left the field
    const auto iad = InputValue(second, 0x91);
    ASSERT_TRUE(iad);
    EXPECT_EQ(iad->size(), 10u);
    EXPECT_EQ(r.online_flow, "long tap");
    ASSERT_TRUE(r.issuer);
    EXPECT_EQ(r.issuer->arqc_check, "verified");
    EXPECT_EQ(r.result, "APPROVED");
}

TEST_F(TransactionTest, OnlineTapSelectsTheCardAgainAndPassesItsFci) {
    kernel().programs.push_back([](const Bytes &) { return Outcome(0x30, 0x03); });
    kernel().programs.push_back([](const Bytes &) { return Outcome(0x20); });
    options_.issuer = IssuerConfig::FromDecision("decline");
    options_.issuer.send_arpc = false;
    const TransactionReport r = Run("online-tap");
    ASSERT_EQ(kernel().inputs.size(), 2u);
    const Bytes &second = kernel().inputs[1];
    EXPECT_EQ(InputValue(second, 0x8A), FromHex("3035"));
    EXPECT_FALSE(InputValue(second, 0x91));
    const auto fci = InputValue(second, 0x9F8201);
    ASSERT_TRUE(fci);
    EXPECT_EQ((*fci)[0], 0x6F);
    size_t selects = 0;
    for (const TraceEvent &e : r.trace.Events())
        selects += e.type == TraceEvent::Type::kApdu &&
                   velk::card::Classify(e.first) == velk::card::CommandKind::kSelect;
    EXPECT_EQ(selects, 2u);
    EXPECT_EQ(r.result, "DECLINED");
}

TEST_F(TransactionTest, WithoutAnOutcomeTheReportSaysSo) {
    kernel().programs.push_back([](const Bytes &) { return Bytes{}; });
    kernel().status = 0x33003;
    const TransactionReport r = Run("offline-cda");
    EXPECT_FALSE(r.completed);
    EXPECT_EQ(r.result, "NO OUTCOME");
    ASSERT_GE(r.why.size(), 2u);
    EXPECT_EQ(r.why[0], "The kernel ended without an outcome: the kernel's output is empty.");
    EXPECT_EQ(r.why[1],
              "Kernel entry 1 returned 0x33003: the transaction input is not well-formed.");
}

}  // namespace
}  // namespace velk::term::test
