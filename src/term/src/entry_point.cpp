// SPDX-License-Identifier: Apache-2.0
#include "velk/term/entry_point.hpp"

#include <algorithm>

#include "velk/term/explain.hpp"

namespace velk::term {

using velk::card::ResponseData;
using velk::card::SelectCommand;
using velk::card::StatusWord;
using velk::host::ToHex;

namespace {

std::string Sw(uint16_t sw) {
    return ToHex(Bytes{static_cast<uint8_t>(sw >> 8), static_cast<uint8_t>(sw)}, true);
}

std::string Text(const Bytes &b) {
    std::string s;
    for (uint8_t c : b)
        s += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '?';
    return s;
}

// A BCD value as a number; nullopt when a nibble is not a decimal digit or
// it has more digits than an amount (n 12) could need.
std::optional<uint64_t> BcdNumber(const Bytes &bcd) {
    if (bcd.size() > 9) return std::nullopt;
    uint64_t n = 0;
    for (uint8_t b : bcd) {
        if ((b >> 4) > 9 || (b & 0x0F) > 9) return std::nullopt;
        n = n * 100 + (b >> 4) * 10 + (b & 0x0F);
    }
    return n;
}

std::optional<Bytes> ParameterOf(const Bytes &encoded, uint32_t tag) {
    try {
        const auto nodes = velk::card::ParseTlvData(encoded);
        if (const auto *n = velk::host::Find(nodes, tag)) return n->value;
    } catch (const std::invalid_argument &) {
    }
    return std::nullopt;
}

}  // namespace

std::vector<Candidate> CandidatesFromPpse(const TerminalProfile &terminal, const Bytes &fci) {
    std::vector<Candidate> out;
    std::vector<velk::host::TlvNode> nodes;
    try {
        nodes = velk::card::ParseTlvData(fci);
    } catch (const std::invalid_argument &) {
        return out;
    }
    const velk::host::TlvNode *dir = velk::host::Find(nodes, 0xBF0C);
    if (dir == nullptr) return out;
    for (const auto &entry : dir->children) {
        if (entry.tag != 0x61) continue;
        const velk::host::TlvNode *aid = velk::host::Find(entry.children, 0x4F);
        if (aid == nullptr) continue;
        const TerminalApplication *app = terminal.FindApplication(aid->value);
        if (app == nullptr) continue;
        Candidate c;
        c.aid = aid->value;
        if (const auto *label = velk::host::Find(entry.children, 0x50))
            c.label = Text(label->value);
        if (const auto *prio = velk::host::Find(entry.children, 0x87);
            prio && prio->value.size() == 1)
            c.priority = prio->value[0] & 0x0F;
        c.kernel_id = app->kernel_id;
        if (!c.kernel_id)
            if (const auto *k = velk::host::Find(entry.children, 0x9F2A); k && !k->value.empty())
                c.kernel_id = k->value[0];
        out.push_back(std::move(c));
    }
    // 1 is the highest priority; an entry without one comes after all that
    // have one; equal priorities keep the card's order.
    std::stable_sort(out.begin(), out.end(), [](const Candidate &a, const Candidate &b) {
        const int pa = a.priority == 0 ? 16 : a.priority, pb = b.priority == 0 ? 16 : b.priority;
        return pa < pb;
    });
    return out;
}

EntryPoint::EntryPoint(const TerminalProfile &terminal, velk::card::Card &card, Trace &trace)
    : terminal_(terminal), card_(card), trace_(trace) {}

void EntryPoint::Note(std::string text) {
    trace_.Note(0, text);
    notes_.push_back(std::move(text));
}

Bytes EntryPoint::Exchange(const Bytes &command) {
    const std::string name = velk::card::KindName(velk::card::Classify(command));
    try {
        Bytes response = card_.Transmit(command);
        trace_.Apdu(0, name, command, response);
        return response;
    } catch (const velk::card::CardError &e) {
        trace_.Apdu(0, name, command, {}, e.what());
        Note(name + ": no response, " + e.what());
        throw;
    }
}

std::optional<std::string> EntryPoint::PreProcess(const Bytes &amount_bcd, int exponent) {
    constexpr uint32_t kLimitTag = 0x9F8208;
    const uint64_t amount = BcdNumber(amount_bcd).value_or(0);
    std::string reason;
    for (const TerminalApplication &app : terminal_.applications) {
        auto limit = ParameterOf(app.parameters, kLimitTag);
        if (!limit) limit = ParameterOf(terminal_.parameters, kLimitTag);
        if (!limit) continue;
        const auto value = BcdNumber(*limit);
        if (!value) {
            Note("contactless transaction limit (9F8208) " + ToHex(*limit) + " of " +
                 ToHex(app.aid) + " is not a BCD amount: not applied");
            continue;
        }
        if (amount < *value) continue;
        not_allowed_.push_back(&app);
        reason = "the amount " + FormatAmount(amount_bcd, exponent) +
                 " is at or above the reader's contactless transaction limit (9F8208) of " +
                 FormatAmount(*limit, exponent);
        Note(ToHex(app.aid) + " not allowed: " + reason);
    }
    if (not_allowed_.size() < terminal_.applications.size()) return std::nullopt;
    return reason;
}

void EntryPoint::Start() {
    candidates_.clear();
    next_ = 0;
    (void)card_.PowerOn();
    const std::string_view ppse = velk::card::kPpseName;
    const Bytes response = Exchange(SelectCommand(Bytes(ppse.begin(), ppse.end())));
    const uint16_t sw = StatusWord(response);
    if (sw == velk::card::kSwOk) {
        used_ppse_ = true;
        const auto data = ResponseData(response);
        candidates_ = CandidatesFromPpse(terminal_, Bytes(data.begin(), data.end()));
        const size_t refused =
            std::erase_if(candidates_, [&](const Candidate &c) { return !Allowed(c.aid); });
        std::string list;
        for (const Candidate &c : candidates_)
            list += (list.empty() ? "" : ", ") + ToHex(c.aid) +
                    (c.label.empty() ? "" : " \"" + c.label + "\"") +
                    (c.priority ? " priority " + std::to_string(c.priority) : "");
        Note("PPSE: " + std::to_string(candidates_.size()) +
             " application(s) the terminal supports" +
             (refused ? " and allows (" + std::to_string(refused) + " not allowed)" : "") +
             (list.empty() ? "" : ": " + list));
        return;
    }
    if (sw == velk::card::kSwFileNotFound) {
        Note("the card has no PPSE (6A 82): trying the terminal's applications in order");
        for (const TerminalApplication &app : terminal_.applications)
            if (Allowed(app.aid)) candidates_.push_back({app.aid, {}, 0, app.kernel_id});
        return;
    }
    Note("the PPSE was refused with " + Sw(sw) + ": no application to select");
}

bool EntryPoint::Allowed(const Bytes &aid) const {
    const TerminalApplication *app = terminal_.FindApplication(aid);
    return std::find(not_allowed_.begin(), not_allowed_.end(), app) == not_allowed_.end();
}

std::optional<Selection> EntryPoint::SelectNext() {
    while (next_ < candidates_.size()) {
        const Candidate &c = candidates_[next_++];
        const Bytes response = Exchange(SelectCommand(c.aid));
        const uint16_t sw = StatusWord(response);
        if (sw != velk::card::kSwOk) {
            Note("SELECT " + ToHex(c.aid) + " answered " + Sw(sw) + ": next candidate");
            continue;
        }
        Selection s{c.aid, response, c.label, c.kernel_id};
        // The DF name the card gives in its FCI is the AID of the transaction.
        try {
            const auto data = ResponseData(response);
            const auto nodes = velk::card::ParseTlvData(data);
            if (const auto *df = velk::host::Find(nodes, 0x84)) s.aid = df->value;
            if (const auto *label = velk::host::Find(nodes, 0x50); label && s.label.empty())
                s.label = Text(label->value);
        } catch (const std::invalid_argument &) {
            // The kernel judges the FCI; the host only hands it over.
        }
        if (!s.kernel_id)
            if (const TerminalApplication *app = terminal_.FindApplication(s.aid))
                s.kernel_id = app->kernel_id;
        Note("selected " + ToHex(s.aid) + (s.label.empty() ? "" : " \"" + s.label + "\""));
        return s;
    }
    return std::nullopt;
}

Bytes EntryPoint::Reselect(const Bytes &aid) {
    (void)card_.PowerOn();
    return Exchange(SelectCommand(aid));
}

}  // namespace velk::term
