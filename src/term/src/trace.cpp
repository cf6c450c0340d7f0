#include "velk/term/trace.hpp"

namespace velk::term {

void Trace::Apdu(int entry, std::string name, Bytes command, Bytes response, std::string error) {
    events_.push_back({TraceEvent::Type::kApdu, entry, 0, std::move(command), std::move(response),
                       0, error.empty() ? std::move(name) : std::move(name) + ": " + error});
}

void Trace::Callback(int entry, uint8_t command, Bytes request, Bytes reply, uint32_t status) {
    events_.push_back({TraceEvent::Type::kCallback,
                       entry,
                       command,
                       std::move(request),
                       std::move(reply),
                       status,
                       {}});
}

void Trace::Signal(int entry, uint8_t type, Bytes data, std::string why) {
    events_.push_back(
        {TraceEvent::Type::kSignal, entry, type, std::move(data), {}, 0, std::move(why)});
}

void Trace::Display(int entry, Bytes uird) {
    events_.push_back({TraceEvent::Type::kDisplay, entry, 0, std::move(uird), {}, 0, {}});
}

void Trace::Note(int entry, std::string text) {
    events_.push_back({TraceEvent::Type::kNote, entry, 0, {}, {}, 0, std::move(text)});
}

}  // namespace velk::term
