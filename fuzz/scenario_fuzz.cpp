// SPDX-License-Identifier: Apache-2.0
// Scenario files as `velk-term run` reads them: loaded, then their
// expectations checked against an empty report, as after a transaction
// that reached nothing. Only ProfileError may leave the loader.
#include <cstdint>

#include "host_files.hpp"
#include "velk/term/scenario.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static velk::fuzz::HostFiles files;
    const auto path = files.Write({reinterpret_cast<const char *>(data), size});
    try {
        const velk::term::Scenario s = velk::term::LoadScenario(path);
        (void)velk::term::IsPending(s, {"second-entry"});
        (void)velk::term::CheckExpectations(s.expect, velk::term::TransactionReport{});
    } catch (const velk::card::ProfileError &) {
    }
    return 0;
}
