// SPDX-License-Identifier: Apache-2.0
// Where labs and CI servers read velk-term's results: a run as one JSON
// document and as a JUnit report, a transaction's card exchange as a
// capture that Wireshark opens, one self-contained HTML report, and the
// colours and progress lines of a run on a terminal.
#pragma once

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "velk/term/scenario.hpp"
#include "velk/term/trace.hpp"

namespace velk::term {

// An output file that cannot be written.
class OutputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Opens a file for writing; throws OutputError naming it and the reason.
std::ofstream OpenOutput(const std::filesystem::path &file);
// Closes it and throws OutputError when anything written was lost.
void CloseOutput(std::ofstream &out, const std::filesystem::path &file);

// ---- a run's results --------------------------------------------------------

// A difference line "field: expected X, got Y" taken apart.
struct Mismatch {
    std::string field, expected, actual;
};
std::optional<Mismatch> ParseMismatch(const std::string &detail);

// The run as one document: a summary (counts by verdict, total time), then
// per scenario its verdict, result, time, mismatches as objects, any other
// details and the whole report of the transaction.
nlohmann::ordered_json RunJson(const std::vector<ScenarioResult> &results, double seconds);
// One transaction (pay) in the same shape, so that the HTML report reads both.
nlohmann::ordered_json PayJson(const nlohmann::ordered_json &report, double seconds);

// Ant's JUnit report: one testsuite per folder, one testcase per scenario;
// FAIL is a failure, ERROR, CRASH and TIMEOUT are errors, a pending scenario
// is skipped.
void WriteJunit(std::ostream &out, const std::vector<ScenarioResult> &results, double seconds);

// The card exchange of a trace as a pcap file of link type ISO 14443 (264):
// field on, RATS and ATS at each activation, every C-APDU and R-APDU in an
// I-block with its CRC_A, field off at each power-off.
void WriteCapture(const std::filesystem::path &file, const Trace &trace);
// CRC_A of ISO/IEC 14443-3, as sent: low byte first.
uint16_t CrcA(std::span<const uint8_t> data);

// A self-contained HTML page (inline style and script, no network) over a
// RunJson or PayJson document.
void WriteHtml(std::ostream &out, const nlohmann::ordered_json &doc);

// ---- a run on a terminal ----------------------------------------------------

enum class ColorMode { kAuto, kAlways, kNever };
// Colour for auto: the stream is a terminal and NO_COLOR is unset or empty.
bool UseColor(ColorMode mode, int fd);
// The verdict's name, coloured when asked.
std::string VerdictText(Verdict v, bool color);

// Reports each scenario as it ends: a bar redrawn in place on a terminal,
// else one line per scenario.
class Progress {
public:
    Progress(std::ostream &out, bool terminal, bool color)
        : out_(out), tty_(terminal), color_(color) {}
    void Done(const ScenarioResult &r, size_t done, size_t total);

private:
    std::ostream &out_;
    bool tty_, color_;
};

void PrintScenarioTable(std::ostream &out, const std::vector<ScenarioResult> &results, bool color);

}  // namespace velk::term
