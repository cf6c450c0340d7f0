// What happened between the kernel, the host and the card, in order: APDUs,
// callback messages, signals, display requests and the host's own notes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "velk/host/tlv.hpp"

namespace velk::term {

using Bytes = velk::host::Bytes;

struct TraceEvent {
    enum class Type { kApdu, kCallback, kSignal, kDisplay, kNote };
    Type type = Type::kNote;
    int entry = 0;     // 0: entry point before the kernel; 1, 2: kernel entries
    uint8_t code = 0;  // callback command, signal type
    Bytes first;       // APDU: command; callback: request; signal: data; display: UIRD
    Bytes second;      // APDU: response; callback: reply
    uint32_t status = 0;
    std::string text;  // APDU: command name or card error; note: the note
};

class Trace {
public:
    void Apdu(int entry, std::string name, Bytes command, Bytes response, std::string error = {});
    void Callback(int entry, uint8_t command, Bytes request, Bytes reply, uint32_t status);
    void Signal(int entry, uint8_t type, Bytes data, std::string why);
    void Display(int entry, Bytes uird);
    void Note(int entry, std::string text);

    const std::vector<TraceEvent> &Events() const { return events_; }

private:
    std::vector<TraceEvent> events_;
};

}  // namespace velk::term
