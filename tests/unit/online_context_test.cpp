// The online context handed to the host (A2): built in its working buffer,
// never past it, and always well formed.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "baseKernel.h"
#include "db_access.hpp"
#include "scripted_host.hpp"
#include "transaction_data.hpp"

namespace velk::test {
namespace {

using velk::host::Bytes;
using velk::host::FromHex;
using velk::host::ParseTlv;

// CDOL2 names ten proprietary objects of 200 bytes each: the context cannot
// hold them all, and those that do not fit are left out whole.
TEST(OnlineContext, ObjectsBeyondTheWorkingBufferAreLeftOutWhole) {
    ScriptedHost host;
    std::string cdol2 = "8A02";
    for (uint32_t i = 0; i < 10; ++i) {
        const uint32_t tag = 0xDF8301 + i;
        Put(tag, Bytes(200, static_cast<uint8_t>(i)));
        cdol2 += velk::host::ToHex(velk::host::EncodeTag(tag)) + "01";
    }
    Put(0x8D, cdol2);
    Put(0x8A, "3030");
    Put(0x82, "1800");
    EXPECT_EQ(VelkCless_Stores_OnlineTransaction_Context(), 0u);

    const std::vector<Message> sent = host.MessagesFor(VELK_CMD_STORE_CONTEXT);
    ASSERT_EQ(sent.size(), 1u);
    const std::vector<velk::host::TlvNode> payload = ParseTlv(sent[0].payload, false);
    ASSERT_EQ(payload.size(), 1u);
    EXPECT_EQ(payload[0].tag, 0x7F15u);
    EXPECT_LE(payload[0].size, VELK_ONLINE_CONTEXT_LEN);
    std::vector<uint32_t> tags;
    for (const auto &child : payload[0].children)
        tags.push_back(child.tag);
    // 9F8217, 8D, 9F9233, then as many 200-byte objects as fit; never 8A.
    const std::vector<uint32_t> expected = {0x82,     0x9F8217, 0x8D,     0x9F9233, 0xDF8301,
                                            0xDF8302, 0xDF8303, 0xDF8304, 0xDF8305};
    EXPECT_EQ(tags, expected);
}

TEST(OnlineContext, AnEmptyDatabaseStillSendsTheCvm) {
    ScriptedHost host;
    VelkCless_SetCVM(0x20);
    EXPECT_EQ(VelkCless_Stores_OnlineTransaction_Context(), 0u);
    const std::vector<Message> sent = host.MessagesFor(VELK_CMD_STORE_CONTEXT);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(velk::host::ToHex(sent[0].raw),
              "7F010CDF0001A27F15059F821701"
              "20");
}

}  // namespace
}  // namespace velk::test
