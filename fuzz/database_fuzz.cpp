// SPDX-License-Identifier: Apache-2.0
// Card-shaped elements set, overwritten, deleted and read in a bound kernel
// block, with the data records built from the result. After every operation
// the database must be one well-formed 7F01 of at most 8192 bytes whose
// direct children carry each tag once.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_input.hpp"

#include "baseKernel.h"
#include "checked.hpp"
#include "database.h"
#include "emv_kernel.h"
#include "global.h"
#include "tlv.h"

namespace {

using velk::fuzz::Input;
using velk::fuzz::Require;

alignas(8) uint8_t g_block[VELK_LOCAL_PARAM_MIN_LEN];

// Tags a card, a host or the kernel store: single and multiple, constructed
// templates, 3- and 4-byte proprietary tags, the kernel's configuration.
constexpr uint32_t kTags[] = {
    0x5A,     0x57,     0x5F20,   0x5F24,   0x82,       0x84,     0x8C,     0x94,     0x9F02,
    0x9F10,   0x9F26,   0x9F27,   0x9F36,   0x9F38,     0x9F1F,   0x9F4B,   0x9F6E,   0x9F80,
    0x50,     0xA5,     0x70,     0x77,     0xBF0C,     0xDF8129, 0xDF8301, 0x9F9301, 0x9F9302,
    0x9F9309, 0x9F9311, 0x9F9313, 0x9F8201, 0xDF818283, 0x9F71,   0x9F74,   0x95,     0x9B};

void CheckDatabase() {
    uint8_t *db = pgbVelkGlobalValue->ucDataBasebuf;
    Require(TLV_GetTag(db) == 0x7F01);
    const uint32_t total = TLV_GetTlvTotalLen(db);
    Require(total <= VELK_DATABASE_LEN);
    Require(velk::WellFormedLen(db, VELK_DATABASE_LEN) == total);
    uint32_t seen[256];
    uint32_t count = 0;
    for (uint8_t *c = TLV_GetFirstChildTag_Ex(db); c != nullptr; c = TLV_GetNextChildTag_Ex(db)) {
        const uint32_t tag = TLV_GetTag(c);
        for (uint32_t i = 0; i < count; ++i)
            Require(seen[i] != tag);
        if (count < 256) seen[count++] = tag;
    }
}

void ReadBack(uint32_t tag) {
    OBJECT_TAG o{};
    if (VelkDataBase_GetTagValue(tag, &o) != 0) {
        Require(VelkDataBase_Tag_IsNotPresent(tag));
        return;
    }
    uint8_t *db = pgbVelkGlobalValue->ucDataBasebuf;
    Require(o.pValue >= db && o.pValue + o.uiLength <= db + TLV_GetTlvTotalLen(db));
    std::vector<uint8_t> exact(o.uiLength + 1);
    uint32_t len = 0;
    Require(VelkDataBase_Get_TagValue(tag, &len, exact.data()) == 0 && len == o.uiLength);
    uint8_t small[4];
    Require(velk::DbGet(tag, small, sizeof small, &len) == 0 && len <= sizeof small);
    (void)VelkCless_Check_Tag_Length(tag, o.uiLength);
}

void BuildRecords() {
    std::vector<uint8_t> work(VELK_RECORD_WORK_LEN, 0);
    uint32_t len = 0;
    VelkCless_Create_DataRecord(1, work.data(), &len);
    Require(TLV_GetTlvTotalLen(work.data()) <= VELK_RECORD_WORK_LEN);
    VelkCless_Create_DiscretionaryData(work.data(), &len);
    VelkCless_Create_ErrorOutData(work.data(), &len);
    TLV_New(work.data(), 0x7F15, nullptr, 0);
    VelkCless_Create_2ndGAC_OnlineData_DataRecord(work.data(), &len);
    Require(TLV_GetTlvTotalLen(work.data()) <= VELK_RECORD_WORK_LEN);
    (void)VelkCless_Check_MandatoryDataIsMissing();
    (void)VelkCless_Kernel_Capabilities_IsTrue(0x0340);
    (void)VelkCless_Kernel_Capabilities_IsTrue(0x0908);
    (void)VelkCless_EchoCardIdentifier_9F75_isPartOf_FCI();
    (void)VelkCless_FCI_in_DynamicTransParameters_isEqual_To_DataBase_FCI();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::memset(g_block, 0, sizeof g_block);
    Require(Kernel_Set_Local_Param_Pointer_VELK_(g_block, sizeof g_block) == 0);
    Kernel_Init_VELK_(nullptr, 0);
    // The dynamic transaction parameters with an 8A, so that the stored FCI
    // is searched too.
    VELK_GLOBALVALUE_STRUCT &g = *pgbVelkGlobalValue;
    TLV_New(g.ucDynamicTransactionParameters, 0x7F01, nullptr, 0);
    g.uiDynamicTransactionParametersLen = TLV_AddTag(g.ucDynamicTransactionParameters, 0x8A,
                                                     reinterpret_cast<const uint8_t *>("00"), 2);

    Input in{data, size};
    std::vector<uint8_t> value;
    while (in.n > 0) {
        const uint8_t op = in.Byte();
        const uint32_t tag = kTags[in.Byte() % (sizeof kTags / sizeof kTags[0])];
        uint32_t len = in.Byte();
        if ((op & 0x40) != 0) len = len * 40;  // up to 10200 bytes: past the database
        value.assign(len, 0);
        for (uint32_t i = 0; i < len && in.n > 0; ++i)
            value[i] = in.Byte();
        const bool constructed = ((tag >> (8 * (velk::TagSize(tag) - 1))) & 0x20) != 0;
        // A card's template has passed TLV_Check_Format before it is stored.
        const bool storable = !constructed || TLV_Check_Format(value.data(), &len);
        switch (op & 7) {
            case 0:
            case 1:
                if (storable) VelkDataBase_Set_TAG(tag, len, value.data());
                break;
            case 2: {
                OBJECT_TAG o{tag, len, value.data()};
                if (storable) VelkDataBase_SetTAG(&o);
                break;
            }
            case 3:
                VelkDataBase_Del_TAG(tag);
                break;
            case 4: {
                // A value taken from the database itself, stored under another tag.
                OBJECT_TAG from{};
                const uint32_t other = kTags[len % (sizeof kTags / sizeof kTags[0])];
                if (VelkDataBase_GetTagValue(tag, &from) == 0 && !constructed &&
                    (((other >> (8 * (velk::TagSize(other) - 1))) & 0x20) == 0))
                    VelkDataBase_Set_TAG(other, from.uiLength / (1 + (op >> 4 & 1)), from.pValue);
                break;
            }
            case 5:
                ReadBack(tag);
                break;
            case 6:
                BuildRecords();
                break;
            default:
                if ((op & 0x80) != 0) VelkDataBase_Init();
                break;
        }
        CheckDatabase();
    }
    BuildRecords();
    return 0;
}
