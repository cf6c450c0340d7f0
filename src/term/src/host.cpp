// SPDX-License-Identifier: Apache-2.0
#include "velk/term/host.hpp"

#include <openssl/rand.h>

#include <cstring>

namespace velk::term {

using velk::card::CardError;
using velk::card::CardErrorKind;
using velk::host::Cat;
using velk::host::Tlv;

Bytes RandomSource::Next(size_t n) {
    Bytes out(n);
    if (seeded_) {
        for (uint8_t &b : out)
            b = static_cast<uint8_t>(engine_());
    } else if (RAND_bytes(out.data(), static_cast<int>(n)) != 1) {
        throw std::runtime_error("OpenSSL: RAND_bytes failed");
    }
    return out;
}

std::optional<Bytes> RequestValue(const std::vector<velk::host::TlvNode> &request, uint32_t tag) {
    for (const auto &n : request)
        if (n.tag == tag) return n.value;
    return std::nullopt;
}

const std::map<uint8_t, Host::Handler> Host::kHandlers = {
    {0xD1, &Host::TerminalParameters},
    {0xD3, &Host::AidParameters},
    {0xD4, &Host::CaKey},
    {0xD5, &Host::UnpredictableNumber},
    {0xD6, &Host::CardActivation},
    {0xD7, &Host::Display},
    {0xDF, &Host::PowerOff},
    {0xE6, &Host::ExceptionFile},
    {0xE9, &Host::Revocation},
    {0xF1, &Host::Apdu},
    {0xA2, &Host::StoreContext},
    {0xA3, &Host::FetchContext},
    {0xFE, &Host::Restart},
};

Host::Host(const TerminalProfile &terminal, velk::card::Card &card, RandomSource &random,
           Trace &trace)
    : terminal_(terminal), card_(card), random_(random), trace_(trace) {}

void Host::OnHostError(const std::string &what) {
    errors_.push_back(what);
    trace_.Note(entry_, "host error: " + what);
}

uint32_t Host::OnCallback(uint8_t *buf, uint32_t *len) {
    const Bytes request(buf, buf + std::min<uint32_t>(*len, VELK_EXCHANGE_BUFFER_LEN));
    // A request is 7F01 { DF00 command, payload... }; the kernel builds it, but
    // a host does not trust it further than it can check it.
    std::vector<velk::host::TlvNode> nodes;
    try {
        nodes = velk::host::ParseTlv(request, false);
    } catch (const std::invalid_argument &e) {
        OnHostError(std::string("malformed request from the kernel: ") + e.what());
        return kHostMalformedRequest;
    }
    // DF00 leads every request but the restart, which appends it to the
    // outcome packet; look for it among all the children.
    const velk::host::TlvNode *command_node = nullptr;
    Request payload;
    if (!nodes.empty() && nodes[0].tag == 0x7F01)
        for (const auto &child : nodes[0].children) {
            if (child.tag == 0xDF00 && command_node == nullptr)
                command_node = &child;
            else
                payload.push_back(child);
        }
    if (command_node == nullptr || command_node->value.size() != 1) {
        OnHostError("request without 7F01 { DF00 command }: " + velk::host::ToHex(request));
        return kHostMalformedRequest;
    }
    const uint8_t command = command_node->value[0];
    const size_t traced = trace_.Callback(entry_, command, request);
    if (const HostReply *given = ReplyFor(command)) {
        const Bytes encoded =
            given->raw ? *given->raw
                       : Tlv(command == 0xA3 ? 0x7F15 : 0x7F01, given->data.value_or(Bytes{}));
        uint32_t status = given->status;
        if (encoded.size() > VELK_EXCHANGE_BUFFER_LEN) {
            OnHostError("given reply of " + std::to_string(encoded.size()) +
                        " bytes does not fit the exchange buffer");
            status = kHostReplyTooLong;
        } else if (given->raw || given->data) {
            std::memcpy(buf, encoded.data(), encoded.size());
            *len = static_cast<uint32_t>(encoded.size());
        }
        trace_.Answer(traced, encoded, status);
        trace_.Note(entry_, "reply given by the scenario: " + given->text);
        if (given->signal) PostSignal(*given->signal, {}, "given by the scenario");
        return status;
    }
    const auto it = kHandlers.find(command);
    if (it == kHandlers.end()) {
        OnHostError("unknown callback command " + velk::host::ToHex(Bytes{command}));
        trace_.Answer(traced, {}, kHostUnknownCommand);
        return kHostUnknownCommand;
    }
    Reply reply = (this->*(it->second))(payload);
    Bytes encoded = Tlv(reply.root, reply.children);
    if (encoded.size() > VELK_EXCHANGE_BUFFER_LEN) {
        OnHostError("reply of " + std::to_string(encoded.size()) +
                    " bytes does not fit the exchange buffer");
        reply.status = kHostReplyTooLong;
        encoded.clear();
    }
    if (reply.status == 0) {
        std::memcpy(buf, encoded.data(), encoded.size());
        *len = static_cast<uint32_t>(encoded.size());
    }
    trace_.Answer(traced, encoded, reply.status);
    return reply.status;
}

const HostReply *Host::ReplyFor(uint8_t command) {
    const int n = ++requests_[command];
    replies_used_.resize(replies_.size());
    for (size_t i = 0; i < replies_.size(); ++i)
        if (replies_[i].command == command && (replies_[i].nth == 0 || replies_[i].nth == n)) {
            replies_used_[i] = true;
            return &replies_[i];
        }
    return nullptr;
}

std::vector<std::string> Host::RepliesNotUsed() const {
    std::vector<std::string> out;
    for (size_t i = 0; i < replies_.size(); ++i)
        if (i >= replies_used_.size() || !replies_used_[i]) out.push_back(replies_[i].text);
    return out;
}

void Host::PostSignal(uint8_t type, const Bytes &data, const std::string &why) {
    trace_.Signal(entry_, type, data, why);
    if (session_ == nullptr) throw std::logic_error("no kernel session to post a signal to");
    session_->Signal(type, data);
}

Host::Reply Host::TerminalParameters(const Request &) {
    return {0, 0x7F01, terminal_.parameters};
}

Host::Reply Host::AidParameters(const Request &r) {
    const auto aid = RequestValue(r, 0x9F06);
    const TerminalApplication *app = aid ? terminal_.FindApplication(*aid) : nullptr;
    if (app == nullptr) {
        trace_.Note(entry_, "the terminal has no parameters for application " +
                                (aid ? velk::host::ToHex(*aid) : std::string("(none named)")));
        return {kHostRefused, 0x7F01, {}};
    }
    return {0, 0x7F01, app->parameters};
}

Host::Reply Host::CaKey(const Request &r) {
    const auto aid = RequestValue(r, 0x9F06);
    const auto index = RequestValue(r, 0x8F);
    const velk::term::CaKey *key = aid && aid->size() >= 5 && index && index->size() == 1
                                       ? terminal_.FindCaKey(std::span(*aid).first(5), (*index)[0])
                                       : nullptr;
    if (key == nullptr) {
        // No key: an empty answer, which the kernel reads as "not delivered".
        trace_.Note(
            entry_,
            "no CA public key for RID " +
                (aid ? velk::host::ToHex(std::span(*aid).first(std::min<size_t>(5, aid->size())))
                     : std::string("?")) +
                " index " + (index ? velk::host::ToHex(*index) : std::string("?")));
        return {};
    }
    return {0, 0x7F01, Cat({Tlv(0xDF8201, key->modulus), Tlv(0xDF8202, key->exponent)})};
}

Host::Reply Host::UnpredictableNumber(const Request &) {
    return {0, 0x7F01, Tlv(0x9F37, random_.Next(terminal_.unpredictable_number_length))};
}

Host::Reply Host::CardActivation(const Request &) {
    if (card_.WaitPresent(card_wait)) {
        try {
            PostSignal(kSignalCardPresent, card_.PowerOn(), "card presented");
            return {};
        } catch (const CardError &e) {
            trace_.Note(entry_, std::string("card activation failed: ") + e.what());
        }
    }
    PostSignal(kSignalNoCard, {}, "no card presented");
    return {};
}

Host::Reply Host::Display(const Request &r) {
    trace_.Display(entry_, RequestValue(r, 0xDF8116).value_or(Bytes{}));
    return {};
}

Host::Reply Host::PowerOff(const Request &) {
    trace_.PowerOff(entry_, "the kernel's power-off");
    card_.PowerOff();
    return {};
}

Host::Reply Host::ExceptionFile(const Request &r) {
    const auto pan = RequestValue(r, 0x5A);
    const auto psn = RequestValue(r, 0x5F34);
    std::optional<uint8_t> seq;
    if (psn && psn->size() == 1) seq = (*psn)[0];
    const bool listed = pan && terminal_.Listed(*pan, seq);
    return {0, 0x7F01, Tlv(0xDF05, Bytes{static_cast<uint8_t>(listed ? 1 : 0)})};
}

Host::Reply Host::Revocation(const Request &r) {
    const auto rid = RequestValue(r, 0x9F06);
    const auto index = RequestValue(r, 0x8F);
    const auto serial = RequestValue(r, 0xDF8108);
    const bool revoked = rid && index && index->size() == 1 && serial &&
                         terminal_.Revoked(*rid, (*index)[0], *serial);
    return {0, 0x7F01, Tlv(0xDF8109, Bytes{static_cast<uint8_t>(revoked ? 1 : 0)})};
}

Host::Reply Host::Apdu(const Request &r) {
    const auto command = RequestValue(r, 0xDF01);
    if (!command) {
        OnHostError("APDU request without DF01");
        return {kHostMalformedRequest, 0x7F01, {}};
    }
    const std::string name = velk::card::KindName(velk::card::Classify(*command));
    const auto sent = TraceClock::now();
    try {
        Bytes response = card_.Transmit(*command);
        trace_.Apdu(entry_, name, *command, response, {}, sent);
        return {0, 0x7F01, Tlv(0xDF03, response)};
    } catch (const CardError &e) {
        trace_.Apdu(entry_, name, *command, {}, e.what(), sent);
        // No response in the reply: the kernel waits for the signal instead.
        switch (e.kind()) {
            case CardErrorKind::kCancelled:
                PostSignal(kSignalStop, {}, e.what());
                break;
            case CardErrorKind::kNoResponse:
            case CardErrorKind::kRemoved:
                PostSignal(kSignalCommError, {}, e.what());
                break;
            case CardErrorKind::kReader:
                PostSignal(kSignalNoCard, {}, e.what());
                break;
        }
        return {};
    }
}

Host::Reply Host::StoreContext(const Request &r) {
    context_ = RequestValue(r, 0x7F15).value_or(Bytes{});
    return {};
}

Host::Reply Host::FetchContext(const Request &) {
    if (!context_) {
        trace_.Note(entry_, "the kernel asked for an online context the host does not have");
        return {kHostRefused, 0x7F15, {}};
    }
    return {0, 0x7F15, *context_};
}

Host::Reply Host::Restart(const Request &r) {
    ++restarts_;
    trace_.Note(entry_, "the kernel asks for the card to be presented again");
    if (const auto ui = RequestValue(r, 0x9F8117)) trace_.Display(entry_, *ui);
    trace_.PowerOff(entry_, "the card is to be presented again");
    card_.PowerOff();
    if (on_restart) on_restart();
    return {};
}

}  // namespace velk::term
