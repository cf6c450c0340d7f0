// SPDX-License-Identifier: Apache-2.0
// The entry point in front of the kernel: selection of the proximity payment
// system environment (2PAY.SYS.DDF01), the list of candidate applications
// that both the card and the terminal support, ordered by the card's
// priority (87), and the SELECT of the application whose response the
// kernel takes as signal A0. A card without a PPSE (6A82) is tried with the
// terminal's own list of applications, in the terminal's order.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "velk/card/card.hpp"
#include "velk/term/terminal_profile.hpp"
#include "velk/term/trace.hpp"

namespace velk::term {

struct Candidate {
    Bytes aid;
    std::string label;
    uint8_t priority = 0;  // 1 highest .. 15 lowest; 0 when the card gives none
    std::optional<uint8_t> kernel_id;
};

struct Selection {
    Bytes aid;       // as the card named it (DF name of the FCI)
    Bytes response;  // the SELECT response: FCI and status word
    std::string label;
    std::optional<uint8_t> kernel_id;
};

class EntryPoint {
public:
    EntryPoint(const TerminalProfile &terminal, velk::card::Card &card, Trace &trace);

    // Before the card is asked for anything: the reader's contactless
    // transaction limit (9F8208, the application's own or else the
    // terminal's) is applied to each of the terminal's applications, as the
    // kernel leaves it to the entry point. An application whose limit the
    // amount reaches is not offered. When no application is left, the
    // reason in words (the transaction goes to another interface).
    std::optional<std::string> PreProcess(const Bytes &amount_bcd, int exponent);
    // Selects the PPSE and builds the candidate list (afresh: also for the
    // card presented again). Card errors propagate.
    void Start();
    // Selects the next candidate; nullopt when none is left (each candidate
    // is offered once: a Select Next outcome moves on to the next one).
    std::optional<Selection> SelectNext();
    // Selects an application again (the card presented again at an online
    // tap); the SELECT response, whatever its status word.
    Bytes Reselect(const Bytes &aid);

    bool UsedPpse() const { return used_ppse_; }
    const std::vector<Candidate> &Candidates() const { return candidates_; }
    // What selection saw, in words, for the report.
    const std::vector<std::string> &Notes() const { return notes_; }

private:
    Bytes Exchange(const Bytes &command);
    bool Allowed(const Bytes &aid) const;
    void Note(std::string text);

    const TerminalProfile &terminal_;
    velk::card::Card &card_;
    Trace &trace_;
    std::vector<const TerminalApplication *> not_allowed_;  // by PreProcess
    bool used_ppse_ = false;
    std::vector<Candidate> candidates_;
    size_t next_ = 0;
    std::vector<std::string> notes_;
};

// The candidates of a PPSE response, ordered by priority, kept only when
// the terminal supports them. Exposed for its tests.
std::vector<Candidate> CandidatesFromPpse(const TerminalProfile &terminal, const Bytes &fci);

}  // namespace velk::term
