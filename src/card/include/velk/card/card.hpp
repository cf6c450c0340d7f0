// SPDX-License-Identifier: Apache-2.0
// The card as the terminal host sees it: power, presence and the exchange of
// one command APDU for one response APDU. VirtualCard (a card built from a
// JSON profile), PcscCard (a real card on a PC/SC reader) and FaultyCard (a
// wrapper that breaks exchanges on purpose) sit behind it.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "velk/host/tlv.hpp"

namespace velk::card {

using Bytes = velk::host::Bytes;

// Why an exchange produced no response. The host turns each kind into the
// signal the kernel expects in place of a response.
enum class CardErrorKind {
    kNoResponse,  // the card did not answer (torn exchange, communication error)
    kRemoved,     // the card left the field
    kCancelled,   // the exchange was stopped on the terminal's side
    kReader,      // the reader or its driver failed
};

class CardError : public std::runtime_error {
public:
    CardError(CardErrorKind kind, const std::string &what)
        : std::runtime_error(what), kind_(kind) {}
    CardErrorKind kind() const { return kind_; }

private:
    CardErrorKind kind_;
};

class Card {
public:
    virtual ~Card() = default;

    // One line naming the card (profile name, reader name).
    virtual std::string Describe() const = 0;
    // Powers the card and returns its ATR.
    virtual Bytes PowerOn() = 0;
    virtual void PowerOff() = 0;
    virtual bool Present() = 0;
    // Waits until a card is in the field (again); false when none came within
    // the time-out.
    virtual bool WaitPresent(std::chrono::milliseconds timeout) = 0;
    // One command APDU; the response APDU with its status word. Throws
    // CardError when there is no response.
    virtual Bytes Transmit(std::span<const uint8_t> command) = 0;
};

// ---- APDUs ----------------------------------------------------------------

// A short command APDU taken apart (cases 1 to 4).
struct Command {
    uint8_t cla = 0, ins = 0, p1 = 0, p2 = 0;
    Bytes data;
    bool has_le = false;
    uint8_t le = 0;
};

// Throws std::invalid_argument when the bytes are not one short APDU.
Command ParseCommand(std::span<const uint8_t> apdu);

uint16_t StatusWord(std::span<const uint8_t> response);  // 0 when shorter than 2 bytes
Bytes WithStatus(Bytes data, uint16_t sw);
std::span<const uint8_t> ResponseData(std::span<const uint8_t> response);

inline constexpr uint16_t kSwOk = 0x9000;
inline constexpr uint16_t kSwWrongLength = 0x6700;
inline constexpr uint16_t kSwConditionsNotSatisfied = 0x6985;
inline constexpr uint16_t kSwWrongData = 0x6A80;
inline constexpr uint16_t kSwFunctionNotSupported = 0x6A81;
inline constexpr uint16_t kSwFileNotFound = 0x6A82;
inline constexpr uint16_t kSwRecordNotFound = 0x6A83;
inline constexpr uint16_t kSwDataNotFound = 0x6A88;
inline constexpr uint16_t kSwInsNotSupported = 0x6D00;
inline constexpr uint16_t kSwClaNotSupported = 0x6E00;

// What a command asks for, as far as the simulator cares.
enum class CommandKind {
    kSelectPpse,
    kSelect,
    kGpo,
    kReadRecord,
    kGetData,
    kPutData,
    kInternalAuthenticate,
    kGenerateAc,
    kEcho,
    kScript,  // a command of an issuer script (secure messaging class)
    kOther,
};

CommandKind Classify(std::span<const uint8_t> apdu);
// Short name used on the command line and in traces ("gpo", "read-record").
const char *KindName(CommandKind kind);

// The name of the proximity payment system environment.
inline constexpr std::string_view kPpseName = "2PAY.SYS.DDF01";

// TLV data as cards and the kernel write it. Parsed strictly first, so that
// tags beginning with FF (the outcome's FF8105 and FF8106) stay tags; only
// data that is not TLV that way is parsed again with 00 and FF bytes
// between elements taken as padding. Throws std::invalid_argument.
std::vector<velk::host::TlvNode> ParseTlvData(std::span<const uint8_t> data);

// A SELECT by name of the given DF.
Bytes SelectCommand(std::span<const uint8_t> name);

}  // namespace velk::card
