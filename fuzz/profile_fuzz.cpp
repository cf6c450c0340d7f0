// SPDX-License-Identifier: Apache-2.0
// Card and terminal profiles as velk-term loads them, `extends` included:
// the input is written as a file (and the base it may extend) and read by
// both loaders. A bad profile must end in ProfileError, the one kind
// velk-term turns into exit 3 with the file's name; anything else thrown,
// a crash or unbounded memory is a finding.
#include <cstdint>

#include "host_files.hpp"
#include "velk/card/card_profile.hpp"
#include "velk/card/virtual_card.hpp"
#include "velk/term/terminal_profile.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static velk::fuzz::HostFiles files;
    const auto path = files.Write({reinterpret_cast<const char *>(data), size});
    try {
        velk::card::VirtualCard card(velk::card::LoadCardProfile(path));
        (void)card.Describe();
    } catch (const velk::card::ProfileError &) {
    }
    try {
        (void)velk::term::LoadTerminalProfile(path);
    } catch (const velk::card::ProfileError &) {
    }
    return 0;
}
