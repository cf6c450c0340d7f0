// A small host for tests of single processing steps: it answers the card
// exchanges (F1) from a queue of scripted answers and records every command,
// gives unpredictable numbers (D5), answers the exception file check (E6) and
// records display requests (D7). Whole transactions use the scripted host.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "velk/host/tlv.hpp"

namespace velk::test {

using host::Bytes;

class StepHost {
public:
    // Installs itself as the bound kernel's callback (one StepHost at a time).
    StepHost();
    ~StepHost();
    StepHost(const StepHost &) = delete;
    StepHost &operator=(const StepHost &) = delete;

    // The next card exchange is answered with this R-APDU.
    void Respond(const Bytes &rapdu);
    void Respond(std::string_view hex) { Respond(host::FromHex(hex)); }
    // The next card exchange fails: the host posts this signal (A1, A5, A6)
    // instead of an answer.
    void Signal(uint8_t type);

    // Commands received, in order.
    std::vector<Bytes> apdus;
    // Command codes (DF00) of every callback message, in order.
    std::vector<uint8_t> commands;
    // Payloads of the messages: the whole request as the kernel sent it.
    std::vector<Bytes> requests;
    // The one byte of 9F37 given for D5 (absent: no 9F37 in the reply).
    std::optional<uint8_t> random = 0;
    // The value of DF05 in the answer to E6 (absent: no DF05).
    std::optional<Bytes> exceptionFile;
    // Exchanges not scripted.
    int unexpected = 0;

    size_t Pending() const { return script_.size(); }

private:
    struct Answer {
        Bytes rapdu;
        uint8_t signal = 0;
    };
    static uint32_t Callback(uint8_t *buf, uint32_t *len);
    uint32_t Handle(uint8_t *buf, uint32_t *len);

    std::deque<Answer> script_;
    static inline StepHost *current_ = nullptr;
};

}  // namespace velk::test
