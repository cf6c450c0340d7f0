// SPDX-License-Identifier: Apache-2.0
// The kernel as a terminal host binds it: libvelk.so loaded at run time
// (dlopen), a zero-filled memory block, the host callback and the signal
// entry. The executable publishes the platform services (pemv_kn_glb) that
// the library imports.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "emv_kernel.h"
#include "velk/host/tlv.hpp"

namespace velk::term {

using Bytes = velk::host::Bytes;

// The entry functions of one kernel.
struct KernelApi {
    uint32_t (*set_local_param)(uint8_t *, uint32_t) = nullptr;
    uint32_t (*load_callback)(pCallback_Process_EntryPoint_Fun, uint32_t) = nullptr;
    uint32_t (*init)(uint8_t *, uint32_t) = nullptr;
    uint32_t (*start)(uint8_t *, uint32_t *) = nullptr;
    uint32_t (*signal)(uint8_t *) = nullptr;
    std::string origin;  // where the functions come from, for messages
};

class KernelLoadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// libvelk.so opened with dlopen; closed on destruction.
class KernelLibrary {
public:
    explicit KernelLibrary(const std::string &path);
    ~KernelLibrary();
    KernelLibrary(const KernelLibrary &) = delete;
    KernelLibrary &operator=(const KernelLibrary &) = delete;

    const KernelApi &Api() const { return api_; }

    // The library of this build (or installation) that --lib replaces.
    static std::string DefaultPath();

private:
    void *handle_ = nullptr;
    KernelApi api_;
};

// The file the dynamic loader opens for path (its real name, with the
// library's version in it). Throws KernelLoadError.
std::string KernelLibraryFile(const std::string &path);

// Signal types (see ClessSignal_Message).
inline constexpr uint8_t kSignalFci = 0xA0;        // the SELECT response of the chosen application
inline constexpr uint8_t kSignalStop = 0xA1;       // the terminal stops the transaction
inline constexpr uint8_t kSignalResponse = 0xA4;   // a response APDU
inline constexpr uint8_t kSignalCommError = 0xA5;  // communication error
inline constexpr uint8_t kSignalNoCard = 0xA6;     // communication error: no card

// Statuses the host returns from the callback when it cannot answer.
inline constexpr uint32_t kHostUnknownCommand = 0x3FF01;
inline constexpr uint32_t kHostFailed = 0x3FF02;
inline constexpr uint32_t kHostReplyTooLong = 0x3FF03;
inline constexpr uint32_t kHostRefused = 0x3FF04;
inline constexpr uint32_t kHostMalformedRequest = 0x3FF05;

// What the kernel's callback lands on.
class CallbackHandler {
public:
    virtual ~CallbackHandler() = default;
    // Reads the request in buf (*len bytes), writes the reply there and sets
    // *len; a non-zero result is the failure status handed to the kernel.
    virtual uint32_t OnCallback(uint8_t *buf, uint32_t *len) = 0;
    // An exception escaped OnCallback; the kernel is told kHostFailed.
    virtual void OnHostError(const std::string &what) = 0;
};

struct KernelResult {
    uint32_t status = 0;
    Bytes output;  // the outcome TLV
};

// One bound kernel: the block, the callback and the signals posted in a
// transaction. Only one session may be bound at a time in a process (the
// kernel's exchange buffer and callback are single instances).
class KernelSession {
public:
    KernelSession(const KernelApi &api, CallbackHandler &handler);
    ~KernelSession();
    KernelSession(const KernelSession &) = delete;
    KernelSession &operator=(const KernelSession &) = delete;

    // Runs one transaction on the input TLV. Throws std::length_error when the
    // input does not fit the kernel's buffer.
    KernelResult Start(const Bytes &input);
    // Posts a signal. Its data stays alive as long as the session: a signal
    // the kernel does not take is seen by the next transaction.
    void Signal(uint8_t type, const Bytes &data = {});

    const KernelApi &Api() const { return api_; }

private:
    static uint32_t Trampoline(uint8_t *buf, uint32_t *len);

    KernelApi api_;
    CallbackHandler &handler_;
    struct alignas(VELK_LOCAL_PARAM_ALIGN) Block {
        uint8_t bytes[VELK_LOCAL_PARAM_MIN_LEN];
    };
    std::unique_ptr<Block> block_;
    std::deque<Bytes> signal_data_;
    std::deque<ClessSignal_Message> signals_;
};

}  // namespace velk::term
