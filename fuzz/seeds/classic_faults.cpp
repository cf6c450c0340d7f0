// Seeds for transaction_fuzz beyond the scripted tests: the standard first tap
// with one card answer replaced by a classic fault (long-form and indefinite
// lengths, lengths past the end, truncated and duplicated tags, mandatory
// tags left out, 6283 with data, 9000 alone, deep nesting, a DF03 whose
// length lies, signals instead of answers), and a two-entry online
// transaction. Nothing is asserted: the recorder keeps whatever happened.
#include <gtest/gtest.h>

#include <deque>

#include "first_tap.hpp"
#include "scripted_host.hpp"
#include "velk/host/tlv.hpp"

namespace velk::test {
namespace {

using velk::host::Cat;
using velk::host::FromHex;
using velk::host::Tlv;

// One answer of the card, whatever the command.
struct Reply {
    Bytes rapdu;
    bool raw = false;    // rapdu is the whole exchange buffer
    uint8_t signal = 0;  // a signal instead of DF03 (A4 carries rapdu)
};

// The standard tap with the card's answers taken in order from `replies`.
void Run(const std::vector<Reply> &replies, const FirstTap &tap = {}) {
    ScriptedHost host;
    std::deque<Reply> queue(replies.begin(), replies.end());
    host.On(VELK_CMD_APDU, [&](const Message &) {
        if (queue.empty()) return Answer::Fail(0x30103);
        const Reply r = queue.front();
        queue.pop_front();
        if (r.raw) return Answer::Raw(r.rapdu);
        if (r.signal != 0) {
            host.Post(r.signal, r.rapdu);
            return Answer::Reply({});
        }
        return Answer::Reply({Tlv(0xDF03, r.rapdu)});
    });
    host.ics = tap.reader.Ics();
    host.Post(VELK_SIGNAL_FCI, With9000(tap.card.Fci()));
    (void)host.Start(tap.purchase.Input());
}

std::vector<Reply> Standard(const FirstTap &tap = {}) {
    const std::vector<Bytes> records = tap.card.Records();
    return {{tap.card.GpoResponse()},
            {With9000(records[0])},
            {With9000(records[1])},
            {tap.card.GacResponse()}};
}

// The standard answers with answer `index` replaced.
void RunWith(size_t index, Reply fault) {
    std::vector<Reply> replies = Standard();
    replies[index] = std::move(fault);
    Run(replies);
}

Bytes Nested(int depth) {
    Bytes inner = FromHex("9F0201 00");
    for (int i = 0; i < depth; ++i)
        inner = Tlv(0xE1, inner);
    return Tlv(0x70, inner);
}

TEST(Seeds, GpoResponseFaults) {
    RunWith(0, {FromHex("7781 0A 8281 021800 9481 0408010200 9000")});
    RunWith(0, {FromHex("7780 8202 1800 9404 08010200 0000 9000")});
    RunWith(0, {FromHex("7740 8202 1800 9000")});
    RunWith(0, {FromHex("7784FFFFFFFF 8202 1800 9000")});
    RunWith(0, {FromHex("770C 8202 1800 8202 5800 9404 08010200 9000")});
    RunWith(0, {FromHex("7704 8202 1800 9000")});  // no AFL
    RunWith(0, {FromHex("7708 8202 1800 9404 08010200 6283")});
    RunWith(0, {FromHex("9000")});
    RunWith(0, {FromHex("800A 1800 08010200 08020200 9000")});  // format 1
    RunWith(0, {Cat({FromHex("7782012C 8202 1800 9404 08010200 5F2F8201 22"), Bytes(290, 0x41),
                     FromHex("9000")})});
    RunWith(0, {FromHex("7F0106 DF032090 00"), true});  // DF03 claims 32 bytes, has 2
    RunWith(0, {FromHex("7F010A DF0305 7702 8200 9000"), true});
    RunWith(0, {FromHex("7708 8202 1800 9402 0801 9000")});  // AFL cut short
    RunWith(0, {FromHex("7708 8202 1800 9404 00FF0000 9000")});
}

TEST(Seeds, RecordFaults) {
    RunWith(1, {FromHex("7003 5F24 9000")});  // truncated tag
    RunWith(1, {FromHex("70 08 5A0112 5A0134 5F 9000")});
    RunWith(1, {FromHex("7010 5A08 5413330089601040 5A02 1234 9000")});  // duplicated
    RunWith(1, {FromHex("700A 5A08 5413330089601040 9000")});            // no expiry date
    RunWith(1, {FromHex("9000")});
    RunWith(1, {FromHex("6A83")});
    RunWith(1, {Cat({FromHex("7005 5F2403301231"), FromHex("6283")})});
    RunWith(1, {Cat({Nested(40), FromHex("9000")})});
    RunWith(1, {Cat({Nested(200), FromHex("9000")})});
    RunWith(1, {FromHex("7081 05 5F2403301231 9000")});
    RunWith(1, {FromHex("7080 5F2403301231 0000 9000")});
    RunWith(1, {FromHex("7005 FF2403301231 9000")});          // tag FF
    RunWith(1, {FromHex("7007 DFFFFF7F03301231 9000")});      // tag too long
    RunWith(2, {FromHex("7006 8C 84 00000002 9000")});        // CDOL1 with a lying length
    RunWith(2, {FromHex("7009 8E07 000000000000 1E 9000")});  // odd CVM list
    RunWith(1, {FromHex("9000"), false, VELK_SIGNAL_RAPDU});
    RunWith(1, {{}, false, VELK_SIGNAL_STOP});
}

TEST(Seeds, GenerateAcFaults) {
    RunWith(3, {FromHex("9000")});
    RunWith(3, {FromHex("770A 9F3602 0001 9F2608 1122 9000")});
    RunWith(3, {FromHex("8012 40 0001 1122334455667788 0110A00003220000 9000")});  // format 1
    RunWith(3, {FromHex("8003 40 00 9000")});
    RunWith(3, {FromHex("7703 9F2701 9000")});
    RunWith(3, {FromHex("7704 9F270140 6283")});
    RunWith(3, {{}, false, VELK_SIGNAL_COMM_ERROR_A5});
    RunWith(3, {{}, false, VELK_SIGNAL_COMM_ERROR_A6});
    RunWith(3, {FromHex("7F0104 DF0382FFFF"), true});
}

// An online request, then the second entry with the issuer's response,
// scripts before and after the second GENERATE AC, and the context back.
TEST(Seeds, TwoEntries) {
    ScriptedHost host;
    FirstTap tap;
    tap.AskOnline();
    std::vector<Reply> replies = Standard(tap);
    std::deque<Bytes> second = {FromHex("9000"), FromHex("9000"),
                                FromHex("7714 9F270140 9F360200 01 9F2608 1122334455667788 9000"),
                                FromHex("6985")};
    std::deque<Reply> first(replies.begin(), replies.end());
    host.On(VELK_CMD_APDU, [&](const Message &) {
        if (!first.empty()) {
            const Reply r = first.front();
            first.pop_front();
            return Answer::Reply({Tlv(0xDF03, r.rapdu)});
        }
        if (second.empty()) return Answer::Fail(0x30103);
        const Bytes r = second.front();
        second.pop_front();
        return Answer::Reply({Tlv(0xDF03, r)});
    });
    host.On(VELK_CMD_STORE_CONTEXT, [](const Message &) { return Answer::Keep(); });
    host.ics = tap.reader.Ics();
    host.Post(VELK_SIGNAL_FCI, With9000(tap.card.Fci()));
    (void)host.Start(tap.purchase.Input());

    host.context = {Tlv(0x8D, FromHex("8A02 9505 9F3704")), Tlv(0x9F8217, FromHex("01")),
                    Tlv(0x95, FromHex("0000008000")),       Tlv(0x9B, FromHex("E800")),
                    Tlv(0x9F9233, FromHex("1800")),         Tlv(0x8A, FromHex("3030"))};
    const Bytes script71 = Tlv(0x71, FromHex("9F1804 00000001 860D 8424000008 1122334455667788"));
    const Bytes script72 = Tlv(0x72, FromHex("9F1804 00000002 8605 80CA9F3600"));
    (void)host.Start(
        TransactionInput({Tlv(0x8A, FromHex("3030")), Tlv(0x91, FromHex("11223344556677880000")),
                          Tlv(0x9F02, FromHex("000000000100")), Tlv(0x5F2A, FromHex("0978")),
                          Tlv(0x9C, FromHex("00")), Tlv(0x9F06, tap.card.aid),
                          Tlv(0x9F8201, With9000(tap.card.Fci())), script71, script72}));
}

}  // namespace
}  // namespace velk::test
