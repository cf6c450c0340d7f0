// SPDX-License-Identifier: Apache-2.0
// The vpcd protocol: length-prefixed messages, the driver's control codes
// and APDUs, over a real TCP connection to a listener that plays the driver.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <thread>

#include "term/term_test.hpp"
#include "velk/card/vpcd.hpp"

namespace velk::term::test {
namespace {

using velk::card::Socket;
using velk::card::VpcdClient;

// A listening socket on a free port of the loopback interface.
struct Listener {
    Listener() : socket(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(socket.get(), reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        EXPECT_EQ(listen(socket.get(), 1), 0);
        socklen_t len = sizeof a;
        getsockname(socket.get(), reinterpret_cast<sockaddr *>(&a), &len);
        port = ntohs(a.sin_port);
    }
    Socket Accept() const { return Socket(accept(socket.get(), nullptr, nullptr)); }

    Socket socket;
    uint16_t port = 0;
};

TEST(Vpcd, ControlCodesAndApdus) {
    velk::card::VirtualCard card(CardProfileNamed("offline-cda"));
    VpcdClient client(card, "127.0.0.1", 1);
    EXPECT_EQ(client.Answer(Bytes{0x04}), card.Profile().atr);  // get ATR powers the card
    EXPECT_EQ(client.Answer(Bytes{0x00}), Bytes{});             // power off
    EXPECT_EQ(velk::card::StatusWord(client.Answer(Select(FromHex("F056454C4B1010")))), 0x6F00);
    EXPECT_EQ(client.Answer(Bytes{0x01}), Bytes{});  // power on
    EXPECT_EQ(velk::card::StatusWord(client.Answer(Select(FromHex("F056454C4B1010")))), 0x9000);
    // pcscd polls the ATR during a transaction: the card keeps its state.
    EXPECT_EQ(client.Answer(Bytes{0x04}), card.Profile().atr);
    EXPECT_EQ(velk::card::StatusWord(client.Answer(FromHex("80CA9F3600"))), 0x9000);
    EXPECT_EQ(client.Answer(Bytes{0x02}), Bytes{});  // reset
    EXPECT_EQ(client.Answer(Bytes{0x03}), Bytes{});  // not a code the driver sends
    card.SetPresent(false);
    EXPECT_THROW(client.Answer(Select(FromHex("F056454C4B1010"))), velk::card::CardError);
}

// A client connected to a listener that plays the driver.
class VpcdSession : public ::testing::Test {
protected:
    VpcdSession()
        : card_(CardProfileNamed("offline-cda")), client_(card_, "127.0.0.1", listener_.port) {
        client_.Connect(std::chrono::seconds(2));
        driver_ = listener_.Accept();
    }

    velk::card::VirtualCard card_;
    Listener listener_;
    VpcdClient client_;
    Socket driver_;
};

TEST_F(VpcdSession, ServesTheDriverUntilItHangsUp) {
    ASSERT_TRUE(driver_);
    std::atomic<bool> stop{false};
    size_t served = 0;
    std::thread serving([&] { served = client_.Serve(stop); });

    Bytes reply;
    velk::card::WriteMessage(driver_.get(), Bytes{0x04});
    ASSERT_TRUE(velk::card::ReadMessage(driver_.get(), reply, stop));
    EXPECT_EQ(reply, card_.Profile().atr);
    velk::card::WriteMessage(driver_.get(), Bytes{0x01});  // no answer to power on
    velk::card::WriteMessage(driver_.get(), Select(FromHex("F056454C4B1010")));
    ASSERT_TRUE(velk::card::ReadMessage(driver_.get(), reply, stop));
    EXPECT_EQ(velk::card::StatusWord(reply), 0x9000);
    EXPECT_EQ(reply[0], 0x6F);
    driver_ = Socket();  // the driver goes away
    serving.join();
    EXPECT_EQ(served, 1u);
}

TEST_F(VpcdSession, StopEndsTheSessionAndNoDriverIsAClearError) {
    std::atomic<bool> stop{true};
    EXPECT_EQ(client_.Serve(stop), 0u);
    EXPECT_THROW(client_.Serve(stop), velk::card::CardError);  // the session is over

    const uint16_t unused = listener_.port;
    listener_.socket = Socket();  // nobody listens there any more
    VpcdClient lonely(card_, "127.0.0.1", unused);
    try {
        lonely.Connect(std::chrono::milliseconds(200));
        FAIL() << "connected to nothing";
    } catch (const velk::card::CardError &e) {
        EXPECT_EQ(e.kind(), velk::card::CardErrorKind::kReader);
        EXPECT_NE(std::string(e.what()).find("cannot connect to 127.0.0.1:"), std::string::npos)
            << e.what();
    }
}

}  // namespace
}  // namespace velk::term::test
