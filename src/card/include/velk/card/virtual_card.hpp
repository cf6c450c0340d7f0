// SPDX-License-Identifier: Apache-2.0
// A card that lives in memory, built from a JSON profile. It answers the
// commands a contactless kernel sends (SELECT, GET PROCESSING OPTIONS, READ
// RECORD, GET DATA, PUT DATA, INTERNAL AUTHENTICATE, GENERATE AC, ECHO and
// issuer script commands) the way the profile says, with real cryptograms
// and signatures, and keeps its counters (ATC, last online ATC) and data
// between transactions of one run.
#pragma once

#include <vector>

#include "velk/card/card.hpp"
#include "velk/card/card_profile.hpp"

namespace velk::card {

class VirtualCard : public Card {
public:
    explicit VirtualCard(CardProfile profile);

    std::string Describe() const override;
    Bytes PowerOn() override;
    void PowerOff() override;
    bool Present() override { return present_; }
    bool WaitPresent(std::chrono::milliseconds) override { return present_; }
    Bytes Transmit(std::span<const uint8_t> command) override;

    // Takes the card out of the field or puts it back.
    void SetPresent(bool present) { present_ = present; }

    const CardProfile &Profile() const { return profile_; }
    // Counters of an application (by index in the profile).
    uint16_t Atc(size_t app = 0) const { return state_.at(app).atc; }
    uint16_t LastOnlineAtc(size_t app = 0) const { return state_.at(app).last_online_atc; }
    // The master key of the application whose PAN this is, for the issuer.
    const CardKey *KeyForPan(std::span<const uint8_t> pan) const;

    // The SELECT response data of the PPSE (without status word).
    Bytes PpseFci() const;
    Bytes ApplicationFci(const Application &app) const;

private:
    struct AppState {
        uint16_t atc = 0;
        uint16_t last_online_atc = 0;
        std::map<uint32_t, Bytes> data;  // GET DATA values, changed by PUT DATA
        bool gpo_done = false;
        int gac_count = 0;  // GENERATE ACs since the last GPO
        bool awaiting_second = false;
        Bytes pdol_data, cdol1_data;
        Bytes last_gac_response;  // with status word, for ECHO
        Bytes arqc;
        uint16_t arqc_atc = 0;
        // A device that asked for cardholder verification on itself (C5
        // CVM bits 4) has it done when it leaves the field: at its next
        // tap it reports the confirmation code verified (5).
        bool cvm_asked_on_device = false;
        bool cvm_done_on_device = false;
    };

    using Handler = Bytes (VirtualCard::*)(const Command &);
    Bytes Select(const Command &c);
    Bytes Gpo(const Command &c);
    Bytes ReadRecord(const Command &c);
    Bytes GetData(const Command &c);
    Bytes PutData(const Command &c);
    Bytes InternalAuthenticate(const Command &c);
    Bytes GenerateAc(const Command &c);
    Bytes Echo(const Command &c);
    Bytes Script(const Command &c);

    Bytes GenerateAcResponse(AppState &s, const Command &c, bool second);
    Bytes DynamicNumber(const AppState &s) const;
    // The C5 a response carries, after any verification on the device.
    Bytes C5(const AppState &s, const Bytes &c5) const;
    const Application *Current() const;
    AppState *CurrentState();

    CardProfile profile_;
    std::vector<AppState> state_;
    bool present_ = true;
    bool powered_ = false;
    int selected_ = -1;  // index of the selected application, -1 none
};

}  // namespace velk::card
