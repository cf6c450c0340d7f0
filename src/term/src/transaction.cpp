#include "velk/term/transaction.hpp"

#include <ctime>

#include "velk/term/entry_point.hpp"
#include "velk/term/host.hpp"
#include "velk/term/tags.hpp"

namespace velk::term {

using velk::card::CardError;
using velk::host::Cat;
using velk::host::Tlv;
using velk::host::ToHex;

Bytes AmountToBcd(const std::string &amount, int exponent) {
    const auto bad = [&](const std::string &why) {
        return std::invalid_argument("amount '" + amount + "': " + why);
    };
    std::string whole = amount, fraction;
    if (const size_t dot = amount.find('.'); dot != std::string::npos) {
        whole = amount.substr(0, dot);
        fraction = amount.substr(dot + 1);
    }
    if (whole.empty() && fraction.empty()) throw bad("expected digits, e.g. 25.00");
    for (char c : whole + fraction)
        if (c < '0' || c > '9') throw bad("expected digits and at most one '.'");
    if (fraction.size() > static_cast<size_t>(exponent))
        throw bad("the currency has " + std::to_string(exponent) + " decimal(s)");
    fraction.append(static_cast<size_t>(exponent) - fraction.size(), '0');
    std::string digits = whole + fraction;
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size()));
    if (digits.size() > 12) throw bad("more than 12 digits");
    digits.insert(0, 12 - digits.size(), '0');
    return velk::host::FromHex(digits);
}

namespace {

Bytes Today(bool time_of_day) {
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char text[16];
    if (time_of_day)
        std::strftime(text, sizeof text, "%H%M%S", &tm);
    else
        std::strftime(text, sizeof text, "%y%m%d", &tm);
    return velk::host::FromHex(text);
}

std::optional<Bytes> Child(const std::vector<velk::host::TlvNode> &nodes, uint32_t tag) {
    for (const auto &n : nodes)
        if (n.tag == tag) return n.value;
    return std::nullopt;
}

void ParseOutput(KernelEntry &e) {
    if (e.output.empty()) {
        e.error = "the kernel's output is empty";
        return;
    }
    std::vector<velk::host::TlvNode> nodes;
    try {
        nodes = velk::card::ParseTlvData(e.output);
    } catch (const std::invalid_argument &x) {
        e.error = std::string("the kernel's output is not TLV: ") + x.what();
        return;
    }
    if (nodes.empty() || nodes[0].tag != 0x7F01) {
        e.error = "the kernel's output is not an outcome 7F01";
        return;
    }
    const auto &c = nodes[0].children;
    if (const auto ops = Child(c, 0xDF8129)) e.outcome = ParseOutcomeParameters(*ops);
    if (!e.outcome) {
        e.error = "the kernel's output holds no Outcome Parameter Set (DF8129)";
        return;
    }
    if (const auto ui = Child(c, 0xDF8116)) e.ui = ParseUiRequest(*ui);
    if (const auto ui = Child(c, 0x9F8117)) e.ui_restart = ParseUiRequest(*ui);
    e.data_record = Child(c, 0xFF8105).value_or(Bytes{});
    e.discretionary = Child(c, 0xFF8106).value_or(Bytes{});
}

class Runner {
public:
    Runner(const KernelApi &kernel, const TerminalProfile &terminal, velk::card::Card &card,
           const PayOptions &options, SecretsLookup secrets, TransactionReport &report)
        : terminal_(terminal),
          options_(options),
          faulty_(card, options.faults),
          random_(options.seed ? RandomSource(*options.seed) : RandomSource()),
          host_(terminal, faulty_, random_, report.trace),
          session_(kernel, host_),
          entry_point_(terminal, faulty_, report.trace),
          issuer_(options.issuer, std::move(secrets)),
          report_(report) {
        host_.Bind(&session_);
        host_.card_wait = options.card_wait;
        host_.SetReplies(options.host_replies);
    }

    void Run();
    // What the faults, the host and the card left to report.
    void Collect() {
        report_.faults_fired = faulty_.Fired();
        report_.faults_not_fired = faulty_.NotFired();
        report_.replies_not_used = host_.RepliesNotUsed();
        report_.host_errors.insert(report_.host_errors.begin(), host_.Errors().begin(),
                                   host_.Errors().end());
        report_.restarts = host_.Restarts();
    }

private:
    Bytes CommonData() const;
    KernelEntry &Enter(const std::string &purpose, const Bytes &input);
    void Online(const Selection &selection, const KernelEntry &first);

    const TerminalProfile &terminal_;
    const PayOptions &options_;
    velk::card::FaultyCard faulty_;
    RandomSource random_;
    Host host_;
    KernelSession session_;
    EntryPoint entry_point_;
    Issuer issuer_;
    TransactionReport &report_;
    Bytes amount_, date_, time_;
};

Bytes Runner::CommonData() const {
    const Bytes other = AmountToBcd(options_.other_amount.value_or("0"), terminal_.exponent);
    return Cat({Tlv(0x9C, Bytes{options_.type}), Tlv(0x9F02, amount_), Tlv(0x9F03, other),
                Tlv(0x5F2A, terminal_.currency), Tlv(0x9A, date_), Tlv(0x9F21, time_)});
}

KernelEntry &Runner::Enter(const std::string &purpose, const Bytes &input) {
    KernelEntry e;
    e.number = static_cast<int>(report_.entries.size()) + 1;
    e.purpose = purpose;
    e.input = input;
    host_.SetEntry(e.number);
    const KernelResult r = session_.Start(input);
    e.status = r.status;
    e.output = r.output;
    ParseOutput(e);
    report_.entries.push_back(std::move(e));
    return report_.entries.back();
}

void Runner::Run() {
    amount_ = AmountToBcd(options_.amount, terminal_.exponent);
    date_ = options_.date.empty() ? Today(false) : options_.date;
    time_ = options_.time.empty() ? Today(true) : options_.time;
    report_.date = date_;
    report_.time = time_;

    entry_point_.Start();
    while (const auto selection = entry_point_.SelectNext()) {
        report_.aid = selection->aid;
        report_.label = selection->label;
        // The kernel takes the SELECT response from the signal queue when it starts.
        report_.trace.Signal(0, kSignalFci, selection->response,
                             "the SELECT response for the kernel");
        session_.Signal(kSignalFci, selection->response);
        Bytes input;
        if (selection->kernel_id) input = Tlv(0xDF09, Bytes{*selection->kernel_id});
        input = Cat({input, Tlv(0x7F11, Cat({CommonData(), terminal_.transaction}))});
        const KernelEntry &first = Enter("first tap", input);
        if (first.outcome && first.outcome->status == 0x50) {
            report_.trace.Note(first.number,
                               "Select Next: the entry point tries the next application");
            continue;
        }
        if (first.outcome && first.outcome->status == 0x30) Online(*selection, first);
        return;
    }
}

void Runner::Online(const Selection &selection, const KernelEntry &first) {
    const uint8_t flow = first.outcome->online_response;
    report_.online_flow = flow == 0x04   ? "long tap"
                          : flow == 0x03 ? "online tap"
                                         : "online request";
    report_.issuer = issuer_.Authorise(first.data_record);
    if (flow != 0x03 && flow != 0x04) return;  // the host completes the transaction alone

    const IssuerResponse &answer = *report_.issuer;
    Bytes response = Cat({Tlv(0x9F872B, Bytes{0x30}), Tlv(0x8A, answer.arc)});
    if (!answer.authentication_data.empty())
        response = Cat({response, Tlv(0x91, answer.authentication_data)});
    response = Cat({response, answer.scripts, CommonData(), Tlv(0x9F06, selection.aid)});
    if (flow == 0x03) {
        // Online tap: the card left the field and comes back for the response.
        report_.trace.Note(first.number, "the cardholder presents the card again");
        faulty_.PowerOff();
        if (!faulty_.WaitPresent(options_.card_wait)) {
            report_.trace.Note(first.number, "the card was not presented again");
            return;
        }
        const Bytes again = entry_point_.Reselect(selection.aid);
        const auto data = velk::card::ResponseData(again);
        response = Cat({response, Tlv(0x9F8201, Bytes(data.begin(), data.end()))});
    }
    Bytes input;
    if (selection.kernel_id) input = Tlv(0xDF09, Bytes{*selection.kernel_id});
    input = Cat({input, Tlv(0x7F11, Cat({response, terminal_.transaction}))});
    Enter("issuer response (" + report_.online_flow + ")", input);
}

// ---- The explanation -----------------------------------------------------------

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
    std::string s = what + " answered SW " + ToHex(Bytes{static_cast<uint8_t>(sw >> 8)}) + " " +
                    ToHex(Bytes{static_cast<uint8_t>(sw)});
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

void Explain(TransactionReport &r) {
    auto &why = r.why;
    if (r.entries.empty()) {
        if (!r.aid)
            why.push_back(
                "No application was selected: the card and the terminal have none in common.");
        return;
    }
    const KernelEntry &last = r.entries.back();
    if (!last.error.empty())
        why.push_back("The kernel ended without an outcome: " + last.error + ".");
    for (const KernelEntry &e : r.entries)
        if (e.status != 0)
            why.push_back("Kernel entry " + std::to_string(e.number) + " returned " +
                          KernelStatusText(e.status) + ".");
    for (const std::string &f : r.faults_fired)
        why.push_back("Fault injected: " + f + ".");
    for (const std::string &f : r.faults_not_fired)
        why.push_back("Fault that never fired (its command never came): " + f + ".");
    for (const std::string &h : r.host_errors)
        why.push_back("Host error: " + h + ".");
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
    for (const TraceEvent &e : r.trace.Events())
        if (e.type == TraceEvent::Type::kApdu &&
            velk::card::Classify(e.first) == velk::card::CommandKind::kEcho &&
            velk::card::StatusWord(e.second) == 0x9000)
            why.push_back(
                "ECHO: the card gave back the response of the GENERATE AC that was torn, so the "
                "transaction went on from there.");
    // The TVR of the last data record says what the terminal found wrong.
    for (auto it = r.entries.rbegin(); it != r.entries.rend(); ++it) {
        if (it->data_record.empty()) continue;
        try {
            const auto nodes = velk::card::ParseTlvData(it->data_record);
            // The card's cryptogram is turned into a decline after GENERATE
            // AC when SDA or CDA fails at its check; that sets no TVR bit, so
            // only the two CIDs tell.
            const auto *cid = velk::host::Find(nodes, 0x9F27);
            if (!gacs.empty() && gacs.back().cid && cid && cid->value.size() == 1 &&
                (cid->value[0] & 0xC0) == 0x00 && (*gacs.back().cid & 0xC0) != 0x00)
                why.push_back(
                    "The card's cryptogram became an AAC (decline) after GENERATE AC: offline "
                    "data authentication (SDA or CDA) failed at its check.");
            if (const auto *tvr = velk::host::Find(nodes, 0x95)) {
                const auto bits = ExplainTvr(tvr->value);
                if (bits.size() == 1 && bits[0] == "no bit set")
                    why.push_back("The TVR is clean: the terminal found nothing wrong.");
                else
                    for (const std::string &b : bits)
                        why.push_back("TVR " + b + ".");
            }
        } catch (const std::invalid_argument &) {
        }
        break;
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
        why.push_back("The issuer " + std::string(ok ? "approved" : "declined") + " (8A \"" +
                      std::string(r.issuer->arc.begin(), r.issuer->arc.end()) + "\"); ARQC " +
                      r.issuer->arqc_check + ".");
    }
    switch (o.status) {
        case 0x50:
            // The kernel ends a transaction on an error with this very
            // outcome, so it says no more than that the application is over.
            why.push_back(
                "Select Next: the kernel ended this application (it does so on an error in the "
                "card's data or responses as well) and no other candidate was left.");
            break;
        case 0x60:
            why.push_back(
                "Try Another Interface: the card asks for the transaction on another interface.");
            break;
        case 0x70:
            why.push_back(
                "Try Again: the exchange with the card broke off; the card must be presented "
                "again.");
            break;
        default:
            break;
    }
    if (o.status >= 0x40) {
        if (const std::string last_exchange = LastExchange(r.trace, last.number);
            !last_exchange.empty())
            why.push_back(last_exchange);
    }
}

}  // namespace

TransactionReport RunTransaction(const KernelApi &kernel, const TerminalProfile &terminal,
                                 velk::card::Card &card, const PayOptions &options,
                                 SecretsLookup secrets) {
    TransactionReport r;
    r.card = card.Describe();
    r.terminal = terminal.name + " (" + terminal.source.string() + ")";
    r.kernel = kernel.origin;
    r.exponent = terminal.exponent;
    const std::string ccy = ToHex(terminal.currency);
    const bool digits = ccy.find_first_not_of("0123456789") == std::string::npos;
    r.currency = digits ? CurrencyName(static_cast<uint16_t>(std::stoi(ccy))) : "";
    if (r.currency.empty()) r.currency = ccy;
    r.amount = FormatAmount(AmountToBcd(options.amount, terminal.exponent), terminal.exponent);
    r.type = options.type;
    {
        Runner runner(kernel, terminal, card, options, std::move(secrets), r);
        try {
            runner.Run();
        } catch (const CardError &e) {
            r.host_errors.push_back(std::string("card: ") + e.what());
        } catch (const std::length_error &e) {
            r.host_errors.push_back(e.what());
        }
        runner.Collect();
    }
    for (const TraceEvent &e : r.trace.Events())
        if (e.type == TraceEvent::Type::kNote && e.entry == 0) r.selection.push_back(e.text);
    r.completed = !r.entries.empty() && r.entries.back().outcome.has_value();
    if (r.completed) {
        const OutcomeParameters &o = *r.entries.back().outcome;
        r.result = OutcomeStatusName(o.status);
        if (o.status == 0x30 && r.online_flow == "online request" && r.issuer)
            r.result += r.issuer->arc == Bytes{'0', '0'} ? ", APPROVED by the issuer"
                                                         : ", DECLINED by the issuer";
    } else {
        r.result = r.entries.empty() ? "NO TRANSACTION" : "NO OUTCOME";
    }
    Explain(r);
    return r;
}

}  // namespace velk::term
