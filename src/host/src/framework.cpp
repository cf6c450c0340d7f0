// pemv_kn_glb for a Linux host.
#include "velk/host/framework.hpp"

#include <cstring>
#include <utility>

namespace {

void *MemsetFn(void *dest, int value, int count) {
    return std::memset(dest, value, static_cast<size_t>(count));
}
void *MemcpyFn(void *dest, const void *src, int count) {
    return std::memmove(dest, src, static_cast<size_t>(count));
}
int MemcmpFn(const void *a, const void *b, int count) {
    return std::memcmp(a, b, static_cast<size_t>(count));
}
int StrlenFn(const char *str) {
    return static_cast<int>(std::strlen(str));
}

std::function<void(const char *)> &Sink() {
    static std::function<void(const char *)> sink;
    return sink;
}
void LogFn(const char *text) {
    if (Sink()) Sink()(text);
}

emv_kn_glb_t g_framework = {{MemsetFn, MemcpyFn, MemcmpFn, StrlenFn, LogFn},
                            {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
                            nullptr,
                            0,
                            0,
                            0,
                            nullptr,
                            0,
                            {}};

}  // namespace

extern "C" {
emv_kn_glb_t *pemv_kn_glb = &g_framework;
}

namespace velk::host {

emv_kn_glb_t &Framework() {
    return g_framework;
}

void SetLogSink(std::function<void(const char *)> sink) {
    Sink() = std::move(sink);
}

}  // namespace velk::host
