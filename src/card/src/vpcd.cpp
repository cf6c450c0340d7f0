// SPDX-License-Identifier: Apache-2.0
#include "velk/card/vpcd.hpp"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>

namespace velk::card {

namespace {

// Reads exactly n bytes; false on end of stream or stop.
bool ReadFull(int fd, uint8_t *out, size_t n, const std::atomic<bool> &stop) {
    size_t got = 0;
    while (got < n) {
        pollfd p{fd, POLLIN, 0};
        const int ready = poll(&p, 1, 200);
        if (stop.load()) return false;
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0)
            throw CardError(CardErrorKind::kReader, std::string("poll: ") + std::strerror(errno));
        if (ready == 0) continue;
        const ssize_t r = read(fd, out + got, n - got);
        if (r == 0) return false;
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return false;  // a reset connection ends the session like a close
        got += static_cast<size_t>(r);
    }
    return true;
}

}  // namespace

Socket::~Socket() {
    if (fd_ >= 0) close(fd_);
}

Socket &Socket::operator=(Socket &&other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) close(fd_);
        fd_ = other.fd_;
        other.fd_ = -1;
    }
    return *this;
}

bool ReadMessage(int fd, Bytes &message, const std::atomic<bool> &stop) {
    uint8_t len[2];
    if (!ReadFull(fd, len, 2, stop)) return false;
    message.assign(static_cast<size_t>(len[0] << 8 | len[1]), 0);
    return message.empty() || ReadFull(fd, message.data(), message.size(), stop);
}

void WriteMessage(int fd, const Bytes &message) {
    if (message.size() > 0xFFFF) throw CardError(CardErrorKind::kReader, "vpcd: message too long");
    Bytes out{static_cast<uint8_t>(message.size() >> 8), static_cast<uint8_t>(message.size())};
    out.insert(out.end(), message.begin(), message.end());
    size_t sent = 0;
    while (sent < out.size()) {
        const ssize_t w = send(fd, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0)
            throw CardError(CardErrorKind::kReader,
                            std::string("vpcd: send: ") + std::strerror(errno));
        sent += static_cast<size_t>(w);
    }
}

VpcdClient::VpcdClient(Card &card, std::string host, uint16_t port)
    : card_(card), host_(std::move(host)), port_(port) {}

bool VpcdClient::Connect(std::chrono::milliseconds timeout, const std::atomic<bool> *stop) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string last_error = "no attempt";
    for (;;) {
        addrinfo hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        addrinfo *found = nullptr;
        const int gai = getaddrinfo(host_.c_str(), std::to_string(port_).c_str(), &hints, &found);
        if (gai != 0)
            throw CardError(CardErrorKind::kReader, "vpcd: " + host_ + ": " + gai_strerror(gai));
        std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> list(found, freeaddrinfo);
        for (addrinfo *a = found; a != nullptr; a = a->ai_next) {
            Socket s(socket(a->ai_family, a->ai_socktype, a->ai_protocol));
            if (!s) continue;
            if (connect(s.get(), a->ai_addr, a->ai_addrlen) == 0) {
                socket_ = std::move(s);
                return true;
            }
            last_error = std::strerror(errno);
        }
        if (std::chrono::steady_clock::now() >= deadline) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (stop != nullptr && stop->load()) return false;
    }
    throw CardError(CardErrorKind::kReader, "vpcd: cannot connect to " + host_ + ":" +
                                                std::to_string(port_) + ": " + last_error +
                                                " (is pcscd running with the vpcd driver?)");
}

Bytes VpcdClient::Answer(const Bytes &message) {
    if (message.size() == 1) {
        switch (message[0]) {
            case 0:
                card_.PowerOff();
                powered_ = false;
                return {};
            case 1:
                atr_ = card_.PowerOn();
                powered_ = true;
                return {};
            case 2:
                card_.PowerOff();
                atr_ = card_.PowerOn();
                powered_ = true;
                return {};
            case 4:
                if (!powered_) {
                    atr_ = card_.PowerOn();
                    powered_ = true;
                }
                return atr_;
            default:
                return {};  // codes this driver version does not send
        }
    }
    if (message.empty()) return {};
    try {
        return card_.Transmit(message);
    } catch (const CardError &e) {
        if (e.kind() == CardErrorKind::kRemoved) throw;
        return {0x6F, 0x00};  // no precise diagnosis
    }
}

size_t VpcdClient::Serve(const std::atomic<bool> &stop) {
    if (!socket_) throw CardError(CardErrorKind::kReader, "vpcd: not connected");
    size_t apdus = 0;
    Bytes message;
    while (ReadMessage(socket_.get(), message, stop)) {
        Bytes answer;
        try {
            answer = Answer(message);
        } catch (const CardError &) {
            break;  // the card left the field: end the session as the reader would see it
        }
        if (message.size() > 1) ++apdus;
        if (!answer.empty()) WriteMessage(socket_.get(), answer);
    }
    socket_ = Socket();
    return apdus;
}

}  // namespace velk::card
