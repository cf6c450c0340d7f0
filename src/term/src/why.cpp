// SPDX-License-Identifier: Apache-2.0
#include "velk/term/why.hpp"

#include <algorithm>

namespace velk::term {

using velk::host::ToHex;

namespace {

struct GacSeen {
    uint8_t requested = 0;
    bool cda = false;
    std::optional<uint8_t> cid;
    std::string failure;
};

std::vector<GacSeen> GenerateAcs(const Trace &trace) {
    std::vector<GacSeen> out;
    for (const TraceEvent &e : trace.Events()) {
        if (e.type != TraceEvent::Type::kApdu ||
            velk::card::Classify(e.first) != velk::card::CommandKind::kGenerateAc ||
            e.first.size() < 3)
            continue;
        GacSeen g{
            static_cast<uint8_t>(e.first[2] & 0xC0), (e.first[2] & 0x10) != 0, std::nullopt, {}};
        if (e.second.empty()) g.failure = e.text;
        try {
            const auto data = velk::card::ResponseData(e.second);
            const auto nodes = velk::card::ParseTlvData(data);
            if (const auto *cid = velk::host::Find(nodes, 0x9F27); cid && cid->value.size() == 1)
                g.cid = cid->value[0];
        } catch (const std::invalid_argument &) {
        }
        out.push_back(g);
    }
    return out;
}

std::string SwText(uint16_t sw) {
    return ToHex(Bytes{static_cast<uint8_t>(sw >> 8), static_cast<uint8_t>(sw)}, true);
}

std::string CommandWords(velk::card::CommandKind kind) {
    using K = velk::card::CommandKind;
    switch (kind) {
        case K::kSelectPpse:
            return "SELECT of the PPSE";
        case K::kSelect:
            return "SELECT";
        case K::kGpo:
            return "GET PROCESSING OPTIONS";
        case K::kReadRecord:
            return "READ RECORD";
        case K::kGetData:
            return "GET DATA";
        case K::kPutData:
            return "PUT DATA";
        case K::kInternalAuthenticate:
            return "INTERNAL AUTHENTICATE";
        case K::kGenerateAc:
            return "GENERATE AC";
        case K::kEcho:
            return "ECHO";
        case K::kScript:
            return "an issuer script command";
        case K::kOther:
            break;
    }
    return "a command";
}

// The kernel's last exchange with the card in an entry: what the card said
// just before an outcome that ended the application.
std::string LastExchange(const Trace &trace, int entry) {
    const TraceEvent *last = nullptr;
    for (const TraceEvent &e : trace.Events())
        if (e.type == TraceEvent::Type::kApdu && e.entry == entry) last = &e;
    if (last == nullptr) return {};
    const std::string what =
        "The last exchange with the card: " + CommandWords(velk::card::Classify(last->first));
    if (last->second.size() < 2) return what + " got no response (" + last->text + ").";
    const uint16_t sw = velk::card::StatusWord(last->second);
    std::string s = what + " answered SW " + SwText(sw);
    const auto data = velk::card::ResponseData(last->second);
    try {
        (void)velk::card::ParseTlvData(data);
    } catch (const std::invalid_argument &e) {
        s += std::string(", with data that is not well-formed TLV (") + e.what() + ")";
    }
    return s + ".";
}

std::string CryptogramWords(uint8_t type) {
    return type == 0x40   ? "a TC (offline approval)"
           : type == 0x80 ? "an ARQC (online authorisation)"
                          : "an AAC (decline)";
}

// The kernel's APDUs of one entry.
std::vector<const TraceEvent *> EntryApdus(const Trace &trace, int entry) {
    std::vector<const TraceEvent *> out;
    for (const TraceEvent &e : trace.Events())
        if (e.type == TraceEvent::Type::kApdu && e.entry == entry) out.push_back(&e);
    return out;
}

// The data objects of a response, empty when it has none or they are not TLV.
std::vector<velk::host::TlvNode> ResponseObjects(const Bytes &response) {
    try {
        const auto data = velk::card::ResponseData(response);
        const auto nodes = velk::card::ParseTlvData(data);
        return nodes.size() == 1 && nodes[0].tag == 0x77 ? nodes[0].children : nodes;
    } catch (const std::invalid_argument &) {
        return {};
    }
}

// What is wrong with a GET PROCESSING OPTIONS or READ RECORD response, as
// the kernel checks it: its status word, its template (77, 70), its TLV, a
// tag given twice. Empty when nothing is.
std::string ResponseFault(const TraceEvent &e) {
    const auto kind = velk::card::Classify(e.first);
    const bool gpo = kind == velk::card::CommandKind::kGpo;
    const std::string name = CommandWords(kind);
    if (e.second.size() < 2) return name + " got no response";
    if (const uint16_t sw = velk::card::StatusWord(e.second); sw != velk::card::kSwOk)
        return name + " answered SW " + SwText(sw);
    const auto data = velk::card::ResponseData(e.second);
    const uint8_t template_tag = gpo ? 0x77 : 0x70;
    if (data.empty() || data[0] != template_tag)
        return "the " + name + " response is not a template " + ToHex(Bytes{template_tag}) +
               (gpo ? " (format 1, tag 80, is refused by this kernel)" : "");
    std::vector<velk::host::TlvNode> nodes;
    try {
        nodes = velk::card::ParseTlvData(data);
    } catch (const std::invalid_argument &x) {
        return "the " + name + " response is not well-formed TLV (" + x.what() + ")";
    }
    std::vector<uint32_t> seen;
    for (const auto &n : nodes.front().children) {
        if (std::find(seen.begin(), seen.end(), n.tag) != seen.end())
            return "the " + name + " response holds " + ToHex(velk::host::EncodeTag(n.tag)) +
                   " twice";
        seen.push_back(n.tag);
    }
    return {};
}

// Why the kernel ended an application with Select Next, from the bytes it
// saw: the FCI when it sent nothing to the card, else the first GET
// PROCESSING OPTIONS or READ RECORD response it refused.
std::string SelectNextCause(const Trace &trace, int entry) {
    const auto apdus = EntryApdus(trace, entry);
    if (apdus.empty()) {
        // The SELECT whose response the kernel took: the last before the entry.
        const TraceEvent *select = nullptr;
        for (const TraceEvent &e : trace.Events()) {
            if (e.entry == entry) break;
            if (e.type == TraceEvent::Type::kApdu &&
                velk::card::Classify(e.first) == velk::card::CommandKind::kSelect)
                select = &e;
        }
        if (select == nullptr) return "the kernel sent nothing to the card";
        std::vector<velk::host::TlvNode> fci;
        try {
            fci = velk::card::ParseTlvData(velk::card::ResponseData(select->second));
        } catch (const std::invalid_argument &e) {
            return std::string("the FCI of the SELECT response is not well-formed TLV (") +
                   e.what() + ")";
        }
        const velk::host::TlvNode *t = velk::host::Find(fci, 0x6F);
        if (t == nullptr) return "the SELECT response holds no FCI template (6F)";
        if (velk::host::Find(*t, 0x84) == nullptr) return "the FCI has no DF name (84)";
        const velk::host::TlvNode *a5 = velk::host::Find(*t, 0xA5);
        const velk::host::TlvNode *pdol = a5 ? velk::host::Find(*a5, 0x9F38) : nullptr;
        if (pdol == nullptr || pdol->value.empty())
            return "the FCI has no PDOL (9F38), which this kernel requires, so it sent no GET "
                   "PROCESSING OPTIONS";
        return "the kernel refused the FCI before GET PROCESSING OPTIONS";
    }
    for (const TraceEvent *e : apdus) {
        const auto kind = velk::card::Classify(e->first);
        if (kind != velk::card::CommandKind::kGpo && kind != velk::card::CommandKind::kReadRecord)
            continue;
        if (std::string fault = ResponseFault(*e); !fault.empty()) return fault;
        if (kind != velk::card::CommandKind::kGpo) continue;
        const auto objects = ResponseObjects(e->second);
        const auto *aip = velk::host::Find(objects, 0x82);
        if (aip == nullptr || aip->value.size() != 2)
            return "the GET PROCESSING OPTIONS response lacks the AIP (82)";
        if (velk::host::Find(objects, 0x94) == nullptr)
            return "the GET PROCESSING OPTIONS response lacks the AFL (94)";
    }
    return {};
}

// The kernel ends a transaction on an error with Select Next too; the bytes
// say which check failed.
std::string SelectNextWords(const Trace &trace, int entry) {
    const std::string cause = SelectNextCause(trace, entry);
    return "Select Next: the kernel ended this application" +
           (cause.empty() ? std::string(" (on an error in the card's data)") : ": " + cause);
}

// Why the kernel sent the transaction to another interface.
std::string TryAnotherInterfaceCause(const Trace &trace, int entry,
                                     const std::vector<GacSeen> &gacs) {
    for (const TraceEvent *e : EntryApdus(trace, entry)) {
        const auto kind = velk::card::Classify(e->first);
        if (kind != velk::card::CommandKind::kGpo && kind != velk::card::CommandKind::kGenerateAc)
            continue;
        const auto objects = ResponseObjects(e->second);
        const auto *c5 = velk::host::Find(objects, 0xC5);
        if (c5 && !c5->value.empty() && (c5->value[0] & 0x20) != 0)
            return "the card's C5 in its " + CommandWords(kind) +
                   " response asks for another interface (bit 0x20 of byte 1)";
    }
    for (const GacSeen &g : gacs)
        if (g.requested == 0x40 && g.cid && (*g.cid & 0xC0) == 0x00)
            return "the terminal asked for a TC and the card answered an AAC; this kernel sends "
                   "such an offline decline to another interface instead of declining it";
    return "the kernel ended the application for another interface";
}

// A card may not give a cryptogram above the one asked for (AAC < ARQC <
// TC); the kernel ends the application when it does.
std::string HigherCryptogram(const std::vector<GacSeen> &gacs) {
    const auto rank = [](uint8_t type) { return type == 0x40 ? 2 : type == 0x80 ? 1 : 0; };
    for (size_t i = 0; i < gacs.size(); ++i)
        if (gacs[i].cid && rank(*gacs[i].cid & 0xC0) > rank(gacs[i].requested))
            return "at GENERATE AC " + std::to_string(i + 1) + " the card answered " +
                   CryptogramWords(*gacs[i].cid & 0xC0) + " where the terminal asked for " +
                   CryptogramWords(gacs[i].requested) +
                   "; a card may not answer above what was asked";
    return {};
}

// Words for what the card answered last in an entry that completed a
// non-financial transaction: its status words are information, not errors.
std::string NonFinancialWords(const TransactionReport &r, const KernelEntry &last) {
    const bool retrieval = r.type == 0x78, update = r.type == 0x79;
    std::string s = retrieval ? "Data element retrieval completed"
                    : update  ? "Data element update completed"
                              : "The non-financial transaction (offline authentication) completed";
    s += ": the card was read successfully.";
    for (const TraceEvent *e : EntryApdus(r.trace, last.number)) {
        const auto kind = velk::card::Classify(e->first);
        if ((kind != velk::card::CommandKind::kGetData &&
             kind != velk::card::CommandKind::kPutData) ||
            e->first.size() < 4 || e->second.size() < 2)
            continue;
        const uint16_t sw = velk::card::StatusWord(e->second);
        if (sw == velk::card::kSwOk) continue;
        const std::string tag = e->first[2] == 0x00 ? ToHex(Bytes{e->first[3]})
                                                    : ToHex(Bytes{e->first[2], e->first[3]});
        s += " " + CommandWords(kind) + " of " + tag + " answered " + SwText(sw) +
             (sw == 0x6A88
                  ? ": the card does not hold that data object, so it is left out"
                  : ": that data object was not " +
                        std::string(kind == velk::card::CommandKind::kGetData ? "read"
                                                                              : "written")) +
             ".";
    }
    return s;
}

// Why no kernel entry ran at all.
std::string NoKernelWords(const TransactionReport &r) {
    if (!r.host_errors.empty())
        return "The kernel never ran: application selection broke off before an application "
               "was selected (see the host error above).";
    if (!r.selection.empty() && r.selection.back().starts_with("PPSE: 0 "))
        return r.selection.back().find("not allowed") != std::string::npos
                   ? "The kernel never ran: the applications the card and the terminal share "
                     "are not allowed for this amount (contactless transaction limit)."
                   : "The kernel never ran: the card and the terminal have no application in "
                     "common.";
    return "The kernel never ran: no application was selected" +
           (r.selection.empty() ? std::string(".") : " (" + r.selection.back() + ").");
}

}  // namespace

void ExplainReport(TransactionReport &r) {
    auto &why = r.why;
    if (r.entry_point_outcome)
        why.push_back("Try Another Interface, given by the entry point before the kernel ran: " +
                      r.entry_point_reason +
                      ". The kernel leaves this limit to the entry point, which sends the "
                      "transaction to another interface (chip or magnetic stripe).");
    for (const std::string &f : r.faults_fired)
        why.push_back("Fault injected: " + f + ".");
    for (const std::string &f : r.faults_not_fired)
        why.push_back("Fault that never fired (its command never came): " + f + ".");
    for (const std::string &h : r.host_errors)
        why.push_back("Host error: " + h + ".");
    if (r.entries.empty()) {
        if (!r.entry_point_outcome) why.push_back(NoKernelWords(r));
        return;
    }
    const KernelEntry &last = r.entries.back();
    if (!last.error.empty())
        why.push_back("The kernel ended without an outcome: " + last.error + ".");
    for (const KernelEntry &e : r.entries) {
        if (e.status == 0x33001 && e.number > 1 && r.issuer &&
            r.issuer->authentication_data.empty() && r.issuer->scripts.empty())
            why.push_back("Kernel entry " + std::to_string(e.number) +
                          " was refused (0x33001): the issuer's response carries neither issuer "
                          "authentication data (91) nor scripts (71, 72), so the card has "
                          "nothing to process on a second entry; the terminal completes the "
                          "transaction from the response code alone.");
        else if (e.status != 0)
            why.push_back("Kernel entry " + std::to_string(e.number) + " returned " +
                          KernelStatusText(e.status) + ".");
        if (&e != &last && e.outcome && e.outcome->status == 0x50)
            why.push_back("Entry " + std::to_string(e.number) + ": " +
                          SelectNextWords(r.trace, e.number) +
                          "; the entry point offered the next candidate.");
        if (e.number > 1 && e.purpose.starts_with("second tap"))
            why.push_back(
                "The device asked for cardholder verification on itself; after the "
                "restart it was presented again (entry " +
                std::to_string(e.number) + ").");
    }
    if (r.restarts > 0)
        why.push_back("The kernel asked for the card to be presented again " +
                      std::to_string(r.restarts) + " time(s) to recover a torn exchange.");
    const auto gacs = GenerateAcs(r.trace);
    for (size_t i = 0; i < gacs.size(); ++i) {
        const GacSeen &g = gacs[i];
        std::string s = "GENERATE AC " + std::to_string(i + 1) + ": the terminal asked for " +
                        CryptogramWords(g.requested) + (g.cda ? " with a CDA signature" : "");
        if (!g.failure.empty())
            s += "; no response (" + g.failure + ")";
        else if (g.cid)
            s += "; the card answered " + ExplainCid(Bytes{*g.cid});
        why.push_back(s + ".");
    }
    if (r.type == 0x20 && !gacs.empty())
        why.push_back(
            "A refund: the terminal always asks the card for an AAC (and no CDA), so "
            "the outcome reads DECLINED; its data record is what the acquirer clears "
            "the refund with.");
    for (const TraceEvent &e : r.trace.Events())
        if (e.type == TraceEvent::Type::kApdu &&
            velk::card::Classify(e.first) == velk::card::CommandKind::kEcho &&
            velk::card::StatusWord(e.second) == 0x9000)
            why.push_back(
                "ECHO: the card gave back the response of the GENERATE AC that was torn, so the "
                "transaction went on from there.");
    // The TVR and TSI of the last data record say what the terminal found
    // wrong and what it did.
    for (auto it = r.entries.rbegin(); it != r.entries.rend(); ++it) {
        if (it->data_record.empty()) continue;
        try {
            const auto nodes = velk::card::ParseTlvData(it->data_record);
            // The card's cryptogram is turned into a decline after GENERATE
            // AC when SDA or CDA fails at its check; that sets no TVR bit, so
            // only the two CIDs tell.
            const auto *cid = velk::host::Find(nodes, 0x9F27);
            const bool oda_failed = !gacs.empty() && gacs.back().cid && cid &&
                                    cid->value.size() == 1 && (cid->value[0] & 0xC0) == 0x00 &&
                                    (*gacs.back().cid & 0xC0) != 0x00;
            if (oda_failed)
                why.push_back(
                    "The card's cryptogram became an AAC (decline) after GENERATE AC: offline "
                    "data authentication (SDA or CDA) failed at its check.");
            if (const auto *tvr = velk::host::Find(nodes, 0x95)) {
                const auto bits = ExplainTvr(tvr->value);
                if (bits.size() != 1 || bits[0] != "no bit set")
                    for (const std::string &b : bits)
                        why.push_back("TVR " + b + ".");
                else if (oda_failed)
                    why.push_back(
                        "The TVR has no bit set although offline data authentication "
                        "failed: a failure found at that check after GENERATE AC sets "
                        "no TVR bit; the kernel turns the cryptogram into an AAC "
                        "instead.");
                else
                    why.push_back("The TVR is clean: the terminal found nothing wrong.");
            }
        } catch (const std::invalid_argument &) {
        }
        break;
    }
    // The data record carries no TSI; the online context the kernel stored
    // for a second entry does.
    try {
        const auto context = velk::card::ParseTlvData(r.online_context);
        if (const auto *tsi = velk::host::Find(context, 0x9B))
            for (const std::string &b : ExplainTsi(tsi->value))
                why.push_back("TSI (in the online context of entry 1) " + b + ".");
    } catch (const std::invalid_argument &) {
    }
    if (!last.outcome) return;
    const OutcomeParameters &o = *last.outcome;
    if (o.status == 0x00)
        why.push_back(
            "The Outcome Parameter Set is all zero: the step that ended the transaction "
            "chose no outcome.");
    if (o.cvm != 0xF0) why.push_back("Cardholder verification: " + OutcomeCvmName(o.cvm) + ".");
    if (r.issuer) {
        const bool ok = r.issuer->arc == Bytes{'0', '0'};
        why.push_back("The issuer answered " + std::string(ok ? "approve" : "decline") + " (8A \"" +
                      std::string(r.issuer->arc.begin(), r.issuer->arc.end()) + "\"); ARQC " +
                      r.issuer->arqc_check + ".");
    }
    const bool non_financial = o.status == 0x40 && last.ui && last.ui->message == 0x10;
    bool explained = false;  // the cause is named: the card's last exchange adds nothing
    switch (o.status) {
        case 0x40:
            if (non_financial)
                why.push_back(NonFinancialWords(r, last));
            else if (AsksOnDeviceCvm(o))
                why.push_back(
                    "End Application with a restart (start B): the device asks the "
                    "cardholder to verify on it (C5) and to present it again.");
            else if (const std::string higher = HigherCryptogram(gacs); !higher.empty())
                why.push_back("End Application: " + higher + ".");
            else
                break;
            explained = true;
            break;
        case 0x50:
            why.push_back(SelectNextWords(r.trace, last.number) +
                          ", and no other candidate was left.");
            explained = !SelectNextCause(r.trace, last.number).empty();
            break;
        case 0x60:
            why.push_back("Try Another Interface: " +
                          TryAnotherInterfaceCause(r.trace, last.number, gacs) + ".");
            break;
        case 0x70:
            why.push_back(
                "Try Again: the exchange with the card broke off; the card must be presented "
                "again.");
            break;
        default:
            break;
    }
    if (o.status >= 0x40 && !non_financial && !explained) {
        if (const std::string last_exchange = LastExchange(r.trace, last.number);
            !last_exchange.empty())
            why.push_back(last_exchange);
    }
}

}  // namespace velk::term
