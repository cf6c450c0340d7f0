// SPDX-License-Identifier: Apache-2.0
// The row runner: velk_rows FILE.data runs the rows of each block in turn on
// a kernel bound afresh for the block, and fails when a row fails.
#include "rows.hpp"

#include <fstream>
#include <memory>

#include "emv_kernel.h"
#include "global.h"

namespace velk::test {

std::map<std::string, Driver> &Drivers() {
    static std::map<std::string, Driver> drivers;
    return drivers;
}

namespace {

struct alignas(8) Block {
    uint8_t bytes[VELK_LOCAL_PARAM_MIN_LEN];
};

// Runs one row line; false when it failed.
bool RunLine(const char *path, int lineNo, const std::string &name, const std::string &line) {
    Row row{path, name, lineNo, {}, 0};
    for (size_t pos = 0; pos <= line.size();) {
        size_t end = line.find(':', pos);
        if (end == std::string::npos) end = line.size();
        row.args.push_back(line.substr(pos, end - pos));
        pos = end + 1;
    }
    const std::string driver = row.args.front();
    row.args.erase(row.args.begin());
    auto found = Drivers().find(driver);
    if (found == Drivers().end()) {
        row.Eq("driver", driver, "none of that name");
    } else {
        try {
            found->second(row);
        } catch (const std::exception &e) {
            row.Eq("row", "well-formed", e.what());
        }
    }
    return row.failures == 0;
}

// A block named "Every case" is not run itself: its rows start every later
// block of the file.
int RunFile(const char *path) {
    std::ifstream in(path);
    if (!in) return std::printf("%s: cannot read\n", path), 1;
    std::string line, name;
    int lineNo = 0, rows = 0, failed = 0, blockRows = 0, nameLine = 0;
    std::vector<std::pair<int, std::string>> prelude;
    // A name followed by no row is a mistake in the file.
    auto endBlock = [&] {
        if (!name.empty() && name != "Every case" && blockRows == 0)
            ++failed, std::printf("%s:%d: %s: a case without rows\n", path, nameLine, name.c_str());
        name.clear();
    };
    std::unique_ptr<Block> block;
    while (std::getline(in, line)) {
        ++lineNo;
        if (line.empty() || line[0] == '#') {
            if (line.empty()) endBlock();
            continue;
        }
        if (name.empty()) {
            name = line;
            nameLine = lineNo;
            blockRows = 0;
            block = std::make_unique<Block>();
            Kernel_Set_Local_Param_Pointer_VELK_(block->bytes, sizeof block->bytes);
            Kernel_load_callback_Routine_VELK_(nullptr, 0);
            Kernel_Init_VELK_(nullptr, 0);
            if (name != "Every case")
                for (const auto &[n, l] : prelude)
                    failed += !RunLine(path, n, name, l);
            continue;
        }
        if (name == "Every case") {
            prelude.emplace_back(lineNo, line);
            continue;
        }
        ++rows, ++blockRows;
        failed += !RunLine(path, lineNo, name, line);
    }
    endBlock();
    pgbVelkGlobalValue = nullptr;
    std::printf("%s: %d rows, %d failed\n", path, rows, failed);
    return failed != 0 || rows == 0;
}

}  // namespace
}  // namespace velk::test

int main(int argc, char **argv) {
    int status = 0;
    for (int i = 1; i < argc; ++i)
        status |= velk::test::RunFile(argv[i]);
    return status;
}
