// Balance retrieval and kernel de-activation: the end of the first tap.
#include <gtest/gtest.h>

#include "baseKernel.h"
#include "db_access.hpp"
#include "kernel_fixture.hpp"
#include "named_case.hpp"
#include "step_host.hpp"

namespace velk::test {
namespace {

class Balance : public KernelTest {
protected:
    void SetUp() override { Put(0x9F9301, "00000008"); }  // byte 4 bit 0x08: read the balance
    uint32_t Run() { return VelkCless_Retrieval_Card_Balance(); }
    uint32_t Step() { return VelkCless_GetTransactionStep(); }
    // Whether the card-read message (D7 with message 17, status 04) was shown.
    bool CardReadShown() {
        for (size_t i = 0; i < host_.commands.size(); ++i)
            if (host_.commands[i] == 0xD7 &&
                Hex(host_.requests[i]).find("DF8116161704") != std::string::npos)
                return true;
        return false;
    }
    StepHost host_;
};

TEST_F(Balance, ReadsBothElements) {
    Put(0x9F27, "40");
    host_.Respond("9F5006000000001234 9000");
    host_.Respond("0000FF CD020978 9000");
    EXPECT_EQ(Run(), 0u);
    ASSERT_EQ(host_.apdus.size(), 2u);
    EXPECT_EQ(Hex(host_.apdus[0]), "80CA9F5000");
    EXPECT_EQ(Hex(host_.apdus[1]), "80CA00CD00");
    EXPECT_EQ(Db(0x9F50), "000000001234");
    EXPECT_EQ(Db(0xCD), "0978");
    EXPECT_TRUE(CardReadShown());
    EXPECT_EQ(Step(), 0x1620u);
}

TEST_F(Balance, RefusalsAndBadAnswersLeaveTheBalanceOut) {
    struct Row {
        const char *first;
        const char *second;
    };
    const Row rows[] = {
        {"6A88", "6A88"},
        {"9F5006000000 9000", "CD03 0978 9000"},  // objects cut short
        {"9F5083FFFFFF 9000", "00000000 9000"},   // hostile length, padding only
        {"9000", "CD00 9000"},                    // nothing, empty CD
        {"90", "FFFFFFFFCD0209 9000"},            // no status word, CD cut
    };
    for (const Row &r : rows) {
        host_.Respond(r.first);
        host_.Respond(r.second);
        EXPECT_EQ(Run(), 0u);
        EXPECT_EQ(Db(0x9F50), "absent") << r.first;
        EXPECT_EQ(Db(0xCD), "absent") << r.second;
    }
    EXPECT_EQ(host_.Pending(), 0u);
}

TEST_F(Balance, ExchangeFailuresAreIgnored) {
    host_.Signal(0xA5);
    host_.Respond("CD020978 9000");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Db(0xCD), "0978");
    EXPECT_EQ(Step(), 0x2900u);
}

TEST_F(Balance, AnswerOfOnlyPaddingIsBoundedByItsBuffer) {
    host_.Respond("9000");
    host_.Respond(std::string(2 * 254, 'F') + "9000");
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Db(0xCD), "absent");
}

TEST_F(Balance, WithoutTheCapabilityNoCommand) {
    Put(0x9F9301, "00000000");
    EXPECT_EQ(Run(), 0u);
    EXPECT_TRUE(host_.apdus.empty());
    EXPECT_TRUE(CardReadShown());
}

struct StepCase : NamedCase {
    const char *cid;  // nullptr: absent
    const char *options;
    const char *capabilities;
    bool message;
    uint32_t step;
};

class BalanceStep : public Balance, public ::testing::WithParamInterface<StepCase> {};

TEST_P(BalanceStep, MessageAndNextStep) {
    const StepCase &c = GetParam();
    if (c.cid != nullptr) Put(0x9F27, c.cid);
    Put(0x9F9302, c.options);
    Put(0x9F9301, c.capabilities);
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(CardReadShown(), c.message);
    EXPECT_EQ(Step(), c.step);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BalanceStep,
    ::testing::Values(StepCase{"TcChecksOda", "40", "00", "00000000", true, 0x1620},
                      StepCase{"ArqcDeactivates", "80", "00", "00000000", true, 0x2900},
                      StepCase{"AacDeactivates", "00", "00", "00000000", true, 0x2900},
                      StepCase{"ArqcOdaAnyway", "80", "00", "00000001", true, 0x1620},
                      StepCase{"LongTapHoldsTheMessage", "80", "04", "00000000", false, 0x2900},
                      StepCase{"LongTapOdaAnyway", "80", "04", "00000001", false, 0x1620},
                      StepCase{"LongTapNoCid", nullptr, "04", "00000000", false, 0x2900},
                      StepCase{"LongTapOptionTcShowsIt", "40", "04", "00000000", true, 0x1620},
                      StepCase{"LongTapOptionAacShowsIt", "00", "04", "00000000", true, 0x2900}),
    CaseName());

TEST_F(Balance, AuthenticationOnlyShowsTheMessage) {
    Put(0x9F9302, "14");
    Put(0x9F9309, "40");
    VelkCless_Set_TransactionType(0x40);
    Put(0x9F9301, "00000000");
    EXPECT_EQ(Run(), 0u);
    EXPECT_TRUE(CardReadShown());
    EXPECT_EQ(Step(), 0x2900u);
}

struct EndCase : NamedCase {
    const char *cid;  // nullptr: absent
    uint8_t asked;
    const char *ccid;  // 9F9316; nullptr: absent
    const char *options;
    const char *capabilities;
    uint32_t step;
    const char *status;  // first byte of the outcome; nullptr: no outcome
};

class DeActivation : public KernelTest, public ::testing::WithParamInterface<EndCase> {
protected:
    StepHost host_;
};

TEST_P(DeActivation, Outcome) {
    const EndCase &c = GetParam();
    if (c.cid != nullptr) Put(0x9F27, c.cid);
    if (c.ccid != nullptr) Put(0x9F9316, c.ccid);
    Put(0x9F9302, c.options);
    Put(0x9F9301, c.capabilities);
    VelkCless_Set_Terminal_Action_Analysis_Result(c.asked);
    kernel_.g().FinalOutCome.ucStatus = 0xEE;
    VelkCless_SetTransactionStep(0x2900);
    EXPECT_EQ(VelkCless_Kernel_De_Activation(), 0u);
    EXPECT_EQ(VelkCless_GetTransactionStep(), c.step);
    if (c.status == nullptr)
        EXPECT_EQ(kernel_.g().FinalOutCome.ucStatus, 0xEE);
    else
        EXPECT_EQ(Hex(&kernel_.g().FinalOutCome.ucStatus, 1), c.status);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DeActivation,
    ::testing::Values(
        EndCase{"NoCid", nullptr, 0x40, nullptr, "00", "000000", 0, "40"},
        EndCase{"EmptyCid", "", 0x40, nullptr, "00", "000000", 0, "40"},
        EndCase{"CidC0", "C0", 0x40, nullptr, "00", "000000", 0, "40"},
        EndCase{"TcApproved", "40", 0x40, nullptr, "00", "000000", 0, "10"},
        EndCase{"TcWhenArqcAsked", "40", 0x80, nullptr, "00", "000000", 0, "40"},
        EndCase{"TcWhenAacAsked", "40", 0x00, nullptr, "00", "000000", 0, "40"},
        EndCase{"AacDeclined", "00", 0x80, nullptr, "00", "000000", 0, "20"},
        EndCase{"ArqcWhenAacAsked", "80", 0x00, nullptr, "06", "00009000", 0, "40"},
        EndCase{"OnlineRequest", "80", 0x80, nullptr, "00", "000000", 0, "30"},
        EndCase{"OnlineTap", "80", 0x80, "08", "02", "000080", 0x2220, nullptr},
        EndCase{"OnlineTapNeedsCapability", "80", 0x80, "08", "02", "000000", 0, "30"},
        EndCase{"LongTapWhenOnlineTapNotCapable", "80", 0x80, "08", "06", "000010", 0x2210,
                nullptr},
        EndCase{"LongTap", "80", 0x40, nullptr, "04", "000010", 0x2210, nullptr},
        EndCase{"LongTapNeedsCapability", "80", 0x80, nullptr, "04", "000000", 0, "30"},
        EndCase{"OnlineTapWinsOverLongTap", "80", 0x80, "0A", "06", "000090", 0x2220, nullptr},
        EndCase{"AuthenticationOptionAloneChangesNothing", "80", 0x80, nullptr, "10", "00000040", 0,
                "30"}),
    CaseName());

TEST_F(KernelTest, DeActivationOutcomesInFull) {
    StepHost host;
    Put(0x9F27, "40");
    VelkCless_Set_Terminal_Action_Analysis_Result(0x40);
    VelkCless_SetCVM(0x10);
    EXPECT_EQ(VelkCless_Kernel_De_Activation(), 0u);
    EXPECT_EQ(Outcome(), "10F0F010A8F0FF00");  // signature: receipt
    VelkCless_SetCVM(0x00);
    EXPECT_EQ(VelkCless_Kernel_De_Activation(), 0u);
    EXPECT_EQ(Outcome(), "10F0F000A0F0FF00");
    Put(0x9F27, "00");
    EXPECT_EQ(VelkCless_Kernel_De_Activation(), 0u);
    EXPECT_EQ(Outcome(), "20F0F0F0A0F0FF00");  // decline with its data record
    Put(0x9F27, "80");
    VelkCless_Set_Terminal_Action_Analysis_Result(0x80);
    VelkCless_SetCVM(0x20);
    EXPECT_EQ(VelkCless_Kernel_De_Activation(), 0u);
    EXPECT_EQ(Outcome(), "30F0F020A0F0FF00");
    EXPECT_EQ(kernel_.g().UIRD.ucMessageIdentifier, 0x09);  // online PIN
}

TEST_F(KernelTest, AuthenticationOnlyEndsWithItsOwnOutcome) {
    Put(0x9F9302, "10");
    Put(0x9F9309, "40");
    Put(0x9F9301, "00000040");
    VelkCless_Set_TransactionType(0x40);
    EXPECT_EQ(VelkCless_Kernel_De_Activation(), 0u);
    EXPECT_EQ(VelkCless_GetTransactionStep(), 0u);
    EXPECT_EQ(Outcome(), "40F0F0F0A0F0FF00");
    Put(0x9F74, "00");
    EXPECT_EQ(VelkCless_Kernel_De_Activation(), 0u);
    EXPECT_EQ(Outcome(), "40F0F0F0B0F0FF00");
}

TEST_F(KernelTest, OnlineTapShowsCardReadFirst) {
    StepHost host;
    Put(0x9F27, "80");
    Put(0x9F9316, "08");
    Put(0x9F9302, "02");
    Put(0x9F9301, "000080");
    VelkCless_Set_Terminal_Action_Analysis_Result(0x80);
    EXPECT_EQ(VelkCless_Kernel_De_Activation(), 0u);
    ASSERT_EQ(host.commands.size(), 1u);
    EXPECT_EQ(host.commands[0], 0xD7);
    EXPECT_NE(Hex(host.requests[0]).find("DF8116161704"), std::string::npos);
}

}  // namespace
}  // namespace velk::test
