// SPDX-License-Identifier: Apache-2.0
// Transactions back to back on one bound block: the scenario files listed in
// soak.txt run in turn through velk-term's host, virtual card and issuer,
// and every transaction's kernel entries (status and outcome, byte for byte)
// must equal those of its scenario's first run, which passes the scenario's
// own expectations. Nothing may leak from one transaction into the next
// except what the kernel keeps on purpose (the signal queue, which every
// scenario leaves empty). VELK_SOAK_COUNT sets the number of transactions
// (default 2000; bench/run runs 100,000).
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "global.h"
#include "linked_kernel.hpp"
#include "velk/card/virtual_card.hpp"
#include "velk/term/profiles.hpp"
#include "velk/term/scenario.hpp"

namespace velk::test {
namespace {

using velk::host::ToHex;

// The kernel's block, bound and initialised by the first session only:
// every later one runs on it as the transactions before left it.
struct alignas(VELK_LOCAL_PARAM_ALIGN) Block {
    uint8_t bytes[VELK_LOCAL_PARAM_MIN_LEN];
};
Block g_block;
bool g_initialised = false;

uint32_t BindOnce(uint8_t *, uint32_t) {
    return g_initialised
               ? 0
               : Kernel_Set_Local_Param_Pointer_VELK_(g_block.bytes, sizeof g_block.bytes);
}

uint32_t InitOnce(uint8_t *tlv, uint32_t len) {
    if (g_initialised) return 0;
    g_initialised = true;
    return Kernel_Init_VELK_(tlv, len);
}

struct Soaked {
    velk::term::Scenario scenario;
    velk::term::ScenarioSetup setup;
    std::optional<std::vector<std::string>> first;  // entries of the first run
};

std::vector<Soaked> Scenarios() {
    std::vector<Soaked> all;
    std::ifstream list(VELK_SOAK_LIST);
    for (std::string line; std::getline(list, line);) {
        if (line.empty() || line[0] == '#') continue;
        for (velk::term::Scenario &s : velk::term::LoadScenarios(VELK_SOURCE_DIR "/" + line))
            all.push_back({s, velk::term::SetUpScenario(s), {}});
    }
    return all;
}

// One transaction on a card fresh from its profile (its counters as at the
// first run); each entry as "status: outcome".
std::vector<std::string> Transact(const velk::term::KernelApi &kernel, const Soaked &s,
                                  velk::term::TransactionReport &report) {
    velk::card::VirtualCard card(s.setup.card);
    report = velk::term::RunTransaction(kernel, s.setup.terminal, card, s.setup.options,
                                        velk::term::SecretsOf(card));
    EXPECT_EQ(EMV_Queue_isEmpty(&pgbVelkGlobalValue->EmvQueue), 1) << s.scenario.name;
    std::vector<std::string> entries;
    for (const velk::term::KernelEntry &e : report.entries)
        entries.push_back(std::to_string(e.status) + ": " + ToHex(e.output));
    return entries;
}

TEST(Soak, EveryTransactionOnOneBlockEndsLikeItsFirstRun) {
    const char *env = std::getenv("VELK_SOAK_COUNT");
    const long count = env != nullptr ? std::strtol(env, nullptr, 10) : 2000;
    std::vector<Soaked> scenarios = Scenarios();
    ASSERT_FALSE(scenarios.empty()) << VELK_SOAK_LIST;
    velk::term::KernelApi kernel = LinkedKernel();
    kernel.set_local_param = &BindOnce;
    kernel.init = &InitOnce;

    for (long i = 0; i < count; ++i) {
        Soaked &s = scenarios[static_cast<size_t>(i) % scenarios.size()];
        velk::term::TransactionReport report;
        const std::vector<std::string> entries = Transact(kernel, s, report);
        if (!s.first) {
            for (const std::string &d : velk::term::CheckExpectations(s.scenario.expect, report))
                ADD_FAILURE() << s.scenario.file << ": " << d;
            s.first = entries;
        } else if (entries != *s.first) {
            ADD_FAILURE() << "transaction " << i << " (" << s.scenario.file
                          << ") differs from its first run";
            EXPECT_EQ(entries, *s.first);
            return;
        }
    }
}

}  // namespace
}  // namespace velk::test
