// Parameters of table-driven tests that carry their own name: gtest prints a
// case by its name and CaseName() names the instances after it.
//
//   struct Row : NamedCase { const char *input; };
//   INSTANTIATE_TEST_SUITE_P(Rows, MyTest, ::testing::Values(Row{"Empty", ""}), CaseName());
#pragma once

#include <ostream>
#include <string>

namespace velk::test {

struct NamedCase {
    const char *name = "";
};

inline void PrintTo(const NamedCase &c, std::ostream *os) {
    *os << c.name;
}

struct CaseName {
    template <class Info>
    std::string operator()(const Info &info) const {
        return info.param.name;
    }
};

}  // namespace velk::test
