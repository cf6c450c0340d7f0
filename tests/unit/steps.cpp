// SPDX-License-Identifier: Apache-2.0
// The host of step rows: a step that talks to the card or the host gets its
// answers from the rows, and the rows check what it sent.
//
//   host                       install this host (fresh) as the callback
//   card:R-APDU[:count]        the next APDU (or count of them) answered so
//   card_signal:A5             the next APDU gets no answer; this signal instead
//   card_later:R-APDU[:len]    the reply carries nothing; an A4 signal brings
//                              the response ("-": no data, len given)
//   random:XX                  D5 answers 9F37 = XX 00 00 00 ("-": no 9F37)
//   unpredictable:bytes        D5 answers 9F37 = bytes
//   activation:XX              D6 is answered by posting signal XX
//   reply:CMD:children         the next CMD request is answered 7F01{children}
//   reply_raw:CMD:bytes        ... with these bytes as they stand
//   fail:CMD:status            ... with this failure status
//   message:N:bytes            the N-th request (from 0) as it was sent
//   exception:XX               E6 answers DF05 = XX ("-": no DF05)
//   sent:C-APDU:C-APDU...      the APDUs sent so far, in order ("-" none;
//                              "??*N" leaves N bytes unchecked)
//   sent_count:N[:C-APDU]      N APDUs sent so far, the last one that
//   commands:D5 F1 ...         the callback commands so far, in order
//   request:D7:DF8116161704:1  a D7 request holding those bytes was (1) or
//                              was not (0) sent
//   request_tags:A2:tags       the tags inside the payload's container of the
//                              last A2 request
//   unanswered:N               answers not taken
//   exchange:bytes             the start of the callback exchange buffer
#include <deque>
#include <map>
#include <optional>

#include "baseKernel.h"
#include "emv_kernel.h"
#include "global.h"
#include "rows.hpp"

namespace velk::test {
namespace {

struct RowHost {
    struct Answer {
        Bytes rapdu;
        uint8_t signal = 0;
        bool later = false;
        uint32_t len = 0;
    };
    std::deque<Answer> answers;
    std::vector<Bytes> sent;
    std::vector<uint8_t> commands;
    std::vector<Bytes> requests;
    std::optional<Bytes> random = Bytes{0, 0, 0, 0};
    uint8_t activation = 0;
    struct Scripted {
        Bytes bytes;
        uint32_t status = 0;
        bool raw = false;
    };
    std::map<uint8_t, std::deque<Scripted>> scripted;
    std::optional<Bytes> exceptionFile;
};
RowHost host_;

uint32_t Reply(uint8_t *buf, uint32_t *len, const Bytes &children, bool raw = false) {
    const Bytes r = raw ? children : host::Tlv(0x7F01, children);
    std::copy(r.begin(), r.end(), buf);
    *len = static_cast<uint32_t>(r.size());
    return 0;
}

void Post(uint8_t type, const Bytes *data, uint32_t len) {
    static ClessSignal_Message signal;
    static Bytes kept;
    if (data != nullptr) kept = *data;
    signal = ClessSignal_Message{type, data != nullptr ? kept.data() : nullptr, len};
    Kernel_Customized_Contactless_VELK_(reinterpret_cast<uint8_t *>(&signal));
}

uint32_t Callback(uint8_t *buf, uint32_t *len) {
    const auto nodes = host::ParseTlv(Bytes(buf, buf + *len), false);
    const host::TlvNode *cmd = host::Find(nodes, 0xDF00);
    const uint8_t code = cmd != nullptr && !cmd->value.empty() ? cmd->value[0] : 0;
    host_.commands.push_back(code);
    host_.requests.emplace_back(buf, buf + *len);
    if (auto &q = host_.scripted[code]; !q.empty()) {
        const RowHost::Scripted a = q.front();
        q.pop_front();
        return a.status != 0 ? a.status : Reply(buf, len, a.bytes, a.raw);
    }
    if (code == 0xD6) {
        Post(host_.activation, nullptr, 0);
        return Reply(buf, len, {});
    }
    if (code == 0xD5)
        return Reply(buf, len, host_.random ? host::Tlv(0x9F37, *host_.random) : Bytes{});
    if (code == 0xE6)
        return Reply(buf, len,
                     host_.exceptionFile ? host::Tlv(0xDF05, *host_.exceptionFile) : Bytes{});
    if (code != 0xF1) return Reply(buf, len, {});
    const host::TlvNode *apdu = host::Find(nodes, 0xDF01);
    host_.sent.push_back(apdu != nullptr ? apdu->value : Bytes{});
    if (host_.answers.empty()) return 1;
    const RowHost::Answer a = host_.answers.front();
    host_.answers.pop_front();
    if (a.later) {
        Post(0xA4, a.rapdu.empty() ? nullptr : &a.rapdu, a.len);
        return Reply(buf, len, {});
    }
    if (a.signal == 0) return Reply(buf, len, host::Tlv(0xDF03, a.rapdu));
    Post(a.signal, nullptr, 0);
    return Reply(buf, len, host::Tlv(0xDF00, Bytes{0xF1}));
}

VELK_DRIVER(host) {
    host_ = RowHost{};
    row.Eq("callback loaded", 0u, Kernel_load_callback_Routine_VELK_(&Callback, 0));
}
VELK_DRIVER(card) {
    for (uint32_t n = row.Arg(1).empty() ? 1 : row.U(1); n > 0; --n)
        host_.answers.push_back({row.Hex(0), 0});
}
VELK_DRIVER(card_signal) {
    host_.answers.push_back({{}, static_cast<uint8_t>(row.U(0))});
}
VELK_DRIVER(card_later) {
    const Bytes r = row.Arg(0) == "-" ? Bytes{} : row.Hex(0);
    host_.answers.push_back(
        {r, 0, true, row.Arg(1).empty() ? static_cast<uint32_t>(r.size()) : row.U(1)});
}
VELK_DRIVER(random) {
    host_.random.reset();
    if (row.Arg(0) != "-") host_.random = Bytes{static_cast<uint8_t>(row.U(0)), 0, 0, 0};
}
VELK_DRIVER(unpredictable) {
    host_.random = row.Hex(0);
}
VELK_DRIVER(activation) {
    host_.activation = static_cast<uint8_t>(row.U(0));
}
VELK_DRIVER(reply) {
    host_.scripted[static_cast<uint8_t>(row.U(0))].push_back({row.Hex(1), 0, false});
}
VELK_DRIVER(reply_raw) {
    host_.scripted[static_cast<uint8_t>(row.U(0))].push_back({row.Hex(1), 0, true});
}
VELK_DRIVER(fail) {
    host_.scripted[static_cast<uint8_t>(row.U(0))].push_back({{}, row.U(1), false});
}
VELK_DRIVER(message) {
    const size_t i = row.U(0);
    row.Matches("request " + row.Arg(0), row.Arg(1),
                i < host_.requests.size() ? host_.requests[i] : Bytes{});
}
VELK_DRIVER(exception) {
    host_.exceptionFile.reset();
    if (row.Arg(0) != "-") host_.exceptionFile = row.Hex(0);
}
VELK_DRIVER(sent) {
    const size_t n = row.Arg(0) == "-" ? 0 : row.args.size();
    row.Eq("number of APDUs sent", n, host_.sent.size());
    for (size_t i = 0; i < n && i < host_.sent.size(); ++i)
        row.Matches("APDU " + std::to_string(i + 1), row.Arg(i), host_.sent[i]);
}
VELK_DRIVER(sent_count) {
    row.Eq("number of APDUs sent", row.U(0), host_.sent.size());
    if (!row.Arg(1).empty() && !host_.sent.empty())
        row.Matches("last APDU", row.Arg(1), host_.sent.back());
}
VELK_DRIVER(commands) {
    row.Eq("callback commands", host::ToHex(row.Hex(0)),
           host::ToHex(Bytes(host_.commands.begin(), host_.commands.end())));
}
VELK_DRIVER(request) {
    const std::string want = host::ToHex(row.Hex(1));
    bool seen = false;
    for (size_t i = 0; i < host_.commands.size(); ++i)
        seen |= host_.commands[i] == row.U(0) &&
                host::ToHex(host_.requests[i]).find(want) != std::string::npos;
    row.Eq("a request holding it", row.Arg(2) != "0", seen);
}
VELK_DRIVER(request_tags) {
    std::string tags = "-";
    for (size_t i = 0; i < host_.commands.size(); ++i) {
        if (host_.commands[i] != row.U(0)) continue;
        const auto nodes = host::ParseTlv(host_.requests[i], false);
        // The request's payload: one container after DF00, within its bound.
        const host::TlvNode *c =
            nodes.empty() || nodes[0].children.size() < 2 ? nullptr : &nodes[0].children[1];
        tags.clear();
        for (const auto &n : c != nullptr ? c->children : std::vector<host::TlvNode>{})
            tags += (tags.empty() ? "" : " ") + host::ToHex(host::EncodeTag(n.tag));
        if (c != nullptr)
            row.Eq("container within its bound", true, c->size <= VELK_ONLINE_CONTEXT_LEN);
    }
    row.Eq("container's children", row.Arg(1), tags);
}
VELK_DRIVER(exchange) {
    const VELK_INTERFACE &i = *pgbVelkInterface;
    row.Matches("exchange buffer", row.Arg(0),
                Bytes(i.pCallback_Exchange_Buffer,
                      i.pCallback_Exchange_Buffer + i.uiMaxCallback_Exchange_BufferLen));
}
VELK_DRIVER(unanswered) {
    row.Eq("answers not taken", row.U(0), host_.answers.size());
}

}  // namespace
}  // namespace velk::test
