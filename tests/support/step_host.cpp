#include "step_host.hpp"

#include <cstring>

#include "emv_kernel.h"

namespace velk::test {

using host::Tlv;

StepHost::StepHost() {
    current_ = this;
    Kernel_load_callback_Routine_VELK_(&StepHost::Callback, 0);
}

StepHost::~StepHost() {
    if (current_ == this) current_ = nullptr;
}

void StepHost::Respond(const Bytes &rapdu) {
    script_.push_back(Answer{rapdu, 0});
}

void StepHost::Signal(uint8_t type) {
    script_.push_back(Answer{{}, type});
}

uint32_t StepHost::Callback(uint8_t *buf, uint32_t *len) {
    return current_ == nullptr ? 1u : current_->Handle(buf, len);
}

namespace {

void Reply(uint8_t *buf, uint32_t *len, const Bytes &reply) {
    std::memcpy(buf, reply.data(), reply.size());
    *len = static_cast<uint32_t>(reply.size());
}

}  // namespace

uint32_t StepHost::Handle(uint8_t *buf, uint32_t *len) {
    const Bytes request(buf, buf + *len);
    requests.push_back(request);
    const auto nodes = host::ParseTlv(request, false);
    const host::TlvNode *cmd = nodes.empty() ? nullptr : host::Find(nodes, 0xDF00);
    const uint8_t code = (cmd != nullptr && !cmd->value.empty()) ? cmd->value[0] : 0;
    commands.push_back(code);
    switch (code) {
        case 0xF1: {
            const host::TlvNode *apdu = host::Find(nodes, 0xDF01);
            apdus.push_back(apdu != nullptr ? apdu->value : Bytes{});
            if (script_.empty()) {
                ++unexpected;
                return 1;
            }
            Answer a = script_.front();
            script_.pop_front();
            if (a.signal != 0) {
                static ClessSignal_Message signal;
                signal = ClessSignal_Message{a.signal, nullptr, 0};
                Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&signal));
                Reply(buf, len, Tlv(0x7F01, {Tlv(0xDF00, Bytes{0xF1})}));
                return 0;
            }
            Reply(buf, len, Tlv(0x7F01, {Tlv(0xDF03, a.rapdu)}));
            return 0;
        }
        case 0xD5:
            Reply(buf, len,
                  random ? Tlv(0x7F01, {Tlv(0x9F37, Bytes{*random, 0, 0, 0})})
                         : Tlv(0x7F01, Bytes{}));
            return 0;
        case 0xE6:
            Reply(
                buf, len,
                exceptionFile ? Tlv(0x7F01, {Tlv(0xDF05, *exceptionFile)}) : Tlv(0x7F01, Bytes{}));
            return 0;
        default:
            return 0;
    }
}

}  // namespace velk::test
