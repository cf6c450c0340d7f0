#include "velk/term/scenario.hpp"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iomanip>

#include "velk/card/virtual_card.hpp"
#include "velk/term/profiles.hpp"

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

}  // namespace

Scenario LoadScenario(const std::filesystem::path &path) {
    const Field root(velk::card::LoadJsonFileWithBase(path, {"card", "terminal"}));
    root.OnlyKeys({"name", "description", "card", "terminal", "amount", "other_amount", "type",
                   "date", "time", "issuer", "faults", "seed", "expect", "needs"});
    Scenario s;
    s.file = path;
    s.name = root["name"].String();
    s.card = ProfileOf(root["card"], "cards");
    s.terminal = ProfileOf(root["terminal"], "terminals");
    if (auto a = root.Optional("amount")) s.amount = a->String();
    if (auto a = root.Optional("other_amount")) s.other_amount = a->String();
    if (auto t = root.Optional("type")) s.type = t->String();
    if (auto d = root.Optional("date")) s.date = d->Hex(3);
    if (auto t = root.Optional("time")) s.time = t->Hex(3);
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
            try {
                s.faults.push_back(velk::card::Fault::Parse(f.String()));
            } catch (const std::invalid_argument &e) {
                f.Fail(e.what());
            }
        }
    if (auto seed = root.Optional("seed")) s.seed = static_cast<uint64_t>(seed->Int(0, INT64_MAX));
    const Field expect = root["expect"];
    expect.OnlyKeys({"result", "outcome", "outcomes", "start", "cvm", "message", "online",
                     "kernel_status", "restarts", "selected", "data_record", "discretionary",
                     "completed"});
    s.expect = expect.Raw();
    if (auto needs = root.Optional("needs"))
        for (const Field &n : needs->Elements())
            s.needs.push_back(n.String());
    return s;
}

bool IsPending(const Scenario &s, const PendingNeeds &pending) {
    return std::any_of(s.needs.begin(), s.needs.end(), [&](const std::string &n) {
        return std::find(pending.begin(), pending.end(), n) != pending.end();
    });
}

namespace {

std::string Text(const Json &v) {
    return v.is_string() ? v.get<std::string>()
                         : v.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void Compare(std::vector<std::string> &out, const std::string &field, const Json &expected,
             const Json &actual) {
    if (expected != actual)
        out.push_back(field + ": expected " + Text(expected) + ", got " + Text(actual));
}

}  // namespace

std::vector<std::string> CheckExpectations(const Json &expect, const TransactionReport &r) {
    std::vector<std::string> out;
    const KernelEntry *last = r.entries.empty() ? nullptr : &r.entries.back();
    const OutcomeParameters *o = last && last->outcome ? &*last->outcome : nullptr;
    const auto field = [&](auto fn) -> Json { return o ? Json(fn(*o)) : Json("no outcome"); };
    for (const auto &[key, want] : expect.items()) {
        if (key == "result") {
            Compare(out, key, want, r.result);
        } else if (key == "completed") {
            Compare(out, key, want, r.completed);
        } else if (key == "outcome") {
            Compare(out, key, want,
                    field([](const auto &x) { return OutcomeStatusName(x.status); }));
        } else if (key == "outcomes") {
            Json all = Json::array();
            for (const KernelEntry &e : r.entries)
                all.push_back(e.outcome ? OutcomeStatusName(e.outcome->status) : "no outcome");
            Compare(out, key, want, all);
        } else if (key == "start") {
            Compare(out, key, want, field([](const auto &x) { return StartName(x.start); }));
        } else if (key == "cvm") {
            Compare(out, key, want, field([](const auto &x) { return OutcomeCvmName(x.cvm); }));
        } else if (key == "message") {
            Compare(out, key, want,
                    last && last->ui ? Json(MessageName(last->ui->message)) : Json("no message"));
        } else if (key == "online") {
            Compare(out, key, want, r.online_flow);
        } else if (key == "kernel_status") {
            char hex[16];
            std::snprintf(hex, sizeof hex, "0x%05X", last ? last->status : 0u);
            Compare(out, key, want, hex);
        } else if (key == "restarts") {
            Compare(out, key, want, r.restarts);
        } else if (key == "selected") {
            Compare(out, key, want, r.aid ? velk::host::ToHex(*r.aid) : "none");
        } else if (key == "data_record" || key == "discretionary") {
            std::vector<velk::host::TlvNode> nodes;
            try {
                if (last)
                    nodes = velk::card::ParseTlvData(key == "data_record" ? last->data_record
                                                                          : last->discretionary);
            } catch (const std::invalid_argument &) {
            }
            for (const auto &[tag_text, value] : want.items()) {
                const auto tag = velk::card::ParseTagText(tag_text);
                const auto *n = tag ? velk::host::Find(nodes, *tag) : nullptr;
                Compare(out, key + "." + tag_text, value,
                        n ? velk::host::ToHex(n->value) : "absent");
            }
        }
    }
    return out;
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

ScenarioResult RunScenario(const std::filesystem::path &file, const std::string &lib,
                           const PendingNeeds &pending) {
    ScenarioResult out;
    out.file = file.filename().string();
    try {
        const Scenario s = LoadScenario(file);
        out.name = s.name;
        const TerminalProfile terminal = LoadTerminalProfile(s.terminal);
        velk::card::VirtualCard card(velk::card::LoadCardProfile(s.card));
        PayOptions options;
        options.amount = s.amount;
        options.other_amount = s.other_amount;
        options.type = ParseTransactionType(s.type, terminal);
        options.date = s.date.empty() ? velk::host::FromHex("250615") : s.date;
        options.time = s.time.empty() ? velk::host::FromHex("120000") : s.time;
        options.issuer = s.issuer;
        options.faults = s.faults;
        options.seed = s.seed;
        options.card_wait = std::chrono::milliseconds(0);
        const KernelLibrary kernel(lib);
        const TransactionReport report =
            RunTransaction(kernel.Api(), terminal, card, options, SecretsOf(card));
        out.result = report.result;
        out.details = CheckExpectations(s.expect, report);
        const bool passed = out.details.empty();
        const bool is_pending = IsPending(s, pending);
        out.verdict = !is_pending ? (passed ? Verdict::kPass : Verdict::kFail)
                                  : (passed ? Verdict::kPendingPass : Verdict::kPendingFail);
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
    return {{"file", r.file},
            {"name", r.name},
            {"verdict", static_cast<int>(r.verdict)},
            {"result", r.result},
            {"details", r.details}};
}

ScenarioResult ResultFromJson(const Json &j) {
    ScenarioResult r;
    r.file = j.at("file").get<std::string>();
    r.name = j.at("name").get<std::string>();
    r.verdict = static_cast<Verdict>(j.at("verdict").get<int>());
    r.result = j.at("result").get<std::string>();
    r.details = j.at("details").get<std::vector<std::string>>();
    return r;
}

// Is the scenario pending in this run? Read without failing: a broken file
// is reported by the child.
bool Pending(const std::filesystem::path &file, const PendingNeeds &pending) {
    try {
        return IsPending(LoadScenario(file), pending);
    } catch (const std::exception &) {
        return false;
    }
}

ScenarioResult RunInChild(const std::filesystem::path &file, const std::string &lib,
                          std::chrono::seconds timeout, const PendingNeeds &pending) {
    ScenarioResult failed;
    failed.file = file.filename().string();
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
        const std::string text = ResultJson(RunScenario(file, lib, pending))
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
    const bool is_pending = Pending(file, pending);
    if (timed_out) {
        failed.verdict = is_pending ? Verdict::kPendingFail : Verdict::kTimeout;
        failed.details = {"no result within " + std::to_string(timeout.count()) + " s (killed)"};
        return failed;
    }
    if (WIFSIGNALED(status) || text.empty()) {
        failed.verdict = is_pending ? Verdict::kPendingFail : Verdict::kCrash;
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

}  // namespace

std::vector<ScenarioResult> RunScenarioFolder(const std::filesystem::path &dir,
                                              const std::string &lib, std::chrono::seconds timeout,
                                              const PendingNeeds &pending) {
    std::vector<std::filesystem::path> files;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
        if (std::error_code type; it->is_regular_file(type) && it->path().extension() == ".json")
            files.push_back(it->path());
    if (ec)
        throw velk::card::ProfileError(dir.string() + ": cannot list the folder: " + ec.message());
    std::sort(files.begin(), files.end());
    std::vector<ScenarioResult> results;
    for (const auto &f : files)
        results.push_back(RunInChild(f, lib, timeout, pending));
    return results;
}

void PrintScenarioTable(std::ostream &out, const std::vector<ScenarioResult> &results) {
    size_t width = 8;
    for (const ScenarioResult &r : results)
        width = std::max(width, r.file.size());
    out << std::left << std::setw(static_cast<int>(width) + 2) << "SCENARIO" << std::setw(17)
        << "VERDICT"
        << "RESULT\n";
    std::map<Verdict, int> counts;
    for (const ScenarioResult &r : results) {
        ++counts[r.verdict];
        out << std::left << std::setw(static_cast<int>(width) + 2) << r.file << std::setw(17)
            << VerdictName(r.verdict) << r.result << "\n";
        if (!r.name.empty() && r.verdict != Verdict::kPass) out << "    " << r.name << "\n";
        if (r.verdict != Verdict::kPass)
            for (const std::string &d : r.details)
                out << "    - " << d << "\n";
    }
    out << "\n" << results.size() << " scenario(s):";
    for (const auto &[v, n] : counts)
        out << " " << n << " " << VerdictName(v);
    out << "\n";
}

bool AllPassed(const std::vector<ScenarioResult> &results) {
    return std::all_of(results.begin(), results.end(), [](const ScenarioResult &r) {
        return r.verdict == Verdict::kPass || r.verdict == Verdict::kPendingFail ||
               r.verdict == Verdict::kPendingPass;
    });
}

}  // namespace velk::term
