// SPDX-License-Identifier: Apache-2.0
#include "velk/card/pcsc_card.hpp"

#include <algorithm>
#include <cstdio>

namespace velk::card {

namespace {

// pcsc-lite reports a missing or stopped reader with these.
bool ReaderGone(LONG rv) {
    return rv == SCARD_E_READER_UNAVAILABLE || rv == SCARD_E_UNKNOWN_READER ||
           rv == SCARD_E_NO_SERVICE || rv == SCARD_E_SERVICE_STOPPED;
}

bool CardGone(LONG rv) {
    return rv == SCARD_W_REMOVED_CARD || rv == SCARD_E_NO_SMARTCARD || rv == SCARD_W_RESET_CARD ||
           rv == SCARD_W_UNPOWERED_CARD;
}

}  // namespace

std::string PcscMessage(const char *call, LONG rv) {
    char code[16];
    std::snprintf(code, sizeof code, "0x%08lX", static_cast<unsigned long>(rv));
    return std::string(call) + ": " + pcsc_stringify_error(rv) + " (" + code + ")";
}

PcscContext::PcscContext() {
    const LONG rv = SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &ctx_);
    if (rv != SCARD_S_SUCCESS)
        throw CardError(CardErrorKind::kReader,
                        PcscMessage("SCardEstablishContext", rv) + " (is pcscd running?)");
}

PcscContext::~PcscContext() {
    SCardReleaseContext(ctx_);
}

std::vector<std::string> PcscContext::Readers() const {
    DWORD len = 0;
    LONG rv = SCardListReaders(ctx_, nullptr, nullptr, &len);
    if (rv == SCARD_E_NO_READERS_AVAILABLE) return {};
    if (rv != SCARD_S_SUCCESS)
        throw CardError(CardErrorKind::kReader, PcscMessage("SCardListReaders", rv));
    std::string buf(len, '\0');
    rv = SCardListReaders(ctx_, nullptr, buf.data(), &len);
    if (rv == SCARD_E_NO_READERS_AVAILABLE) return {};
    if (rv != SCARD_S_SUCCESS)
        throw CardError(CardErrorKind::kReader, PcscMessage("SCardListReaders", rv));
    // A multi-string: names separated by NULs, ended by an empty one.
    std::vector<std::string> out;
    for (size_t pos = 0; pos < buf.size() && buf[pos] != '\0';) {
        const size_t end = buf.find('\0', pos);
        out.push_back(buf.substr(pos, end - pos));
        pos = end + 1;
    }
    return out;
}

PcscCard::PcscCard(PcscContext &context, std::string reader)
    : context_(context), reader_(std::move(reader)) {
    const auto readers = context_.Readers();
    if (std::find(readers.begin(), readers.end(), reader_) == readers.end()) {
        std::string known;
        for (const std::string &r : readers)
            known += (known.empty() ? "" : ", ") + ("\"" + r + "\"");
        throw CardError(CardErrorKind::kReader, "no reader named \"" + reader_ + "\" (readers: " +
                                                    (known.empty() ? "none" : known) + ")");
    }
}

PcscCard::~PcscCard() {
    Disconnect(SCARD_LEAVE_CARD);
}

void PcscCard::Disconnect(DWORD disposition) {
    if (card_ != 0) SCardDisconnect(card_, disposition);
    card_ = 0;
    protocol_ = 0;
}

std::string PcscCard::Describe() const {
    return "card on PC/SC reader \"" + reader_ + "\"";
}

std::string PcscCard::Protocol() const {
    switch (protocol_) {
        case SCARD_PROTOCOL_T0:
            return "T=0";
        case SCARD_PROTOCOL_T1:
            return "T=1";
        case SCARD_PROTOCOL_RAW:
            return "raw";
        default:
            return "none";
    }
}

Bytes PcscCard::PowerOn() {
    Disconnect(SCARD_LEAVE_CARD);
    // Contact cards speak T=0 or T=1; contactless readers present the card
    // as T=1 (T=CL underneath). Some drivers only accept the raw protocol.
    LONG rv = SCardConnect(context_.get(), reader_.c_str(), SCARD_SHARE_SHARED,
                           SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, &card_, &protocol_);
    if (rv == SCARD_E_PROTO_MISMATCH)
        rv = SCardConnect(context_.get(), reader_.c_str(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_RAW,
                          &card_, &protocol_);
    if (rv != SCARD_S_SUCCESS) {
        card_ = 0;
        throw CardError(CardGone(rv) ? CardErrorKind::kRemoved : CardErrorKind::kReader,
                        PcscMessage("SCardConnect", rv) + " on \"" + reader_ + "\"");
    }
    BYTE atr[MAX_ATR_SIZE];
    DWORD atr_len = sizeof atr, state = 0, proto = 0, name_len = 0;
    rv = SCardStatus(card_, nullptr, &name_len, &state, &proto, atr, &atr_len);
    if (rv != SCARD_S_SUCCESS)
        throw CardError(CardErrorKind::kReader, PcscMessage("SCardStatus", rv));
    return Bytes(atr, atr + atr_len);
}

void PcscCard::PowerOff() {
    Disconnect(SCARD_UNPOWER_CARD);
}

bool PcscCard::Present() {
    SCARD_READERSTATE state{};
    state.szReader = reader_.c_str();
    state.dwCurrentState = SCARD_STATE_UNAWARE;
    const LONG rv = SCardGetStatusChange(context_.get(), 0, &state, 1);
    return rv == SCARD_S_SUCCESS && (state.dwEventState & SCARD_STATE_PRESENT) != 0;
}

bool PcscCard::WaitPresent(std::chrono::milliseconds timeout) {
    SCARD_READERSTATE state{};
    state.szReader = reader_.c_str();
    state.dwCurrentState = SCARD_STATE_UNAWARE;
    LONG rv = SCardGetStatusChange(context_.get(), 0, &state, 1);
    if (rv != SCARD_S_SUCCESS) return false;
    if ((state.dwEventState & SCARD_STATE_PRESENT) != 0) return true;
    state.dwCurrentState = state.dwEventState & ~SCARD_STATE_CHANGED;
    rv = SCardGetStatusChange(context_.get(), static_cast<DWORD>(timeout.count()), &state, 1);
    return rv == SCARD_S_SUCCESS && (state.dwEventState & SCARD_STATE_PRESENT) != 0;
}

Bytes PcscCard::TransmitOnce(std::span<const uint8_t> command) {
    const SCARD_IO_REQUEST *pci = protocol_ == SCARD_PROTOCOL_T0   ? SCARD_PCI_T0
                                  : protocol_ == SCARD_PROTOCOL_T1 ? SCARD_PCI_T1
                                                                   : SCARD_PCI_RAW;
    BYTE response[MAX_BUFFER_SIZE];
    DWORD len = sizeof response;
    const LONG rv = SCardTransmit(card_, pci, command.data(), static_cast<DWORD>(command.size()),
                                  nullptr, response, &len);
    if (rv != SCARD_S_SUCCESS) {
        const CardErrorKind kind = CardGone(rv)     ? CardErrorKind::kRemoved
                                   : ReaderGone(rv) ? CardErrorKind::kReader
                                                    : CardErrorKind::kNoResponse;
        throw CardError(kind, PcscMessage("SCardTransmit", rv));
    }
    return Bytes(response, response + len);
}

Bytes PcscCard::Transmit(std::span<const uint8_t> command) {
    if (card_ == 0) (void)PowerOn();
    Bytes out = TransmitOnce(command);
    // The transport's own status words (case 4 under T=0, and cards that
    // behave that way under T=1): 6Cxx asks for the command again with Le =
    // xx, 61xx has xx more bytes waiting for GET RESPONSE.
    if (out.size() == 2 && out[0] == 0x6C && command.size() >= 5) {
        Bytes again(command.begin(), command.end());
        again.back() = out[1];
        out = TransmitOnce(again);
    }
    Bytes data;
    while (out.size() >= 2 && out[out.size() - 2] == 0x61) {
        data.insert(data.end(), out.begin(), out.end() - 2);
        const Bytes get_response{
            command.empty() ? uint8_t{0} : static_cast<uint8_t>(command[0] & 0x03), 0xC0, 0x00,
            0x00, out.back()};
        out = TransmitOnce(get_response);
        if (data.size() > 4096)
            throw CardError(CardErrorKind::kNoResponse, "endless GET RESPONSE chain");
    }
    data.insert(data.end(), out.begin(), out.end());
    return data;
}

}  // namespace velk::card
