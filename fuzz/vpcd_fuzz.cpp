// SPDX-License-Identifier: Apache-2.0
// The bytes a vpcd driver sends to `serve-vpcd`: frames of any length,
// control codes, APDUs, a frame cut short and the close that follows,
// served by a fresh virtual card over one end of a socket pair while a
// thread drains the answers from the other. The session must end without
// an exception: the card answers every command with a status word.
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "fuzz_input.hpp"
#include "velk/card/card_profile.hpp"
#include "velk/card/virtual_card.hpp"
#include "velk/card/vpcd.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // More than fits the socket buffers would block both sides.
    if (size > 65536) return 0;
    static const velk::card::CardProfile profile =
        velk::card::LoadCardProfile(VELK_FUZZ_PROFILES "/cards/offline-cda.json");
    int fds[2];
    velk::fuzz::Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0);
    velk::card::Socket driver(fds[0]);
    std::thread feeder([&] {
        // Writes the driver's bytes, closes its sending side, then reads
        // every answer until serve-vpcd closes.
        size_t sent = 0;
        while (sent < size) {
            const ssize_t w = send(driver.get(), data + sent, size - sent, MSG_NOSIGNAL);
            if (w <= 0) break;
            sent += static_cast<size_t>(w);
        }
        shutdown(driver.get(), SHUT_WR);
        uint8_t sink[4096];
        while (read(driver.get(), sink, sizeof sink) > 0) {
        }
    });
    velk::card::VirtualCard card(profile);
    velk::card::VpcdClient client(card, "fuzz", 0);
    client.Adopt(velk::card::Socket(fds[1]));
    const std::atomic<bool> stop{false};
    size_t apdus = 0;
    try {
        apdus = client.Serve(stop);
    } catch (const velk::card::CardError &) {
        // The reader's kind of failure, which serve-vpcd reports (exit 5).
    }
    feeder.join();
    velk::fuzz::Require(apdus <= size / 4);  // a 2-byte length and at least 2 bytes each
    return 0;
}
