// The data element steps on their own, where a rule is subtle: the
// conditions of the A4 entries (read against 9F74's first byte), and the
// bounds of the GDDOL work list and of 9F71.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "baseKernel.h"
#include "checked.hpp"
#include "data_elements.hpp"
#include "db_access.hpp"
#include "scripted_host.hpp"

namespace velk::test {
namespace {

using velk::host::FromHex;
using velk::host::ToHex;

// A template as the host hands it over, stored the way kernel start does.
void StoreTemplate(Bytes templ) {
    ASSERT_EQ(velk::SetHostParameter(templ.data()), 0u);
}

TEST(UpdateAfterGenerateAc, ConditionsReadTheFirstByteOf9F74) {
    struct Case {
        std::string stored9F74;  // "" absent
        uint8_t setting;
        bool sent;
    };
    const std::vector<Case> cases = {
        {"", 0x20, false},    {"", 0x80, true},      {"", 0x40, true},     {"0201", 0x20, false},
        {"0201", 0xC0, true}, {"8000", 0x80, false}, {"8000", 0x60, true}, {"4000", 0x40, false},
        {"4000", 0xA0, true}, {"0100", 0x00, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.stored9F74 + " / " + std::to_string(c.setting));
        ScriptedHost host;
        Put(0x9F9302, "40");
        StoreTemplate(Bf70({Entry(0xA4, "9F4F0101", c.setting)}));
        if (!c.stored9F74.empty()) Put(0x9F74, c.stored9F74);
        if (c.sent) host.card = {Answer9000("00DA9F4F0101")};
        EXPECT_EQ(VelkCless_Update_of_Data_Element_values_in_EEPROM_after_CAA(), 0u);
        EXPECT_EQ(VelkCless_GetTransactionStep(), 0x2700u);
        EXPECT_EQ(Db(0x9F74), c.sent ? "0201" : c.stored9F74.empty() ? "absent" : c.stored9F74);
        EXPECT_TRUE(host.CardDone());
    }
}

// A BF70 whose stored value is not one well-formed template with something
// inside yields no entry: an update transaction ends with nothing to do,
// without a command.
TEST(UpdateBeforeGpo, AStoredValueNotInTheTemplatesShapeYieldsNoEntry) {
    for (const char *stored : {"BF7007A2059F4F0201", "BF7005A2079F4F020101", "BF7000"}) {
        SCOPED_TRACE(stored);
        ScriptedHost host;
        Put(0x9F9302, "40");
        VelkCless_Set_TransactionType(0x79);
        Put(0xBF70, stored);
        EXPECT_EQ(VelkCless_Update_of_Data_Element_values_in_EEPROM(), 0u);
        EXPECT_EQ(VelkCless_GetTransactionStep(), 0u);
        EXPECT_EQ(Outcome(), "40F0F0F080F0FF00");
        EXPECT_EQ(Db(0x9F74), "absent");
    }
}

// Retrieval of type 78 with the GDDOL stored as the host hands it over.
void Retrieve(ScriptedHost &host, const Bytes &gddol, const std::vector<CardExchange> &card) {
    Put(0x9F9302, "80");
    VelkCless_Set_TransactionType(0x78);
    StoreTemplate(host::Tlv(0xBF71, {host::Tlv(0x9F70, gddol)}));
    host.card = card;
    EXPECT_EQ(VelkCless_Retrieval_of_Data_Element_values_in_EEPROM(), 0u);
    EXPECT_TRUE(host.CardDone());
}

TEST(Retrieval, TheGddolCountsWithItsFirst256Bytes) {
    // 86 entries of 3 bytes: 85 whole ones fit, the 86th is cut at byte 256.
    Bytes gddol;
    std::vector<CardExchange> card;
    for (uint8_t i = 1; i <= 86; ++i) {
        gddol.insert(gddol.end(), {0xDF, i, 0x01});
        if (i <= 85) card.push_back(Respond(GetData(0xDF00 | i), FromHex("6A88")));
    }
    ScriptedHost host;
    Retrieve(host, gddol, card);
    EXPECT_EQ(Db(0x9F71).size(), 85u * 3 * 2);
    EXPECT_EQ(Db(0x9F71).substr(Db(0x9F71).size() - 6), "DF5500");
}

TEST(Retrieval, AnElementThatWouldPass9F71sBoundIsLeftOutAndTheNextGoesOn) {
    // Four values of 250 bytes (254 bytes each with tag and length) pass the
    // 1008 bytes of 9F71 with the fourth; the short fifth still fits.
    std::vector<CardExchange> card;
    const Bytes value(250, 0xAB);
    for (uint16_t tag : {0x9F50, 0x9F51, 0x9F52, 0x9F53}) {
        Bytes rapdu = host::Tlv(tag, value);
        rapdu.insert(rapdu.end(), {0x90, 0x00});
        card.push_back(Respond(GetData(tag), rapdu));
    }
    card.push_back(Respond(GetData(0x5A), FromHex("5A0112 9000")));
    ScriptedHost host;
    Retrieve(host, FromHex("9F5001 9F5101 9F5201 9F5301 5A01"), card);
    const std::vector<host::TlvNode> kept = host::ParseTlv(FromHex(Db(0x9F71)));
    ASSERT_EQ(kept.size(), 4u);
    EXPECT_EQ(kept[2].tag, 0x9F52u);
    EXPECT_EQ(ToHex(kept[3].value), "12");
    EXPECT_EQ(Outcome(), "40F0F0F090F0FF00");
}

}  // namespace
}  // namespace velk::test
