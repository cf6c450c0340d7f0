// SPDX-License-Identifier: Apache-2.0
#include "velk/term/profiles.hpp"

#include <algorithm>
#include <cstdlib>

namespace velk::term {

std::filesystem::path ProfilesDir() {
    if (const char *env = std::getenv("VELK_PROFILES"); env != nullptr && *env != '\0') return env;
    std::error_code ec;
    const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        const auto installed = exe.parent_path() / VELK_INSTALLED_PROFILES;
        if (std::filesystem::is_directory(installed, ec)) return installed.lexically_normal();
    }
#ifdef VELK_SOURCE_PROFILES
    return VELK_SOURCE_PROFILES;
#else
    return "profiles";
#endif
}

std::filesystem::path ResolveProfile(const std::string &name, const std::string &kind) {
    std::error_code ec;
    if (std::filesystem::is_regular_file(name, ec)) return name;
    const std::filesystem::path dir = ProfilesDir() / kind;
    for (const std::string &candidate : {name, name + ".json"}) {
        const auto p = dir / candidate;
        if (std::filesystem::is_regular_file(p, ec)) return p;
    }
    // Something is there, but no file: the loader says what it is.
    if (std::filesystem::exists(name, ec)) return name;
    const char *env = std::getenv("VELK_PROFILES");
    const std::string from = env != nullptr && *env != '\0' ? " (from VELK_PROFILES)" : "";
    if (!std::filesystem::is_directory(dir, ec))
        throw velk::card::ProfileError(
            velk::card::EscapeInvalidUtf8(name + ": no such file, and no folder of bundled " +
                                          kind + " profiles at " + dir.string() + from));
    std::vector<std::string> names;
    for (const auto &e : std::filesystem::directory_iterator(dir, ec))
        if (e.path().extension() == ".json") names.push_back(e.path().stem().string());
    std::sort(names.begin(), names.end());
    std::string known;
    for (const std::string &n : names)
        known += (known.empty() ? "" : ", ") + n;
    throw velk::card::ProfileError(velk::card::EscapeInvalidUtf8(
        name + ": no such file, and no bundled " + kind + " profile of that name in " +
        dir.string() + from + (known.empty() ? "" : " (bundled: " + known + ")")));
}

SecretsLookup SecretsOf(const velk::card::VirtualCard &card) {
    return [&card](const Bytes &pan) -> std::optional<CardSecrets> {
        for (const velk::card::Application &app : card.Profile().applications) {
            const auto mine = app.RecordValue(0x5A);
            if (mine && *mine == pan) return CardSecrets{app.key, app.cdol1};
        }
        return std::nullopt;
    };
}

}  // namespace velk::term
