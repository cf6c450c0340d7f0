// SPDX-License-Identifier: Apache-2.0
// Serves a card to the vsmartcard virtual reader driver (vpcd) of pcsc-lite,
// so that a virtual card appears on a PC/SC reader ("Virtual PCD 00 00").
//
// The driver listens on a TCP port (35963 for its first reader) and the card
// side connects to it. Every message, both ways, is a 2-byte big-endian
// length and a payload. A payload of one byte is a control code from the
// driver: 0 power off, 1 power on, 2 reset, 4 get ATR (answered with the
// ATR); a longer payload is a command APDU, answered with the response APDU.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "velk/card/card.hpp"

namespace velk::card {

inline constexpr uint16_t kVpcdPort = 35963;

// A socket file descriptor, closed on destruction.
class Socket {
public:
    Socket() = default;
    explicit Socket(int fd) : fd_(fd) {}
    ~Socket();
    Socket(Socket &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Socket &operator=(Socket &&other) noexcept;
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

class VpcdClient {
public:
    VpcdClient(Card &card, std::string host, uint16_t port);

    // Connects, retrying until the time-out (the driver may still be
    // starting). Throws CardError (kReader) when no connection is made;
    // false when stop became true first.
    bool Connect(std::chrono::milliseconds timeout, const std::atomic<bool> *stop = nullptr);
    // Serves on a connection made elsewhere (one end of a socket pair).
    void Adopt(Socket socket) { socket_ = std::move(socket); }
    // Answers the driver until it closes the connection or stop becomes true.
    // Returns the number of APDUs answered.
    size_t Serve(const std::atomic<bool> &stop);

    // One message from the driver and its answer (empty when there is none);
    // exposed for the tests of the protocol.
    Bytes Answer(const Bytes &message);

private:
    Card &card_;
    std::string host_;
    uint16_t port_;
    Socket socket_;
    // The driver asks for the ATR whenever pcscd polls for the card, also in
    // the middle of a transaction: only a card that is not powered yet is
    // powered on for it, so polling never resets the card's state.
    bool powered_ = false;
    Bytes atr_;
};

// Reads one length-prefixed message; false when the peer closed the
// connection (or stop became true while waiting).
bool ReadMessage(int fd, Bytes &message, const std::atomic<bool> &stop);
void WriteMessage(int fd, const Bytes &message);

}  // namespace velk::card
