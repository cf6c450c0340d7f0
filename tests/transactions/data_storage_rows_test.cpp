// Runs the rows of data_storage_rows_test.data: one update transaction per
// row through Kernel_Start_VELK_, the PUT DATA commands before and after GPO
// byte for byte, then 9F74 in the outcome's discretionary data.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "data_elements.hpp"
#include "first_tap.hpp"
#include "outcome_sets.hpp"
#include "scripted_host.hpp"

namespace velk::test {
namespace {

using velk::host::FromHex;

struct Row {
    std::string name;
    Bytes bf70Value;
    std::vector<CardExchange> beforeGpo, afterGpo;
    std::string result9F74;
};

void PrintTo(const Row &row, std::ostream *os) {
    *os << row.name;
}

std::vector<std::string> Fields(const std::string &line) {
    std::vector<std::string> fields;
    std::istringstream in(line);
    for (std::string f; std::getline(in, f, '|');)
        fields.push_back(f.substr(f.find_first_not_of(' '), f.find_last_not_of(' ') + 1));
    return fields;
}

// "C-APDU/R-APDU C-APDU/R-APDU ...".
std::vector<CardExchange> Exchanges(const std::string &field) {
    std::vector<CardExchange> out;
    std::istringstream in(field);
    for (std::string pair; in >> pair;) {
        const size_t slash = pair.find('/');
        out.push_back(Respond(FromHex(pair.substr(0, slash)), FromHex(pair.substr(slash + 1))));
    }
    return out;
}

std::vector<Row> LoadRows() {
    const std::string here = __FILE__;
    std::ifstream file(here.substr(0, here.rfind('.')) + ".data");
    std::vector<Row> rows;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        const std::vector<std::string> f = Fields(line);
        if (f.size() != 5) {
            ADD_FAILURE() << "a row needs 5 fields: " << line;
            continue;
        }
        rows.push_back({f[0], FromHex(f[1]), Exchanges(f[2]), Exchanges(f[3]), f[4]});
    }
    if (rows.empty()) ADD_FAILURE() << "no rows in " << here;
    return rows;
}

class DataStorageRows : public ::testing::TestWithParam<Row> {};

TEST_P(DataStorageRows, WritesTheA2EntriesThenGpoThenTheA3Entry) {
    const Row &row = GetParam();
    FirstTap tap;
    tap.purchase.type = "79";
    tap.reader.options = "40";
    tap.reader.extra = {velk::host::Tlv(0xBF70, row.bf70Value)};
    tap.beforeGpo = row.beforeGpo;
    tap.afterGpo = row.afterGpo;
    tap.endAfter = row.beforeGpo.size() + 1 + row.afterGpo.size();
    ScriptedHost host;
    const TapResult r = tap.Run(host);
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(velk::host::ToHex(r.ops), kEndApplicationWithData);
    EXPECT_EQ(Discretionary(OutcomePacket(r.out), 0x9F74), row.result9F74);
    EXPECT_TRUE(host.CardDone()) << host.capdus.size() << " commands sent";
}

INSTANTIATE_TEST_SUITE_P(Rows, DataStorageRows, ::testing::ValuesIn(LoadRows()),
                         [](const auto &info) { return info.param.name; });

}  // namespace
}  // namespace velk::test
