// SPDX-License-Identifier: Apache-2.0
// The terminal host's answers to the kernel: one dispatcher that maps each
// callback command to its handler.
//
//   D1 terminal parameters       D3 parameters of the application (by 9F06)
//   D4 CA public key (RID, 8F)   D5 unpredictable number
//   D6 card activation: waits for the card, then posts a signal
//   D7 display request           DF card power-off
//   E6 exception file check      E9 issuer certificate revocation check
//   F1 APDU to the card; when the card gives no response the host posts
//      the signal that says why (A5 communication error, A1 stop)
//   A2 store the online context  A3 hand the online context back
//   FE restart: the cardholder is asked to present the card again
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "velk/card/card.hpp"
#include "velk/term/kernel.hpp"
#include "velk/term/terminal_profile.hpp"
#include "velk/term/trace.hpp"

namespace velk::term {

// Where unpredictable numbers come from: OpenSSL's generator, or a seeded
// sequence for runs that must repeat exactly.
class RandomSource {
public:
    RandomSource() = default;
    explicit RandomSource(uint64_t seed) : seeded_(true), engine_(seed) {}
    Bytes Next(size_t n);

private:
    bool seeded_ = false;
    std::mt19937_64 engine_;
};

// The signal a host posts when the card answered a card activation request:
// any type but A1, A5 and A6 tells the kernel the card is there; A4 carries
// the card's answer to activation (its ATR).
inline constexpr uint8_t kSignalCardPresent = kSignalResponse;

// A reply the host gives in place of its own handler's, to the nth request
// with the command (0: to every one): a lying or refusing host.
struct HostReply {
    uint8_t command = 0;
    int nth = 1;
    std::optional<Bytes> data;      // the reply's data objects (inside 7F01; 7F15 for A3)
    std::optional<Bytes> raw;       // the reply as it stands, written as given
    uint32_t status = 0;            // the callback's return value
    std::optional<uint8_t> signal;  // posted to the kernel before the reply (D6: A1, A6)
    std::string text;               // how the scenario wrote it, for reports
};

class Host : public CallbackHandler {
public:
    Host(const TerminalProfile &terminal, velk::card::Card &card, RandomSource &random,
         Trace &trace);

    // The session whose kernel the host answers (signals go there).
    void Bind(KernelSession *session) { session_ = session; }
    // Which kernel entry the following events belong to.
    void SetEntry(int entry) { entry_ = entry; }

    uint32_t OnCallback(uint8_t *buf, uint32_t *len) override;
    void OnHostError(const std::string &what) override;

    // What the host kept or learned during the transaction.
    const std::optional<Bytes> &OnlineContext() const { return context_; }
    const std::vector<std::string> &Errors() const { return errors_; }
    int Restarts() const { return restarts_; }
    // How long D6 waits for a card presented again.
    std::chrono::milliseconds card_wait{std::chrono::seconds(30)};
    // Called when the kernel asks for the card to be presented again (FE).
    std::function<void()> on_restart;
    // Replies given in place of the handlers'.
    void SetReplies(std::vector<HostReply> replies) { replies_ = std::move(replies); }
    // Those that never found their request, as written.
    std::vector<std::string> RepliesNotUsed() const;

private:
    struct Reply {
        uint32_t status = 0;
        uint32_t root = 0x7F01;
        Bytes children;
    };
    using Request = std::vector<velk::host::TlvNode>;  // the payload after DF00
    using Handler = Reply (Host::*)(const Request &);

    Reply TerminalParameters(const Request &);
    Reply AidParameters(const Request &);
    Reply CaKey(const Request &);
    Reply UnpredictableNumber(const Request &);
    Reply CardActivation(const Request &);
    Reply Display(const Request &);
    Reply PowerOff(const Request &);
    Reply ExceptionFile(const Request &);
    Reply Revocation(const Request &);
    Reply Apdu(const Request &);
    Reply StoreContext(const Request &);
    Reply FetchContext(const Request &);
    Reply Restart(const Request &);

    void PostSignal(uint8_t type, const Bytes &data, const std::string &why);

    static const std::map<uint8_t, Handler> kHandlers;

    const TerminalProfile &terminal_;
    velk::card::Card &card_;
    RandomSource &random_;
    Trace &trace_;
    KernelSession *session_ = nullptr;
    int entry_ = 1;
    std::optional<Bytes> context_;
    std::vector<std::string> errors_;
    std::vector<HostReply> replies_;
    std::vector<bool> replies_used_;
    std::map<uint8_t, int> requests_;  // requests seen so far, by command
    const HostReply *ReplyFor(uint8_t command);
    int restarts_ = 0;
};

// The value of the first element with the tag among a request's payload.
std::optional<Bytes> RequestValue(const std::vector<velk::host::TlvNode> &request, uint32_t tag);

}  // namespace velk::term
