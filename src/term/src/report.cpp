// SPDX-License-Identifier: Apache-2.0
#include "velk/term/report.hpp"

#include <iomanip>

#include "velk/term/kernel.hpp"

namespace velk::term {

using velk::host::ToHex;
using Json = nlohmann::ordered_json;

namespace {

std::string Hex(ByteView b) {
    return ToHex(b, true);
}

std::string Date(const Bytes &d) {
    const std::string s = ToHex(d);
    return s.size() == 6 ? "20" + s.substr(0, 2) + "-" + s.substr(2, 2) + "-" + s.substr(4, 2) : s;
}

std::string Time(const Bytes &t) {
    const std::string s = ToHex(t);
    return s.size() == 6 ? s.substr(0, 2) + ":" + s.substr(2, 2) + ":" + s.substr(4, 2) : s;
}

std::string Capitalised(std::string s) {
    if (!s.empty() && s[0] >= 'a' && s[0] <= 'z') s[0] = static_cast<char>(s[0] - 'a' + 'A');
    return s;
}

std::string Join(const std::vector<std::string> &parts, const char *sep) {
    std::string out;
    for (const std::string &p : parts)
        out += (out.empty() ? "" : sep) + p;
    return out;
}

void Field(std::ostream &out, const std::string &name, const std::string &value) {
    out << "  " << std::left << std::setw(18) << name << value << "\n";
}

void PrintBlock(std::ostream &out, const char *title, ByteView value) {
    if (value.empty()) return;
    out << "  " << title << "\n";
    for (const std::string &line : DecodeLines(value, 2))
        out << line << "\n";
}

void PrintOutcome(std::ostream &out, const OutcomeParameters &o, const std::optional<UiRequest> &ui,
                  const std::optional<UiRequest> &ui_restart) {
    Field(out, "Outcome", OutcomeStatusName(o.status));
    Field(out, "Start", StartName(o.start));
    Field(out, "Online response", OnlineResponseName(o.online_response));
    Field(out, "CVM", OutcomeCvmName(o.cvm));
    const auto present = PresenceWords(o.presence);
    Field(out, "Present", present.empty() ? "nothing" : Join(present, ", "));
    Field(out, "Alt. interface", AlternateInterfaceName(o.alternate_interface));
    Field(out, "Field off", FieldOffName(o.field_off));
    Field(out, "Removal time-out", std::to_string(o.removal_timeout));
    if (ui) Field(out, "Message", DescribeUiRequest(*ui));
    if (ui_restart) Field(out, "Restart message", DescribeUiRequest(*ui_restart));
}

void PrintEntry(std::ostream &out, const KernelEntry &e) {
    out << "\nEntry " << e.number << ": " << e.purpose << " (kernel status "
        << KernelStatusText(e.status) << ")\n";
    if (!e.error.empty()) {
        out << "  " << e.error << "\n";
        return;
    }
    PrintOutcome(out, *e.outcome, e.ui, e.ui_restart);
    PrintBlock(out, "Data record (FF8105)", e.data_record);
    PrintBlock(out, "Discretionary data (FF8106)", e.discretionary);
}

Json OutcomeJson(const OutcomeParameters &o) {
    return {{"status", OutcomeStatusName(o.status)},
            {"status_code", o.status},
            {"start", StartName(o.start)},
            {"online_response", OnlineResponseName(o.online_response)},
            {"cvm", OutcomeCvmName(o.cvm)},
            {"cvm_code", o.cvm},
            {"present", PresenceWords(o.presence)},
            {"alternate_interface", AlternateInterfaceName(o.alternate_interface)},
            {"field_off", FieldOffName(o.field_off)},
            {"removal_timeout", o.removal_timeout}};
}

Json UiJson(const UiRequest &ui) {
    Json j{{"message", MessageName(ui.message)},
           {"message_id", ui.message},
           {"status", UiStatusName(ui.status)},
           {"hold_time_ms", ui.hold_time * 100}};
    if (!ui.language.empty()) j["language"] = ui.language;
    if (ui.value_qualifier != 0) {
        j["value_qualifier"] = ui.value_qualifier;
        j["value"] = ToHex(ui.value);
        j["currency"] = ToHex(ui.currency);
    }
    return j;
}

}  // namespace

std::string CallbackName(uint8_t command) {
    static const std::pair<uint8_t, const char *> kNames[] = {{0xA2, "store online context"},
                                                              {0xA3, "fetch online context"},
                                                              {0xD1, "terminal parameters"},
                                                              {0xD3, "application parameters"},
                                                              {0xD4, "CA public key"},
                                                              {0xD5, "unpredictable number"},
                                                              {0xD6, "card activation"},
                                                              {0xD7, "display"},
                                                              {0xDF, "card power-off"},
                                                              {0xE6, "exception file"},
                                                              {0xE9, "certificate revocation"},
                                                              {0xF1, "APDU"},
                                                              {0xFE, "restart"}};
    for (const auto &[c, n] : kNames)
        if (c == command) return ToHex(Bytes{command}) + " " + n;
    return ToHex(Bytes{command}) + " unknown command";
}

std::string SignalName(uint8_t type) {
    switch (type) {
        case kSignalFci:
            return "A0 SELECT response";
        case kSignalStop:
            return "A1 stop";
        case kSignalResponse:
            return "A4 response";
        case kSignalCommError:
            return "A5 communication error";
        case kSignalNoCard:
            return "A6 communication error";
        default:
            return ToHex(Bytes{type}) + " signal";
    }
}

void PrintTrace(std::ostream &out, const Trace &trace) {
    for (const TraceEvent &e : trace.Events()) {
        // Appended, not "[" + ...: GCC 12 sees a false overlap (-Wrestrict) there.
        const std::string at = std::string("[").append(std::to_string(e.entry)).append("] ");
        switch (e.type) {
            case TraceEvent::Type::kApdu: {
                out << at << "C-APDU " << Hex(e.first) << "  (" << e.text << ")\n";
                if (e.second.empty()) {
                    out << "    no response\n";
                    break;
                }
                const auto data = velk::card::ResponseData(e.second);
                const uint16_t sw = velk::card::StatusWord(e.second);
                out << "    R-APDU " << Hex(e.second) << "\n";
                out << "    SW "
                    << Hex(Bytes{static_cast<uint8_t>(sw >> 8), static_cast<uint8_t>(sw)}) << "\n";
                for (const std::string &line : DecodeLines(data, 2))
                    out << line << "\n";
                break;
            }
            case TraceEvent::Type::kCallback:
                out << at << "callback " << CallbackName(e.code);
                if (e.status != 0) out << " -> failed, " << KernelStatusText(e.status);
                out << "\n";
                if (e.code != 0xF1) {
                    out << "    request " << Hex(e.first) << "\n";
                    if (!e.second.empty()) out << "    reply   " << Hex(e.second) << "\n";
                }
                break;
            case TraceEvent::Type::kSignal:
                out << at << "signal " << SignalName(e.code) << " (" << e.text << ")"
                    << (e.first.empty() ? "" : ": " + Hex(e.first)) << "\n";
                break;
            case TraceEvent::Type::kDisplay: {
                const auto ui = ParseUiRequest(e.first);
                out << at << "display " << (ui ? DescribeUiRequest(*ui) : Hex(e.first)) << "\n";
                break;
            }
            case TraceEvent::Type::kNote:
                out << at << e.text << "\n";
                break;
            case TraceEvent::Type::kPowerOff:
                out << at << "card power-off (" << e.text << ")\n";
                break;
            case TraceEvent::Type::kKernel:
                out << at << "kernel: " << e.text
                    << (e.text.empty() || e.text.back() != '\n' ? "\n" : "");
                break;
        }
    }
}

Json TraceJson(const Trace &trace) {
    Json events = Json::array();
    const auto start = trace.Events().empty() ? TraceClock::time_point{} : trace.Events()[0].time;
    const auto ms = [&](TraceClock::time_point t) {
        return std::chrono::duration<double, std::milli>(t - start).count();
    };
    for (const TraceEvent &e : trace.Events()) {
        Json j{{"entry", e.entry}, {"ms", ms(e.time)}};
        switch (e.type) {
            case TraceEvent::Type::kApdu: {
                j["type"] = "apdu";
                j["command"] = ToHex(e.first);
                j["name"] = e.text;
                j["response_ms"] = ms(e.done);
                // Of the commands' data only GET PROCESSING OPTIONS' is TLV (83).
                if (velk::card::Classify(e.first) == velk::card::CommandKind::kGpo) try {
                        j["command_decoded"] = DecodeJson(velk::card::ParseCommand(e.first).data);
                    } catch (const std::invalid_argument &) {
                    }
                if (!e.second.empty()) {
                    j["response"] = ToHex(e.second);
                    const auto data = velk::card::ResponseData(e.second);
                    j["decoded"] = DecodeJson(data);
                }
                break;
            }
            case TraceEvent::Type::kCallback:
                j["type"] = "callback";
                j["command"] = CallbackName(e.code);
                j["request"] = ToHex(e.first);
                j["reply"] = ToHex(e.second);
                j["status"] = e.status;
                j["reply_ms"] = ms(e.done);
                if (e.code != 0xF1) {  // an APDU's is shown with the APDU
                    j["request_decoded"] = DecodeJson(e.first);
                    if (!e.second.empty()) j["reply_decoded"] = DecodeJson(e.second);
                }
                break;
            case TraceEvent::Type::kSignal:
                j["type"] = "signal";
                j["signal"] = SignalName(e.code);
                j["data"] = ToHex(e.first);
                j["why"] = e.text;
                break;
            case TraceEvent::Type::kDisplay:
                j["type"] = "display";
                if (const auto ui = ParseUiRequest(e.first)) j["ui"] = UiJson(*ui);
                j["uird"] = ToHex(e.first);
                break;
            case TraceEvent::Type::kNote:
                j["type"] = "note";
                j["text"] = e.text;
                break;
            case TraceEvent::Type::kPowerOff:
                j["type"] = "power-off";
                j["why"] = e.text;
                break;
            case TraceEvent::Type::kKernel:
                j["type"] = "kernel";
                j["text"] = e.text;
                break;
        }
        events.push_back(std::move(j));
    }
    return events;
}

void PrintReport(std::ostream &out, const TransactionReport &r, bool with_trace) {
    out << "Card      " << r.card << "\n";
    out << "Terminal  " << r.terminal << "\n";
    out << "Kernel    " << r.kernel << "\n";
    out << Capitalised(TransactionTypeName(r.type)) << " " << r.amount << " " << r.currency << ", "
        << Date(r.date) << " " << Time(r.time) << "\n";
    out << "\nApplication selection\n";
    for (const std::string &s : r.selection)
        out << "  " << s << "\n";
    if (r.entry_point_outcome) {
        out << "\nEntry point (the kernel did not run)\n";
        PrintOutcome(out, *r.entry_point_outcome, r.entry_point_ui, std::nullopt);
    }
    for (const KernelEntry &e : r.entries)
        PrintEntry(out, e);
    if (r.issuer) {
        out << "\nIssuer (" << r.online_flow << ")\n";
        Field(out, "Response code",
              std::string("\"").append(r.issuer->arc.begin(), r.issuer->arc.end()).append("\""));
        Field(out, "ARQC", r.issuer->arqc_check);
        if (!r.issuer->authentication_data.empty())
            Field(out, "Auth. data (91)", Hex(r.issuer->authentication_data));
        if (!r.issuer->scripts.empty()) PrintBlock(out, "Scripts", r.issuer->scripts);
    }
    bool shown = false;
    for (const TraceEvent &e : r.trace.Events()) {
        if (e.type != TraceEvent::Type::kDisplay) continue;
        if (!shown) out << "\nMessages shown\n";
        shown = true;
        const auto ui = ParseUiRequest(e.first);
        out << "  [" << e.entry << "] " << (ui ? DescribeUiRequest(*ui) : Hex(e.first)) << "\n";
    }
    out << "\nResult: " << r.result << "\n";
    for (const std::string &w : r.why)
        out << "  - " << w << "\n";
    if (with_trace) {
        out << "\nTrace\n";
        PrintTrace(out, r.trace);
    }
}

Json ReportJson(const TransactionReport &r, bool with_trace) {
    Json j;
    j["card"] = r.card;
    j["terminal"] = r.terminal;
    j["kernel"] = r.kernel;
    j["transaction"] = {{"type", TransactionTypeName(r.type)},
                        {"type_code", r.type},
                        {"amount", r.amount},
                        {"currency", r.currency},
                        {"date", Date(r.date)},
                        {"time", Time(r.time)}};
    j["selection"] = r.selection;
    if (r.aid) j["aid"] = ToHex(*r.aid);
    j["label"] = r.label;
    if (r.entry_point_outcome) {
        j["entry_point"] = {{"outcome", OutcomeJson(*r.entry_point_outcome)},
                            {"ui", UiJson(*r.entry_point_ui)},
                            {"reason", r.entry_point_reason}};
    }
    Json entries = Json::array();
    for (const KernelEntry &e : r.entries) {
        Json x{{"number", e.number},
               {"purpose", e.purpose},
               {"input", ToHex(e.input)},
               {"status", e.status},
               {"status_text", KernelStatusText(e.status)},
               {"output", ToHex(e.output)}};
        if (!e.error.empty()) x["error"] = e.error;
        if (e.outcome) x["outcome"] = OutcomeJson(*e.outcome);
        if (e.ui) x["ui"] = UiJson(*e.ui);
        if (e.ui_restart) x["ui_restart"] = UiJson(*e.ui_restart);
        if (!e.data_record.empty()) x["data_record"] = DecodeJson(e.data_record);
        if (!e.discretionary.empty()) x["discretionary_data"] = DecodeJson(e.discretionary);
        entries.push_back(std::move(x));
    }
    j["entries"] = entries;
    if (r.issuer) {
        j["online"] = {{"flow", r.online_flow},
                       {"response_code", std::string(r.issuer->arc.begin(), r.issuer->arc.end())},
                       {"arqc", r.issuer->arqc_check},
                       {"authentication_data", ToHex(r.issuer->authentication_data)},
                       {"scripts", ToHex(r.issuer->scripts)}};
    }
    Json displays = Json::array();
    for (const TraceEvent &e : r.trace.Events())
        if (e.type == TraceEvent::Type::kDisplay)
            if (const auto ui = ParseUiRequest(e.first)) displays.push_back(UiJson(*ui));
    j["messages"] = displays;
    j["faults_fired"] = r.faults_fired;
    j["faults_not_fired"] = r.faults_not_fired;
    j["host_errors"] = r.host_errors;
    j["restarts"] = r.restarts;
    j["completed"] = r.completed;
    j["result"] = r.result;
    j["why"] = r.why;
    if (with_trace) j["trace"] = TraceJson(r.trace);
    return j;
}

}  // namespace velk::term
