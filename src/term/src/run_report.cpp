// SPDX-License-Identifier: Apache-2.0
// A run's results for people (table, progress, colours) and for scripts
// (one JSON document).
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <map>
#include <sstream>

#include "velk/term/outputs.hpp"

namespace velk::term {

using Json = nlohmann::ordered_json;

std::ofstream OpenOutput(const std::filesystem::path &file) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    if (!out) throw OutputError(file.string() + ": cannot write: " + std::strerror(errno));
    return out;
}

void CloseOutput(std::ofstream &out, const std::filesystem::path &file) {
    out.close();
    if (!out) throw OutputError(file.string() + ": write failed");
}

std::optional<Mismatch> ParseMismatch(const std::string &detail) {
    const size_t expected = detail.find(": expected ");
    const size_t got = detail.rfind(", got ");
    if (expected == std::string::npos || got == std::string::npos || got < expected)
        return std::nullopt;
    return Mismatch{detail.substr(0, expected), detail.substr(expected + 11, got - expected - 11),
                    detail.substr(got + 6)};
}

namespace {

// The verdicts in the order a summary lists them, with their JSON key.
constexpr std::pair<Verdict, const char *> kCounts[] = {
    {Verdict::kPass, "passed"},
    {Verdict::kFail, "failed"},
    {Verdict::kError, "errors"},
    {Verdict::kCrash, "crashed"},
    {Verdict::kTimeout, "timed_out"},
    {Verdict::kPendingFail, "pending"},
    {Verdict::kPendingPass, "unexpected_passes"},
};

}  // namespace

Json RunJson(const std::vector<ScenarioResult> &results, double seconds) {
    Json summary{{"scenarios", results.size()}};
    for (const auto &[verdict, key] : kCounts)
        summary[key] =
            std::count_if(results.begin(), results.end(),
                          [v = verdict](const ScenarioResult &r) { return r.verdict == v; });
    summary["ok"] = AllPassed(results);
    summary["seconds"] = seconds;
    Json scenarios = Json::array();
    for (const ScenarioResult &r : results) {
        Json mismatches = Json::array(), details = Json::array();
        for (const std::string &d : r.details) {
            if (const auto m = ParseMismatch(d); m && r.verdict == Verdict::kFail)
                mismatches.push_back(
                    {{"field", m->field}, {"expected", m->expected}, {"actual", m->actual}});
            else
                details.push_back(d);
        }
        scenarios.push_back({{"file", r.file},
                             {"case", r.case_name},
                             {"label", r.Label()},
                             {"folder", r.folder},
                             {"name", r.name},
                             {"verdict", VerdictName(r.verdict)},
                             {"result", r.result},
                             {"seconds", r.seconds},
                             {"mismatches", mismatches},
                             {"details", details},
                             {"not_fired", r.not_fired},
                             {"report", r.report}});
    }
    return {{"summary", summary}, {"scenarios", scenarios}};
}

Json PayJson(const Json &report, double seconds) {
    return {{"summary", {{"transactions", 1}, {"seconds", seconds}}},
            {"scenarios", Json::array({{{"file", ""},
                                        {"folder", ""},
                                        {"name", report.value("card", "") + ", " +
                                                     report["transaction"].value("type", "") + " " +
                                                     report["transaction"].value("amount", "")},
                                        {"verdict", ""},
                                        {"result", report.value("result", "")},
                                        {"seconds", seconds},
                                        {"mismatches", Json::array()},
                                        {"details", Json::array()},
                                        {"report", report}}})}};
}

bool UseColor(ColorMode mode, int fd) {
    if (mode != ColorMode::kAuto) return mode == ColorMode::kAlways;
    const char *no_color = std::getenv("NO_COLOR");
    return isatty(fd) != 0 && (no_color == nullptr || *no_color == '\0');
}

std::string VerdictText(Verdict v, bool color) {
    if (!color) return VerdictName(v);
    const char *sgr = "33";  // yellow: pending, unexpected pass
    if (v == Verdict::kPass) sgr = "32";
    if (v == Verdict::kFail) sgr = "31";
    if (v == Verdict::kError || v == Verdict::kCrash || v == Verdict::kTimeout) sgr = "1;31";
    return std::string("\033[") + sgr + "m" + VerdictName(v) + "\033[0m";
}

namespace {

std::string Seconds(double s) {
    std::ostringstream out;
    out << std::fixed << std::setprecision(2) << s << " s";
    return out.str();
}

// Pads to width by the visible length (colour codes take no room).
std::string Padded(const std::string &text, size_t visible, size_t width) {
    return text + std::string(width > visible ? width - visible : 1, ' ');
}

}  // namespace

void Progress::Done(const ScenarioResult &r, size_t done, size_t total) {
    const std::string count = "[" + std::to_string(done) + "/" + std::to_string(total) + "]";
    if (!tty_) {
        out_ << count << " " << VerdictText(r.verdict, color_) << " " << r.Label() << " ("
             << Seconds(r.seconds) << ")\n";
        return;
    }
    constexpr size_t kWidth = 30;
    const size_t filled = total == 0 ? kWidth : done * kWidth / total;
    out_ << "\r\033[K[" << std::string(filled, '#') << std::string(kWidth - filled, '.') << "] "
         << count << " " << VerdictText(r.verdict, color_) << " " << r.Label();
    if (done == total) out_ << "\r\033[K";
    out_ << std::flush;
}

void PrintScenarioTable(std::ostream &out, const std::vector<ScenarioResult> &results, bool color) {
    size_t width = 8;
    for (const ScenarioResult &r : results)
        width = std::max(width, r.Label().size());
    width += 2;
    constexpr size_t kVerdict = 17, kTime = 9;
    out << Padded("SCENARIO", 8, width) << Padded("VERDICT", 7, kVerdict)
        << Padded("TIME", 4, kTime) << "RESULT\n";
    std::map<Verdict, int> counts;
    double total = 0;
    for (const ScenarioResult &r : results) {
        ++counts[r.verdict];
        total += r.seconds;
        const std::string seconds = Seconds(r.seconds);
        const std::string label = r.Label();
        out << Padded(label, label.size(), width)
            << Padded(VerdictText(r.verdict, color), std::strlen(VerdictName(r.verdict)), kVerdict)
            << Padded(seconds, seconds.size(), kTime) << r.result << "\n";
        if (!r.name.empty() && r.verdict != Verdict::kPass) out << "    " << r.name << "\n";
        if (r.verdict != Verdict::kPass)
            for (const std::string &d : r.details)
                out << "    - " << d << "\n";
        if (r.verdict == Verdict::kPass)
            for (const std::string &f : r.not_fired)
                out << "    - did not fire (allowed): " << f << "\n";
    }
    out << "\n" << results.size() << " scenario(s):";
    for (const auto &[v, n] : counts)
        out << " " << n << " " << VerdictText(v, color);
    out << " in " << Seconds(total) << "\n";
}

}  // namespace velk::term
