// SPDX-License-Identifier: Apache-2.0
#include "velk/term/kernel.hpp"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

namespace velk::term {

namespace {

KernelSession *g_bound = nullptr;  // the session the kernel's callback reaches

std::filesystem::path ExecutableDir() {
    std::error_code ec;
    const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::filesystem::path() : exe.parent_path();
}

}  // namespace

KernelLibrary::KernelLibrary(const std::string &path) {
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        const char *why = dlerror();
        throw KernelLoadError("cannot load the kernel " + path + ": " +
                              (why ? why : "unknown error"));
    }
    const auto bind = [&](auto &fn, const char *name) {
        void *sym = dlsym(handle_, name);
        if (sym == nullptr) {
            dlclose(handle_);
            throw KernelLoadError(path + " does not export " + name);
        }
        fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(sym);
    };
    bind(api_.set_local_param, "Kernel_Set_Local_Param_Pointer_VELK_");
    bind(api_.load_callback, "Kernel_load_callback_Routine_VELK_");
    bind(api_.init, "Kernel_Init_VELK_");
    bind(api_.start, "Kernel_Start_VELK_");
    bind(api_.signal, "Kernel_Customized_Contactless_VELK_");
    api_.origin = path;
}

KernelLibrary::~KernelLibrary() {
    if (handle_ != nullptr) dlclose(handle_);
}

std::string KernelLibraryFile(const std::string &path) {
    const KernelLibrary library(path);
    // The path as the loader resolved it (it may have searched for a bare
    // soname), then the symbolic links followed to the versioned file.
    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    link_map *map = nullptr;
    std::string loaded = path;
    if (handle != nullptr && dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 && map != nullptr)
        loaded = map->l_name;
    if (handle != nullptr) dlclose(handle);
    std::error_code ec;
    const auto real = std::filesystem::canonical(loaded, ec);
    return ec ? loaded : real.string();
}

std::string KernelLibrary::DefaultPath() {
    // An installed velk-term finds the library of its installation; a build
    // tree's finds the one it was built with.
    const std::filesystem::path installed = ExecutableDir() / VELK_INSTALLED_LIBRARY;
    std::error_code ec;
    if (std::filesystem::exists(installed, ec)) return installed.lexically_normal().string();
#ifdef VELK_BUILD_LIBRARY
    if (std::filesystem::exists(VELK_BUILD_LIBRARY, ec)) return VELK_BUILD_LIBRARY;
#endif
    return "libvelk.so.1";  // the dynamic loader's own search
}

KernelSession::KernelSession(const KernelApi &api, CallbackHandler &handler)
    : api_(api), handler_(handler), block_(std::make_unique<Block>()) {
    if (g_bound != nullptr) throw std::logic_error("a kernel session is already bound");
    std::memset(block_->bytes, 0, sizeof block_->bytes);
    const uint32_t rv = api_.set_local_param(block_->bytes, sizeof block_->bytes);
    if (rv != 0)
        throw KernelLoadError(api_.origin + ": the kernel refused its memory block (status " +
                              std::to_string(rv) + ")");
    api_.load_callback(&KernelSession::Trampoline, 0);
    api_.init(nullptr, 0);
    g_bound = this;
}

KernelSession::~KernelSession() {
    g_bound = nullptr;
}

uint32_t KernelSession::Trampoline(uint8_t *buf, uint32_t *len) {
    // Nothing may unwind through the kernel: every exception ends here and
    // the kernel gets a failure status instead.
    KernelSession *self = g_bound;
    if (self == nullptr) return kHostFailed;
    try {
        return self->handler_.OnCallback(buf, len);
    } catch (const std::exception &e) {
        try {
            self->handler_.OnHostError(e.what());
        } catch (...) {
        }
    } catch (...) {
        try {
            self->handler_.OnHostError("unknown exception");
        } catch (...) {
        }
    }
    return kHostFailed;
}

KernelResult KernelSession::Start(const Bytes &input) {
    if (input.size() > VELK_IO_BUFFER_MIN_LEN)
        throw std::length_error("the transaction input (" + std::to_string(input.size()) +
                                " bytes) does not fit the kernel's buffer");
    std::vector<uint8_t> io(VELK_IO_BUFFER_MIN_LEN, 0);
    std::copy(input.begin(), input.end(), io.begin());
    uint32_t len = static_cast<uint32_t>(input.size());
    KernelResult result;
    result.status = api_.start(io.data(), &len);
    result.output.assign(io.begin(), io.begin() + std::min<size_t>(len, io.size()));
    return result;
}

void KernelSession::Signal(uint8_t type, const Bytes &data) {
    signal_data_.push_back(data);
    ClessSignal_Message msg{};
    msg.ucSignalType = type;
    msg.MessageData = signal_data_.back().empty() ? nullptr : signal_data_.back().data();
    msg.uiMessageDatalen = static_cast<uint32_t>(signal_data_.back().size());
    // The kernel copies the record; keep it anyway for the life of the session.
    signals_.push_back(msg);
    api_.signal(reinterpret_cast<uint8_t *>(&signals_.back()));
}

}  // namespace velk::term
