// Reading and writing the kernel database from tests, in hex.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>

#include "database.h"
#include "global.h"
#include "velk/host/tlv.hpp"

namespace velk::test {

// Stores a value, replacing any earlier one (also of a tag that may be set
// only once per transaction).
inline void Put(uint32_t tag, const host::Bytes &value) {
    VelkDataBase_Del_TAG(tag);
    ASSERT_EQ(VelkDataBase_Set_TAG(tag, static_cast<uint32_t>(value.size()), value.data()), 0u)
        << std::hex << tag;
}
inline void Put(uint32_t tag, std::string_view hex) {
    Put(tag, host::FromHex(hex));
}
inline bool Has(uint32_t tag) {
    return VelkDataBase_Tag_IsPresent(tag) != 0;
}
// The stored value in hex ("absent" when the tag is not stored).
inline std::string Db(uint32_t tag) {
    OBJECT_TAG obj{};
    if (VelkDataBase_GetTagValue(tag, &obj) != 0) return "absent";
    return host::ToHex({obj.pValue, obj.uiLength});
}
inline std::string Hex(const uint8_t *p, size_t n) {
    return host::ToHex({p, n});
}
inline std::string Hex(const host::Bytes &b) {
    return host::ToHex(b);
}
inline std::string Tvr() {
    return Hex(pgbVelkGlobalValue->ucTVR, 5);
}
inline std::string Outcome() {
    return Hex(reinterpret_cast<const uint8_t *>(&pgbVelkGlobalValue->FinalOutCome), 8);
}

}  // namespace velk::test
