// SPDX-License-Identifier: Apache-2.0
#include "velk/term/scenario.hpp"

#include <fnmatch.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <variant>

#include "velk/card/virtual_card.hpp"
#include "velk/term/outputs.hpp"
#include "velk/term/profiles.hpp"
#include "velk/term/report.hpp"

namespace velk::term {

using velk::card::Field;
using velk::card::Json;

uint8_t ParseTransactionType(const std::string &name, const TerminalProfile &terminal) {
    static const std::pair<const char *, uint8_t> kNames[] = {
        {"purchase", 0x00}, {"cash", 0x01},      {"cashback", 0x09},
        {"refund", 0x20},   {"retrieval", 0x78}, {"update", 0x79}};
    for (const auto &[n, v] : kNames)
        if (name == n) return v;
    if (name == "auth") {
        if (const auto t = terminal.AuthenticationType()) return *t;
        throw std::invalid_argument(
            "transaction type 'auth': the terminal lists no type of "
            "application authentication (9F9309)");
    }
    Bytes b;
    try {
        b = velk::host::FromHex(name);
    } catch (const std::invalid_argument &) {
    }
    if (b.size() != 1)
        throw std::invalid_argument("transaction type '" + name +
                                    "': expected purchase, cash, cashback, refund, retrieval, "
                                    "update, auth or two hex digits");
    return b[0];
}

namespace {

// A scenario names its card and terminal by file (relative to the scenario)
// or by a bundled profile's name, so that a scenario copied elsewhere still
// runs against the bundled profiles.
std::filesystem::path ProfileOf(const Field &f, const std::string &kind) {
    std::error_code ec;
    // Anything there by that name is the file meant (the loader refuses a
    // folder or a FIFO); only a name that is no file may be a bundled one.
    if (const auto file = f.FilePath(); std::filesystem::exists(file, ec)) return file;
    try {
        return ResolveProfile(f.String(), kind);
    } catch (const velk::card::ProfileError &e) {
        f.Fail(e.what());
    }
}

// "card": "name" or {"profile": "name", "patch": {...}, "responses": [...]}.
void LoadCard(const Field &card, Scenario &s) {
    if (card.IsString()) {
        s.card = ProfileOf(card, "cards");
        return;
    }
    card.OnlyKeys({"profile", "patch", "responses"});
    s.card = ProfileOf(card["profile"], "cards");
    if (auto p = card.Optional("patch")) {
        if (!p->IsObject()) p->Fail("expected an object merged over the card profile");
        s.card_patch = p->Raw();
    }
    if (auto responses = card.Optional("responses"))
        for (const Field &r : responses->Elements()) {
            r.OnlyKeys({"command", "nth", "respond", "may_not_fire"});
            const std::string command = r["command"].String();
            const int64_t nth = r.Optional("nth") ? r["nth"].Int(1, 1000) : 1;
            const std::string respond = velk::host::ToHex(r["respond"].HexRange(0, 1024));
            const std::string text =
                "respond@" + command + "#" + std::to_string(nth) + ":" + respond;
            try {
                s.faults.push_back(velk::card::Fault::Parse(text));
            } catch (const std::invalid_argument &e) {
                r["command"].Fail(e.what());
            }
            if (auto m = r.Optional("may_not_fire"); m && m->Bool()) s.may_not_fire.push_back(text);
        }
}

void LoadTerminal(const std::optional<Field> &terminal, Scenario &s) {
    if (!terminal) {
        s.terminal = ResolveProfile("pos", "terminals");  // as pay
        return;
    }
    if (terminal->IsString()) {
        s.terminal = ProfileOf(*terminal, "terminals");
        return;
    }
    terminal->OnlyKeys({"profile", "patch"});
    s.terminal = ProfileOf((*terminal)["profile"], "terminals");
    if (auto p = terminal->Optional("patch")) {
        if (!p->IsObject()) p->Fail("expected an object merged over the terminal profile");
        s.terminal_patch = p->Raw();
    }
}

// "host": [{"command": "D5", "reply": "9F370411223344", "nth": 1}]
void LoadHostReplies(const Field &host, Scenario &s) {
    for (const Field &h : host.Elements()) {
        h.OnlyKeys({"command", "nth", "reply", "raw", "status", "signal", "may_not_fire"});
        HostReply r;
        r.command = h["command"].Hex(1)[0];
        if (auto n = h.Optional("nth")) r.nth = static_cast<int>(n->Int(0, 1000));
        if (auto d = h.Optional("reply")) r.data = d->HexRange(0, 4096);
        if (auto d = h.Optional("raw")) r.raw = d->HexRange(0, 4096);
        if (r.data && r.raw) h.Fail("give either reply (data objects) or raw (the whole reply)");
        if (auto st = h.Optional("status")) {
            const std::string text = st->String();
            char *end = nullptr;
            const unsigned long v = std::strtoul(text.c_str(), &end, 16);
            if (text.rfind("0x", 0) != 0 || end == nullptr || *end != '\0' || v > 0xFFFFFFFFul)
                st->Fail("expected a status in hex, e.g. \"0x3FF04\"");
            r.status = static_cast<uint32_t>(v);
        }
        if (auto sig = h.Optional("signal")) r.signal = sig->Hex(1)[0];
        if (!r.data && !r.raw && r.status == 0 && !r.signal)
            h.Fail("a given reply needs reply, raw, signal or a status other than 0");
        r.text = h.Raw().dump();
        if (auto m = h.Optional("may_not_fire"); m && m->Bool()) s.may_not_fire.push_back(r.text);
        s.host_replies.push_back(std::move(r));
    }
}

constexpr std::string_view kScenarioKeys[] = {
    "name",   "description", "card", "terminal", "amount", "other_amount",
    "type",   "date",        "time", "issuer",   "faults", "seed",
    "expect", "needs",       "host", "currency", "set"};

Scenario ParseScenario(const Field &root, const std::filesystem::path &path) {
    for (const auto &[key, value] : root.Members())
        if (std::find(std::begin(kScenarioKeys), std::end(kScenarioKeys), key) ==
            std::end(kScenarioKeys)) {
            std::string list;
            for (std::string_view k : kScenarioKeys)
                list += (list.empty() ? "" : ", ") + std::string(k);
            value.Fail("unknown field (a scenario has " + list + ", and cases)");
        }
    Scenario s;
    s.file = path;
    s.name = root["name"].String();
    LoadCard(root["card"], s);
    LoadTerminal(root.Optional("terminal"), s);
    if (auto a = root.Optional("amount")) s.amount = a->String();
    if (auto a = root.Optional("other_amount")) s.other_amount = a->String();
    if (auto t = root.Optional("type")) s.type = t->String();
    const auto checked = [](const Field &f, auto parse) {
        try {
            return parse(f.String());
        } catch (const std::invalid_argument &e) {
            f.Fail(e.what());
        }
    };
    if (auto d = root.Optional("date")) s.date = checked(*d, ParseDate);
    if (auto t = root.Optional("time")) s.time = checked(*t, ParseTime);
    if (auto c = root.Optional("currency")) s.currency = checked(*c, ParseCurrency);
    if (auto set = root.Optional("set"))
        for (const auto &member : set->Members()) {
            const std::string &tag = member.first;
            s.settings.push_back(checked(
                member.second, [&](const std::string &v) { return ParseSetting(tag + "=" + v); }));
        }
    if (auto i = root.Optional("issuer")) {
        i->OnlyKeys({"decision", "arpc", "scripts"});
        if (auto d = i->Optional("decision")) {
            try {
                s.issuer = IssuerConfig::FromDecision(d->String());
            } catch (const std::invalid_argument &e) {
                d->Fail(e.what());
            }
        }
        if (auto a = i->Optional("arpc")) s.issuer.send_arpc = a->Bool();
        if (auto scripts = i->Optional("scripts"))
            for (const Field &sc : scripts->Elements()) {
                const Bytes script = sc.HexRange(3, 256);
                if (!IsIssuerScript(script)) sc.Fail("expected one whole template 71 or 72");
                s.issuer.scripts.push_back(script);
            }
    }
    if (auto faults = root.Optional("faults"))
        for (const Field &f : faults->Elements()) {
            // "tear@gac2" or {"fault": "tear@gac2", "may_not_fire": true}
            const Field text = f.IsString() ? f : f["fault"];
            if (!f.IsString()) f.OnlyKeys({"fault", "may_not_fire"});
            try {
                s.faults.push_back(velk::card::Fault::Parse(text.String()));
            } catch (const std::invalid_argument &e) {
                text.Fail(e.what());
            }
            if (!f.IsString())
                if (auto m = f.Optional("may_not_fire"); m && m->Bool())
                    s.may_not_fire.push_back(text.String());
        }
    if (auto host = root.Optional("host")) LoadHostReplies(*host, s);
    if (auto seed = root.Optional("seed")) s.seed = static_cast<uint64_t>(seed->Int(0, INT64_MAX));
    const Field expect = root["expect"];
    CheckExpectationNames(expect);
    s.expect = expect.Raw();
    if (auto needs = root.Optional("needs"))
        for (const Field &n : needs->Elements()) {
            const std::string need = n.String();
            if (std::find(std::begin(kKnownNeeds), std::end(kKnownNeeds), need) ==
                std::end(kKnownNeeds)) {
                std::string list;
                for (const char *k : kKnownNeeds)
                    list += (list.empty() ? "" : ", ") + std::string(k);
                n.Fail("unknown need '" + need + "' (known: " + list + ")");
            }
            s.needs.push_back(need);
        }
    return s;
}

// A case's fields over its file's: objects member by member, anything else
// replaces. Unlike a merge patch, a null is kept, so that a case's patch of a
// profile can still delete a field of the profile.
void MergeCase(Json &into, const Json &over) {
    if (!into.is_object() || !over.is_object()) {
        into = over;
        return;
    }
    for (const auto &[key, value] : over.items())
        MergeCase(into[key], value);
}

}  // namespace

std::vector<Scenario> LoadScenarios(const std::filesystem::path &path) {
    const auto file = velk::card::LoadJsonFileWithBase(path, {"card", "terminal"});
    const Field root(file);
    if (!root.IsObject()) root.Fail("expected a scenario object");
    const auto cases = root.Optional("cases");
    if (!cases) return {ParseScenario(root, path)};
    // Each case is its file's fields with the case's merged over them (a JSON
    // merge patch), read as a scenario of its own; errors name the case.
    velk::card::Json defaults = root.Raw();
    defaults.erase("cases");
    std::vector<Scenario> out;
    const auto elements = cases->Elements();
    if (elements.empty()) cases->Fail("a file of cases holds at least one case");
    for (const Field &c : elements) {
        if (!c.IsObject() || !c.Has("name")) c.Fail("a case is an object with its name");
        velk::card::Json merged = defaults;
        MergeCase(merged, c.Raw());
        auto one = std::make_shared<velk::card::JsonFile>(velk::card::JsonFile{path, merged});
        const std::string case_name = c["name"].String();
        for (const Scenario &s : out)
            if (s.case_name == case_name) c["name"].Fail("another case has this name");
        try {
            Scenario s = ParseScenario(Field(one), path);
            s.case_name = case_name;
            if (auto d = c.Optional("description")) s.name = d->String();
            out.push_back(std::move(s));
        } catch (const velk::card::ProfileError &e) {
            c.Fail(std::string("case '") + case_name + "': " + e.what());
        }
    }
    return out;
}

Scenario LoadScenario(const std::filesystem::path &path) {
    return LoadScenarios(path).front();
}

bool IsPending(const Scenario &s, const PendingNeeds &pending) {
    return std::any_of(s.needs.begin(), s.needs.end(), [&](const std::string &n) {
        return std::find(pending.begin(), pending.end(), n) != pending.end();
    });
}

const char *VerdictName(Verdict v) {
    switch (v) {
        case Verdict::kPass:
            return "PASS";
        case Verdict::kFail:
            return "FAIL";
        case Verdict::kError:
            return "ERROR";
        case Verdict::kCrash:
            return "CRASH";
        case Verdict::kTimeout:
            return "TIMEOUT";
        case Verdict::kPendingFail:
            return "PENDING";
        case Verdict::kPendingPass:
            return "UNEXPECTED PASS";
    }
    return "?";
}

namespace {

// A profile with the scenario's patch merged over it, read as if the file
// said so (relative names still resolve against the profile's folder).
velk::card::Field Patched(const std::filesystem::path &profile, const Json &patch,
                          std::initializer_list<std::string_view> path_keys) {
    auto file = velk::card::LoadJsonFileWithBase(profile, path_keys);
    if (patch.is_null()) return Field(file);
    auto patched = std::make_shared<velk::card::JsonFile>(*file);
    patched->doc.merge_patch(patch);
    return Field(patched);
}

}  // namespace

ScenarioSetup SetUpScenario(const Scenario &s) {
    ScenarioSetup setup;
    TerminalProfile &terminal = setup.terminal;
    terminal = ParseTerminalProfile(
        Patched(s.terminal, s.terminal_patch, {"ca_keys", "exception_file", "revocation_list"}));
    if (s.currency) ApplyCurrency(terminal, *s.currency);
    for (const TerminalSetting &set : s.settings)
        ApplySetting(terminal, set);
    setup.card = velk::card::ParseCardProfile(Patched(s.card, s.card_patch, {}));
    PayOptions &options = setup.options;
    options.amount = s.amount;
    options.other_amount = s.other_amount;
    options.type = ParseTransactionType(s.type, terminal);
    options.date = s.date.empty() ? velk::host::FromHex(kFixedDate) : s.date;
    options.time = s.time.empty() ? velk::host::FromHex(kFixedTime) : s.time;
    options.issuer = s.issuer;
    options.faults = s.faults;
    options.host_replies = s.host_replies;
    options.seed = s.seed;
    options.card_wait = std::chrono::milliseconds(0);
    return setup;
}

ScenarioResult RunScenario(const std::filesystem::path &file, const std::string &lib,
                           const PendingNeeds &pending, size_t case_index,
                           const std::filesystem::path &capture) {
    ScenarioResult out;
    out.file = file.filename().string();
    try {
        const auto all = LoadScenarios(file);
        if (case_index >= all.size()) throw std::out_of_range("no such case in the file");
        const Scenario &s = all[case_index];
        out.name = s.name;
        out.case_name = s.case_name;
        const ScenarioSetup setup = SetUpScenario(s);
        velk::card::VirtualCard card(setup.card);
        const KernelLibrary kernel(lib);
        const TransactionReport report =
            RunTransaction(kernel.Api(), setup.terminal, card, setup.options, SecretsOf(card));
        out.result = report.result;
        out.report = ReportJson(report, true);
        if (!capture.empty()) WriteCapture(capture, report.trace);
        out.details = CheckExpectations(s.expect, report);
        // A fault that never fired tested nothing: the scenario is wrong
        // unless it says the fault may not fire.
        std::vector<std::string> unexpected;
        for (const auto *list : {&report.faults_not_fired, &report.replies_not_used})
            for (const std::string &f : *list) {
                out.not_fired.push_back(f);
                if (std::find(s.may_not_fire.begin(), s.may_not_fire.end(), f) ==
                    s.may_not_fire.end())
                    unexpected.push_back("never fired: " + f +
                                         " (\"may_not_fire\": true if that is expected)");
            }
        const bool passed = out.details.empty();
        const bool is_pending = IsPending(s, pending);
        out.verdict = !is_pending ? (passed ? Verdict::kPass : Verdict::kFail)
                                  : (passed ? Verdict::kPendingPass : Verdict::kPendingFail);
        if (!unexpected.empty() && !is_pending) {
            out.verdict = Verdict::kError;
            out.details.insert(out.details.begin(), unexpected.begin(), unexpected.end());
        }
        if (is_pending) {
            std::string needs;
            for (const std::string &n : s.needs)
                needs += (needs.empty() ? "" : ", ") + n;
            out.details.insert(out.details.begin(), "pending: needs " + needs);
        }
    } catch (const std::exception &e) {
        out.verdict = Verdict::kError;
        out.details = {e.what()};
    }
    return out;
}

namespace {

Json ResultJson(const ScenarioResult &r) {
    return {{"file", r.file},           {"case", r.case_name},
            {"name", r.name},           {"verdict", static_cast<int>(r.verdict)},
            {"result", r.result},       {"details", r.details},
            {"not_fired", r.not_fired}, {"report", r.report}};
}

ScenarioResult ResultFromJson(const Json &j) {
    ScenarioResult r;
    r.file = j.at("file").get<std::string>();
    r.case_name = j.at("case").get<std::string>();
    r.name = j.at("name").get<std::string>();
    r.verdict = static_cast<Verdict>(j.at("verdict").get<int>());
    r.result = j.at("result").get<std::string>();
    r.details = j.at("details").get<std::vector<std::string>>();
    r.report = j.at("report");
    r.not_fired = j.at("not_fired").get<std::vector<std::string>>();
    return r;
}

// One scenario to run: its file, its case, whether it is pending, its label.
struct Planned {
    std::filesystem::path file;
    size_t case_index = 0;
    bool pending = false;
    ScenarioResult label;  // file and case names
};

ScenarioResult RunInChild(const Planned &plan, const std::string &lib, std::chrono::seconds timeout,
                          const PendingNeeds &pending, const std::filesystem::path &capture) {
    ScenarioResult failed = plan.label;
    int fds[2];
    if (pipe(fds) != 0) {
        failed.details = {std::string("pipe: ") + std::strerror(errno)};
        return failed;
    }
    const pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        failed.details = {std::string("fork: ") + std::strerror(errno)};
        return failed;
    }
    if (pid == 0) {
        close(fds[0]);
        // A card's bytes (a language preference, say) need not be UTF-8.
        const std::string text =
            ResultJson(RunScenario(plan.file, lib, pending, plan.case_index, capture))
                .dump(-1, ' ', false, Json::error_handler_t::replace);
        size_t sent = 0;
        while (sent < text.size()) {
            const ssize_t w = write(fds[1], text.data() + sent, text.size() - sent);
            if (w <= 0) break;
            sent += static_cast<size_t>(w);
        }
        close(fds[1]);
        _exit(0);
    }
    close(fds[1]);
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool timed_out = false;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            timed_out = true;
            break;
        }
        pollfd p{fds[0], POLLIN, 0};
        const int ready = poll(&p, 1, static_cast<int>(std::min<long>(left.count(), 1000)));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) continue;
        char buf[4096];
        const ssize_t n = read(fds[0], buf, sizeof buf);
        if (n <= 0) break;
        text.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    if (timed_out) kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (timed_out) {
        failed.verdict = plan.pending ? Verdict::kPendingFail : Verdict::kTimeout;
        failed.details = {"no result within " + std::to_string(timeout.count()) + " s (killed)"};
        return failed;
    }
    if (WIFSIGNALED(status) || text.empty()) {
        failed.verdict = plan.pending ? Verdict::kPendingFail : Verdict::kCrash;
        failed.details = {WIFSIGNALED(status)
                              ? std::string("killed by signal ") + strsignal(WTERMSIG(status))
                              : "exited with status " + std::to_string(WEXITSTATUS(status)) +
                                    " without a result"};
        return failed;
    }
    try {
        return ResultFromJson(Json::parse(text));
    } catch (const std::exception &e) {
        failed.details = {std::string("unreadable result from the child: ") + e.what()};
        return failed;
    }
}

bool Matches(const std::string &label, const std::string &filter) {
    return filter.empty() || fnmatch(filter.c_str(), label.c_str(), 0) == 0 ||
           label.find(filter) != std::string::npos;
}

ScenarioResult RunError(const std::string &file, const std::string &what) {
    ScenarioResult r;
    r.file = file;
    r.details = {what};
    return r;
}

}  // namespace

std::vector<ScenarioResult> RunScenarios(const std::filesystem::path &path, const std::string &lib,
                                         std::chrono::seconds timeout, const PendingNeeds &pending,
                                         const std::string &filter, const RunOutputs &outputs) {
    std::vector<std::filesystem::path> files;
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) {
        // A broken link in the folder is passed over; a folder that cannot be
        // listed is the caller's error.
        for (std::filesystem::directory_iterator it(path, ec), end; !ec && it != end;
             it.increment(ec))
            if (std::error_code type;
                it->is_regular_file(type) && it->path().extension() == ".json")
                files.push_back(it->path());
        if (ec)
            throw velk::card::ProfileError(path.string() +
                                           ": cannot list the folder: " + ec.message());
        std::sort(files.begin(), files.end());
        if (files.empty()) return {RunError(path.string(), "no scenario file (*.json) here")};
    } else if (std::filesystem::is_regular_file(path, ec)) {
        files.push_back(path);
    } else if (std::filesystem::exists(path, ec)) {
        return {RunError(path.string(), "not a scenario file (a regular file) or a folder")};
    } else {
        return {RunError(path.string(), "no such scenario file or folder")};
    }
    // Each case of each file, in file order; a broken file is one ERROR row,
    // found without starting a child.
    std::vector<std::variant<Planned, ScenarioResult>> plan;
    for (const auto &f : files) {
        std::vector<Scenario> scenarios;
        try {
            scenarios = LoadScenarios(f);
        } catch (const std::exception &e) {
            if (Matches(f.filename().string(), filter))
                plan.emplace_back(RunError(f.filename().string(), e.what()));
            continue;
        }
        for (size_t i = 0; i < scenarios.size(); ++i) {
            Planned p{f, i, IsPending(scenarios[i], pending), {}};
            p.label.file = f.filename().string();
            p.label.case_name = scenarios[i].case_name;
            p.label.name = scenarios[i].name;
            if (Matches(p.label.Label(), filter)) plan.emplace_back(std::move(p));
        }
    }
    if (plan.empty())
        return {RunError(path.string(), "the filter '" + filter + "' matches no scenario")};
    std::vector<ScenarioResult> results;
    for (const auto &step : plan) {
        const auto start = std::chrono::steady_clock::now();
        const auto *p = std::get_if<Planned>(&step);
        std::filesystem::path capture;
        if (p && !outputs.capture_dir.empty())
            capture = outputs.capture_dir /
                      (p->file.stem().string() +
                       (p->label.case_name.empty() ? "" : "-" + p->label.case_name) + ".pcap");
        ScenarioResult &r = results.emplace_back(p ? RunInChild(*p, lib, timeout, pending, capture)
                                                   : std::get<ScenarioResult>(step));
        r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const auto file = p ? p->file : std::filesystem::path(path);
        r.folder = std::filesystem::absolute(file).parent_path().filename().string();
        if (outputs.on_result) outputs.on_result(r, results.size(), plan.size());
    }
    return results;
}

std::vector<ScenarioResult> RunScenarioFolder(const std::filesystem::path &dir,
                                              const std::string &lib, std::chrono::seconds timeout,
                                              const PendingNeeds &pending,
                                              const RunOutputs &outputs) {
    return RunScenarios(dir, lib, timeout, pending, {}, outputs);
}

bool AllPassed(const std::vector<ScenarioResult> &results) {
    return !results.empty() &&
           std::all_of(results.begin(), results.end(), [](const ScenarioResult &r) {
               return r.verdict == Verdict::kPass || r.verdict == Verdict::kPendingFail ||
                      r.verdict == Verdict::kPendingPass;
           });
}

}  // namespace velk::term
