// SPDX-License-Identifier: Apache-2.0
// Shared by the fuzz targets of velk-term's file loaders: a private folder
// beside links to the bundled keys and lists (so that a terminal's
// "../keys/ca.json" resolves as it does in profiles/), where each input is
// written as the files the loaders read.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>

namespace velk::fuzz {

class HostFiles {
public:
    HostFiles() {
        // In memory where there is a tmpfs: rewriting a file on a disk
        // file system may wait for the disk at every input.
        char shm[] = "/dev/shm/velk-fuzz-XXXXXX";
        char tmp[] = "/tmp/velk-fuzz-XXXXXX";
        const char *name = mkdtemp(shm) != nullptr ? shm : mkdtemp(tmp);
        if (name == nullptr) abort();
        root_ = name;
        const std::filesystem::path profiles = VELK_FUZZ_PROFILES;
        for (const char *d : {"keys", "lists", "cards", "terminals"})
            std::filesystem::create_directory_symlink(profiles / d, root_ / d);
        std::filesystem::create_directory(root_ / "input");
        setenv("VELK_PROFILES", VELK_FUZZ_PROFILES, 1);
    }
    ~HostFiles() {
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }

    // input/base.json and input/input.json: the bytes before the first NUL
    // are the base a seed extends, the rest the file itself (all of the
    // input when it has no NUL). Returns the path of input.json.
    std::filesystem::path Write(std::string_view data) {
        const size_t nul = data.find('\0');
        Put("base.json", nul == std::string_view::npos ? std::string_view() : data.substr(0, nul));
        return Put("input.json", nul == std::string_view::npos ? data : data.substr(nul + 1));
    }

private:
    std::filesystem::path Put(const char *name, std::string_view text) {
        const auto p = root_ / "input" / name;
        std::ofstream(p, std::ios::binary | std::ios::trunc).write(text.data(), text.size());
        return p;
    }

    std::filesystem::path root_;
};

}  // namespace velk::fuzz
