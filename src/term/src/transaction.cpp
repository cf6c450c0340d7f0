// SPDX-License-Identifier: Apache-2.0
#include "velk/term/transaction.hpp"

#include <algorithm>
#include <ctime>

#include "velk/term/entry_point.hpp"
#include "velk/term/host.hpp"
#include "velk/term/why.hpp"

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
        report_.online_context = host_.OnlineContext().value_or(Bytes{});
    }

private:
    Bytes CommonData() const;
    KernelEntry &Enter(const std::string &purpose, const Bytes &input);
    // One presentation of the card: selection and the kernel's first entry
    // (and the online leg); the first entry's outcome.
    std::optional<OutcomeParameters> Tap(const std::string &purpose);
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

    if (const auto refused = entry_point_.PreProcess(amount_, terminal_.exponent)) {
        // What an entry point gives when no application may run contactless.
        report_.entry_point_outcome =
            OutcomeParameters{0x60, 0xF0, 0xF0, 0xF0, 0x80, 0x00, 0xFF, 0};
        report_.entry_point_ui = UiRequest{0x18, 0x05, 0, {}, 0, {}, {}};
        report_.entry_point_reason = *refused;
        return;
    }
    const auto outcome = Tap("first tap");
    if (!outcome || !AsksOnDeviceCvm(*outcome)) return;
    report_.trace.Note(0,
                       "restart (start B): the cardholder verifies on the device and "
                       "presents it again");
    faulty_.PowerOff();
    if (!faulty_.WaitPresent(options_.card_wait)) {
        report_.trace.Note(0, "the device was not presented again");
        return;
    }
    (void)Tap("second tap, after cardholder verification on the device");
}

std::optional<OutcomeParameters> Runner::Tap(const std::string &purpose) {
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
        const KernelEntry &first = Enter(purpose, input);
        const std::optional<OutcomeParameters> outcome = first.outcome;
        if (outcome && outcome->status == 0x50) {
            report_.trace.Note(first.number,
                               "Select Next: the entry point tries the next application");
            continue;
        }
        if (outcome && outcome->status == 0x30) Online(*selection, first);
        return outcome;
    }
    return std::nullopt;
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
        report_.trace.PowerOff(first.number, "the card leaves the field for the online tap");
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

}  // namespace

bool AsksOnDeviceCvm(const OutcomeParameters &o) {
    return o.status == 0x40 && o.start == 0x10;
}

TransactionReport RunTransaction(const KernelApi &kernel, const TerminalProfile &terminal,
                                 velk::card::Card &card, const PayOptions &options,
                                 SecretsLookup secrets) {
    TransactionReport r;
    r.card = card.Describe();
    r.terminal = terminal.name + " (" + terminal.source.string() + ")";
    for (size_t i = 0; i < terminal.overrides.size(); ++i)
        r.terminal += (i == 0 ? ", settings for this run: " : ", ") + terminal.overrides[i];
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
    if (r.entry_point_outcome) {
        r.completed = true;
        r.result = OutcomeStatusName(r.entry_point_outcome->status);
    } else if (r.completed) {
        const OutcomeParameters &o = *r.entries.back().outcome;
        r.result = OutcomeStatusName(o.status);
        if (o.status == 0x30 && r.online_flow == "online request" && r.issuer)
            r.result += r.issuer->arc == Bytes{'0', '0'} ? ", APPROVED by the issuer"
                                                         : ", DECLINED by the issuer";
    } else {
        r.result = r.entries.empty() ? "NO TRANSACTION" : "NO OUTCOME";
    }
    ExplainReport(r);
    return r;
}

}  // namespace velk::term
