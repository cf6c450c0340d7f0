// SPDX-License-Identifier: Apache-2.0
// Transactions back to back on one bound block: every scenario's outcome and
// status must equal its first run's, so nothing leaks from one transaction
// into the next except what the kernel keeps on purpose (the signal queue,
// which every scenario leaves empty). VELK_SOAK_COUNT sets the number of
// transactions (default 2000, 200 under qemu; bench/run runs 100,000).
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "first_tap.hpp"
#include "kernel_fixture.hpp"
#include "oda_card.hpp"
#include "scripted_host.hpp"

namespace velk::test {
namespace {

using velk::host::FromHex;
using velk::host::ToHex;

struct Scenario {
    std::string name;
    FirstTap tap;
    std::optional<CaDirectory> directory;
};

std::vector<Scenario> Scenarios() {
    std::vector<Scenario> all;
    all.push_back({"offline approval", {}, {}});

    Scenario online{"online request", {}, {}};
    online.tap.AskOnline();
    all.push_back(online);

    Scenario decline{"offline decline", online.tap, {}};
    decline.name = "offline decline";
    decline.tap.card.cid = "00";
    all.push_back(decline);

    Scenario gpoRefused{"GPO refused", {}, {}};
    gpoRefused.tap.gpo = Respond(gpoRefused.tap.GpoCommand(), FromHex("6985"));
    gpoRefused.tap.endAfter = 1;
    all.push_back(gpoRefused);

    Scenario stopped{"stopped during GENERATE AC", {}, {}};
    stopped.tap.gac = SignalInstead(stopped.tap.GacCommand(), VELK_SIGNAL_STOP);
    all.push_back(stopped);

    for (const Cam cam : {Cam::Sda, Cam::Dda, Cam::Cda}) {
        Scenario oda{cam == Cam::Sda ? "SDA" : cam == Cam::Dda ? "DDA" : "CDA", {}, {}};
        OdaCard card;
        card.cam = cam;
        oda.tap.tvr = cam == Cam::Sda ? "0200000000" : "0000000000";
        if (cam == Cam::Dda) {
            // DDA runs in the authentication-only flow: GPO, four READ
            // RECORDs, INTERNAL AUTHENTICATE.
            oda.tap.reader.options = "10";
            oda.tap.reader.capabilities = "060000411800";
            oda.tap.reader.extra = {velk::host::Tlv(0x9F9309, FromHex("00"))};
            oda.tap.gpoCommand = FromHex("80A800000E830C 000000000000 0978 11223344 00");
            oda.tap.endAfter = 6;
        }
        card.ApplyTo(oda.tap);
        oda.directory = card.Directory();
        all.push_back(oda);
    }
    return all;
}

TapResult RunOn(uint8_t *block, const Scenario &s) {
    ScriptedHost host(block);
    if (s.directory) s.directory->Install(host);
    TapResult r = s.tap.Run(host);
    EXPECT_EQ(EMV_Queue_isEmpty(&host.g().EmvQueue), 1) << s.name;
    return r;
}

TEST(Soak, EveryTransactionOnOneBlockEndsLikeItsFirstRun) {
    const char *env = std::getenv("VELK_SOAK_COUNT");
#ifdef VELK_PORTABLE_PLATFORM
    constexpr long kDefault = 200;  // under qemu, with the portable RSA
#else
    constexpr long kDefault = 2000;
#endif
    const long count = env != nullptr ? std::strtol(env, nullptr, 10) : kDefault;
    const std::vector<Scenario> scenarios = Scenarios();

    auto block = std::make_unique<KernelBlock>();
    std::memset(block->bytes, 0, sizeof block->bytes);
    ASSERT_EQ(Kernel_Set_Local_Param_Pointer_VELK_(block->bytes, sizeof block->bytes), 0u);
    Kernel_Init_VELK_(nullptr, 0);

    std::vector<TapResult> first;
    for (long i = 0; i < count; ++i) {
        const size_t k = static_cast<size_t>(i) % scenarios.size();
        const TapResult r = RunOn(block->bytes, scenarios[k]);
        if (first.size() <= k) {
            first.push_back(r);
            continue;
        }
        if (r.status != first[k].status || r.out != first[k].out) {
            ADD_FAILURE() << "transaction " << i << " (" << scenarios[k].name
                          << ") differs from its first run: status " << std::hex << r.status
                          << " vs " << first[k].status << "\n"
                          << HexDiff(first[k].out, r.out);
            return;
        }
    }
}

}  // namespace
}  // namespace velk::test
