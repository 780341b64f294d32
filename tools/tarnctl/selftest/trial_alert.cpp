#include "tarnctl/selftest/trial_alert.h"

#include <array>
#include <cstring>

#include "unified2/unified2_format.h"

namespace tarnctl {
namespace {

constexpr uint8_t kTcp = 6;
constexpr uint32_t kEthernet = 1;  // link type

using unified2::Big16;
using unified2::Big32;

template <typename Fixed>
std::vector<std::byte> Framed(uint32_t type, const Fixed& fixed,
                              const std::vector<uint8_t>& rest = {}) {
    const unified2::RecordHeader header{
        Big32::FromHostOrder(type),
        Big32::FromHostOrder(static_cast<uint32_t>(sizeof fixed + rest.size()))};
    std::vector<std::byte> record(sizeof header + sizeof fixed + rest.size());
    std::memcpy(record.data(), &header, sizeof header);
    std::memcpy(record.data() + sizeof header, &fixed, sizeof fixed);
    if (!rest.empty()) {
        std::memcpy(record.data() + sizeof header + sizeof fixed, rest.data(), rest.size());
    }
    return record;
}

std::array<uint8_t, 4> BytesOf(uint32_t address) {
    return {static_cast<uint8_t>(address >> 24), static_cast<uint8_t>(address >> 16),
            static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address)};
}

// A segment without data, on Ethernet.
std::vector<uint8_t> PacketOf(const TrialAlert& alert) {
    std::vector<uint8_t> packet = {0x02, 0, 0, 0,  0, 2, 0x02, 0, 0,  0,    0, 1,
                                   0x08, 0,                                         // Ethernet
                                   0x45, 0, 0, 40, 0, 1, 0,    0, 64, kTcp, 0, 0};  // IPv4
    for (const uint32_t address : {kTrialSource, kTrialDestination}) {
        for (const uint8_t byte : BytesOf(address)) {
            packet.push_back(byte);
        }
    }
    for (const uint16_t port : {alert.mark, kTrialPort}) {
        packet.push_back(static_cast<uint8_t>(port >> 8));
        packet.push_back(static_cast<uint8_t>(port));
    }
    constexpr std::array<uint8_t, 16> kRest = {0, 0, 0, 1, 0, 0, 0, 0, 0x50, 2, 4, 0, 0, 0, 0, 0};
    for (const uint8_t byte : kRest) {
        packet.push_back(byte);  // numbers, the flag that opens a connection, window
    }
    return packet;
}

}  // namespace

std::vector<std::vector<std::byte>> RecordsOf(const TrialAlert& alert) {
    unified2::AlertIpv4 record = {};
    record.eventId = Big32::FromHostOrder(alert.eventId);
    record.eventSecond = Big32::FromHostOrder(alert.time);
    record.signatureId = Big32::FromHostOrder(alert.signature);
    record.generatorId = Big32::FromHostOrder(1);
    record.signatureRevision = Big32::FromHostOrder(1);
    record.ipSource = BytesOf(kTrialSource);
    record.ipDestination = BytesOf(kTrialDestination);
    record.sportItype = Big16::FromHostOrder(alert.mark);
    record.dportIcode = Big16::FromHostOrder(kTrialPort);
    record.ipProtocol = kTcp;
    std::vector<std::vector<std::byte>> records = {Framed(unified2::kAlertIpv4, record)};
    if (alert.hasPacket) {
        const std::vector<uint8_t> bytes = PacketOf(alert);
        unified2::Packet packet = {};
        packet.eventId = record.eventId;
        packet.eventSecond = record.eventSecond;
        packet.packetSecond = record.eventSecond;
        packet.linktype = Big32::FromHostOrder(kEthernet);
        packet.packetLength = Big32::FromHostOrder(static_cast<uint32_t>(bytes.size()));
        records.push_back(Framed(unified2::kPacket, packet, bytes));
    }
    return records;
}

std::string TrialConfig() {
    return "tarn.log.level = 3\n";
}

std::string TrialEvents() {
    std::string text;
    const auto add = [&text](uint32_t signature, const char* name, const std::string& value) {
        text += "se." + std::to_string(signature) + "." + name + " = " + value + "\n";
    };
    // The lines of an entry stand together: the daemon drops what comes later.
    for (const uint32_t signature : {kReportSignature, kQuarantineSignature, kCaptureSignature}) {
        add(signature, "severity", "low");
        add(signature, "rule", "selftest");
        add(signature, "msg", "selftest");
        add(signature, "user.response",
            signature == kCaptureSignature ? "LOGEVIDENCE" : "DISPLAY:WithoutRaw");
        if (signature == kQuarantineSignature) {
            add(signature, "response", "quarantine-traffic");
            add(signature, "quarantine.rule", "quarantine-intruder-address, duration: 600");
        }
    }
    return text;
}

}  // namespace tarnctl
