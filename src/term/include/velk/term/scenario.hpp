// Scenarios: a card, a terminal, the transaction, the issuer's decision,
// faults, and the outcome fields expected. `velk-term run DIR` runs every
// *.json of a folder, each in a child process of its own (a fresh kernel,
// and a crash or a hang of one scenario cannot take the others down), and
// prints a pass/fail table.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "velk/card/json_profile.hpp"
#include "velk/term/transaction.hpp"

namespace velk::term {

struct Scenario {
    std::string name;
    std::filesystem::path file;
    std::filesystem::path card;
    std::filesystem::path terminal;
    std::string amount = "0.00";
    std::optional<std::string> other_amount;
    std::string type = "purchase";
    Bytes date, time;
    IssuerConfig issuer;
    std::vector<velk::card::Fault> faults;
    uint64_t seed = 1;
    std::optional<Currency> currency;
    std::vector<TerminalSetting> settings;
    velk::card::Json expect;  // field -> expected value
    // Kernel capabilities the scenario depends on beyond the first tap, e.g.
    // "second-entry" (online processing, issuer scripts and torn recovery).
    std::vector<std::string> needs;
};

// A run's scenarios that need one of these are run but cannot fail it: they
// show as PENDING, or UNEXPECTED PASS once the kernel can do what they need.
using PendingNeeds = std::vector<std::string>;
bool IsPending(const Scenario &s, const PendingNeeds &pending);

// Throws velk::card::ProfileError.
Scenario LoadScenario(const std::filesystem::path &path);

// The transaction type of a name ("purchase", "refund", "auth", "78"); the
// terminal gives the type of application authentication. Throws
// std::invalid_argument.
uint8_t ParseTransactionType(const std::string &name, const TerminalProfile &terminal);

// Compares a report with the expected fields; one line per difference.
std::vector<std::string> CheckExpectations(const velk::card::Json &expect,
                                           const TransactionReport &report);

enum class Verdict { kPass, kFail, kError, kCrash, kTimeout, kPendingFail, kPendingPass };
const char *VerdictName(Verdict v);

struct ScenarioResult {
    std::string file;
    std::string name;
    Verdict verdict = Verdict::kError;
    std::string result;                // the transaction's result
    std::vector<std::string> details;  // differences or the error
    std::string folder;                // the name of the scenario's folder
    double seconds = 0;                // the whole scenario, child process included
    velk::card::Json report;           // ReportJson with the trace; null without a transaction
};

// Runs one scenario in this process: loads it, its card and terminal, runs
// the transaction with the kernel from lib, checks the expectations. With a
// capture path, writes the card exchange there (see WriteCapture).
ScenarioResult RunScenario(const std::filesystem::path &file, const std::string &lib,
                           const PendingNeeds &pending = {},
                           const std::filesystem::path &capture = {});

// What a folder's run produces besides its results.
struct RunOutputs {
    std::filesystem::path capture_dir;  // <scenario file's stem>.pcap for each, when set
    // Called as each scenario ends, done counted from 1.
    std::function<void(const ScenarioResult &, size_t done, size_t total)> on_result;
};

// Runs every scenario of a folder (sorted by file name), each in a child
// process limited to timeout.
std::vector<ScenarioResult> RunScenarioFolder(const std::filesystem::path &dir,
                                              const std::string &lib, std::chrono::seconds timeout,
                                              const PendingNeeds &pending = {},
                                              const RunOutputs &outputs = {});

bool AllPassed(const std::vector<ScenarioResult> &results);

}  // namespace velk::term
