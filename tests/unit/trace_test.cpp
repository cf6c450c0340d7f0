// Trace lines as the host's log sink receives them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "emv_kernel_global.h"
#include "global.h"
#include "kn_trace.h"

namespace velk::test {
namespace {

std::vector<std::string> g_lines;

void Record(const char *line) {
    g_lines.emplace_back(line);
}

// Routes the log member to Record (or to nothing) for one test and starts
// with an empty line buffer.
class TraceTest : public ::testing::Test {
protected:
    void SetUp() override {
        saved_ = pemv_kn_glb->opt_std.opt_log;
        pemv_kn_glb->opt_std.opt_log = Record;
        g_lines.clear();
        g_put_len = 0;
    }
    void TearDown() override {
        pemv_kn_glb->opt_std.opt_log = saved_;
        g_put_len = 0;
    }

private:
    void (*saved_)(const char *) = nullptr;
};

TEST_F(TraceTest, ALongTextIsCutToOneFullLine) {
    const std::string text(300, 'x');
    kn_trace("%s", text.c_str());
    EXPECT_EQ(g_lines, std::vector<std::string>{std::string(255, 'x')});
    EXPECT_EQ(g_put_len, 0);
}

TEST_F(TraceTest, TextWithoutLineFeedWaitsForTheRestOfItsLine) {
    kn_trace("ab");
    EXPECT_TRUE(g_lines.empty());
    EXPECT_EQ(g_put_len, 2);
    kn_trace("c\n");
    EXPECT_EQ(g_lines, std::vector<std::string>{"abc\n"});
}

TEST_F(TraceTest, FormatsAndSplitsAtEveryLineFeed) {
    private_printf("%02X-%s\n%u\nrest", 0xAu, "x", 42u);
    EXPECT_EQ(g_lines, (std::vector<std::string>{"0A-x\n", "42\n"}));
    EXPECT_EQ(g_put_len, 4);
}

TEST_F(TraceTest, ALineIsAtMost255CharactersWithItsLineFeed) {
    const std::string body(254, 'y');
    kn_trace("%s\n", body.c_str());
    kn_trace("%s", std::string(255, 'z').c_str());
    kn_trace("\n");
    EXPECT_EQ(g_lines,
              (std::vector<std::string>{body + "\n", std::string(255, 'z'), std::string("\n")}));
}

TEST_F(TraceTest, WithoutALogLinesAreAssembledAndDropped) {
    pemv_kn_glb->opt_std.opt_log = nullptr;
    kn_trace("lost\nhalf");
    EXPECT_EQ(g_put_len, 4);
    kn_trace(" line\n");
    EXPECT_EQ(g_put_len, 0);
    pemv_kn_glb->opt_std.opt_log = Record;
    kn_trace("kept\n");
    EXPECT_EQ(g_lines, std::vector<std::string>{"kept\n"});
}

TEST_F(TraceTest, ACountOutsideTheBufferStartsAFreshLine) {
    for (int32_t bad : {-7, 255, 100000}) {
        g_put_len = bad;
        private_parse_trace_char('q');
        EXPECT_EQ(g_put_len, 1);
    }
    private_parse_trace_char('\n');
    EXPECT_EQ(g_lines, std::vector<std::string>{"q\n"});
}

TEST_F(TraceTest, DumpsAndAssertionsEmitNothing) {
    g_put_len = 3;
    for (uint32_t len : {0u, 1u, 15u, 16u, 17u, 40u}) {
        // Exactly sized, so a read past the end shows under the sanitizers.
        std::vector<uint8_t> data(len);
        for (uint32_t i = 0; i < len; ++i)
            data[i] = static_cast<uint8_t>(i * 13);
        kn_trace_dump(data.data(), len, 3);
        private_trace_ascii(data.data(), len);
    }
    kn_trace_dump(nullptr, 16, 0);
    kn_trace_assert("file.cpp", 12);
    const uint8_t bytes[] = {0x41, 0x0A, 0xFF};
    Velk_trace_value(bytes, sizeof bytes);
    Velk_trace_ascii(bytes, sizeof bytes);
    Velk_trace_data(bytes, sizeof bytes);
    EXPECT_TRUE(g_lines.empty());
    EXPECT_EQ(g_put_len, 3);
}

}  // namespace
}  // namespace velk::test
