// SPDX-License-Identifier: Apache-2.0
#include "velk/term/trace.hpp"

#include <algorithm>

namespace velk::term {

TraceEvent &Trace::Add(TraceEvent::Type type, int entry) {
    TraceEvent &e = events_.emplace_back();
    e.type = type;
    e.entry = entry;
    e.time = e.done = TraceClock::now();
    return e;
}

void Trace::Apdu(int entry, std::string name, Bytes command, Bytes response, std::string error,
                 TraceClock::time_point sent) {
    TraceEvent &e = Add(TraceEvent::Type::kApdu, entry);
    if (sent != TraceClock::time_point{}) e.time = sent;
    e.first = std::move(command);
    e.second = std::move(response);
    e.text = error.empty() ? std::move(name) : std::move(name) + ": " + error;
}

size_t Trace::Callback(int entry, uint8_t command, Bytes request) {
    TraceEvent &e = Add(TraceEvent::Type::kCallback, entry);
    e.code = command;
    e.first = std::move(request);
    return events_.size() - 1;
}

void Trace::Answer(size_t callback, Bytes reply, uint32_t status) {
    TraceEvent &e = events_.at(callback);
    e.second = std::move(reply);
    e.status = status;
    e.done = TraceClock::now();
}

void Trace::Signal(int entry, uint8_t type, Bytes data, std::string why) {
    TraceEvent &e = Add(TraceEvent::Type::kSignal, entry);
    e.code = type;
    e.first = std::move(data);
    e.text = std::move(why);
}

void Trace::Display(int entry, Bytes uird) {
    Add(TraceEvent::Type::kDisplay, entry).first = std::move(uird);
}

void Trace::Note(int entry, std::string text) {
    Add(TraceEvent::Type::kNote, entry).text = std::move(text);
}

void Trace::PowerOff(int entry, std::string why) {
    Add(TraceEvent::Type::kPowerOff, entry).text = std::move(why);
}

void Trace::MergeKernelLines(
    const std::vector<std::pair<TraceClock::time_point, std::string>> &lines) {
    std::vector<TraceEvent> merged;
    merged.reserve(events_.size() + lines.size());
    auto line = lines.begin();
    int entry = 0;
    const auto take = [&] {
        TraceEvent &k = merged.emplace_back();
        k.type = TraceEvent::Type::kKernel;
        k.entry = entry;
        k.time = k.done = line->first;
        k.text = line->second;
        ++line;
    };
    for (TraceEvent &e : events_) {
        while (line != lines.end() && line->first < e.time)
            take();
        entry = e.entry;
        merged.push_back(std::move(e));
    }
    while (line != lines.end())
        take();
    events_ = std::move(merged);
}

}  // namespace velk::term
