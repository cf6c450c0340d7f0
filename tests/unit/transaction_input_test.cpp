// The input edits of the restart after an ECHO communication error: the torn
// transaction's AID and steering leave 7F11, the new FCI replaces the old,
// and nothing after 7F11 survives.
#include <gtest/gtest.h>

#include <algorithm>

#include "checked.hpp"
#include "emv_kernel.h"
#include "transaction_data.hpp"

namespace velk::test {
namespace {

using velk::host::Cat;
using velk::host::FromHex;
using velk::host::ToHex;

TEST(EchoRestartInput, DropsAidAndSteeringReplacesTheFciAndCutsWhatFollows) {
    const Bytes before =
        Cat({TransactionInput({T(0x9F06, "A0000000031010"), T(0x9F02, "000000000100"),
                               T(0x9F872B, "10"), T(0x9F8201, "6F00")},
                              0x02),
             T(0x9F03, "000000000000")});
    Bytes io(VELK_IO_BUFFER_MIN_LEN, 0);
    std::copy(before.begin(), before.end(), io.begin());
    uint32_t len = static_cast<uint32_t>(before.size());
    const Bytes fci = FromHex("6F038401AA");
    ASSERT_TRUE(velk::EchoRestartInput(io.data(), &len, fci.data(), 5));
    const Bytes after =
        TransactionInput({T(0x9F02, "000000000100"), T(0x9F8201, "6F038401AA")}, 0x02);
    EXPECT_EQ(ToHex({io.data(), len}), ToHex(after));
    EXPECT_TRUE(std::all_of(io.begin() + len, io.end(), [](uint8_t b) { return b == 0; }));
    EXPECT_EQ(velk::InputTemplate(io.data(), len), io.data() + 4);
}

TEST(EchoRestartInput, RefusesAnFciThatWouldPassTheBufferAndAnInputWithout7F11) {
    const Bytes input =
        TransactionInput({velk::host::Tlv(0xDF8101, Bytes(VELK_IO_BUFFER_MIN_LEN - 16, 0x11))});
    Bytes io(VELK_IO_BUFFER_MIN_LEN, 0);
    std::copy(input.begin(), input.end(), io.begin());
    uint32_t len = static_cast<uint32_t>(input.size());
    const Bytes fci(32, 0x6F);
    EXPECT_FALSE(velk::EchoRestartInput(io.data(), &len, fci.data(), 32));
    EXPECT_EQ(len, input.size());

    Bytes other = T(0xDF09, "02");
    uint32_t otherLen = static_cast<uint32_t>(other.size());
    EXPECT_FALSE(velk::EchoRestartInput(other.data(), &otherLen, nullptr, 0));
}

}  // namespace
}  // namespace velk::test
