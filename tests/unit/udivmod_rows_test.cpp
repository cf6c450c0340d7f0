// Runs the rows of udivmod_rows_test.data: n, d, quotient and remainder.
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

#include "kn_common.h"

namespace {

TEST(Udivmod, Rows) {
    const std::string here = __FILE__;
    std::ifstream file(here.substr(0, here.rfind('.')) + ".data");
    int rows = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream in(line);
        uint32_t n = 0, d = 0, q = 0, r = 0;
        ASSERT_TRUE(in >> std::hex >> n >> d >> q >> r) << line;
        uint32_t rem = 0;
        EXPECT_EQ(udivmod_(n, d, &rem), q) << line;
        EXPECT_EQ(rem, r) << line;
        EXPECT_EQ(udivmod_(n, d, nullptr), q) << line;
        ++rows;
    }
    EXPECT_GT(rows, 0) << "no rows in " << here;
}

}  // namespace
