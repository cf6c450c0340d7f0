// SPDX-License-Identifier: Apache-2.0
// One whole transaction as velk-term runs it: the entry point selects an
// application, the kernel runs the first entry; an online request goes to
// the simulated issuer, whose response the kernel processes on a second
// entry when the outcome asks for one (long tap or online tap).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "velk/card/card.hpp"
#include "velk/card/faulty_card.hpp"
#include "velk/term/explain.hpp"
#include "velk/term/host.hpp"
#include "velk/term/issuer.hpp"
#include "velk/term/kernel.hpp"
#include "velk/term/terminal_profile.hpp"
#include "velk/term/trace.hpp"

namespace velk::term {

struct PayOptions {
    std::string amount = "0.00";  // in the terminal's currency
    std::optional<std::string> other_amount;
    uint8_t type = 0x00;
    Bytes date;  // YYMMDD BCD; today when empty
    Bytes time;  // HHMMSS BCD; now when empty
    IssuerConfig issuer;
    std::vector<velk::card::Fault> faults;
    std::vector<HostReply> host_replies;  // replies given in place of the host's own
    std::optional<uint64_t> seed;
    std::chrono::milliseconds card_wait{std::chrono::seconds(30)};
};

// An amount in the currency's major unit ("25.00", "25", "0.5") as the 6-byte
// BCD of Amount, Authorised. Throws std::invalid_argument.
Bytes AmountToBcd(const std::string &amount, int exponent);

// One call of Kernel_Start_VELK_.
struct KernelEntry {
    int number = 0;
    std::string purpose;  // "first tap", "issuer response (long tap)", ...
    Bytes input;
    uint32_t status = 0;
    Bytes output;
    std::optional<OutcomeParameters> outcome;
    std::optional<UiRequest> ui, ui_restart;
    Bytes data_record;    // value of FF8105
    Bytes discretionary;  // value of FF8106
    std::string error;    // when the output holds no outcome
};

struct TransactionReport {
    std::string card;
    std::string terminal;
    std::string kernel;
    std::string amount;
    std::string currency;  // "EUR" or the numeric code
    int exponent = 2;
    uint8_t type = 0;
    Bytes date, time;

    std::vector<std::string> selection;  // what the entry point saw
    // An outcome of the entry point itself, given before any kernel ran
    // (the amount reached the contactless transaction limit).
    std::optional<OutcomeParameters> entry_point_outcome;
    std::optional<UiRequest> entry_point_ui;
    std::string entry_point_reason;
    std::optional<Bytes> aid;
    std::string label;
    std::vector<KernelEntry> entries;

    std::string online_flow;  // "", "online request", "long tap", "online tap"
    std::optional<IssuerResponse> issuer;
    Bytes online_context;  // what the kernel stored with the host (A2), if anything
    std::vector<std::string> faults_fired;
    std::vector<std::string> faults_not_fired;  // faults and given responses never used
    std::vector<std::string> replies_not_used;  // host replies never asked for
    std::vector<std::string> host_errors;
    int restarts = 0;
    Trace trace;

    // The end of the story: the last outcome, or for a plain online request
    // completed by the host, the issuer's decision.
    std::string result;
    bool completed = false;  // the kernel (or the entry point) gave an outcome
    std::vector<std::string> why;
};

// The outcome of a device that asks the cardholder to verify on it first:
// the application ends and the transaction restarts at start B.
bool AsksOnDeviceCvm(const OutcomeParameters &outcome);

// Runs the transaction. secrets lets the issuer check cryptograms (a virtual
// card knows its keys; a real card's are unknown). Errors of the card or of
// the kernel binding end the run and are reported, not thrown; only a
// TransactionReport with completed = false tells of them.
TransactionReport RunTransaction(const KernelApi &kernel, const TerminalProfile &terminal,
                                 velk::card::Card &card, const PayOptions &options,
                                 SecretsLookup secrets);

}  // namespace velk::term
