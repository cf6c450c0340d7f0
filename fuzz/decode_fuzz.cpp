// SPDX-License-Identifier: Apache-2.0
// What `velk-term decode` and `tvr` do with their argument: hex text into
// bytes, the bytes decoded as TLV to lines and to JSON (bytes that are not
// UTF-8 replaced, as velk-term prints it), and explained as a TVR. The
// output must grow with the input, not with its nesting.
#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "fuzz_input.hpp"
#include "velk/host/tlv.hpp"
#include "velk/term/explain.hpp"

namespace {

size_t Decode(velk::term::ByteView bytes) {
    size_t out = 0;
    for (const std::string &line : velk::term::DecodeLines(bytes))
        out += line.size() + 1;
    out += velk::term::DecodeJson(bytes)
               .dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
               .size();
    for (const std::string &line : velk::term::ExplainTvr(bytes))
        out += line.size() + 1;
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    size_t out = Decode({data, size});
    try {
        const auto bytes =
            velk::host::FromHex(std::string_view(reinterpret_cast<const char *>(data), size));
        out += Decode(bytes);
    } catch (const std::invalid_argument &) {
    }
    velk::fuzz::Require(out <= 4096 + 2048 * size);
    return 0;
}
