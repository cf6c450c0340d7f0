// SPDX-License-Identifier: Apache-2.0
// The capture a lab engineer would take with a sniffer between reader and
// card: ISO 14443-4 I-blocks behind the 4-byte pseudo-header of link type
// 264 (version 0, event, length big-endian).
#include <pcap/pcap.h>

#include <algorithm>
#include <memory>

#include "velk/term/outputs.hpp"

namespace velk::term {

uint16_t CrcA(std::span<const uint8_t> data) {
    uint16_t crc = 0x6363;
    for (const uint8_t b : data) {
        crc ^= b;
        for (int i = 0; i < 8; ++i)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0x8408) : (crc >> 1);
    }
    return crc;
}

namespace {

enum Event : uint8_t { kFromCard = 0xFF, kFromReader = 0xFE, kFieldOff = 0xFD, kFieldOn = 0xFC };

// RATS: FSDI 8 (256 bytes), CID 0. ATS: FSCI 8, TA1 80, TB1 70 (FWI 7),
// TC1 00 (neither NAD nor CID).
constexpr uint8_t kRats[] = {0xE0, 0x80};
constexpr uint8_t kAts[] = {0x05, 0x78, 0x80, 0x70, 0x00};
constexpr uint8_t kIBlock = 0x02, kChaining = 0x10, kAck = 0xA2;
// Frames of at most 256 bytes both ways (FSDI and FSCI 8): PCB, INF, CRC_A.
constexpr size_t kMaxInf = 256 - 3;

class Capture {
public:
    explicit Capture(const std::filesystem::path &file)
        : pcap_(pcap_open_dead(DLT_ISO_14443, 65535), pcap_close) {
        if (!pcap_) throw OutputError(file.string() + ": libpcap cannot open a capture");
        dumper_.reset(pcap_dump_open(pcap_.get(), file.c_str()));
        if (!dumper_) throw OutputError(pcap_geterr(pcap_.get()));  // names the file
    }

    void Frame(TraceClock::time_point t, uint8_t event, std::span<const uint8_t> data = {}) {
        Bytes packet{0, event, static_cast<uint8_t>(data.size() >> 8),
                     static_cast<uint8_t>(data.size())};
        packet.insert(packet.end(), data.begin(), data.end());
        const auto us = std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch());
        pcap_pkthdr header{};
        header.ts.tv_sec = static_cast<time_t>(us.count() / 1000000);
        header.ts.tv_usec = static_cast<suseconds_t>(us.count() % 1000000);
        header.caplen = header.len = static_cast<bpf_u_int32>(packet.size());
        pcap_dump(reinterpret_cast<u_char *>(dumper_.get()), &header, packet.data());
    }

    // A frame with its CRC_A, low byte first.
    void WithCrc(TraceClock::time_point t, uint8_t event, Bytes frame) {
        const uint16_t crc = CrcA(frame);
        frame.push_back(static_cast<uint8_t>(crc));
        frame.push_back(static_cast<uint8_t>(crc >> 8));
        Frame(t, event, frame);
    }

    // One APDU in I-blocks, chained when it does not fit one frame, each
    // chained block acknowledged by the other side with an R-block. The
    // reader toggles its block number on every I-block from the card and on
    // every acknowledgement of its own blocks, as ISO/IEC 14443-4 has it.
    void Apdu(TraceClock::time_point t, bool from_reader, std::span<const uint8_t> apdu) {
        const uint8_t sender = from_reader ? kFromReader : kFromCard;
        const uint8_t receiver = from_reader ? kFromCard : kFromReader;
        size_t at = 0;
        do {
            const size_t n = std::min(kMaxInf, apdu.size() - at);
            const bool last = at + n == apdu.size();
            Bytes frame{static_cast<uint8_t>(kIBlock | (last ? 0 : kChaining) | block_)};
            frame.insert(frame.end(), apdu.begin() + static_cast<std::ptrdiff_t>(at),
                         apdu.begin() + static_cast<std::ptrdiff_t>(at + n));
            WithCrc(t, sender, std::move(frame));
            at += n;
            if (!from_reader) block_ ^= 1;
            if (!last) WithCrc(t, receiver, Bytes{static_cast<uint8_t>(kAck | block_)});
            if (from_reader && !last) block_ ^= 1;
        } while (at < apdu.size());
    }

    // A new activation: the reader starts again at block 0.
    void Activate(TraceClock::time_point t) {
        Frame(t, kFieldOn);
        WithCrc(t, kFromReader, Bytes(std::begin(kRats), std::end(kRats)));
        WithCrc(t, kFromCard, Bytes(std::begin(kAts), std::end(kAts)));
        block_ = 0;
    }

    void Close(const std::filesystem::path &file) {
        if (pcap_dump_flush(dumper_.get()) != 0)
            throw OutputError(file.string() + ": write failed");
        dumper_.reset();
    }

private:
    std::unique_ptr<pcap_t, decltype(&pcap_close)> pcap_;
    std::unique_ptr<pcap_dumper_t, decltype(&pcap_dump_close)> dumper_{nullptr, pcap_dump_close};
    uint8_t block_ = 0;
};

}  // namespace

void WriteCapture(const std::filesystem::path &file, const Trace &trace) {
    Capture capture(file);
    bool field = false;
    TraceClock::time_point last{};
    for (const TraceEvent &e : trace.Events()) {
        last = std::max(last, e.done);
        if (e.type == TraceEvent::Type::kPowerOff && field) {
            capture.Frame(e.time, kFieldOff);
            field = false;
        }
        if (e.type != TraceEvent::Type::kApdu) continue;
        if (!field) capture.Activate(e.time);
        field = true;
        capture.Apdu(e.time, true, e.first);
        // No response (torn, removed): the reader's block stays unanswered.
        if (!e.second.empty()) capture.Apdu(e.done, false, e.second);
    }
    if (field) capture.Frame(last, kFieldOff);
    capture.Close(file);
}

}  // namespace velk::term
