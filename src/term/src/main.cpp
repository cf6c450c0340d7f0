// SPDX-License-Identifier: Apache-2.0
// velk-term: runs contactless transactions through libvelk against a
// virtual card or a card on a PC/SC reader, and explains the outcome.
#include <CLI/CLI.hpp>

#include <unistd.h>

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
#include "velk/term/options.hpp"
#include "velk/term/outputs.hpp"
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
    kNoKernel = 7,
    kOutput = 8,
    kInternal = 70,
};

constexpr const char *kExitCodes =
    "Exit codes:\n"
    "  0  success (pay: an outcome was reached, whatever it is; run: no scenario failed)\n"
    "  1  run: at least one scenario failed, crashed, timed out or could not be loaded (ERROR)\n"
    "  2  usage error (unknown option, bad value, bad fault)\n"
    "  3  bad profile, list or key file, or a run folder that is not one (the message names the\n"
    "     file and field; a bad scenario in a run folder is an ERROR: 1)\n"
    "  4  the kernel library could not be loaded\n"
    "  5  card or reader error (PC/SC, vpcd)\n"
    "  6  pay: the kernel ended without an outcome\n"
    "  7  pay: the kernel never ran (no application was selected)\n"
    "  8  an output file (--junit, --html, --pcap, --trace-file...) could not be written\n"
    " 70  internal error";

// Each subcommand's help points at the one table.
constexpr const char *kSeeExitCodes = "Exit codes: see velk-term --help.";

// Card data and messages may hold bytes that are not UTF-8: messages escape
// them (JSON output replaces them, see Dump).
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
    std::string seed;
    std::vector<std::string> settings;
    std::string currency;
    bool trace = false;
    bool json = false;
    std::string trace_file, pcap, html;
    std::string lib;
};

struct RunArgs {
    std::string dir, lib, filter;
    int timeout = 120;
    bool json = false;
    PendingNeeds pending;
    std::string junit, html, pcap_dir;
    std::string color = "auto";
};

// A card's bytes that reach the report as text (a language preference, say)
// need not be UTF-8: they are printed with U+FFFD instead.
std::string Dump(const nlohmann::ordered_json &j) {
    return j.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

struct OutputOption {
    const char *name;
    std::string *target;
    const char *help, *type;
};

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// An output file of the command, opened before the transactions run so that
// a path that cannot be written fails at once.
std::optional<std::ofstream> Output(const std::string &path) {
    if (path.empty()) return std::nullopt;
    return OpenOutput(path);
}

std::string LibraryVersion() {
    try {
        const std::string file = KernelLibraryFile(KernelLibrary::DefaultPath());
        const size_t so = file.rfind(".so.");
        return "libvelk " + (so == std::string::npos ? std::string("?") : file.substr(so + 4)) +
               " (" + file + ")";
    } catch (const KernelLoadError &e) {
        return std::string("libvelk: ") + e.what();
    }
}

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

// A value checked by its parser; the message names the option.
template <class T>
T Checked(const char *option, T (*parse)(const std::string &), const std::string &text) {
    try {
        return parse(text);
    } catch (const std::invalid_argument &e) {
        throw CLI::ValidationError(option, e.what());
    }
}

int Pay(const PayArgs &a) {
    TerminalProfile terminal = LoadTerminalProfile(ResolveProfile(a.terminal, "terminals"));
    if (!a.currency.empty())
        ApplyCurrency(terminal, Checked("--currency", ParseCurrency, a.currency));
    for (const std::string &s : a.settings)
        ApplySetting(terminal, Checked("--set", ParseSetting, s));
    PayOptions o;
    o.amount = a.amount;
    if (!a.other_amount.empty()) o.other_amount = a.other_amount;
    o.type = ParseTransactionType(a.type, terminal);
    if (!a.date.empty()) o.date = Checked("--date", ParseDate, a.date);
    if (!a.time.empty()) o.time = Checked("--time", ParseTime, a.time);
    if (!a.seed.empty()) {
        o.seed = Checked("--seed", ParseSeed, a.seed);
        // A seeded run repeats exactly: the date and time are fixed too.
        if (o.date.empty()) o.date = velk::host::FromHex(kFixedDate);
        if (o.time.empty()) o.time = velk::host::FromHex(kFixedTime);
    }
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
    std::optional<std::ofstream> trace_file = Output(a.trace_file), html = Output(a.html);
    if (!a.pcap.empty()) (void)OpenOutput(a.pcap);  // written by libpcap at the end
    std::vector<std::pair<TraceClock::time_point, std::string>> kernel_lines;
    if (a.trace || trace_file)
        velk::host::SetLogSink([&](const char *line) {
            if (a.trace) std::cerr << "kernel: " << line;
            if (trace_file) kernel_lines.emplace_back(TraceClock::now(), line);
        });
    const auto start = std::chrono::steady_clock::now();
    TransactionReport report = RunTransaction(kernel.Api(), terminal, *card, o, secrets);
    const double seconds = SecondsSince(start);
    velk::host::SetLogSink(nullptr);
    if (trace_file) {
        report.trace.MergeKernelLines(kernel_lines);
        PrintTrace(*trace_file, report.trace);
        CloseOutput(*trace_file, a.trace_file);
    }
    if (!a.pcap.empty()) WriteCapture(a.pcap, report.trace);
    if (html) {
        WriteHtml(*html, PayJson(ReportJson(report, true), seconds));
        CloseOutput(*html, a.html);
    }
    if (a.json)
        std::cout << Dump(ReportJson(report, a.trace)) << "\n";
    else
        PrintReport(std::cout, report, a.trace);
    return report.completed ? kOk : report.entries.empty() ? kNoKernel : kNoOutcome;
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
        std::cout << Dump(DecodeJson(bytes)) << "\n";
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

int Run(const RunArgs &a) {
    std::optional<std::ofstream> junit = Output(a.junit), html = Output(a.html);
    if (!a.pcap_dir.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(a.pcap_dir, ec);
        if (ec) throw OutputError(a.pcap_dir + ": " + ec.message());
    }
    const ColorMode color = a.color == "always"  ? ColorMode::kAlways
                            : a.color == "never" ? ColorMode::kNever
                                                 : ColorMode::kAuto;
    Progress progress(std::cerr, isatty(STDERR_FILENO) != 0, UseColor(color, STDERR_FILENO));
    RunOutputs outputs;
    outputs.capture_dir = a.pcap_dir;
    outputs.on_result = [&](const ScenarioResult &r, size_t done, size_t total) {
        progress.Done(r, done, total);
    };
    const auto start = std::chrono::steady_clock::now();
    const auto results = RunScenarios(a.dir, Lib(a.lib), std::chrono::seconds(a.timeout), a.pending,
                                      a.filter, outputs);
    const double seconds = SecondsSince(start);
    if (junit) {
        WriteJunit(*junit, results, seconds);
        CloseOutput(*junit, a.junit);
    }
    if (html) {
        WriteHtml(*html, RunJson(results, seconds));
        CloseOutput(*html, a.html);
    }
    if (a.json)
        std::cout << Dump(RunJson(results, seconds)) << "\n";
    else
        PrintScenarioTable(std::cout, results, UseColor(color, STDOUT_FILENO));
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
    if (args.empty() ||
        (option_first && args[0] != "-h" && args[0] != "--help" && args[0] != "--version"))
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
    app.set_version_flag("--version", [] {
        return std::string("velk-term ") + VELK_VERSION + "\n" + LibraryVersion();
    });

    PayArgs pay;
    CLI::App *pay_cmd = app.add_subcommand("pay", "Run a transaction (the default command)");
    pay_cmd->footer(kSeeExitCodes);
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
    pay_cmd->add_option("--seed", pay.seed,
                        "Seed for unpredictable numbers: repeatable runs (date and time default to "
                        "250615 120000)");
    pay_cmd->add_option("--set", pay.settings,
                        "Terminal or application parameter for this run, TAG=HEX (repeatable)");
    pay_cmd->add_option("--currency", pay.currency,
                        "Transaction currency: ISO 4217 code (EUR) or number (978)");
    pay_cmd->add_flag("--trace", pay.trace,
                      "Show every APDU (decoded), callback, signal and display in order");
    pay_cmd->add_flag("--json", pay.json, "Print the report as one JSON document");
    // The files a command writes besides its output: {option, variable, help, FILE or DIR}.
    const auto outputs = [](CLI::App *cmd, std::initializer_list<OutputOption> options) {
        for (const auto &[name, target, help, type] : options)
            cmd->add_option(name, *target, help)->type_name(type);
    };
    outputs(pay_cmd,
            {{"--trace-file", &pay.trace_file,
              "Write the trace (with the kernel's own lines, in order) to FILE", "FILE"},
             {"--pcap", &pay.pcap,
              "Write the card exchange to FILE as a capture for Wireshark (ISO 14443)", "FILE"},
             {"--html", &pay.html, "Write a self-contained HTML report to FILE", "FILE"}});
    pay_cmd->add_option("--lib", pay.lib,
                        "The kernel library (default: " + KernelLibrary::DefaultPath() + ")");

    CLI::App *readers_cmd = app.add_subcommand("readers", "List the PC/SC readers");
    readers_cmd->footer(kSeeExitCodes);

    RunArgs run;
    CLI::App *run_cmd =
        app.add_subcommand("run", "Run a scenario file or a folder of them; a pass/fail table");
    run_cmd->footer(kSeeExitCodes);
    run_cmd->add_option("PATH", run.dir, "A scenario file, or a folder of them (*.json)")
        ->required();
    run_cmd->add_option("--filter", run.filter,
                        "Only the scenarios whose \"file.json [case]\" matches this shell "
                        "pattern or contains it");
    run_cmd->add_option("--lib", run.lib, "The kernel library");
    run_cmd->add_option("--timeout", run.timeout, "Seconds allowed per scenario")
        ->capture_default_str()
        ->check(CLI::Range(1, 86400));
    run_cmd->add_flag("--json", run.json,
                      "Print the results as one JSON document (summary, then each scenario with "
                      "its whole report)");
    run_cmd->add_option("--pending", run.pending,
                        "Scenarios that need this (their \"needs\", e.g. second-entry) cannot "
                        "fail the run (repeatable)");
    outputs(run_cmd, {{"--junit", &run.junit, "Write a JUnit XML report to FILE", "FILE"},
                      {"--html", &run.html, "Write a self-contained HTML report to FILE", "FILE"},
                      {"--pcap-dir", &run.pcap_dir,
                       "Write each scenario's card exchange to DIR/<scenario>.pcap", "DIR"}});
    run_cmd
        ->add_option("--color", run.color,
                     "Colour the verdicts: auto (on a terminal, unless NO_COLOR is set), always "
                     "or never")
        ->check(CLI::IsMember({"auto", "always", "never"}))
        ->capture_default_str();

    std::string decode_hex;
    bool decode_json = false;
    CLI::App *decode_cmd = app.add_subcommand("decode", "Decode TLV data with tag names");
    decode_cmd->footer(kSeeExitCodes);
    decode_cmd->add_option("HEX", decode_hex, "TLV data in hex")->required();
    decode_cmd->add_flag("--json", decode_json, "Print as JSON");

    std::string tvr_hex;
    CLI::App *tvr_cmd = app.add_subcommand("tvr", "Explain Terminal Verification Results in words");
    tvr_cmd->footer(kSeeExitCodes);
    tvr_cmd->add_option("HEX", tvr_hex, "The 5 bytes of the TVR in hex")->required();

    std::string serve_card = "online-cda", serve_host = "localhost";
    uint16_t serve_port = velk::card::kVpcdPort;
    int serve_wait = 10;
    CLI::App *serve_cmd =
        app.add_subcommand("serve-vpcd", "Serve a virtual card to the vpcd reader driver of pcscd");
    serve_cmd->footer(kSeeExitCodes);
    serve_cmd->add_option("--card", serve_card, "Virtual card: a profile file or a bundled name")
        ->capture_default_str();
    serve_cmd->add_option("--host", serve_host, "Where vpcd listens")->capture_default_str();
    serve_cmd->add_option("--port", serve_port, "vpcd's port (its first reader)")
        ->capture_default_str();
    serve_cmd->add_option("--wait", serve_wait, "Seconds to keep trying to connect")
        ->capture_default_str()
        ->check(CLI::Range(0, 3600));

    try {
        std::vector<std::string> args = WithDefaultCommand(argc, argv);
        app.parse(args);
    } catch (const CLI::ParseError &e) {
        if (e.get_exit_code() == 0) return app.exit(e);  // --help
        std::cerr << "velk-term: " << e.what() << "\nRun with --help for more information.\n";
        return kUsage;
    }

    try {
        if (*pay_cmd) return Pay(pay);
        if (*readers_cmd) return Readers();
        if (*run_cmd) return Run(run);
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
    } catch (const OutputError &e) {
        std::cerr << "velk-term: " << e.what() << "\n";
        return kOutput;
    } catch (const std::invalid_argument &e) {
        std::cerr << "velk-term: " << Said(e) << "\n";
        return kUsage;
    } catch (const std::exception &e) {
        std::cerr << "velk-term: internal error: " << Said(e) << "\n";
        return kInternal;
    }
    return kUsage;
}
