// SPDX-License-Identifier: Apache-2.0
// A real card on a PC/SC reader (pcsc-lite). The context and the card
// connection are owned by small RAII types; every PC/SC failure becomes a
// CardError with the reader's name and pcsc-lite's own text.
#pragma once

#include <winscard.h>

#include <string>
#include <vector>

#include "velk/card/card.hpp"

namespace velk::card {

// SCardEstablishContext / SCardReleaseContext.
class PcscContext {
public:
    PcscContext();
    ~PcscContext();
    PcscContext(const PcscContext &) = delete;
    PcscContext &operator=(const PcscContext &) = delete;

    SCARDCONTEXT get() const { return ctx_; }
    std::vector<std::string> Readers() const;

private:
    SCARDCONTEXT ctx_ = 0;
};

// "SCardConnect: Card is unpowered. (0x80100067)"
std::string PcscMessage(const char *call, LONG rv);

class PcscCard : public Card {
public:
    // Throws CardError (kReader) when the reader is unknown.
    PcscCard(PcscContext &context, std::string reader);
    ~PcscCard() override;
    PcscCard(const PcscCard &) = delete;
    PcscCard &operator=(const PcscCard &) = delete;

    std::string Describe() const override;
    Bytes PowerOn() override;
    void PowerOff() override;
    bool Present() override;
    bool WaitPresent(std::chrono::milliseconds timeout) override;
    Bytes Transmit(std::span<const uint8_t> command) override;

    // "T=0", "T=1", "raw" after PowerOn.
    std::string Protocol() const;

private:
    Bytes TransmitOnce(std::span<const uint8_t> command);
    void Disconnect(DWORD disposition);

    PcscContext &context_;
    std::string reader_;
    SCARDHANDLE card_ = 0;
    DWORD protocol_ = 0;
};

}  // namespace velk::card
