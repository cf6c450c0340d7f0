// velk-term: runs contactless transactions through libvelk against a
// virtual card or a card on a PC/SC reader, and explains the outcome.
#include <CLI/CLI.hpp>

#include <atomic>
#include <csignal>
#include <iostream>
#include <memory>

#include "velk/card/faulty_card.hpp"
#include "velk/card/pcsc_card.hpp"
#include "velk/card/virtual_card.hpp"
#include "velk/card/vpcd.hpp"
#include "velk/host/framework.hpp"
#include "velk/term/explain.hpp"
#include "velk/term/profiles.hpp"
#include "velk/term/report.hpp"
#include "velk/term/scenario.hpp"

namespace {

using namespace velk::term;
using velk::card::CardError;
using velk::card::ProfileError;

enum Exit : int {
    kOk = 0,
    kScenarioFailed = 1,
    kUsage = 2,
    kBadInput = 3,
    kKernelLoad = 4,
    kCardError = 5,
    kNoOutcome = 6,
    kInternal = 70,
};

constexpr const char *kExitCodes =
    "Exit codes:\n"
    "  0  success (pay: the kernel reached an outcome, whatever it is; run: no scenario failed)\n"
    "  1  run: at least one scenario failed, crashed or timed out\n"
    "  2  usage error (unknown option, bad value, bad fault)\n"
    "  3  bad profile, scenario, list or key file (the message names the file and field)\n"
    "  4  the kernel library could not be loaded\n"
    "  5  card or reader error (PC/SC, vpcd)\n"
    "  6  the kernel ended without an outcome\n"
    " 70  internal error";

// Card data and messages may hold bytes that are not UTF-8: JSON output
// replaces them, messages escape them.
constexpr auto kReplace = nlohmann::ordered_json::error_handler_t::replace;

std::string Said(const std::exception &e) {
    return velk::card::EscapeInvalidUtf8(e.what());
}

std::atomic<bool> g_stop{false};

void OnStopSignal(int) {
    g_stop.store(true);
}

struct PayArgs {
    std::string card = "online-cda";
    std::string reader;
    std::string terminal = "pos";
    std::string amount = "25.00";
    std::string other_amount;
    std::string type = "purchase";
    std::string date, time;
    std::string issuer = "approve";
    bool no_arpc = false;
    std::vector<std::string> scripts;
    std::vector<std::string> faults;
    std::optional<uint64_t> seed;
    bool trace = false;
    bool json = false;
    std::string lib;
};

std::string Lib(const std::string &lib) {
    return lib.empty() ? KernelLibrary::DefaultPath() : lib;
}

velk::host::Bytes HexArg(const std::string &text, size_t len, const char *what) {
    velk::host::Bytes b;
    try {
        b = velk::host::FromHex(text);
    } catch (const std::invalid_argument &e) {
        throw CLI::ValidationError(what, e.what());
    }
    if (len != 0 && b.size() != len)
        throw CLI::ValidationError(what, "expected " + std::to_string(2 * len) + " digits");
    return b;
}

int Pay(const PayArgs &a) {
    const TerminalProfile terminal = LoadTerminalProfile(ResolveProfile(a.terminal, "terminals"));
    PayOptions o;
    o.amount = a.amount;
    if (!a.other_amount.empty()) o.other_amount = a.other_amount;
    o.type = ParseTransactionType(a.type, terminal);
    if (!a.date.empty()) o.date = HexArg(a.date, 3, "--date");
    if (!a.time.empty()) o.time = HexArg(a.time, 3, "--time");
    (void)AmountToBcd(o.amount, terminal.exponent);
    if (o.other_amount) (void)AmountToBcd(*o.other_amount, terminal.exponent);
    o.issuer = IssuerConfig::FromDecision(a.issuer);
    o.issuer.send_arpc = !a.no_arpc;
    for (const std::string &s : a.scripts) {
        const auto script = HexArg(s, 0, "--script");
        if (!IsIssuerScript(script))
            throw CLI::ValidationError("--script", "expected one whole template 71 or 72");
        o.issuer.scripts.push_back(script);
    }
    for (const std::string &f : a.faults)
        o.faults.push_back(velk::card::Fault::Parse(f));
    o.seed = a.seed;

    const KernelLibrary kernel(Lib(a.lib));
    std::unique_ptr<velk::card::PcscContext> context;
    std::unique_ptr<velk::card::Card> card;
    SecretsLookup secrets;
    if (!a.reader.empty()) {
        context = std::make_unique<velk::card::PcscContext>();
        card = std::make_unique<velk::card::PcscCard>(*context, a.reader);
    } else {
        auto virtual_card = std::make_unique<velk::card::VirtualCard>(
            velk::card::LoadCardProfile(ResolveProfile(a.card, "cards")));
        secrets = SecretsOf(*virtual_card);
        card = std::move(virtual_card);
    }
    if (a.trace) velk::host::SetLogSink([](const char *line) { std::cerr << "kernel: " << line; });
    const TransactionReport report = RunTransaction(kernel.Api(), terminal, *card, o, secrets);
    if (a.json)
        std::cout << ReportJson(report, a.trace).dump(2, ' ', false, kReplace) << "\n";
    else
        PrintReport(std::cout, report, a.trace);
    return report.completed ? kOk : kNoOutcome;
}

int Readers() {
    velk::card::PcscContext context;
    const auto readers = context.Readers();
    if (readers.empty()) std::cout << "no PC/SC reader\n";
    for (const std::string &r : readers) {
        velk::card::PcscCard card(context, r);
        std::cout << r << (card.Present() ? "  (card present)" : "  (no card)") << "\n";
    }
    return kOk;
}

int Decode(const std::string &hex, bool json) {
    const auto bytes = HexArg(hex, 0, "HEX");
    if (json) {
        std::cout << DecodeJson(bytes).dump(2, ' ', false, kReplace) << "\n";
    } else {
        for (const std::string &line : DecodeLines(bytes))
            std::cout << line << "\n";
    }
    return kOk;
}

int Tvr(const std::string &hex) {
    for (const std::string &line : ExplainTvr(HexArg(hex, 5, "TVR")))
        std::cout << line << "\n";
    return kOk;
}

int Run(const std::string &dir, const std::string &lib, int timeout, bool json,
        const PendingNeeds &pending) {
    if (!std::filesystem::is_directory(dir))
        throw ProfileError(dir + ": not a folder of scenarios");
    const auto results = RunScenarioFolder(dir, Lib(lib), std::chrono::seconds(timeout), pending);
    if (json) {
        nlohmann::ordered_json j = nlohmann::ordered_json::array();
        for (const ScenarioResult &r : results)
            j.push_back({{"file", r.file},
                         {"name", r.name},
                         {"verdict", VerdictName(r.verdict)},
                         {"result", r.result},
                         {"details", r.details}});
        std::cout << j.dump(2, ' ', false, kReplace) << "\n";
    } else {
        PrintScenarioTable(std::cout, results);
    }
    return AllPassed(results) ? kOk : kScenarioFailed;
}

int ServeVpcd(const std::string &card_name, const std::string &host, uint16_t port, int wait) {
    velk::card::VirtualCard card(velk::card::LoadCardProfile(ResolveProfile(card_name, "cards")));
    std::signal(SIGINT, OnStopSignal);
    std::signal(SIGTERM, OnStopSignal);
    velk::card::VpcdClient client(card, host, port);
    if (!client.Connect(std::chrono::seconds(wait), &g_stop)) {
        std::cerr << "stopped before vpcd at " << host << ":" << port << " answered\n";
        return kOk;
    }
    std::cerr << "serving " << card.Describe() << " to vpcd at " << host << ":" << port << "\n";
    const size_t apdus = client.Serve(g_stop);
    std::cerr << "session ended after " << apdus << " APDU(s)\n";
    return kOk;
}

// `velk-term --card x` means `velk-term pay --card x`.
std::vector<std::string> WithDefaultCommand(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    const bool option_first = !args.empty() && args[0].size() > 1 && args[0][0] == '-';
    if (args.empty() || (option_first && args[0] != "-h" && args[0] != "--help"))
        args.insert(args.begin(), "pay");
    std::reverse(args.begin(), args.end());  // CLI11 takes them in reverse
    return args;
}

}  // namespace

int main(int argc, char **argv) {
    // The kernel library resolves pemv_kn_glb from this executable.
    (void)velk::host::Framework();

    CLI::App app{"velk-term: contactless transactions through libvelk, explained", "velk-term"};
    app.footer(kExitCodes);
    app.require_subcommand(1);

    PayArgs pay;
    CLI::App *pay_cmd = app.add_subcommand("pay", "Run a transaction (the default command)");
    pay_cmd->footer(kExitCodes);
    auto *card_opt = pay_cmd
                         ->add_option("--card", pay.card,
                                      "Virtual card: a profile file or a bundled card's name")
                         ->capture_default_str();
    pay_cmd->add_option("--reader", pay.reader, "Use the card on this PC/SC reader instead")
        ->excludes(card_opt);
    pay_cmd->add_option("--terminal", pay.terminal, "Terminal profile: a file or a bundled name")
        ->capture_default_str();
    pay_cmd->add_option("--amount", pay.amount, "Amount, authorised (e.g. 25.00)")
        ->capture_default_str();
    pay_cmd->add_option("--other-amount", pay.other_amount, "Amount, other (cashback)");
    pay_cmd
        ->add_option("--type", pay.type,
                     "purchase, cash, cashback, refund, retrieval, update, auth, or 2 hex digits")
        ->capture_default_str();
    pay_cmd->add_option("--date", pay.date, "Transaction date YYMMDD (default: today)");
    pay_cmd->add_option("--time", pay.time, "Transaction time HHMMSS (default: now)");
    pay_cmd
        ->add_option("--issuer", pay.issuer,
                     "Issuer's decision online: approve, decline, or a 2-character response code")
        ->capture_default_str();
    pay_cmd->add_flag("--no-arpc", pay.no_arpc, "The issuer sends no authentication data (91)");
    pay_cmd->add_option("--script", pay.scripts,
                        "Issuer script template 71 or 72 in hex (repeatable)");
    pay_cmd->add_option(
        "--fault", pay.faults,
        "Fault ACTION@COMMAND[#N][:CHANGE], e.g. tear@gac1, cancel@gpo, remove@read-record#2, "
        "mutate@gpo:drop=82 (repeatable; see docs/velk-term.md)");
    pay_cmd->add_option("--seed", pay.seed, "Seed for unpredictable numbers (repeatable runs)");
    pay_cmd->add_flag("--trace", pay.trace, "Show every APDU (decoded), callback and signal");
    pay_cmd->add_flag("--json", pay.json, "Print the report as one JSON document");
    pay_cmd->add_option("--lib", pay.lib,
                        "The kernel library (default: " + KernelLibrary::DefaultPath() + ")");

    CLI::App *readers_cmd = app.add_subcommand("readers", "List the PC/SC readers");
    readers_cmd->footer(kExitCodes);

    std::string run_dir, run_lib;
    int run_timeout = 120;
    bool run_json = false;
    PendingNeeds run_pending;
    CLI::App *run_cmd =
        app.add_subcommand("run", "Run a folder of scenarios and print a pass/fail table");
    run_cmd->footer(kExitCodes);
    run_cmd->add_option("DIR", run_dir, "Folder of scenario files (*.json)")->required();
    run_cmd->add_option("--lib", run_lib, "The kernel library");
    run_cmd->add_option("--timeout", run_timeout, "Seconds allowed per scenario")
        ->capture_default_str();
    run_cmd->add_flag("--json", run_json, "Print the results as JSON");
    run_cmd->add_option("--pending", run_pending,
                        "Scenarios that need this (their \"needs\", e.g. second-entry) cannot "
                        "fail the run (repeatable)");

    std::string decode_hex;
    bool decode_json = false;
    CLI::App *decode_cmd = app.add_subcommand("decode", "Decode TLV data with tag names");
    decode_cmd->footer(kExitCodes);
    decode_cmd->add_option("HEX", decode_hex, "TLV data in hex")->required();
    decode_cmd->add_flag("--json", decode_json, "Print as JSON");

    std::string tvr_hex;
    CLI::App *tvr_cmd = app.add_subcommand("tvr", "Explain Terminal Verification Results in words");
    tvr_cmd->footer(kExitCodes);
    tvr_cmd->add_option("HEX", tvr_hex, "The 5 bytes of the TVR in hex")->required();

    std::string serve_card = "online-cda", serve_host = "localhost";
    uint16_t serve_port = velk::card::kVpcdPort;
    int serve_wait = 10;
    CLI::App *serve_cmd =
        app.add_subcommand("serve-vpcd", "Serve a virtual card to the vpcd reader driver of pcscd");
    serve_cmd->footer(kExitCodes);
    serve_cmd->add_option("--card", serve_card, "Virtual card: a profile file or a bundled name")
        ->capture_default_str();
    serve_cmd->add_option("--host", serve_host, "Where vpcd listens")->capture_default_str();
    serve_cmd->add_option("--port", serve_port, "vpcd's port (its first reader)")
        ->capture_default_str();
    serve_cmd->add_option("--wait", serve_wait, "Seconds to keep trying to connect")
        ->capture_default_str();

    try {
        std::vector<std::string> args = WithDefaultCommand(argc, argv);
        app.parse(args);
    } catch (const CLI::ParseError &e) {
        const int code = app.exit(e);
        return code == 0 ? kOk : kUsage;
    }

    try {
        if (*pay_cmd) return Pay(pay);
        if (*readers_cmd) return Readers();
        if (*run_cmd) return Run(run_dir, run_lib, run_timeout, run_json, run_pending);
        if (*decode_cmd) return Decode(decode_hex, decode_json);
        if (*tvr_cmd) return Tvr(tvr_hex);
        if (*serve_cmd) return ServeVpcd(serve_card, serve_host, serve_port, serve_wait);
    } catch (const CLI::ValidationError &e) {
        std::cerr << "velk-term: " << Said(e) << "\n";
        return kUsage;
    } catch (const ProfileError &e) {
        std::cerr << "velk-term: " << Said(e) << "\n";
        return kBadInput;
    } catch (const KernelLoadError &e) {
        std::cerr << "velk-term: " << Said(e) << "\n";
        return kKernelLoad;
    } catch (const CardError &e) {
        std::cerr << "velk-term: " << Said(e) << "\n";
        return kCardError;
    } catch (const std::invalid_argument &e) {
        std::cerr << "velk-term: " << Said(e) << "\n";
        return kUsage;
    } catch (const std::exception &e) {
        std::cerr << "velk-term: internal error: " << Said(e) << "\n";
        return kInternal;
    }
    return kUsage;
}
