// SPDX-License-Identifier: Apache-2.0
// A terminal application that does not allow partial selection: no profile
// of the suite has one. (The entry point's candidates, their order and the
// fallback without a PPSE are the [entry-point] rows of tests/cli/cases.txt.)
#include <gtest/gtest.h>

#include "velk/host/tlv.hpp"
#include "velk/term/terminal_profile.hpp"

namespace velk::term {
namespace {

using velk::host::FromHex;

TEST(EntryPointCandidates, AnExactTerminalApplicationRefusesLongerCardAids) {
    TerminalApplication app;
    app.aid = FromHex("F056454C4B1010");
    app.partial = false;
    EXPECT_TRUE(app.Matches(FromHex("F056454C4B1010")));
    EXPECT_FALSE(app.Matches(FromHex("F056454C4B101001")));
    app.partial = true;
    EXPECT_TRUE(app.Matches(FromHex("F056454C4B101001")));
    EXPECT_FALSE(app.Matches(FromHex("F056454C4B10")));
}

}  // namespace
}  // namespace velk::term
