// SPDX-License-Identifier: Apache-2.0
// Scenarios: a card, a terminal, the transaction, the issuer's decision,
// faults, replies the host gives in place of its own, and what is expected:
// the outcome in words, and when a test lab wants it, the exchange byte for
// byte (the C-APDUs in order, chosen callback messages, any field of the
// outcome packet). `velk-term run PATH` runs a scenario file or every *.json
// of a folder, each scenario in a child process of its own (a fresh kernel,
// and a crash or a hang of one cannot take the others down), and prints a
// pass/fail table. A file may hold several cases that share its fields.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "velk/card/card_profile.hpp"
#include "velk/card/json_profile.hpp"
#include "velk/term/transaction.hpp"

namespace velk::term {

struct Scenario {
    std::string name;
    std::string case_name;  // the case of a multi-case file; "" for a single scenario
    std::filesystem::path file;
    std::filesystem::path card;
    velk::card::Json card_patch;  // merged over the card profile (JSON merge patch)
    std::filesystem::path terminal;
    velk::card::Json terminal_patch;
    std::string amount = "0.00";
    std::optional<std::string> other_amount;
    std::string type = "purchase";
    Bytes date, time;
    IssuerConfig issuer;
    std::vector<velk::card::Fault> faults;  // with the card's given responses
    std::vector<std::string> may_not_fire;  // faults (as written) allowed not to fire
    std::vector<HostReply> host_replies;
    uint64_t seed = 1;
    std::optional<Currency> currency;
    std::vector<TerminalSetting> settings;
    velk::card::Json expect;  // field -> expected value, checked when loaded
    // Kernel capabilities the scenario depends on beyond the first tap, e.g.
    // "second-entry" (online processing, issuer scripts and torn recovery).
    std::vector<std::string> needs;
};

// The needs a scenario may name.
inline constexpr const char *kKnownNeeds[] = {"second-entry"};

// A run's scenarios that need one of these are run but cannot fail it: they
// show as PENDING, or UNEXPECTED PASS once the kernel can do what they need.
using PendingNeeds = std::vector<std::string>;
bool IsPending(const Scenario &s, const PendingNeeds &pending);

// Every scenario of a file: one, or one per case. Throws
// velk::card::ProfileError naming the file and the field.
std::vector<Scenario> LoadScenarios(const std::filesystem::path &path);
// The file's only scenario (its first case).
Scenario LoadScenario(const std::filesystem::path &path);

// The transaction type of a name ("purchase", "refund", "auth", "78"); the
// terminal gives the type of application authentication. Throws
// std::invalid_argument.
uint8_t ParseTransactionType(const std::string &name, const TerminalProfile &terminal);

// Refuses an expectation that names nothing a report can say (an unknown
// field, "long-tap" for "long tap", a malformed hex value), listing what is
// allowed. Throws velk::card::ProfileError.
void CheckExpectationNames(const velk::card::Field &expect);

// Compares a report with the expected fields; one line per difference.
std::vector<std::string> CheckExpectations(const velk::card::Json &expect,
                                           const TransactionReport &report);

enum class Verdict { kPass, kFail, kError, kCrash, kTimeout, kPendingFail, kPendingPass };
const char *VerdictName(Verdict v);

struct ScenarioResult {
    std::string file;
    std::string case_name;
    std::string name;
    Verdict verdict = Verdict::kError;
    std::string result;                  // the transaction's result
    std::vector<std::string> details;    // differences or the error
    std::vector<std::string> not_fired;  // faults, given responses and host replies never used
    std::string folder;                  // the name of the scenario's folder
    double seconds = 0;                  // the whole scenario, child process included
    velk::card::Json report;             // ReportJson with the trace; null without a transaction

    // "file.json" or "file.json [case]": how the table names it.
    std::string Label() const { return case_name.empty() ? file : file + " [" + case_name + "]"; }
};

// What a scenario's run is made of: its terminal and card profiles, patched
// and set as the scenario says, and the transaction's options (a fixed date,
// time and seed unless it gives its own, so that a run repeats exactly).
// Throws velk::card::ProfileError.
struct ScenarioSetup {
    TerminalProfile terminal;
    velk::card::CardProfile card;
    PayOptions options;
};
ScenarioSetup SetUpScenario(const Scenario &s);

// Runs one scenario in this process: loads it (the case-th of its file), its
// card and terminal, runs the transaction with the kernel from lib, checks
// the expectations. With a capture path, writes the card exchange there (see
// WriteCapture).
ScenarioResult RunScenario(const std::filesystem::path &file, const std::string &lib,
                           const PendingNeeds &pending = {}, size_t case_index = 0,
                           const std::filesystem::path &capture = {});

// What a run produces besides its results.
struct RunOutputs {
    std::filesystem::path capture_dir;  // <file stem>[-<case>].pcap for each, when set
    // Called as each scenario ends, done counted from 1.
    std::function<void(const ScenarioResult &, size_t done, size_t total)> on_result;
};

// Runs a scenario file, or every scenario file of a folder (sorted by file
// name), each scenario in a child process limited to timeout. filter, when
// not empty, keeps the scenarios whose label ("file.json [case]") matches it
// as a shell pattern or contains it. A folder without scenario files, or a
// filter that keeps none, gives one ERROR result.
std::vector<ScenarioResult> RunScenarios(const std::filesystem::path &path, const std::string &lib,
                                         std::chrono::seconds timeout,
                                         const PendingNeeds &pending = {},
                                         const std::string &filter = {},
                                         const RunOutputs &outputs = {});
std::vector<ScenarioResult> RunScenarioFolder(const std::filesystem::path &dir,
                                              const std::string &lib, std::chrono::seconds timeout,
                                              const PendingNeeds &pending = {},
                                              const RunOutputs &outputs = {});

bool AllPassed(const std::vector<ScenarioResult> &results);

}  // namespace velk::term
