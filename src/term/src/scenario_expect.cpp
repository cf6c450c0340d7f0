// SPDX-License-Identifier: Apache-2.0
// What a scenario expects, checked twice: when it is loaded, every field and
// every value must name something a report can say (else the scenario is in
// error, with the allowed values listed); after the run, each field is
// compared with the report, one line per difference.
//
// Fields about the whole transaction: result, completed, outcomes, online,
// restarts, selected. Fields about one kernel entry (the last one at the top
// level; each in "entries"): outcome, start, cvm, message, kernel_status,
// data_record, discretionary, packet, apdus, callbacks. At the top level
// apdus and callbacks cover every entry.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <set>

#include "velk/term/scenario.hpp"

namespace velk::term {

using velk::card::Field;
using velk::card::Json;
using velk::host::ToHex;

namespace {

using NameFn = std::string (*)(uint8_t);

// Every name the function gives a byte value, plus the words a report uses
// when there is nothing to name.
std::vector<std::string> Names(NameFn fn, std::initializer_list<const char *> more) {
    std::vector<std::string> out;
    for (int v = 0; v < 256; ++v) {
        std::string n = fn(static_cast<uint8_t>(v));
        if (n.rfind("value ", 0) != 0 && std::find(out.begin(), out.end(), n) == out.end())
            out.push_back(std::move(n));
    }
    out.insert(out.end(), more.begin(), more.end());
    return out;
}

const std::vector<std::string> &AllowedNames(const std::string &key) {
    static const std::vector<std::string> outcome = Names(OutcomeStatusName, {"no outcome"});
    static const std::vector<std::string> start = Names(StartName, {"no outcome"});
    static const std::vector<std::string> cvm = Names(OutcomeCvmName, {"no outcome"});
    static const std::vector<std::string> message = Names(MessageName, {});
    static const std::vector<std::string> online = {"none", "online request", "long tap",
                                                    "online tap"};
    static const std::vector<std::string> result = [] {
        std::vector<std::string> r = outcome;
        for (const char *issuer : {", APPROVED by the issuer", ", DECLINED by the issuer"})
            r.push_back(OutcomeStatusName(0x30) + issuer);
        r.push_back("NO TRANSACTION");
        r.push_back("NO OUTCOME");
        return r;
    }();
    if (key == "outcome" || key == "outcomes") return outcome;
    if (key == "start") return start;
    if (key == "cvm") return cvm;
    if (key == "message") return message;
    if (key == "online") return online;
    return result;
}

void CheckName(const Field &f, const std::string &key) {
    const std::string value = f.String();
    const auto &allowed = AllowedNames(key);
    if (std::find(allowed.begin(), allowed.end(), value) != allowed.end()) return;
    std::string list;
    for (const std::string &a : allowed)
        list += (list.empty() ? "\"" : ", \"") + a + "\"";
    f.Fail("'" + value + "' is nothing a report says; expected one of " + list);
}

// Hex written with spaces allowed; "absent" where allowed.
std::string CanonicalHex(const Field &f, bool absent_allowed) {
    if (absent_allowed && f.IsString() && f.String() == "absent") return "absent";
    return ToHex(f.HexRange(0, 65536));
}

std::string CanonicalHex(const Json &v) {
    const std::string s = v.get<std::string>();
    if (s == "absent") return s;
    return ToHex(velk::host::FromHex(s));
}

void CheckStatus(const Field &f) {
    const std::string s = f.String();
    if (s.size() < 3 || s.rfind("0x", 0) != 0 ||
        s.find_first_not_of("0123456789abcdefABCDEF", 2) != std::string::npos)
        f.Fail("expected a status in hex, e.g. \"0x30101\" or \"0x0\"");
}

void CheckTagValues(const Field &f) {
    for (const auto &[tag, value] : f.Members()) {
        if (!velk::card::ParseTagText(tag)) value.Fail("'" + tag + "' is not a tag in hex");
        (void)CanonicalHex(value, true);
    }
}

// "80AE4000..." matches any command that starts so.
void CheckApdus(const Field &f) {
    for (const Field &a : f.Elements()) {
        std::string text = a.String();
        if (text.size() >= 3 && text.compare(text.size() - 3, 3, "...") == 0)
            text.resize(text.size() - 3);
        try {
            if (velk::host::FromHex(text).empty()) a.Fail("expected a C-APDU in hex");
        } catch (const std::invalid_argument &e) {
            a.Fail(e.what());
        }
    }
}

void CheckCallbacks(const Field &f) {
    for (const Field &c : f.Elements()) {
        c.OnlyKeys({"command", "payload", "reply", "status", "never"});
        (void)c["command"].Hex(1);
        if (auto n = c.Optional("never"); n && n->Bool() && c.Raw().size() > 2)
            n->Fail("a callback that never comes has nothing else to compare");
        if (auto p = c.Optional("payload")) (void)CanonicalHex(*p, false);
        if (auto p = c.Optional("reply")) (void)CanonicalHex(*p, false);
        if (auto s = c.Optional("status")) CheckStatus(*s);
    }
}

const std::initializer_list<std::string_view> kEntryKeys = {
    "outcome",     "start",         "cvm",    "message", "kernel_status",
    "data_record", "discretionary", "packet", "apdus",   "callbacks"};

void CheckEntryField(const std::string &key, const Field &value) {
    if (key == "outcome" || key == "start" || key == "cvm" || key == "message") {
        CheckName(value, key);
    } else if (key == "kernel_status") {
        CheckStatus(value);
    } else if (key == "data_record" || key == "discretionary") {
        CheckTagValues(value);
    } else if (key == "packet") {
        if (value.IsString())
            (void)CanonicalHex(value, false);
        else
            CheckTagValues(value);
    } else if (key == "apdus") {
        CheckApdus(value);
    } else if (key == "callbacks") {
        CheckCallbacks(value);
    }
}

}  // namespace

void CheckExpectationNames(const Field &expect) {
    expect.OnlyKeys({"result", "completed", "outcomes", "online", "restarts", "selected", "entries",
                     "outcome", "start", "cvm", "message", "kernel_status", "data_record",
                     "discretionary", "packet", "apdus", "callbacks", "why_contains"});
    for (const auto &[key, value] : expect.Members()) {
        if (key == "why_contains") {
            for (const Field &text : value.Elements())
                (void)text.String();
        } else if (key == "result" || key == "online") {
            CheckName(value, key);
        } else if (key == "completed") {
            (void)value.Bool();
        } else if (key == "restarts") {
            (void)value.Int(0, 100);
        } else if (key == "selected") {
            if (value.String() != "none") (void)value.HexRange(5, 16);
        } else if (key == "outcomes") {
            for (const Field &o : value.Elements())
                CheckName(o, key);
        } else if (key == "entries") {
            for (const Field &e : value.Elements()) {
                e.OnlyKeys(kEntryKeys);
                for (const auto &[k, v] : e.Members())
                    CheckEntryField(k, v);
            }
        } else {
            CheckEntryField(key, value);
        }
    }
}

namespace {

std::string Text(const Json &v) {
    return v.is_string() ? v.get<std::string>()
                         : v.dump(-1, ' ', false, Json::error_handler_t::replace);
}

using Out = std::vector<std::string>;

void Compare(Out &out, const std::string &field, const Json &expected, const Json &actual) {
    if (expected != actual)
        out.push_back(field + ": expected " + Text(expected) + ", got " + Text(actual));
}

std::vector<velk::host::TlvNode> ParsedOrEmpty(const Bytes &data) {
    try {
        return velk::card::ParseTlvData(data);
    } catch (const std::invalid_argument &) {
        return {};
    }
}

void CompareTags(Out &out, const std::string &field, const Json &want,
                 const std::vector<velk::host::TlvNode> &nodes) {
    for (const auto &[tag_text, value] : want.items()) {
        const auto tag = velk::card::ParseTagText(tag_text);
        const auto *n = tag ? velk::host::Find(nodes, *tag) : nullptr;
        Compare(out, field + "." + tag_text, CanonicalHex(value), n ? ToHex(n->value) : "absent");
    }
}

// The data objects of a callback message inside its template, without the
// command (DF00).
std::string Payload(const Bytes &message) {
    const auto nodes = ParsedOrEmpty(message);
    if (nodes.empty()) return ToHex(message);
    Bytes out;
    for (const auto &c : nodes[0].children)
        if (c.tag != 0xDF00) {
            const Bytes e = velk::host::Tlv(c.tag, c.value);
            out.insert(out.end(), e.begin(), e.end());
        }
    return ToHex(out);
}

std::string StatusText(uint32_t status) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%X", status);
    return hex;
}

uint32_t StatusValue(const std::string &text) {
    return static_cast<uint32_t>(std::stoul(text.substr(2), nullptr, 16));
}

// entry 0: every kernel entry.
void CompareApdus(Out &out, const std::string &field, const Json &want, const Trace &trace,
                  int entry) {
    std::vector<std::string> sent;
    for (const TraceEvent &e : trace.Events())
        if (e.type == TraceEvent::Type::kApdu && e.entry >= 1 && (entry == 0 || e.entry == entry))
            sent.push_back(ToHex(e.first));
    const size_t n = std::min(sent.size(), want.size());
    for (size_t i = 0; i < n; ++i) {
        std::string w = want[i].get<std::string>();
        const bool prefix = w.size() >= 3 && w.compare(w.size() - 3, 3, "...") == 0;
        if (prefix) w.resize(w.size() - 3);
        w = ToHex(velk::host::FromHex(w));
        const bool same = prefix ? sent[i].rfind(w, 0) == 0 : sent[i] == w;
        if (!same)
            out.push_back(field + "[" + std::to_string(i) + "]: expected " + w +
                          (prefix ? "..." : "") + ", got " + sent[i]);
    }
    for (size_t i = n; i < sent.size(); ++i)
        out.push_back(field + "[" + std::to_string(i) + "]: the card was sent " + sent[i] +
                      ", which the scenario does not expect");
    for (size_t i = n; i < want.size(); ++i)
        out.push_back(field + "[" + std::to_string(i) + "]: expected " + Text(want[i]) +
                      ", never sent");
}

// The callbacks of the commands the list names, in order, each compared on
// the fields it gives; {"command": "E9", "never": true} says none comes.
void CompareCallbacks(Out &out, const std::string &field, const Json &all, const Trace &trace,
                      int entry) {
    std::set<uint8_t> commands, never;
    Json want = Json::array();
    for (const Json &c : all) {
        const uint8_t command = velk::host::FromHex(c.at("command").get<std::string>())[0];
        if (c.value("never", false)) {
            never.insert(command);
            continue;
        }
        commands.insert(command);
        want.push_back(c);
    }
    for (const TraceEvent &e : trace.Events())
        if (e.type == TraceEvent::Type::kCallback && e.entry >= 1 &&
            (entry == 0 || e.entry == entry) && never.count(e.code))
            out.push_back(field + ": callback " + ToHex(Bytes{e.code}) + " with payload " +
                          Payload(e.first) + ", which the scenario says never comes");
    std::vector<const TraceEvent *> seen;
    for (const TraceEvent &e : trace.Events())
        if (e.type == TraceEvent::Type::kCallback && e.entry >= 1 &&
            (entry == 0 || e.entry == entry) && commands.count(e.code))
            seen.push_back(&e);
    for (size_t i = 0; i < std::max(seen.size(), want.size()); ++i) {
        const std::string at = field + "[" + std::to_string(i) + "]";
        if (i >= want.size()) {
            out.push_back(at + ": callback " + ToHex(Bytes{seen[i]->code}) + " with payload " +
                          Payload(seen[i]->first) + ", which the scenario does not expect");
            continue;
        }
        const Json &w = want[i];
        if (i >= seen.size()) {
            out.push_back(at + ": expected callback " + w.at("command").get<std::string>() +
                          ", never sent");
            continue;
        }
        const TraceEvent &e = *seen[i];
        Compare(out, at + ".command", CanonicalHex(w.at("command")), ToHex(Bytes{e.code}));
        if (w.contains("payload"))
            Compare(out, at + ".payload", CanonicalHex(w["payload"]), Payload(e.first));
        if (w.contains("reply"))
            Compare(out, at + ".reply", CanonicalHex(w["reply"]), Payload(e.second));
        if (w.contains("status"))
            Compare(out, at + ".status", StatusText(StatusValue(w["status"].get<std::string>())),
                    StatusText(e.status));
    }
}

// Without a kernel entry, the outcome and message are the entry point's own
// (a limit refused before any kernel ran), when r is given.
void CompareEntry(Out &out, const std::string &prefix, const Json &want, const KernelEntry *e,
                  const Trace &trace, bool all_entries, const TransactionReport *r = nullptr) {
    const OutcomeParameters *o = e && e->outcome                     ? &*e->outcome
                                 : !e && r && r->entry_point_outcome ? &*r->entry_point_outcome
                                                                     : nullptr;
    const std::optional<UiRequest> *ui = e ? &e->ui : r ? &r->entry_point_ui : nullptr;
    const auto field = [&](auto fn) -> Json { return o ? Json(fn(*o)) : Json("no outcome"); };
    for (const auto &[key, w] : want.items()) {
        const std::string name = prefix + key;
        if (key == "outcome") {
            Compare(out, name, w, field([](const auto &x) { return OutcomeStatusName(x.status); }));
        } else if (key == "start") {
            Compare(out, name, w, field([](const auto &x) { return StartName(x.start); }));
        } else if (key == "cvm") {
            Compare(out, name, w, field([](const auto &x) { return OutcomeCvmName(x.cvm); }));
        } else if (key == "message") {
            Compare(out, name, w,
                    ui && *ui ? Json(MessageName((*ui)->message)) : Json("no message"));
        } else if (key == "kernel_status") {
            Compare(out, name, StatusText(StatusValue(w.get<std::string>())),
                    e ? StatusText(e->status) : "no kernel entry");
        } else if (key == "data_record" || key == "discretionary") {
            CompareTags(out, name, w,
                        e ? ParsedOrEmpty(key == "data_record" ? e->data_record : e->discretionary)
                          : std::vector<velk::host::TlvNode>{});
        } else if (key == "packet") {
            const auto nodes = e ? ParsedOrEmpty(e->output) : std::vector<velk::host::TlvNode>{};
            if (w.is_string())
                Compare(out, name, CanonicalHex(w), e ? ToHex(e->output) : "no kernel entry");
            else
                CompareTags(out, name, w,
                            !nodes.empty() && nodes[0].tag == 0x7F01
                                ? nodes[0].children
                                : std::vector<velk::host::TlvNode>{});
        } else if (key == "apdus") {
            CompareApdus(out, name, w, trace, all_entries ? 0 : e ? e->number : -1);
        } else if (key == "callbacks") {
            CompareCallbacks(out, name, w, trace, all_entries ? 0 : e ? e->number : -1);
        }
    }
}

}  // namespace

std::vector<std::string> CheckExpectations(const Json &expect, const TransactionReport &r) {
    Out out;
    const KernelEntry *last = r.entries.empty() ? nullptr : &r.entries.back();
    for (const auto &[key, want] : expect.items()) {
        if (key == "result") {
            Compare(out, key, want, r.result);
        } else if (key == "completed") {
            Compare(out, key, want, r.completed);
        } else if (key == "outcomes") {
            Json all = Json::array();
            for (const KernelEntry &e : r.entries)
                all.push_back(e.outcome ? OutcomeStatusName(e.outcome->status) : "no outcome");
            Compare(out, key, want, all);
        } else if (key == "online") {
            Compare(out, key, want, r.online_flow.empty() ? "none" : r.online_flow);
        } else if (key == "restarts") {
            Compare(out, key, want, r.restarts);
        } else if (key == "selected") {
            Compare(out, key, want.get<std::string>() == "none" ? want : Json(CanonicalHex(want)),
                    r.aid ? ToHex(*r.aid) : "none");
        } else if (key == "entries") {
            if (want.size() != r.entries.size())
                out.push_back("entries: expected " + std::to_string(want.size()) +
                              " kernel entries, got " + std::to_string(r.entries.size()));
            for (size_t i = 0; i < std::min(want.size(), r.entries.size()); ++i)
                CompareEntry(out, "entries[" + std::to_string(i) + "].", want[i], &r.entries[i],
                             r.trace, false);
        } else if (key == "why_contains") {
            for (const Json &text : want)
                if (std::none_of(r.why.begin(), r.why.end(), [&](const std::string &w) {
                        return w.find(text.get<std::string>()) != std::string::npos;
                    }))
                    out.push_back("why: no line contains \"" + text.get<std::string>() + "\"");
        } else {
            CompareEntry(out, "", Json{{key, want}}, last, r.trace, true, &r);
        }
    }
    return out;
}

}  // namespace velk::term
