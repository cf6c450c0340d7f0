// SPDX-License-Identifier: Apache-2.0
// Kernel state in rows: "9F34=3F0001, tvr=0000800000, step=1900, 8E=-". A hex
// key is a database tag ("-" absent), a word one of the fields below; numbers
// (step, errorcode, ...) are written in hex, big-endian.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>

#include "database.h"
#include "global.h"
#include "rows.hpp"

namespace velk::test {

struct StateField {
    const char *name;
    size_t offset, size;
    bool number;       // a uint32_t, shown as a number
    size_t lenOffset;  // the field's length counter (variable fields), else 0
};

#define VELK_FIELD(n, m) \
    { n, offsetof(VELK_GLOBALVALUE_STRUCT, m), sizeof(VELK_GLOBALVALUE_STRUCT::m), false, 0 }
#define VELK_NUMBER(n, m) \
    { n, offsetof(VELK_GLOBALVALUE_STRUCT, m), 4, true, 0 }
#define VELK_VARIABLE(n, m, l)                                                              \
    {                                                                                       \
        n, offsetof(VELK_GLOBALVALUE_STRUCT, m), sizeof(VELK_GLOBALVALUE_STRUCT::m), false, \
            offsetof(VELK_GLOBALVALUE_STRUCT, l)                                            \
    }
inline constexpr StateField kStateFields[] = {
    VELK_NUMBER("step", Transaction_Step),
    VELK_FIELD("ttpi", ucTTPI),
    VELK_FIELD("tvr", ucTVR),
    VELK_FIELD("tsi", ucTSI),
    VELK_FIELD("cvm", ucCVM),
    VELK_FIELD("cvmresult", ucCVMResult),
    VELK_FIELD("ttype", ucTransationType),
    VELK_FIELD("taa", ucTAAResult),
    VELK_VARIABLE("dyn", ucDynamicTransactionParameters, uiDynamicTransactionParametersLen),
    VELK_VARIABLE("rapdu", ucLastRAPDU, uiLastRAPDULen),
    VELK_FIELD("outcome", FinalOutCome),
    VELK_FIELD("uird", UIRD),
    VELK_FIELD("uirdrestart", UIRD_Restart),
    VELK_VARIABLE("oda", ODA_AuthData, ODA_AuthData_len),
    VELK_FIELD("odanok", ODA_Data_From_Record_NOK),
    VELK_FIELD("result", ucTranResult),
    VELK_FIELD("notallowed", ucContactlessApplicationNotAllowedindicator),
    VELK_NUMBER("errorcode", uiProcessErrorCode),
    VELK_NUMBER("updated", NumOfDataElementUpDated),
    VELK_FIELD("echotx", EchoTransactionIndicator),
    VELK_FIELD("commproblem", CommunicationProblemIndicator),
    VELK_FIELD("cam", Offline_CAM_Selected_Indicator),
    VELK_FIELD("cdarequested", CDA_Signature_Requested),
    VELK_FIELD("echo", ECHO_Command_supported),
    VELK_FIELD("preproc", Contactless_Pre_Processing_Indicators),
    VELK_FIELD("reader", ucVelkReader),
    VELK_FIELD("kernelid", ucKernelID),
};
#undef VELK_FIELD
#undef VELK_NUMBER
#undef VELK_VARIABLE

// Calls f(key, value) for each "key=value" item of a state list.
template <class F>
void ForEachItem(const std::string &list, F f) {
    for (size_t pos = 0; pos < list.size();) {
        size_t end = list.find(',', pos);
        if (end == std::string::npos) end = list.size();
        const std::string item = list.substr(pos, end - pos);
        const size_t eq = item.find('=');
        if (eq != std::string::npos) {
            const size_t k0 = item.find_first_not_of(' ');
            const size_t k1 = item.find_last_not_of(' ', eq - 1);
            f(item.substr(k0, k1 + 1 - k0), item.substr(eq + 1));
        }
        pos = end + 1;
    }
}

inline const StateField *FindField(const std::string &key) {
    for (const StateField &f : kStateFields)
        if (key == f.name) return &f;
    return nullptr;
}

inline bool IsAbsent(const std::string &v) {
    return v.find('-') != std::string::npos;
}

// The state's current value under `key`: hex, a number for the number fields,
// "-" for an absent tag.
inline std::string StateValue(const std::string &key) {
    auto *base = reinterpret_cast<uint8_t *>(pgbVelkGlobalValue);
    if (const StateField *f = FindField(key)) {
        uint32_t n = static_cast<uint32_t>(f->size);
        if (f->number || f->lenOffset != 0)
            std::memcpy(&n, base + (f->number ? f->offset : f->lenOffset), 4);
        if (f->number) return std::to_string(n);
        return host::ToHex(
            Bytes(base + f->offset, base + f->offset + std::min<size_t>(n, f->size)));
    }
    OBJECT_TAG obj{};
    if (VelkDataBase_GetTagValue(static_cast<uint32_t>(std::stoul(key, nullptr, 16)), &obj) != 0)
        return "-";
    return host::ToHex({obj.pValue, obj.uiLength});
}

// Writes the state's items: fields, and database tags (stored anew, or
// deleted with "-").
inline void SetState(Row &row, const std::string &list) {
    ForEachItem(list, [&](const std::string &key, const std::string &value) {
        auto *base = reinterpret_cast<uint8_t *>(pgbVelkGlobalValue);
        if (const StateField *f = FindField(key)) {
            Bytes v = Row::ParseHex(value);
            if (f->number) {
                uint32_t n = 0;
                for (uint8_t b : v)
                    n = n << 8 | b;
                std::memcpy(base + f->offset, &n, 4);
            } else {
                std::memcpy(base + f->offset, v.data(), std::min(v.size(), f->size));
                if (f->lenOffset != 0) {
                    const uint32_t len = static_cast<uint32_t>(v.size());
                    std::memcpy(base + f->lenOffset, &len, 4);
                }
            }
            return;
        }
        const uint32_t tag = static_cast<uint32_t>(std::stoul(key, nullptr, 16));
        VelkDataBase_Del_TAG(tag);
        if (IsAbsent(value)) return;
        const Bytes v = Row::ParseHex(value);
        row.Eq("storing " + key, 0u,
               VelkDataBase_Set_TAG(tag, static_cast<uint32_t>(v.size()), v.data()));
    });
}

// Compares each item with the kernel's state ("??*N" leaves bytes unchecked).
inline void ExpectState(Row &row, const std::string &list) {
    ForEachItem(list, [&](const std::string &key, const std::string &value) {
        const StateField *f = FindField(key);
        const std::string got = StateValue(key);
        if (IsAbsent(value) || got == "-")
            row.Eq(key, IsAbsent(value) ? "-" : "present", got);
        else if (f != nullptr && f->number)
            row.Eq(key, std::to_string(std::stoul(value, nullptr, 16)), got);
        else
            row.Matches(key, value, host::FromHex(got), f == nullptr);
    });
}

}  // namespace velk::test
