// SPDX-License-Identifier: Apache-2.0
// A scripted host for whole transactions: binds a fresh kernel block, installs
// itself as the kernel's callback, answers the kernel's requests from
// configurable data, plays a scripted card for the APDU exchange, and records
// everything the kernel sent.
//
//   ScriptedHost host;
//   host.ics = {Tlv(0x9F9301, ...)};
//   host.card = {Respond(FromHex("80A8..."), FromHex("77.. 9000"))};
//   auto [status, out] = host.Start(TransactionInput({...}));
//
// A command without a handler, a C-APDU that differs from the script, or a
// script left unfinished when the host goes away fails the test.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kernel_fixture.hpp"
#include "velk/host/tlv.hpp"

namespace velk::test {

using velk::host::Bytes;

// One request of the kernel as the host received it.
struct Message {
    uint8_t command = 0;
    Bytes payload;  // the encoded elements after DF00, in order
    Bytes raw;      // the whole request as the kernel sent it
};

// What a handler does with the exchange buffer: writes `buffer` from its first
// byte (when set; otherwise the request stays in place) and returns `status`.
struct Answer {
    uint32_t status = 0;
    std::optional<Bytes> buffer;

    static Answer Reply(const std::vector<Bytes> &children);  // 7F01 { children }
    static Answer Raw(Bytes bytes);
    static Answer Fail(uint32_t status);
    static Answer Keep() { return {}; }
};

// One exchange of the scripted card: the C-APDU expected to the byte, and how
// the host answers it.
struct CardExchange {
    enum class Kind { Respond, RespondLater, Signal, CallbackFailure };
    Bytes capdu;
    Kind kind = Kind::Respond;
    Bytes rapdu;         // Respond, RespondLater
    uint8_t signal = 0;  // Signal: A1, A5 or A6
    uint32_t failure = 0;
    std::optional<std::chrono::milliseconds> fromThreadAfter;  // RespondLater
};
// DF03 in the reply.
CardExchange Respond(Bytes capdu, Bytes rapdu);
// No DF03; the R-APDU follows as an A4 signal, posted inside the callback or,
// with a delay, from another thread.
CardExchange RespondLater(Bytes capdu, Bytes rapdu,
                          std::optional<std::chrono::milliseconds> fromThreadAfter = {});
// No DF03; a signal (A1, A5, A6) instead of a response.
CardExchange SignalInstead(Bytes capdu, uint8_t type);
// The callback itself fails with `code`.
CardExchange FailCallback(Bytes capdu, uint32_t code);

// The signal the default D6 handler posts: any type but A1, A5 and A6 tells
// the kernel that the card is there.
inline constexpr uint8_t kCardPresentSignal = 0x00;

class ScriptedHost {
public:
    using Handler = std::function<Answer(const Message &)>;

    ScriptedHost();
    // On a block the caller has bound and initialised (see BoundKernel).
    explicit ScriptedHost(uint8_t *boundBlock);
    ~ScriptedHost();
    ScriptedHost(const ScriptedHost &) = delete;
    ScriptedHost &operator=(const ScriptedHost &) = delete;

    // ---- Configuration --------------------------------------------------------
    std::vector<Bytes> ics;        // D1: the reply's children
    std::vector<Bytes> aidParams;  // D3: the reply's children
    std::vector<Bytes> context;    // A3: the reply's children; A2 replaces them with 7F15's
    Bytes unpredictableNumber = velk::host::FromHex("11223344");  // D5: 9F37
    uint8_t cardActiveSignal = kCardPresentSignal;                // D6
    std::vector<CardExchange> card;                               // F1, in order

    // Replaces the default handling of a command, or adds one.
    void On(uint8_t command, Handler handler);

    // ---- Records ---------------------------------------------------------------
    std::vector<Message> messages;  // every request, in order
    std::vector<Bytes> capdus;      // every C-APDU, in order
    std::vector<Bytes> uirds;       // every D7 display request's DF8116
    int powerOffs = 0;              // DF requests
    std::vector<Bytes> restarts;    // FE requests: the outcome packet 7F01 without DF00
    std::vector<uint8_t> Commands() const;
    std::vector<Message> MessagesFor(uint8_t command) const;

    // ---- Signals ---------------------------------------------------------------
    // Posts a signal now; the host keeps its data alive.
    void Post(uint8_t type, const Bytes &data = {});
    // Posts a signal from another thread after a delay.
    void PostFromThread(uint8_t type, const Bytes &data, std::chrono::milliseconds delay);

    // ---- Running ---------------------------------------------------------------
    struct Result {
        uint32_t status = 0;
        Bytes out;  // the outcome TLV (the first *len bytes of the buffer)
        Bytes io;   // the whole VELK_IO_BUFFER_MIN_LEN-byte buffer afterwards
    };
    // Kernel_Start_VELK_ with the input in a VELK_IO_BUFFER_MIN_LEN-byte buffer
    // whose other bytes hold `fill`, and `len` in place of the input's length
    // when given (to lie about it).
    Result Start(const Bytes &input, std::optional<uint32_t> len = {}, uint8_t fill = 0);

    BoundKernel &kernel() { return kernel_; }
    VELK_GLOBALVALUE_STRUCT &g() { return kernel_.g(); }
    // The card script has been played to the end.
    bool CardDone() const { return next_ == card.size(); }

private:
    static uint32_t Trampoline(uint8_t *buffer, uint32_t *len);
    uint32_t Dispatch(uint8_t *buffer, uint32_t *len);
    Answer PlayCard(const Message &msg);
    const uint8_t *Keep(const Bytes &data);
    void JoinThreads();

    static ScriptedHost *current_;
    BoundKernel kernel_;
    std::map<uint8_t, Handler> handlers_;
    std::deque<Bytes> signalData_;  // stable addresses for posted data
    std::vector<std::thread> threads_;
    size_t next_ = 0;
};

// The database's value of a tag in hex, or "absent".
std::string DbHex(uint32_t tag);

// "expected ... / actual ... / first difference at byte N".
std::string HexDiff(const Bytes &expected, const Bytes &actual);

// ---- Builders -------------------------------------------------------------------

// DF09 (when given) followed by 7F11 { params }.
Bytes TransactionInput(const std::vector<Bytes> &params, std::optional<uint8_t> kernelId = {});
// 6F { 84 aid, A5 { a5 } }.
Bytes Fci(const Bytes &aid, const std::vector<Bytes> &a5 = {});
// A constructed element whose value is the children's encodings in order.
Bytes Constructed(uint32_t tag, const std::vector<Bytes> &children);
// The bytes followed by the status word 90 00.
Bytes With9000(const Bytes &data);

// ---- The outcome packet ---------------------------------------------------------

struct OutcomePacket {
    explicit OutcomePacket(const Bytes &packet);

    Bytes ops;                                         // DF8129
    std::optional<Bytes> uird;                         // DF8116
    std::optional<Bytes> restartUird;                  // 9F8117
    std::optional<velk::host::TlvNode> discretionary;  // FF8106
    std::optional<velk::host::TlvNode> record;         // FF8105
    std::optional<Bytes> reader;                       // 9F8211
    std::vector<uint32_t> order;                       // the tags of 7F01's children in order

    // Tags of a container's children, in order.
    static std::vector<uint32_t> Tags(const velk::host::TlvNode &container);
};

}  // namespace velk::test
