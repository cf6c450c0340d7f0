// SPDX-License-Identifier: Apache-2.0
// Names of the data objects the terminal meets: EMV's own, and the kernel's
// proprietary tags (configuration, intermediate results, callback messages,
// the outcome).
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace velk::term {

// How a value is best shown.
enum class TagFormat {
    kBinary,      // hex
    kNumeric,     // BCD digits, right-justified
    kCompressed,  // digits, left-justified, F-padded
    kText,        // printable characters
};

struct TagInfo {
    uint32_t tag;
    const char *name;
    TagFormat format;
};

// The whole dictionary.
std::span<const TagInfo> AllTags();
// Null when the tag is not in the dictionary.
const TagInfo *FindTag(uint32_t tag);
// The name, or "unknown tag" for one the dictionary does not know.
std::string TagName(uint32_t tag);
// "9F02" for 0x9F02.
std::string TagHex(uint32_t tag);

}  // namespace velk::term
