// SPDX-License-Identifier: Apache-2.0
// What happened between the kernel, the host and the card, in order: APDUs,
// callback messages, signals, display requests, the host's own notes and the
// kernel's trace lines, each with the time it happened.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "velk/host/tlv.hpp"

namespace velk::term {

using Bytes = velk::host::Bytes;
using TraceClock = std::chrono::system_clock;

struct TraceEvent {
    enum class Type { kApdu, kCallback, kSignal, kDisplay, kNote, kKernel, kPowerOff };
    Type type = Type::kNote;
    int entry = 0;     // 0: entry point before the kernel; 1, 2: kernel entries
    uint8_t code = 0;  // callback command, signal type
    Bytes first;       // APDU: command; callback: request; signal: data; display: UIRD
    Bytes second;      // APDU: response; callback: reply
    uint32_t status = 0;
    std::string text;  // APDU: name or card error; note, kernel: the line; power-off: why
    TraceClock::time_point time;  // APDU: the command sent; callback: the request
    TraceClock::time_point done;  // APDU: the response; callback: the reply
};

class Trace {
public:
    // sent: when the command went to the card (default: now, with the response).
    void Apdu(int entry, std::string name, Bytes command, Bytes response, std::string error = {},
              TraceClock::time_point sent = {});
    // A callback is recorded when the kernel asks, so that what its handler
    // does comes after it; Answer adds the reply.
    size_t Callback(int entry, uint8_t command, Bytes request);
    void Answer(size_t callback, Bytes reply, uint32_t status);
    void Signal(int entry, uint8_t type, Bytes data, std::string why);
    void Display(int entry, Bytes uird);
    void Note(int entry, std::string text);
    // The host powers the card off (the reader's field goes off).
    void PowerOff(int entry, std::string why);
    // The kernel's own trace lines, collected apart with their times, go in
    // among the events where they happened.
    void MergeKernelLines(const std::vector<std::pair<TraceClock::time_point, std::string>> &lines);

    const std::vector<TraceEvent> &Events() const { return events_; }

private:
    TraceEvent &Add(TraceEvent::Type type, int entry);
    std::vector<TraceEvent> events_;
};

}  // namespace velk::term
