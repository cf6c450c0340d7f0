// SPDX-License-Identifier: Apache-2.0
// The run as Ant's JUnit report, the shape CI servers read:
// testsuites / testsuite (one per folder) / testcase (one per scenario).
#include <iomanip>
#include <map>

#include "velk/term/outputs.hpp"

namespace velk::term {

namespace {

// Text for an attribute or element; characters XML 1.0 cannot carry
// (control characters, as a card error might quote) become '?', bytes that
// are not UTF-8 U+FFFD.
std::string Xml(const std::string &raw) {
    const auto utf8 = nlohmann::json::parse(
        nlohmann::json(raw).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    const std::string &text = utf8.get_ref<const std::string &>();
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += (static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\t') ? '?' : c;
        }
    }
    return out;
}

struct Counts {
    size_t tests = 0, failures = 0, errors = 0, skipped = 0;
    double seconds = 0;

    void Add(const ScenarioResult &r) {
        ++tests;
        seconds += r.seconds;
        switch (r.verdict) {
            case Verdict::kFail:
                ++failures;
                break;
            case Verdict::kError:
            case Verdict::kCrash:
            case Verdict::kTimeout:
                ++errors;
                break;
            case Verdict::kPendingFail:
            case Verdict::kPendingPass:
                ++skipped;
                break;
            case Verdict::kPass:
                break;
        }
    }
    std::string Attributes(double time) const {
        std::ostringstream out;
        out << "tests=\"" << tests << "\" failures=\"" << failures << "\" errors=\"" << errors
            << "\" skipped=\"" << skipped << "\" time=\"" << std::fixed << std::setprecision(3)
            << time << "\"";
        return out.str();
    }
};

std::string Lines(const std::vector<std::string> &lines) {
    std::string out;
    for (const std::string &l : lines)
        out += Xml(l) + "\n";
    return out;
}

void WriteCase(std::ostream &out, const ScenarioResult &r) {
    const std::string stem = std::filesystem::path(r.file).stem().string();
    const std::string name = r.case_name.empty() ? stem : stem + " [" + r.case_name + "]";
    out << "    <testcase name=\"" << Xml(name) << "\" classname=\"" << Xml(r.folder)
        << "\" time=\"" << std::fixed << std::setprecision(3) << r.seconds << "\"";
    const std::string first = r.details.empty() ? VerdictName(r.verdict) : r.details.front();
    switch (r.verdict) {
        case Verdict::kPass:
            out << ">\n";
            break;
        case Verdict::kFail:
            out << ">\n      <failure message=\"" << r.details.size()
                << " expectation(s) differ\" type=\"FAIL\">" << Lines(r.details) << "</failure>\n";
            break;
        case Verdict::kError:
        case Verdict::kCrash:
        case Verdict::kTimeout:
            out << ">\n      <error message=\"" << Xml(first) << "\" type=\""
                << VerdictName(r.verdict) << "\">" << Lines(r.details) << "</error>\n";
            break;
        case Verdict::kPendingFail:
        case Verdict::kPendingPass:
            out << ">\n      <skipped message=\"" << VerdictName(r.verdict) << "\">"
                << Lines(r.details) << "</skipped>\n";
            break;
    }
    out << "      <system-out>" << Xml(r.name) << "\nresult: " << Xml(r.result)
        << "</system-out>\n    </testcase>\n";
}

}  // namespace

void WriteJunit(std::ostream &out, const std::vector<ScenarioResult> &results, double seconds) {
    std::map<std::string, std::vector<const ScenarioResult *>> folders;
    Counts all;
    for (const ScenarioResult &r : results) {
        folders[r.folder].push_back(&r);
        all.Add(r);
    }
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        << "<testsuites name=\"velk-term\" " << all.Attributes(seconds) << ">\n";
    for (const auto &[folder, cases] : folders) {
        Counts c;
        for (const ScenarioResult *r : cases)
            c.Add(*r);
        out << "  <testsuite name=\"" << Xml(folder) << "\" " << c.Attributes(c.seconds) << ">\n";
        for (const ScenarioResult *r : cases)
            WriteCase(out, *r);
        out << "  </testsuite>\n";
    }
    out << "</testsuites>\n";
}

}  // namespace velk::term
