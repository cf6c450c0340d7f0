// Profiles that are wrong are refused with the file, the field and what is
// wrong; every bundled profile, list and scenario loads.
#include <gtest/gtest.h>

#include "term/term_test.hpp"
#include "velk/card/card_profile.hpp"
#include "velk/term/scenario.hpp"

namespace velk::term::test {
namespace {

using velk::card::LoadCardProfile;
using velk::card::ProfileError;

std::string ErrorOf(const std::function<void()> &f) {
    try {
        f();
    } catch (const ProfileError &e) {
        return e.what();
    }
    return "(no error)";
}

// A card derived from the bundled offline card, with one change.
std::string CardError(const std::string &patch) {
    TempDir dir;
    const std::string base = (Profiles() / "cards" / "offline-cda.json").string();
    const auto p = dir.Write("x.json", R"({"extends": ")" + base + R"(", )" + patch + "}");
    std::string e = ErrorOf([&] { LoadCardProfile(p); });
    const std::string prefix = p.string() + ": ";
    if (e.rfind(prefix, 0) == 0) e = "x.json: " + e.substr(prefix.size());
    return e;
}

TEST(ProfileErrors, SyntaxErrorsGiveLineAndColumn) {
    TempDir dir;
    const auto p =
        dir.Write("bad.json", "{\n  \"name\": \"x\",\n  \"application\": {\n    \"aid\": 12,,\n}");
    const std::string e = ErrorOf([&] { LoadCardProfile(p); });
    EXPECT_EQ(e.rfind(p.string() + ":4:15: JSON syntax error:", 0), 0u) << e;
    EXPECT_EQ(ErrorOf([&] { LoadCardProfile(dir.Path() / "missing.json"); }),
              (dir.Path() / "missing.json").string() + ": no such file");
}

TEST(ProfileErrors, LineAndColumnCountFromOne) {
    EXPECT_EQ(velk::card::LineAndColumn("ab\ncd", 1), std::make_pair(size_t{1}, size_t{1}));
    EXPECT_EQ(velk::card::LineAndColumn("ab\ncd", 5), std::make_pair(size_t{2}, size_t{2}));
    EXPECT_EQ(velk::card::LineAndColumn("ab", 99), std::make_pair(size_t{1}, size_t{3}));
}

struct FieldCase {
    const char *patch;
    const char *error;
};

class CardFieldErrors : public ::testing::TestWithParam<FieldCase> {};

TEST_P(CardFieldErrors, NameTheFieldAndTheProblem) {
    EXPECT_EQ(CardError(GetParam().patch), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Cards, CardFieldErrors,
    ::testing::Values(
        FieldCase{R"("application": {"gpo": {"aip": "19"}})",
                  "x.json: field application.gpo.aip: expected 4 hex digits, found 2"},
        FieldCase{
            R"("application": {"gpo": {"aip": "19XY"}})",
            "x.json: field application.gpo.aip: expected 4 hex digits (hex: bad character 'X')"},
        FieldCase{R"("application": {"gpo": {"aip": 1900}})",
                  "x.json: field application.gpo.aip: expected 4 hex digits, found number"},
        FieldCase{
            R"("application": {"gpoo": {}})",
            "x.json: field application: unknown field 'gpoo' (known: label, aid, priority, "
            "kernel_id, in_ppse, fci, fci_raw, select_sw, gpo, records, get_data, put_data, "
            "generate_ac, atc, last_online_atc, echo, internal_authenticate_format, scripts, oda)"},
        FieldCase{R"("application": {"generate_ac": {"algorithm": "rc4"}})",
                  "x.json: field application.generate_ac.algorithm: expected \"3des\" or \"aes\""},
        FieldCase{
            R"("application": {"generate_ac": {"first": {"tc": "yes"}}})",
            "x.json: field application.generate_ac.first.tc: expected \"aac\", \"tc\" or \"arqc\""},
        FieldCase{
            R"("application": {"atc": 70000})",
            "x.json: field application.atc: expected an integer from 0 to 65534, found 70000"},
        FieldCase{
            R"("application": {"records": {"2.1": {"5A": "8999123456789029"}}})",
            "x.json: field application: the PAN (5A) 8999123456789029 differs from the PAN in "
            "Track 2 (57) 8999123456789011"},
        FieldCase{R"("application": {"records": {"2.1": {"5F24": "291231"}}})",
                  "x.json: field application: the expiry date (5F24) 291231 differs from Track 2's "
                  "YYMM 3012"},
        FieldCase{
            R"("application": {"records": {"1.1": {"57": null}}})",
            "x.json: field application: the records hold no Track 2 Equivalent Data (57), which "
            "the kernel needs"},
        FieldCase{
            R"("application": {"gpo": {"afl": "08010200"}})",
            "x.json: field application: the AFL entry 08010200 names record 2 of SFI 1, which the "
            "profile does not define"},
        FieldCase{R"("application": {"gpo": {"afl": "08020100"}})",
                  "x.json: field application: AFL entry 08020100 is not valid"},
        FieldCase{
            R"("application": {"gpo": {"c5": "02"}})",
            "x.json: field application: gpo.c5 needs generate_ac.c5 with the same CVM bits (the "
            "low three)"},
        FieldCase{
            R"("application": {"records": {"9.x": {}}})",
            "x.json: field application.records.9.x: a record is named SFI.RECORD, e.g. \"1.1\""},
        FieldCase{R"("application": {"records": {"3.1": {"90": "@issuer_cert"}}})",
                  "x.json: field application.records.3.1.90: unknown computed value '@issuer_cert' "
                  "(known: @ca_index, @issuer_certificate, @issuer_remainder, @issuer_exponent, "
                  "@icc_certificate, @icc_remainder, @icc_exponent, @signed_static_data)"},
        FieldCase{
            R"("application": {"oda": {"issuer_key": "issuer2048"}})",
            "x.json: field application: oda: unknown issuer key 'issuer2048' (test keys: ca1152, "
            "ca1024, issuer1024, issuer864, issuer744, icc1024, icc768, icc688)"},
        FieldCase{
            R"("application": {"records": {"2.1": {"9F46": "@icc_certificate"}}})",
            "x.json: field application: oda: @icc_certificate is in record 1 of SFI 2, which is "
            "signed for offline data authentication and so cannot contain its own signature"},
        FieldCase{R"("application": {"oda": null})",
                  "x.json: field application: oda: computed record values need an \"oda\" section"},
        FieldCase{R"("application": null, "applications": [])",
                  "x.json: field applications: a card needs at least one application"},
        FieldCase{R"("applications": [])",
                  "x.json: a card has either \"application\" (one) or \"applications\" (a list)"}),
    [](const auto &info) { return std::to_string(info.index); });

TEST(ProfileErrors, ChecksCanBeSwitchedOffForDeliberatelyBrokenCards) {
    TempDir dir;
    const std::string base = (Profiles() / "cards" / "offline-cda.json").string();
    const auto p = dir.Write(
        "x.json", R"({"extends": ")" + base +
                      R"(", "checks": false, "application": {"records": {"2.1": {"5A": "12"}}}})");
    EXPECT_EQ(LoadCardProfile(p).applications[0].RecordValue(0x5A), FromHex("12"));
}

TEST(ProfileErrors, ExtendsMergesFieldByFieldAndNullDeletes) {
    const auto online = CardProfileNamed("online-cda");
    const auto offline = CardProfileNamed("offline-cda");
    EXPECT_EQ(online.name, "Online CDA card");
    EXPECT_EQ(online.applications[0].policy.first[1], velk::card::Cryptogram::kArqc);
    EXPECT_EQ(online.applications[0].aip, offline.applications[0].aip);
    EXPECT_NE(online.applications[0].RecordValue(0x5A), offline.applications[0].RecordValue(0x5A));
    TempDir dir;
    const auto a = dir.Write("a.json", R"({"extends": "b.json"})");
    dir.Write("b.json", R"({"extends": "a.json"})");
    EXPECT_NE(ErrorOf([&] { LoadCardProfile(a); }).find("more than 8 deep"), std::string::npos);
}

TEST(ProfileErrors, TerminalProfilesAndTheirFiles) {
    TempDir dir;
    const std::string base = (Profiles() / "terminals" / "pos.json").string();
    const auto no_caps =
        dir.Write("t.json", R"({"extends": ")" + base + R"(", "parameters": {"9F9301": null}})");
    EXPECT_EQ(ErrorOf([&] { LoadTerminalProfile(no_caps); }),
              no_caps.string() + ": field parameters: missing 9F9301, which the kernel needs");
    const auto keys = dir.Write(
        "keys.json",
        R"({"keys": [{"rid": "F056454C4B", "index": "F1", "modulus": "00", "exponent": "03"}]})");
    EXPECT_EQ(ErrorOf([&] { LoadCaKeys(keys); }),
              keys.string() + ": field keys[0].modulus: expected 128 to 496 hex digits, found 2");
    const auto bad_tag =
        dir.Write("t2.json", R"({"extends": ")" + base + R"(", "parameters": {"9F": "00"}})");
    EXPECT_EQ(ErrorOf([&] { LoadTerminalProfile(bad_tag); }),
              bad_tag.string() +
                  ": field parameters.9F: expected a tag of 1 to 4 bytes in hex as the name of "
                  "this field");
}

TEST(ProfileErrors, ScenariosNameTheirBadFieldCardOrFault) {
    TempDir dir;
    const auto s = dir.Write("s.json", R"({"name": "x", "card": "offline-cda", "terminal": "pos",
        "faults": ["tear@gac9"], "expect": {}})");
    EXPECT_EQ(ErrorOf([&] { LoadScenario(s); }),
              s.string() +
                  ": field faults[0]: fault 'tear@gac9': unknown command 'gac9' (select-ppse, "
                  "select, gpo, read-record, get-data, put-data, internal-authenticate, gac, gac1, "
                  "gac2, echo, script, any)");
    const auto e = dir.Write(
        "e.json",
        R"({"name": "x", "card": "offline-cda", "terminal": "pos", "expect": {"outcom": "X"}})");
    EXPECT_NE(ErrorOf([&] { LoadScenario(e); }).find("unknown field 'outcom'"), std::string::npos);
    // Neither a file beside the scenario nor a bundled card.
    const auto c = dir.Write("c.json", R"({"name": "x", "card": "nocard", "terminal": "pos"})");
    EXPECT_EQ(
        ErrorOf([&] { LoadScenario(c); })
            .rfind(c.string() + ": field card: nocard: no such file, and no bundled cards profile",
                   0),
        0u)
        << ErrorOf([&] { LoadScenario(c); });
}

TEST(BundledProfiles, EveryCardTerminalAndScenarioLoads) {
    for (const char *kind : {"cards", "terminals", "scenarios"})
        for (const auto &f : std::filesystem::directory_iterator(Profiles() / kind)) {
            SCOPED_TRACE(f.path().string());
            if (std::string(kind) == "cards") {
                EXPECT_NO_THROW(LoadCardProfile(f.path()));
            } else if (std::string(kind) == "terminals") {
                EXPECT_NO_THROW(LoadTerminalProfile(f.path()));
            } else {
                const Scenario s = LoadScenario(f.path());
                EXPECT_TRUE(std::filesystem::exists(s.card));
                EXPECT_TRUE(std::filesystem::exists(s.terminal));
            }
        }
}

TEST(BundledProfiles, TheTerminalSupportsEveryBundledCardsApplication) {
    const TerminalProfile pos = TerminalNamed("pos");
    for (const auto &f : std::filesystem::directory_iterator(Profiles() / "cards"))
        for (const auto &app : LoadCardProfile(f.path()).applications)
            EXPECT_NE(pos.FindApplication(app.aid), nullptr) << f.path();
}

}  // namespace
}  // namespace velk::term::test
