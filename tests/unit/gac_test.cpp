// GENERATE AC: the commands and the analysis of the card's answers.
#include <gtest/gtest.h>

#include "baseKernel.h"
#include "db_access.hpp"
#include "kernel_fixture.hpp"
#include "named_case.hpp"
#include "outcome_sets.hpp"
#include "step_host.hpp"

namespace velk::test {
namespace {

using host::Bytes;
using host::Tlv;

std::string Response(std::initializer_list<Bytes> children) {
    return Hex(Tlv(0x77, children)) + "9000";
}
Bytes Cid(uint8_t v) {
    return Tlv(0x9F27, Bytes{v});
}
const Bytes kAtc = Tlv(0x9F36, Bytes{0x00, 0x2A});
const Bytes kAc = Tlv(0x9F26, Bytes(8, 0xAC));
const Bytes kIad = Tlv(0x9F10, Bytes{0x06, 0x01, 0x0A, 0x03, 0xA0, 0x00});
const Bytes kSdad = Tlv(0x9F4B, Bytes(16, 0x5D));

class Gac : public KernelTest {
protected:
    void SetUp() override {
        Put(0x8C, "9F0206 9505");
        Put(0x9F02, "000000000100");
        VelkCless_Set_Terminal_Action_Analysis_Result(0x40);
    }
    uint32_t Run() { return VelkCless_Card_Action_Analysis_1st_Processing(); }
    uint32_t Step() { return VelkCless_GetTransactionStep(); }
    VELK_GLOBALVALUE_STRUCT &g() { return kernel_.g(); }
    StepHost host_;
};

TEST_F(Gac, AacAsksZ1AndArqcWritesNo8A) {
    VelkCless_Set_Terminal_Action_Analysis_Result(0x00);
    host_.Respond(Response({Cid(0x00), kAtc, kAc, kIad}));
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Hex(host_.apdus[0]).substr(0, 8), "80AE0000");
    EXPECT_EQ(Db(0x8A), "5A31");  // "Z1"
    VelkDataBase_Del_TAG(0x8A);
    VelkCless_Set_Terminal_Action_Analysis_Result(0x80);
    host_.Respond(Response({Cid(0x80), kAtc, kAc, kIad}));
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Hex(host_.apdus[1]).substr(0, 8), "80AE8000");
    EXPECT_EQ(Db(0x8A), "absent");
}

TEST_F(Gac, EmptyCdolGivesASixByteCommand) {
    Put(0x8C, "");
    host_.Respond(Response({Cid(0x40), kAtc, kAc, kIad}));
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Hex(host_.apdus[0]),
              "80AE400000"
              "00");
}

TEST_F(Gac, CdolAskingMoreThanLcCarriesSendsNoData) {
    Put(0x8C, "9F7AFF 9F7B01");
    host_.Respond(Response({Cid(0x40), kAtc, kAc, kIad}));
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Hex(host_.apdus[0]), "80AE40000000");
    Put(0x8C, "9F7AFF");
    host_.Respond(Response({Cid(0x40), kAtc, kAc, kIad}));
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(host_.apdus[1].size(), 261u);
    EXPECT_EQ(host_.apdus[1][4], 0xFF);
}

TEST_F(Gac, CdaRequestSetsP1Bit10And9F820B) {
    VelkCless_Set_CDA_Signature_Requested(1);
    host_.Respond(Response({Cid(0x40), kAtc, kSdad, kIad}));
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Hex(host_.apdus[0]).substr(0, 8), "80AE5000");
    EXPECT_EQ(Db(0x9F820B), "01");
    // The template without its signature is kept for the CDA hash.
    EXPECT_EQ(Db(0x9F8214), Hex(Bytes(Cid(0x40))) + Hex(kAtc) + Hex(kIad));
    EXPECT_EQ(Step(), 0x2700u);
}

TEST_F(Gac, CdaRequestedAacWithoutSignatureIsAcceptedAndCdaDropped) {
    VelkCless_Set_Offline_CAM_Selected_Indicator(2);
    VelkCless_Set_CDA_Signature_Requested(1);
    VelkCless_Set_Terminal_Action_Analysis_Result(0x80);
    host_.Respond(Response({Cid(0x00), kAtc, kAc, kIad}));
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Step(), 0x2700u);
    EXPECT_EQ(VelkCless_Get_Offline_CAM_Selected_Indicator(), 0);
    EXPECT_EQ(Db(0x9F8214), "absent");
}

TEST_F(Gac, NoSdadAgainstACdaAip) {
    Put(0x82, "0000");
    host_.Respond(Response({Cid(0x40), kAtc, kSdad, kIad}));
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Outcome(), kCompletedOnError);
    Put(0x82, "0100");
    host_.Respond(Response({Cid(0x40), kAtc, kSdad, kIad}));
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Step(), 0x2700u);  // the AC is inside the signature
}

TEST_F(Gac, UpdateAfterCardActionAnalysisWhenConfigured) {
    Put(0x9F9302, "40");
    host_.Respond(Response({Cid(0x40), kAtc, kAc, kIad}));
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Step(), 0x2630u);
}

struct BadGac : NamedCase {
    std::string rapdu;
    bool cda;
};

class GacBadResponse : public Gac, public ::testing::WithParamInterface<BadGac> {};

// More of them through whole taps.
TEST_P(GacBadResponse, EndsInTransactionCompletedOnError) {
    VelkCless_Set_CDA_Signature_Requested(GetParam().cda ? 1 : 0);
    host_.Respond(GetParam().rapdu);
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Step(), 0u);
    EXPECT_EQ(Outcome(), kCompletedOnError);
}

INSTANTIATE_TEST_SUITE_P(
    Responses, GacBadResponse,
    ::testing::Values(
        BadGac{"OnlyStatusWord", "9000", false}, BadGac{"OneByte", "77", false},
        BadGac{"LengthMismatch", "7705 9F270140 9000", false},
        BadGac{"InnerPassesTemplate", "7704 9F270240 9000", false},
        BadGac{"CidTooLong", Response({Tlv(0x9F27, Bytes{0x40, 0x00}), kAtc, kAc, kIad}), false},
        BadGac{"AcTooLong", Response({Cid(0x40), kAtc, Tlv(0x9F26, Bytes(9, 0)), kIad}), false},
        BadGac{"NoAtc", Response({Cid(0x40), kAc, kIad}), false},
        BadGac{"ShortAtc", Response({Cid(0x40), Tlv(0x9F36, Bytes{1}), kAc, kIad}), false},
        BadGac{"NoIad", Response({Cid(0x40), kAtc, kAc}), false},
        BadGac{"NoAcNorSdad", Response({Cid(0x40), kAtc, kIad}), false},
        BadGac{"ShortAcNoSdad", Response({Cid(0x40), kAtc, Tlv(0x9F26, Bytes(4, 0)), kIad}), false},
        BadGac{"CdaTcWithoutSdad", Response({Cid(0x40), kAtc, kAc, kIad}), true},
        BadGac{"CdaArqcWithoutSdad", Response({Cid(0x80), kAtc, kAc, kIad}), true}),
    CaseName());

TEST_F(Gac, ResponseLongerThanTheLastResponseBufferEndsTheApplication) {
    host_.Respond(Response({Cid(0x40), kAtc, kAc, kIad, Tlv(0x9F7A, Bytes(240, 0))}));
    EXPECT_EQ(Run(), 0x30105u);
    EXPECT_EQ(Step(), 0u);
    EXPECT_EQ(Outcome(), "40F0F0F080F0FF00");
}

TEST_F(Gac, ResponseFillingTheLastResponseBufferIsAccepted) {
    // 77 81 FF + 255 bytes of objects + 9000 = 260
    const Bytes filler = Tlv(0x9F7A, Bytes(255 - 4 - 5 - 11 - 9 - 4, 0));
    const std::string r = Response({Cid(0x40), kAtc, kAc, kIad, filler});
    ASSERT_EQ(r.size(), 2u * 260u);
    host_.Respond(r);
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Step(), 0x2700u);
    EXPECT_EQ(g().uiLastRAPDULen, 260u);
}

struct C5Case : NamedCase {
    const char *earlier;  // C5 from GPO or records; nullptr: none
    const char *given;    // C5 in the response; nullptr: none
    uint8_t cid;
    uint8_t asked;
    const char *cvmResults;  // nullptr: absent
    const char *outcome;     // nullptr: goes on to the balance step
};

class GacC5 : public Gac, public ::testing::WithParamInterface<C5Case> {};

TEST_P(GacC5, CardDecisions) {
    const C5Case &c = GetParam();
    if (c.earlier != nullptr) Put(0xC5, c.earlier);
    if (c.cvmResults != nullptr) Put(0x9F34, c.cvmResults);
    VelkCless_Set_Terminal_Action_Analysis_Result(c.asked);
    if (c.given != nullptr)
        host_.Respond(Response({Cid(c.cid), kAtc, kAc, kIad, Tlv(0xC5, host::FromHex(c.given))}));
    else
        host_.Respond(Response({Cid(c.cid), kAtc, kAc, kIad}));
    EXPECT_EQ(Run(), 0u);
    if (c.outcome == nullptr) {
        EXPECT_EQ(Step(), 0x2700u);
    } else {
        EXPECT_EQ(Step(), 0u);
        EXPECT_EQ(Outcome(), c.outcome);
    }
    if (c.given != nullptr) {
        EXPECT_EQ(Db(0x9F9316), c.given);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Ccid, GacC5,
    ::testing::Values(
        C5Case{"SameSelection", "02", "0A", 0x80, 0x80, nullptr, nullptr},
        C5Case{"SelectionChanged", "02", "03", 0x80, 0x80, nullptr, kCompletedOnError},
        C5Case{"C5Dropped", "02", nullptr, 0x80, 0x80, nullptr, kCompletedOnError},
        C5Case{"OnlyInTheResponse", nullptr, "08", 0x80, 0x80, nullptr, nullptr},
        C5Case{"TryOtherInterfaceBit", nullptr, "20", 0x80, 0x80, nullptr, kTryOtherInterface},
        C5Case{"OnDeviceByC5", nullptr, "04", 0x80, 0x80, nullptr, kOnDeviceCvm},
        C5Case{"OnDeviceWinsOverTryOther", nullptr, "24", 0x00, 0x80, nullptr, kOnDeviceCvm},
        C5Case{"OnDeviceByCvmResults", nullptr, nullptr, 0x00, 0x80, "240000", kOnDeviceCvm},
        C5Case{"OnDeviceByCvmResults64", nullptr, nullptr, 0x00, 0x80, "640000", kOnDeviceCvm},
        C5Case{"CvmPerformedAlready", nullptr, nullptr, 0x00, 0x80, "240002", nullptr},
        C5Case{"CvmResultsButNotAac", nullptr, nullptr, 0x80, 0x80, "240000", nullptr},
        C5Case{"TcAskedAacGiven", nullptr, nullptr, 0x00, 0x40, nullptr, kTryOtherInterface},
        C5Case{"ArqcAskedAacGiven", nullptr, nullptr, 0x00, 0x80, nullptr, nullptr},
        C5Case{"TcAskedArqcGiven", nullptr, nullptr, 0x80, 0x40, nullptr, nullptr}),
    CaseName());

TEST_F(Gac, TornCommandOnAnEchoCardGoesToRecovery) {
    VelkCless_Set_ECHO_Command_supported(1);
    host_.Signal(0xA6);
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Step(), 0x3000u);
    EXPECT_EQ(Db(0x9F9303), "01");
    EXPECT_EQ(VelkCless_Get_CommunicationProblemIndicator(), 1);
}

TEST_F(Gac, TornCommandWithoutEchoIsACommunicationError) {
    VelkCless_Set_ECHO_Command_supported(0);
    host_.Signal(0xA5);
    EXPECT_EQ(Run(), 0u);
    EXPECT_EQ(Step(), 0u);
    EXPECT_EQ(Outcome(), "7010F0F0C0F01300");
    EXPECT_EQ(Db(0x9F9303), "absent");
}

TEST_F(Gac, StopIsReturned) {
    host_.Signal(0xA1);
    EXPECT_EQ(Run(), 0x30101u);
    EXPECT_EQ(Step(), 0u);
    EXPECT_EQ(Outcome(), "40F0F0F080F0FF00");
}

TEST_F(Gac, RecoveredTapAnalysesTheStoredResponseWithoutACommand) {
    const std::string r = Response({Cid(0x40), kAtc, kAc, kIad});
    const Bytes b = host::FromHex(r);
    std::copy(b.begin(), b.end(), g().ucLastRAPDU);
    g().uiLastRAPDULen = static_cast<uint32_t>(b.size());
    VelkCless_Set_EchoTransactionIndicator(1);
    EXPECT_EQ(Run(), 0u);
    EXPECT_TRUE(host_.apdus.empty());
    EXPECT_EQ(Step(), 0x2700u);
    EXPECT_EQ(Db(0x9F27), "40");
}

class SecondGac : public Gac {};

TEST_F(SecondGac, CommandCarriesTheCdol2DataAndLeavesTheResponse) {
    Put(0x8D, "8A02 9505");
    Put(0x8A, "3030");
    host_.Respond("77 00 9000");
    EXPECT_EQ(VelkCless_Generate_AC_2nd_Command(0x40), 0u);
    EXPECT_EQ(Hex(host_.apdus[0]),
              "80AE4000073030"
              "0000000000"
              "00");
    EXPECT_EQ(Hex(g().ucLastRAPDU, g().uiLastRAPDULen), "77009000");
    host_.Signal(0xA5);
    EXPECT_EQ(VelkCless_Generate_AC_2nd_Command(0x00), 0x30103u);
    EXPECT_EQ(Step(), 0u);  // the fixture's step, untouched
}

TEST_F(SecondGac, ResponseAnalysis) {
    auto analyse = [](std::string hex) {
        Bytes b = host::FromHex(hex);
        const uint32_t r =
            VelkCless_Anglyse_Generate_AC_2nd_Response(b.data(), static_cast<uint32_t>(b.size()));
        // The status word is zeroed first, whatever follows.
        if (b.size() >= 2) {
            EXPECT_EQ(Hex(Bytes(b.end() - 2, b.end())), "0000");
        }
        return r;
    };
    EXPECT_EQ(analyse(Response({Cid(0x40), kAtc, kAc, kIad})), 0u);
    EXPECT_EQ(analyse("800A40002AACACACACACACACAC9000"), 0x35001u);
    EXPECT_EQ(analyse("9000"), 0x35001u);
    EXPECT_EQ(analyse(Response({Cid(0x40), kAtc, kIad})), 0x35002u);
    EXPECT_EQ(analyse(Response({Cid(0x40), kAtc, kSdad, kIad})), 0x35002u);
    VelkCless_SetTransactionStep(0x2800);
    EXPECT_EQ(analyse("7705 9F270140 9000"), 0u);
    EXPECT_EQ(Step(), 0u);
    EXPECT_EQ(Outcome(), kCompletedOnError);
    VelkCless_SetTransactionStep(0x2800);
    EXPECT_EQ(analyse(Response({Cid(0x40), kAtc, Tlv(0x9F26, Bytes(9, 0)), kIad})), 0u);
    EXPECT_EQ(Step(), 0u);
}

TEST_F(KernelTest, CdaSaveRefusesWhatItCannotHold) {
    Bytes big = Tlv(0x77, {Tlv(0x9F4B, Bytes(300, 1))});
    EXPECT_EQ(VelkCless_ODA_CDA_Save_GAC_Exp9F4B(big.data(), static_cast<uint32_t>(big.size())),
              0u);
    EXPECT_EQ(Db(0x9F8214), "absent");
    Bytes bad = host::FromHex("7710 9F4B02 0102");
    EXPECT_EQ(VelkCless_ODA_CDA_Save_GAC_Exp9F4B(bad.data(), static_cast<uint32_t>(bad.size())),
              0u);
    EXPECT_EQ(Db(0x9F8214), "absent");
    Bytes ok = Tlv(0x77, {Cid(0x80), Tlv(0x9F4B, Bytes(130, 7)), kAtc});
    EXPECT_EQ(VelkCless_ODA_CDA_Save_GAC_Exp9F4B(ok.data(), static_cast<uint32_t>(ok.size())), 0u);
    EXPECT_EQ(Db(0x9F8214), Hex(Cid(0x80)) + Hex(kAtc));
}

}  // namespace
}  // namespace velk::test
