// SPDX-License-Identifier: Apache-2.0
#include "velk/card/faulty_card.hpp"

#include <algorithm>
#include <charconv>
#include <stdexcept>

#include "velk/card/json_profile.hpp"

namespace velk::card {

namespace {

constexpr const char *kCommands[] = {
    "select-ppse", "select", "gpo",  "read-record", "get-data", "put-data", "internal-authenticate",
    "gac",         "gac1",   "gac2", "echo",        "script",   "any"};

int ParseInt(std::string_view s, const std::string &text) {
    int v = 0;
    const char *first = s.data();
    if (!s.empty() && s[0] == '+') ++first;
    const auto [end, ec] = std::from_chars(first, s.data() + s.size(), v);
    if (ec != std::errc() || end != s.data() + s.size() || first == s.data() + s.size())
        throw std::invalid_argument("fault '" + text + "': '" + std::string(s) +
                                    "' is not a number");
    return v;
}

uint32_t ParseTag(std::string_view s, const std::string &text) {
    const auto tag = ParseTagText(s);
    if (!tag)
        throw std::invalid_argument("fault '" + text + "': '" + std::string(s) + "' is not a tag");
    return *tag;
}

using velk::host::TlvNode;

Bytes EncodeNode(const TlvNode &n) {
    if (n.children.empty()) return velk::host::Tlv(n.tag, n.value);
    Bytes value;
    for (const TlvNode &c : n.children) {
        const Bytes e = EncodeNode(c);
        value.insert(value.end(), e.begin(), e.end());
    }
    return velk::host::Tlv(n.tag, value);
}

// Drops or doubles the first element with the tag, depth first; true when found.
bool Edit(std::vector<TlvNode> &nodes, uint32_t tag, bool duplicate) {
    for (auto it = nodes.begin(); it != nodes.end(); ++it) {
        if (it->tag == tag) {
            if (duplicate)
                nodes.insert(it + 1, *it);
            else
                nodes.erase(it);
            return true;
        }
        if (Edit(it->children, tag, duplicate)) return true;
    }
    return false;
}

}  // namespace

Fault Fault::Parse(const std::string &text) {
    Fault f;
    f.text = text;
    const size_t at = text.find('@');
    if (at == std::string::npos)
        throw std::invalid_argument("fault '" + text +
                                    "': expected ACTION@COMMAND, e.g. tear@gac1");
    const std::string action = text.substr(0, at);
    std::string rest = text.substr(at + 1);
    if (action == "tear")
        f.action = Action::kTear;
    else if (action == "cancel")
        f.action = Action::kCancel;
    else if (action == "remove")
        f.action = Action::kRemove;
    else if (action == "mutate")
        f.action = Action::kMutate;
    else if (action == "respond")
        f.action = Action::kRespond;
    else
        throw std::invalid_argument("fault '" + text + "': unknown action '" + action +
                                    "' (tear, cancel, remove, mutate, respond)");

    std::string change;
    if (const size_t colon = rest.find(':'); colon != std::string::npos) {
        change = rest.substr(colon + 1);
        rest = rest.substr(0, colon);
    }
    if (const size_t hash = rest.find('#'); hash != std::string::npos) {
        f.occurrence = ParseInt(std::string_view(rest).substr(hash + 1), text);
        if (f.occurrence < 1) throw std::invalid_argument("fault '" + text + "': #N counts from 1");
        rest = rest.substr(0, hash);
    }
    if (std::find(std::begin(kCommands), std::end(kCommands), rest) == std::end(kCommands)) {
        try {
            f.prefix = velk::host::FromHex(rest);
        } catch (const std::invalid_argument &) {
        }
    }
    if (f.prefix.size() < 2 &&
        std::find(std::begin(kCommands), std::end(kCommands), rest) == std::end(kCommands)) {
        std::string list;
        for (const char *c : kCommands)
            list += (list.empty() ? "" : ", ") + std::string(c);
        throw std::invalid_argument("fault '" + text + "': unknown command '" + rest + "' (" +
                                    list + ")");
    }
    f.command = rest;

    if (f.action == Action::kRespond) {
        try {
            f.bytes = velk::host::FromHex(change);
        } catch (const std::invalid_argument &e) {
            throw std::invalid_argument("fault '" + text + "': " + e.what());
        }
        // Up to 1024 bytes: longer than any card may answer, for hostile cards.
        if (f.bytes.size() > 1024)
            throw std::invalid_argument("fault '" + text +
                                        "': respond takes a response APDU of at most 1024 "
                                        "bytes, e.g. respond@gpo:6985");
        return f;
    }
    if (f.action != Action::kMutate) {
        if (!change.empty())
            throw std::invalid_argument("fault '" + text + "': only mutate takes a :CHANGE");
        return f;
    }
    const size_t eq = change.find('=');
    if (eq == std::string::npos)
        throw std::invalid_argument("fault '" + text +
                                    "': mutate needs a change such as :sw=6985 or :drop=82");
    const std::string key = change.substr(0, eq);
    const std::string_view value = std::string_view(change).substr(eq + 1);
    if (key == "sw") {
        f.change = Change::kSw;
        Bytes sw;
        try {
            sw = velk::host::FromHex(value);
        } catch (const std::invalid_argument &) {
        }
        if (sw.size() != 2)
            throw std::invalid_argument("fault '" + text + "': sw= takes 4 hex digits");
        f.amount = sw[0] << 8 | sw[1];
    } else if (key == "drop" || key == "dup") {
        f.change = key == "drop" ? Change::kDrop : Change::kDup;
        f.tag = ParseTag(value, text);
    } else if (key == "truncate") {
        f.change = Change::kTruncate;
        f.amount = ParseInt(value, text);
        if (f.amount < 1)
            throw std::invalid_argument("fault '" + text + "': truncate=N needs N >= 1");
    } else if (key == "length") {
        f.change = Change::kLength;
        f.amount = ParseInt(value, text);
    } else if (key == "append") {
        f.change = Change::kAppend;
        try {
            f.bytes = velk::host::FromHex(value);
        } catch (const std::invalid_argument &e) {
            throw std::invalid_argument("fault '" + text + "': " + e.what());
        }
    } else {
        throw std::invalid_argument("fault '" + text + "': unknown change '" + key +
                                    "' (sw, drop, dup, truncate, length, append)");
    }
    return f;
}

Bytes Mutate(const Fault &fault, const Bytes &response) {
    const uint16_t sw = StatusWord(response);
    const auto data = ResponseData(response);
    Bytes body(data.begin(), data.end());
    switch (fault.change) {
        case Fault::Change::kSw:
            return WithStatus(body, static_cast<uint16_t>(fault.amount));
        case Fault::Change::kDrop:
        case Fault::Change::kDup: {
            std::vector<TlvNode> nodes;
            try {
                nodes = ParseTlvData(body);
            } catch (const std::invalid_argument &) {
                return response;  // nothing to edit in data that is not TLV
            }
            if (!Edit(nodes, fault.tag, fault.change == Fault::Change::kDup)) return response;
            body.clear();
            for (const TlvNode &n : nodes) {
                const Bytes e = EncodeNode(n);
                body.insert(body.end(), e.begin(), e.end());
            }
            return WithStatus(body, sw);
        }
        case Fault::Change::kTruncate:
            body.resize(body.size() > static_cast<size_t>(fault.amount)
                            ? body.size() - static_cast<size_t>(fault.amount)
                            : 0);
            return WithStatus(body, sw);
        case Fault::Change::kLength: {
            // The outer template's length: the first length byte after the tag.
            if (body.size() < 2) return response;
            const size_t pos = (body[0] & 0x1F) == 0x1F ? 2 : 1;
            if (pos >= body.size()) return response;
            const size_t len_pos = body[pos] == 0x81 ? pos + 1 : pos;
            if (len_pos >= body.size()) return response;
            body[len_pos] = static_cast<uint8_t>(body[len_pos] + fault.amount);
            return WithStatus(body, sw);
        }
        case Fault::Change::kAppend:
            body.insert(body.end(), fault.bytes.begin(), fault.bytes.end());
            return WithStatus(body, sw);
        case Fault::Change::kNone:
            break;
    }
    return response;
}

FaultyCard::FaultyCard(Card &inner, std::vector<Fault> faults) : inner_(inner) {
    for (Fault &f : faults)
        faults_.push_back({std::move(f), false});
}

Bytes FaultyCard::PowerOn() {
    if (removed_) throw CardError(CardErrorKind::kRemoved, "the card was removed");
    return inner_.PowerOn();
}

bool FaultyCard::WaitPresent(std::chrono::milliseconds timeout) {
    return !removed_ && inner_.WaitPresent(timeout);
}

std::vector<std::string> FaultyCard::NotFired() const {
    std::vector<std::string> out;
    for (const Armed &a : faults_)
        if (!a.fired) out.push_back(a.fault.text);
    return out;
}

int FaultyCard::Count(const std::string &label) {
    for (auto &[name, n] : counts_)
        if (name == label) return ++n;
    counts_.emplace_back(label, 1);
    return 1;
}

Bytes FaultyCard::Transmit(std::span<const uint8_t> command) {
    if (removed_) throw CardError(CardErrorKind::kRemoved, "the card was removed");
    const CommandKind kind = Classify(command);
    std::string label = KindName(kind);
    if (kind == CommandKind::kGpo) gacs_since_gpo_ = 0;
    std::vector<std::string> labels{label, "any"};
    if (kind == CommandKind::kGenerateAc) {
        labels.push_back(++gacs_since_gpo_ == 1 ? "gac1" : "gac2");
    }
    // A command named by its first bytes is counted under its hex.
    for (const Armed &a : faults_) {
        const Bytes &p = a.fault.prefix;
        if (!p.empty() && command.size() >= p.size() &&
            std::equal(p.begin(), p.end(), command.begin()) &&
            std::find(labels.begin(), labels.end(), a.fault.command) == labels.end())
            labels.push_back(a.fault.command);
    }
    std::vector<std::pair<std::string, int>> seen;
    for (const std::string &l : labels)
        seen.emplace_back(l, Count(l));

    for (Armed &a : faults_) {
        if (a.fired) continue;
        const auto hit = std::find_if(seen.begin(), seen.end(), [&](const auto &s) {
            return s.first == a.fault.command && s.second == a.fault.occurrence;
        });
        if (hit == seen.end()) continue;
        a.fired = true;
        fired_.push_back(a.fault.text);
        switch (a.fault.action) {
            case Fault::Action::kCancel:
                throw CardError(CardErrorKind::kCancelled,
                                "stopped on the terminal (" + a.fault.text + ")");
            case Fault::Action::kRemove:
                removed_ = true;
                throw CardError(CardErrorKind::kRemoved, "card removed (" + a.fault.text + ")");
            case Fault::Action::kTear:
                (void)inner_.Transmit(command);  // the card did the work; the answer is lost
                throw CardError(CardErrorKind::kNoResponse, "response lost (" + a.fault.text + ")");
            case Fault::Action::kMutate:
                return Mutate(a.fault, inner_.Transmit(command));
            case Fault::Action::kRespond:
                // The card carries the command out (its state moves on as
                // it would), and the terminal gets the given response.
                (void)inner_.Transmit(command);
                return a.fault.bytes;
        }
    }
    return inner_.Transmit(command);
}

}  // namespace velk::card
