// SPDX-License-Identifier: Apache-2.0
// The bundled profiles (virtual cards, terminals, keys, lists, scenarios)
// and how a name on the command line finds one.
#pragma once

#include <filesystem>
#include <string>

#include "velk/card/virtual_card.hpp"
#include "velk/term/issuer.hpp"

namespace velk::term {

// $VELK_PROFILES, else the profiles installed next to the executable
// (share/velk-term/profiles of its prefix), else those of the source tree it
// was built from.
std::filesystem::path ProfilesDir();

// A path that exists is taken as it is; otherwise a bare name is looked up
// among the bundled profiles of the kind ("cards", "terminals"), with or
// without ".json". Throws velk::card::ProfileError when nothing is found.
std::filesystem::path ResolveProfile(const std::string &name, const std::string &kind);

// What the issuer may know of a virtual card's applications: keys and CDOL1.
SecretsLookup SecretsOf(const velk::card::VirtualCard &card);

}  // namespace velk::term
