#include "oda_material.hpp"

#include <stdexcept>

namespace velk::card {

namespace {

constexpr const char *kComputedNames[] = {
    "ca_index",       "issuer_certificate", "issuer_remainder", "issuer_exponent",
    "icc_certificate", "icc_remainder",      "icc_exponent",     "signed_static_data"};

}  // namespace

struct OdaKeys {};

bool IsComputedItemName(const std::string &name) {
    for (const char *n : kComputedNames)
        if (name == n) return true;
    return false;
}

std::string ComputedItemNames() {
    std::string out;
    for (const char *n : kComputedNames)
        out += (out.empty() ? "@" : ", @") + std::string(n);
    return out;
}

void ResolveComputedItems(Application &app) {
    bool computed = false;
    for (const Record &r : app.records)
        for (const RecordItem &item : r.items)
            computed = computed || !item.computed.empty();
    if (!computed && !app.oda) return;
    throw std::runtime_error("offline data authentication material needs the test PKI");
}

Bytes SignDynamicData(const OdaKeys &, std::span<const uint8_t>, std::span<const uint8_t>) {
    throw std::runtime_error("offline data authentication material needs the test PKI");
}

}  // namespace velk::card
