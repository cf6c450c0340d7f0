// SPDX-License-Identifier: Apache-2.0
#include "scripted_host.hpp"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "emv_kernel.h"

namespace velk::test {

using velk::host::Cat;
using velk::host::FromHex;
using velk::host::ParseTlv;
using velk::host::TlvNode;
using velk::host::ToHex;

namespace {

// Returned to the kernel when the test host refuses a request; the test has
// already failed by then.
constexpr uint32_t kRefused = 0x3FFFF;

Bytes Tlv(uint32_t tag, const Bytes &value) {
    return velk::host::Tlv(tag, value);
}

// The request as the host reads it: 7F01 { DF00 = command, payload... }, or,
// for the restart message, the outcome packet with DF00 as its last child.
std::optional<Message> ParseRequest(const uint8_t *buffer, uint32_t len) {
    try {
        const std::vector<TlvNode> nodes = ParseTlv({buffer, len}, false);
        if (nodes.size() != 1 || nodes[0].tag != 0x7F01 || nodes[0].children.empty())
            return std::nullopt;
        const TlvNode &root = nodes[0];
        const bool first = root.children.front().tag == 0xDF00;
        const TlvNode &command = first ? root.children.front() : root.children.back();
        if (command.tag != 0xDF00 || command.value.size() != 1) return std::nullopt;
        Message msg;
        msg.command = command.value[0];
        const auto size = static_cast<long>(command.size);
        if (first)
            msg.payload.assign(root.value.begin() + size, root.value.end());
        else
            msg.payload.assign(root.value.begin(), root.value.end() - size);
        msg.raw.assign(buffer, buffer + root.size);
        return msg;
    } catch (const std::invalid_argument &) {
        return std::nullopt;
    }
}

const TlvNode *PayloadElement(const Message &msg, uint32_t tag, std::vector<TlvNode> &storage) {
    storage = ParseTlv(msg.payload, false);
    for (const TlvNode &node : storage)
        if (node.tag == tag) return &node;
    return nullptr;
}

}  // namespace

// ---- Answers and card exchanges ---------------------------------------------------

Answer Answer::Reply(const std::vector<Bytes> &children) {
    return {0, Constructed(0x7F01, children)};
}
Answer Answer::Raw(Bytes bytes) {
    return {0, std::move(bytes)};
}
Answer Answer::Fail(uint32_t status) {
    return {status, std::nullopt};
}

CardExchange Respond(Bytes capdu, Bytes rapdu) {
    return {std::move(capdu), CardExchange::Kind::Respond, std::move(rapdu), 0, 0, {}};
}
CardExchange RespondLater(Bytes capdu, Bytes rapdu,
                          std::optional<std::chrono::milliseconds> fromThreadAfter) {
    return {std::move(capdu), CardExchange::Kind::RespondLater, std::move(rapdu), 0, 0,
            fromThreadAfter};
}
CardExchange SignalInstead(Bytes capdu, uint8_t type) {
    return {std::move(capdu), CardExchange::Kind::Signal, {}, type, 0, {}};
}
CardExchange FailCallback(Bytes capdu, uint32_t code) {
    return {std::move(capdu), CardExchange::Kind::CallbackFailure, {}, 0, code, {}};
}

std::string DbHex(uint32_t tag) {
    OBJECT_TAG element{0, 0, nullptr};
    if (VelkDataBase_GetTagValue(tag, &element) != 0) return "absent";
    return ToHex({element.pValue, element.uiLength});
}

std::string HexDiff(const Bytes &expected, const Bytes &actual) {
    std::ostringstream out;
    out << "expected: " << ToHex(expected, true) << "\n  actual: " << ToHex(actual, true);
    const auto mismatch =
        std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    out << "\n  first difference at byte " << (mismatch.first - expected.begin());
    return out.str();
}

// ---- The host ---------------------------------------------------------------------

ScriptedHost *ScriptedHost::current_ = nullptr;

ScriptedHost::ScriptedHost() : ScriptedHost(nullptr) {}

ScriptedHost::ScriptedHost(uint8_t *boundBlock) : kernel_(&ScriptedHost::Trampoline, boundBlock) {
    current_ = this;
    handlers_[VELK_CMD_ICS_PARAMS] = [this](const Message &) { return Answer::Reply(ics); };
    handlers_[VELK_CMD_AID_PARAMS] = [this](const Message &) { return Answer::Reply(aidParams); };
    handlers_[VELK_CMD_FETCH_CONTEXT] = [this](const Message &) { return Answer::Reply(context); };
    // The host keeps the context as the children of 7F15, to hand back on A3.
    handlers_[VELK_CMD_STORE_CONTEXT] = [this](const Message &msg) {
        std::vector<TlvNode> storage;
        const TlvNode *stored = PayloadElement(msg, 0x7F15, storage);
        context.clear();
        if (stored != nullptr)
            for (const TlvNode &child : stored->children)
                context.push_back(Tlv(child.tag, child.value));
        return Answer::Keep();
    };
    handlers_[VELK_CMD_RESTART] = [this](const Message &msg) {
        restarts.push_back(Tlv(0x7F01, msg.payload));
        return Answer::Keep();
    };
    handlers_[VELK_CMD_UNPREDICTABLE_NUMBER] = [this](const Message &) {
        return Answer::Reply({Tlv(0x9F37, unpredictableNumber)});
    };
    handlers_[VELK_CMD_CARD_ACTIVE] = [this](const Message &) {
        Post(cardActiveSignal);
        return Answer::Keep();
    };
    handlers_[VELK_CMD_DISPLAY] = [this](const Message &msg) {
        std::vector<TlvNode> storage;
        const TlvNode *uird = PayloadElement(msg, 0xDF8116, storage);
        EXPECT_NE(uird, nullptr) << "display request without DF8116";
        if (uird != nullptr) uirds.push_back(uird->value);
        return Answer::Keep();
    };
    handlers_[VELK_CMD_POWER_OFF] = [this](const Message &) {
        ++powerOffs;
        return Answer::Keep();
    };
    handlers_[VELK_CMD_APDU] = [this](const Message &msg) { return PlayCard(msg); };
}

// The kernel still holds a pointer to this block's callback; the next host
// rebinds both.
ScriptedHost::~ScriptedHost() {
    JoinThreads();
    EXPECT_TRUE(CardDone()) << "the card script was not played to the end: " << next_ << " of "
                            << card.size() << " exchanges; next expected C-APDU "
                            << ToHex(card[next_].capdu, true);
    if (current_ == this) current_ = nullptr;
}

void ScriptedHost::On(uint8_t command, Handler handler) {
    handlers_[command] = std::move(handler);
}

std::vector<uint8_t> ScriptedHost::Commands() const {
    std::vector<uint8_t> commands;
    for (const Message &msg : messages)
        commands.push_back(msg.command);
    return commands;
}

std::vector<Message> ScriptedHost::MessagesFor(uint8_t command) const {
    std::vector<Message> found;
    for (const Message &msg : messages)
        if (msg.command == command) found.push_back(msg);
    return found;
}

const uint8_t *ScriptedHost::Keep(const Bytes &data) {
    signalData_.push_back(data);
    return signalData_.back().data();
}

void ScriptedHost::Post(uint8_t type, const Bytes &data) {
    ClessSignal_Message signal{type, const_cast<uint8_t *>(Keep(data)),
                               static_cast<uint32_t>(data.size())};
    Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&signal));
}

// The data is put aside here, on the test's thread; the other thread only
// posts the record.
void ScriptedHost::PostFromThread(uint8_t type, const Bytes &data,
                                  std::chrono::milliseconds delay) {
    ClessSignal_Message signal{type, const_cast<uint8_t *>(Keep(data)),
                               static_cast<uint32_t>(data.size())};
    threads_.emplace_back([signal, delay]() mutable {
        std::this_thread::sleep_for(delay);
        Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&signal));
    });
}

void ScriptedHost::JoinThreads() {
    for (std::thread &t : threads_)
        if (t.joinable()) t.join();
    threads_.clear();
}

ScriptedHost::Result ScriptedHost::Start(const Bytes &input, std::optional<uint32_t> len,
                                         uint8_t fill) {
    Result result;
    result.io.assign(VELK_IO_BUFFER_MIN_LEN, fill);
    std::copy_n(input.begin(), std::min<size_t>(input.size(), result.io.size()), result.io.begin());
    uint32_t ioLen = len.value_or(static_cast<uint32_t>(input.size()));
    current_ = this;
    result.status = Kernel_Start_VELK_(result.io.data(), &ioLen);
    JoinThreads();
    EXPECT_LE(ioLen, VELK_IO_BUFFER_MIN_LEN);
    result.out.assign(result.io.begin(),
                      result.io.begin() + std::min<size_t>(ioLen, VELK_IO_BUFFER_MIN_LEN));
    return result;
}

uint32_t ScriptedHost::Trampoline(uint8_t *buffer, uint32_t *len) {
    if (current_ == nullptr) {
        ADD_FAILURE() << "kernel callback without a scripted host";
        return kRefused;
    }
    return current_->Dispatch(buffer, len);
}

uint32_t ScriptedHost::Dispatch(uint8_t *buffer, uint32_t *len) {
    const std::optional<Message> msg = ParseRequest(buffer, *len);
    if (!msg) {
        ADD_FAILURE() << "malformed callback message: " << ToHex({buffer, *len}, true);
        return kRefused;
    }
    messages.push_back(*msg);
    const auto handler = handlers_.find(msg->command);
    if (handler == handlers_.end()) {
        ADD_FAILURE() << "unexpected callback command " << ToHex({&msg->command, 1})
                      << " with payload " << ToHex(msg->payload, true);
        return kRefused;
    }
    const Answer answer = handler->second(*msg);
    if (answer.buffer) {
        EXPECT_LE(answer.buffer->size(), VELK_EXCHANGE_BUFFER_LEN);
        const size_t n = std::min<size_t>(answer.buffer->size(), VELK_EXCHANGE_BUFFER_LEN);
        std::memcpy(buffer, answer.buffer->data(), n);
        *len = static_cast<uint32_t>(n);
    }
    return answer.status;
}

Answer ScriptedHost::PlayCard(const Message &msg) {
    std::vector<TlvNode> storage;
    const TlvNode *apdu = PayloadElement(msg, 0xDF01, storage);
    EXPECT_NE(apdu, nullptr) << "APDU request without DF01";
    const Bytes capdu = apdu != nullptr ? apdu->value : Bytes{};
    capdus.push_back(capdu);
    if (next_ >= card.size()) {
        ADD_FAILURE() << "C-APDU beyond the card script: " << ToHex(capdu, true);
        return Answer::Fail(kRefused);
    }
    const CardExchange &step = card[next_++];
    if (step.capdu != capdu) {
        ADD_FAILURE() << "C-APDU " << next_ << " differs from the script\n"
                      << HexDiff(step.capdu, capdu);
        return Answer::Fail(kRefused);
    }
    switch (step.kind) {
        case CardExchange::Kind::Respond:
            return Answer::Reply({Tlv(0xDF03, step.rapdu)});
        case CardExchange::Kind::RespondLater:
            if (step.fromThreadAfter)
                PostFromThread(VELK_SIGNAL_RAPDU, step.rapdu, *step.fromThreadAfter);
            else
                Post(VELK_SIGNAL_RAPDU, step.rapdu);
            return Answer::Reply({});
        case CardExchange::Kind::Signal:
            Post(step.signal);
            return Answer::Reply({});
        case CardExchange::Kind::CallbackFailure:
            return Answer::Fail(step.failure);
    }
    return Answer::Fail(kRefused);
}

// ---- Builders -------------------------------------------------------------------

Bytes TransactionInput(const std::vector<Bytes> &params, std::optional<uint8_t> kernelId) {
    Bytes input;
    if (kernelId) input = Tlv(0xDF09, Bytes{*kernelId});
    const Bytes tmpl = Constructed(0x7F11, params);
    input.insert(input.end(), tmpl.begin(), tmpl.end());
    return input;
}

Bytes Fci(const Bytes &aid, const std::vector<Bytes> &a5) {
    return Constructed(0x6F, {Tlv(0x84, aid), Constructed(0xA5, a5)});
}

Bytes Constructed(uint32_t tag, const std::vector<Bytes> &children) {
    Bytes value;
    for (const Bytes &child : children)
        value.insert(value.end(), child.begin(), child.end());
    return Tlv(tag, value);
}

Bytes With9000(const Bytes &data) {
    return Cat({data, FromHex("9000")});
}

// ---- The outcome packet ---------------------------------------------------------

OutcomePacket::OutcomePacket(const Bytes &packet) {
    const std::vector<TlvNode> nodes = ParseTlv(packet, false);
    if (nodes.size() != 1 || nodes[0].tag != 0x7F01)
        throw std::invalid_argument("the outcome is not one 7F01: " + ToHex(packet, true));
    for (const TlvNode &child : nodes[0].children) {
        order.push_back(child.tag);
        switch (child.tag) {
            case 0xDF8129:
                ops = child.value;
                break;
            case 0xDF8116:
                uird = child.value;
                break;
            case 0x9F8117:
                restartUird = child.value;
                break;
            case 0xFF8106:
                discretionary = child;
                break;
            case 0xFF8105:
                record = child;
                break;
            case 0x9F8211:
                reader = child.value;
                break;
            default:
                break;
        }
    }
}

std::vector<uint32_t> OutcomePacket::Tags(const TlvNode &container) {
    std::vector<uint32_t> tags;
    for (const TlvNode &child : container.children)
        tags.push_back(child.tag);
    return tags;
}

}  // namespace velk::test
