// The TLV tree editing library: tag checks, length forms, edits at any depth
// that keep every enclosing length correct, and refusal of malformed trees.
#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <vector>

#include "kn_tlv.h"
#include "velk/host/tlv.hpp"

namespace velk::test {
namespace {

using host::Bytes;
using host::FromHex;
using host::Tlv;

// n bytes counting up from 0.
Bytes Value(size_t n) {
    Bytes v(n);
    std::iota(v.begin(), v.end(), uint8_t{0});
    return v;
}

// A tree in a buffer with `room` spare bytes behind it.
std::vector<uint8_t> Tree(const Bytes &tree, size_t room = 512) {
    std::vector<uint8_t> b(tree.begin(), tree.end());
    b.resize(tree.size() + room, 0xEE);
    return b;
}

Bytes Root(const std::vector<uint8_t> &b) {
    return Bytes(b.begin(), b.begin() + tlv_get_node_l_(b.data()));
}

TEST(TreeNew, TagsAreCheckedAndLengthsLimitedTo83Form) {
    uint8_t b[16] = {};
    const uint8_t v[2] = {1, 2};
    EXPECT_EQ(tlv_new_(b, 0x1F, 2, v), 0u);
    EXPECT_EQ(tlv_new_(b, 0x9F80, 2, v), 0u);
    EXPECT_EQ(tlv_new_(b, 0x9F81, 2, v), 0u);
    EXPECT_EQ(tlv_new_(b, 0x00, 0, nullptr), 0u);
    EXPECT_EQ(tlv_new_(b, 0x9F0280, 0, nullptr), 0u);
    EXPECT_EQ(tlv_new_(b, 0xDF0102, 0, nullptr), 0u);  // 01 lacks 0x80
    EXPECT_EQ(tlv_new_(b, 0x9F02, 0x1000000, v), 0u);
    EXPECT_EQ(tlv_new_(b, 0x9F02, 2, nullptr), 0u);
    EXPECT_EQ(tlv_new_(nullptr, 0x9F02, 2, v), 0u);
    EXPECT_EQ(b[0], 0);
    EXPECT_EQ(tlv_new_(b, 0x9F02, 2, v), 5u);
    EXPECT_EQ(Bytes(b, b + 5), FromHex("9F 02 02 01 02"));
    EXPECT_EQ(tlv_new_(b, 0xDF8129, 0, nullptr), 4u);
    EXPECT_EQ(tlv_new_(b, 0xDF818203, 0, nullptr), 5u);
    EXPECT_EQ(tlv_new_(b, 0xFF8105, 0, nullptr), 4u);
}

TEST(TreeRead, LengthFormsAndTagSizes) {
    std::vector<uint8_t> big(0x10000 + 5, 0);
    tlv_new_(big.data(), 0x5A, 0x10000, big.data() + 5);
    EXPECT_EQ(Bytes(big.begin(), big.begin() + 5), FromHex("5A 83 01 00 00"));
    EXPECT_EQ(tlv_get_l_(big.data()), 0x10000u);
    EXPECT_EQ(tlv_get_l_len_(big.data()), 4u);
    const char *unsupported[] = {"5A 80 01", "5A 84 00 00 00 01"};
    for (const char *hex : unsupported) {
        const Bytes b = FromHex(hex);
        EXPECT_EQ(tlv_get_l_(b.data()), 0u) << hex;
        EXPECT_EQ(tlv_get_l_len_(b.data()), 0u) << hex;
        EXPECT_EQ(tlv_get_node_l_(b.data()), 1u) << hex;
    }
    const Bytes t = FromHex("DF 81 82 03 01 AA");
    EXPECT_EQ(tlv_get_t_(t.data()), 0xDF818203u);
    EXPECT_EQ(tlv_get_t_len_(t.data()), 4u);
    EXPECT_EQ(tlv_get_v_(const_cast<uint8_t *>(t.data())), t.data() + 5);
    const Bytes z = FromHex("00 00");
    EXPECT_EQ(tlv_get_t_(z.data()), 0u);
    EXPECT_EQ(tlv_get_t_len_(z.data()), 1u);
    EXPECT_EQ(tlv_get_t_(nullptr), 0u);
    EXPECT_EQ(tlv_is_composite_(FromHex("E1").data()), 1);
    EXPECT_EQ(tlv_is_composite_(FromHex("5A").data()), 0);
}

TEST(TreeAdd, TheParentsLengthFieldGrowsAndTheChildrenMove) {
    std::vector<uint8_t> b = Tree(FromHex("E1 00"));
    const Bytes v = Value(200);
    EXPECT_EQ(tlv_add_child_(b.data(), 0x5A, 200, v.data()), 206u);
    Bytes want = FromHex("E1 81 CB 5A 81 C8");
    want.insert(want.end(), v.begin(), v.end());
    EXPECT_EQ(Root(b), want);
    EXPECT_EQ(tlv_add_child_(b.data(), 0x9F02, 60, v.data()), 270u);
    EXPECT_EQ(Root(b), Tlv(0xE1, {Tlv(0x5A, v), Tlv(0x9F02, Bytes(v.begin(), v.begin() + 60))}));
    std::vector<uint8_t> prim = Tree(FromHex("5A 00"));
    EXPECT_EQ(tlv_add_child_(prim.data(), 0x9F02, 0, nullptr), 0u);
    EXPECT_EQ(tlv_add_child_(b.data(), 0x9F02, 3, nullptr), 0u);
    // A refused child leaves the parent as it was.
    EXPECT_EQ(tlv_add_child_(b.data(), 0x9F80, 1, v.data()), 270u);
}

TEST(TreeDelete, EveryEnclosingLengthShrinksWithTheFieldItself) {
    const Bytes rest = Tlv(0x5A, Value(119));  // 121 bytes
    const Bytes tree = Tlv(0xE1, {FromHex("9F 02 06 00 00 00 00 01 00"), rest});
    ASSERT_EQ(Bytes(tree.begin(), tree.begin() + 3), FromHex("E1 81 82"));
    std::vector<uint8_t> b = Tree(tree);
    EXPECT_EQ(tlv_delete_(b.data(), 0x9F02), 123u);
    Bytes want = FromHex("E1 79");
    want.insert(want.end(), rest.begin(), rest.end());
    EXPECT_EQ(Root(b), want);
    EXPECT_EQ(p_tlv_src, nullptr);
    // Nested two levels down.
    const Bytes deep =
        Tlv(0xE1, {Tlv(0xA5, {Tlv(0xBF0C, {Tlv(0x5A, Value(130))}), FromHex("50 01 41")}),
                   FromHex("9F 02 01 01")});
    b = Tree(deep);
    const uint32_t after = tlv_delete_(b.data(), 0x5A);
    const Bytes expect =
        Tlv(0xE1, {Tlv(0xA5, {FromHex("BF 0C 00"), FromHex("50 01 41")}), FromHex("9F 02 01 01")});
    EXPECT_EQ(after, expect.size());
    EXPECT_EQ(Root(b), expect);
    EXPECT_EQ(tlv_delete_(b.data(), 0x9F36), expect.size());
    EXPECT_EQ(tlv_delete_(b.data(), 0xE1), 0u);
}

TEST(TreeModify, NestedTwoLevelsKeepsBothLengthsAndReturnsTheSizeAtTheMatch) {
    std::vector<uint8_t> b = Tree(FromHex("E1 05 A5 03 5A 01 12"));
    const Bytes v = Value(200);
    // Root 7 - old node 3 + new node 203 = 207; the enclosing fields then
    // grow by one byte each: 209.
    EXPECT_EQ(tlv_modify_(b.data(), 0x5A, 200, v.data()), 207u);
    EXPECT_EQ(Root(b), Tlv(0xE1, {Tlv(0xA5, {Tlv(0x5A, v)})}));
    EXPECT_EQ(tlv_get_node_l_(b.data()), 209u);
    EXPECT_EQ(p_tlv_src, nullptr);
    EXPECT_EQ(p_tlv_total_size, 0u);
    // Shrinking back: 209 - 203 + 3 = 9 at the match, 7 once the fields shrink.
    EXPECT_EQ(tlv_modify_(b.data(), 0x5A, 1, v.data()), 9u);
    EXPECT_EQ(Root(b), FromHex("E1 05 A5 03 5A 01 00"));
    EXPECT_EQ(tlv_modify_(b.data(), 0x9F02, 1, v.data()), 0u);
    EXPECT_EQ(tlv_modify_(b.data(), 0x5A, 2, nullptr), 0u);
    EXPECT_EQ(Root(b), FromHex("E1 05 A5 03 5A 01 00"));
}

TEST(TreeReplaceAndMove, ReplaceAddsOrModifiesAndMoveCopiesValues) {
    std::vector<uint8_t> dst = Tree(FromHex("E1 03 5A 01 12"));
    EXPECT_EQ(tlv_replace_(dst.data(), 0x9F02, 1, FromHex("07").data()), 0u);
    EXPECT_EQ(tlv_replace_(dst.data(), 0x5A, 2, FromHex("34 56").data()), 0u);
    EXPECT_EQ(Root(dst), FromHex("E1 08 5A 02 34 56 9F 02 01 07"));
    std::vector<uint8_t> src = Tree(FromHex("E2 03 9F 36 00"));
    EXPECT_EQ(tlv_move_(src.data(), dst.data(), 0x9F27), 1u);
    EXPECT_EQ(Root(dst), FromHex("E1 08 5A 02 34 56 9F 02 01 07"));
    EXPECT_EQ(tlv_move_(src.data(), dst.data(), 0x9F36), 0u);
    EXPECT_EQ(Root(dst), FromHex("E1 0B 5A 02 34 56 9F 02 01 07 9F 36 00"));
    EXPECT_EQ(Root(src), FromHex("E2 03 9F 36 00"));
}

TEST(TreeBatchMove, EachChildByTagWithTheFirstOccurrencesValue) {
    std::vector<uint8_t> src = Tree(FromHex("E1 0A 5A 01 11 9F 02 01 22 5A 01 33"));
    std::vector<uint8_t> dst = Tree(FromHex("E2 00"));
    EXPECT_EQ(tlv_batch_move_(src.data(), dst.data()), 9u);
    EXPECT_EQ(Root(dst), FromHex("E2 07 5A 01 11 9F 02 01 22"));
    std::vector<uint8_t> prim = Tree(FromHex("5A 00"));
    EXPECT_EQ(tlv_batch_move_(src.data(), prim.data()), 0u);
}

TEST(TreeIteration, ChildrenInOrderUntilTheValueIsUsedUp) {
    std::vector<uint8_t> b = Tree(FromHex("E1 08 5A 01 11 E2 03 9F 36 00"));
    std::vector<uint32_t> tags;
    for (pu8 c = tlv_get_first_child_(b.data()); c != nullptr; c = tlv_get_next_child_(c))
        tags.push_back(tlv_get_t_(c));
    EXPECT_EQ(tags, (std::vector<uint32_t>{0x5A, 0xE2}));
    EXPECT_EQ(tlv_get_first_child_(Tree(FromHex("E1 00")).data()), nullptr);
    EXPECT_EQ(tlv_get_first_child_(Tree(FromHex("5A 01 00")).data()), nullptr);
}

// ---- Malformed trees --------------------------------------------------------------

TEST(TreeHostile, AChildPastItsParentIsRefusedAndNothingChanges) {
    const char *cases[] = {
        "E1 05 5A 01 11 9F 02 09",     // second child longer than the parent
        "E1 06 A5 02 5A 04 01 02",     // grandchild past its parent
        "E1 03 5A 01 11 DF 81",        // tag past the root's end (bytes after the root)
        "E1 04 5A 01 11 DF 81 82 83",  // 4-byte tag cut by the root's end
    };
    for (const char *hex : cases) {
        const Bytes src = FromHex(hex);
        const Bytes root(src.begin(), src.begin() + 2 + src[1]);
        std::vector<uint8_t> b(src.begin(), src.end());
        EXPECT_EQ(tlv_find_(b.data(), 0x9F36), nullptr) << hex;
        EXPECT_EQ(tlv_delete_(b.data(), 0x9F36), root.size()) << hex;
        EXPECT_EQ(tlv_modify_(b.data(), 0x9F36, 0, nullptr), 0u) << hex;
        EXPECT_EQ(Bytes(b.begin(), b.end()), src) << hex;
        for (pu8 c = tlv_get_first_child_(b.data()); c != nullptr; c = tlv_get_next_child_(c))
            EXPECT_LE(c + tlv_get_node_l_(c), b.data() + root.size()) << hex;
    }
}

// A constructed element copied with a bad child inside made every later search
// of the destination stop there; replace then appended on every call.
TEST(TreeHostile, MovesFromOrIntoAMalformedTreeCopyNothing) {
    Bytes src = FromHex("E1 0B A5 02 01 05 E1 00 E1 00 E1 00 E1 00");
    std::vector<uint8_t> s(src.begin(), src.end()), dst = Tree(FromHex("E2 00"), 1);
    EXPECT_EQ(tlv_batch_move_(s.data(), dst.data()), 0u);
    EXPECT_EQ(tlv_move_(s.data(), dst.data(), 0xE1), 1u);
    std::vector<uint8_t> bad = Tree(FromHex("E2 04 A5 02 01 05"), 1);
    EXPECT_EQ(tlv_move_(Tree(FromHex("E1 02 5A 00")).data(), bad.data(), 0x5A), 1u);
    EXPECT_EQ(tlv_add_child_(bad.data(), 0x5A, 0, nullptr), 0u);
    EXPECT_EQ(Root(dst), FromHex("E2 00"));
    EXPECT_EQ(Root(bad), FromHex("E2 04 A5 02 01 05"));
}

TEST(TreeHostile, NestingDeeperThan48IsRefused) {
    for (int levels : {48, 49}) {
        Bytes t = FromHex("5A 01 12");
        for (int i = 1; i < levels; ++i)
            t = Tlv(0xE1, {t});
        std::vector<uint8_t> b = Tree(t, 8);
        const bool ok = levels == 48;
        EXPECT_EQ(tlv_find_(b.data(), 0x5A) != nullptr, ok) << levels;
        EXPECT_EQ(tlv_delete_(b.data(), 0x9F02), t.size());
        EXPECT_EQ(tlv_modify_(b.data(), 0x5A, 1, FromHex("34").data()) != 0, ok) << levels;
    }
}

}  // namespace
}  // namespace velk::test
