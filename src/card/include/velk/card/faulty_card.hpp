// SPDX-License-Identifier: Apache-2.0
// Faults injected between the terminal and a card, to see what the kernel
// makes of them. A fault is written ACTION@COMMAND[#N][:CHANGE]:
//
//   tear@gac1            the card carries out the first GENERATE AC but its
//                        response is lost (communication error)
//   cancel@read-record#2 the terminal stops the transaction instead of
//                        sending the second READ RECORD
//   remove@gpo           the card leaves the field before the GPO and does
//                        not come back
//   mutate@gpo:drop=82   the GPO response without its AIP (lengths fixed up)
//   respond@gpo:6985     the card carries out the GPO, the terminal gets 69 85
//   respond@80CA9F17:9F170103 9000
//                        a command picked by its first bytes (hex)
//
// COMMAND is one of select-ppse, select, gpo, read-record, get-data,
// put-data, internal-authenticate, gac (any), gac1, gac2, echo, script, any,
// or the first bytes of the C-APDU in hex (at least two);
// #N counts the exchanges of that command from 1. respond takes the whole
// response APDU in hex after the colon. Changes of mutate:
// sw=XXXX (another status word), drop=TAG, dup=TAG (the element twice),
// truncate=N (the last N data bytes cut), length=+N or -N (the outer
// template's length byte off by N), append=HEX.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "velk/card/card.hpp"

namespace velk::card {

struct Fault {
    enum class Action { kTear, kCancel, kRemove, kMutate, kRespond };
    enum class Change { kNone, kSw, kDrop, kDup, kTruncate, kLength, kAppend };

    Action action = Action::kTear;
    std::string command;  // as written: "gac1", "read-record", "any", "80CA9F17"
    Bytes prefix;         // a command named by its first bytes
    int occurrence = 1;
    Change change = Change::kNone;
    uint32_t tag = 0;  // drop, dup
    int amount = 0;    // sw (the status word), truncate, length
    Bytes bytes;       // append; respond: the response APDU
    std::string text;  // the fault as written

    // Throws std::invalid_argument with what is wrong.
    static Fault Parse(const std::string &text);
};

// Applies a mutation to a response APDU (data and status word).
Bytes Mutate(const Fault &fault, const Bytes &response);

class FaultyCard : public Card {
public:
    FaultyCard(Card &inner, std::vector<Fault> faults);

    std::string Describe() const override { return inner_.Describe(); }
    Bytes PowerOn() override;
    void PowerOff() override { inner_.PowerOff(); }
    bool Present() override { return !removed_ && inner_.Present(); }
    bool WaitPresent(std::chrono::milliseconds timeout) override;
    Bytes Transmit(std::span<const uint8_t> command) override;

    // "tear@gac1 (GENERATE AC #1)" for every fault that has fired, in order.
    const std::vector<std::string> &Fired() const { return fired_; }
    // The faults that never found their command, as written.
    std::vector<std::string> NotFired() const;

private:
    struct Armed {
        Fault fault;
        bool fired = false;
    };

    Card &inner_;
    std::vector<Armed> faults_;
    std::vector<std::string> fired_;
    std::vector<std::pair<std::string, int>> counts_;
    bool removed_ = false;
    int gacs_since_gpo_ = 0;

    int Count(const std::string &label);
};

}  // namespace velk::card
