#include "tarnctl/explain/explained_alert.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <new>
#include <nlohmann/json.hpp>
#include <span>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "tarnctl/common/record_file.h"
#include "tarnctl/explain/explanation.h"
#include "unified2/unified2_format.h"

namespace tarnctl {
namespace {

using Json = nlohmann::json;
using unified2::Big16;
using unified2::Big32;

constexpr const char* kExampleSource = "192.0.2.1";
constexpr const char* kExampleDestination = "198.51.100.2";
constexpr const char* kExampleSourceIpv6 = "2001:db8::1";
constexpr const char* kExampleDestinationIpv6 = "2001:db8::2";
constexpr uint16_t kExampleSourcePort = 49152;
constexpr uint16_t kExampleDestinationPort = 80;
constexpr uint8_t kEchoRequest = 8;
constexpr uint8_t kEchoRequestIpv6 = 128;

constexpr uint64_t kPendingAlerts = 128;  // what the daemon keeps for attachments
constexpr int32_t kEventIdRange = 65536;

// A copy that malloc gave, as the record classes take it; at least `least` bytes, zeros at the end.
uint8_t* RecordBytes(std::span<const std::byte> payload, size_t least) {
    auto* const bytes =
        static_cast<uint8_t*>(std::calloc(1, std::max(payload.size(), std::max<size_t>(least, 1))));
    if (bytes == nullptr) {
        throw std::bad_alloc();
    }
    if (!payload.empty()) {
        std::memcpy(bytes, payload.data(), payload.size());
    }
    return bytes;
}

template <typename Record>
uint8_t* RecordBytes(const Record& record) {
    return RecordBytes(std::as_bytes(std::span(&record, 1)), sizeof(record));
}

// The protocol's number, or nothing. "icmp" is that of the IP version.
std::optional<uint8_t> ProtocolNumber(const std::string& text, bool isIpv6) {
    if (text.empty() || text == "tcp") {
        return IPPROTO_TCP;
    }
    if (text == "udp") {
        return IPPROTO_UDP;
    }
    if (text == "icmp") {
        return static_cast<uint8_t>(IcmpProtocol(isIpv6));
    }
    if (text == "icmpv6") {
        return IPPROTO_ICMPV6;
    }
    uint8_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return number;
}

// The two fields of a record that hold the ports, or type and code.
struct Fields {
    uint16_t source = 0;
    uint16_t destination = 0;
};

// The fields, or a text that says what does not fit the protocol.
std::string FieldsOf(const AlertDescription& description, uint8_t protocol, bool isIpv6,
                     Fields& fields) {
    const bool hasPorts = protocol == IPPROTO_TCP || protocol == IPPROTO_UDP;
    const bool isIcmp = protocol == IcmpProtocol(isIpv6);
    if (!hasPorts && (description.sourcePort || description.destinationPort)) {
        return "--sport and --dport are for tcp and udp";
    }
    if (!isIcmp && (description.icmpType || description.icmpCode)) {
        return "--icmp-type and --icmp-code are for icmp";
    }
    if (hasPorts) {
        fields.source = description.sourcePort.value_or(kExampleSourcePort);
        fields.destination = description.destinationPort.value_or(kExampleDestinationPort);
    } else if (isIcmp) {
        fields.source = description.icmpType.value_or(isIpv6 ? kEchoRequestIpv6 : kEchoRequest);
        fields.destination = description.icmpCode.value_or(0);
    }
    return {};
}

template <typename Record>
void Fill(Record& record, uint32_t signature, uint32_t time, uint8_t protocol,
          const Fields& fields) {
    record.eventSecond = Big32::FromHostOrder(time);
    record.signatureId = Big32::FromHostOrder(signature);
    record.ipProtocol = protocol;
    record.sportItype = Big16::FromHostOrder(fields.source);
    record.dportIcode = Big16::FromHostOrder(fields.destination);
}

std::unique_ptr<U2AlertEvent> MakeAlert(uint32_t type, std::span<const std::byte> payload) {
    if (type == unified2::kAlertIpv4) {
        return std::make_unique<U2AlertEventIpv4>(
            RecordBytes(payload, sizeof(unified2::AlertIpv4)));
    }
    return std::make_unique<U2AlertEventIpv6>(RecordBytes(payload, sizeof(unified2::AlertIpv6)));
}

// Follows a unified2 file and attaches to its alert what the daemon would attach.
class AlertSearch {
  public:
    explicit AlertSearch(uint32_t signature) : m_signature(signature) {}

    // Returns an empty text, or what is wrong with the file.
    std::string Read(RecordFile& file) {
        RecordResult result = file.Next();
        for (; result == RecordResult::kRecord; result = file.Next()) {
            Take(file.Type(), std::span(file.Bytes()).subspan(sizeof(unified2::RecordHeader)));
        }
        // What stands in front of a damage is as good as ever.
        return result == RecordResult::kEnd || m_alert != nullptr ? std::string() : file.Error();
    }

    std::unique_ptr<U2AlertEvent> TakeAlert() { return std::move(m_alert); }
    [[nodiscard]] uint64_t Further() const { return m_further; }

  private:
    void Take(uint32_t type, std::span<const std::byte> payload) {
        switch (type) {
            case unified2::kAlertIpv4:
            case unified2::kAlertIpv6:
                TakeAlertRecord(type, payload);
                break;
            case unified2::kPacket:
                TakePacket(payload);
                break;
            case unified2::kExtraData:
                TakeExtraData(payload);
                break;
            default:
                break;
        }
    }

    void TakeAlertRecord(uint32_t type, std::span<const std::byte> payload) {
        std::unique_ptr<U2AlertEvent> alert = MakeAlert(type, payload);
        m_newestId = alert->m_eventId;
        if (m_alert != nullptr) {
            ++m_alertsSince;
            m_further += alert->m_signatureId == m_signature ? 1 : 0;
        } else if (alert->m_signatureId == m_signature) {
            m_alert = std::move(alert);
        }
    }

    // A packet belongs to the newest alert.
    void TakePacket(std::span<const std::byte> payload) {
        if (m_alert == nullptr || m_alertsSince > 0) {
            return;
        }
        auto packet = std::make_unique<U2PacketEvent>(
            RecordBytes(payload, sizeof(unified2::Packet)), static_cast<uint32_t>(payload.size()));
        if (packet->eventId == m_alert->m_eventId) {
            m_alert->SetPacket(packet.release());
        }
    }

    // Extra data may come later, at the distance that the ids have.
    void TakeExtraData(std::span<const std::byte> payload) {
        if (m_alert == nullptr || m_alertsSince >= kPendingAlerts) {
            return;
        }
        auto extra =
            std::make_unique<U2ExtraDataEvent>(RecordBytes(payload, sizeof(unified2::ExtraData)),
                                               static_cast<uint32_t>(payload.size()));
        auto distance = static_cast<int32_t>(m_newestId - extra->eventId);
        distance += distance < 0 ? kEventIdRange : 0;
        if (extra->eventId == m_alert->m_eventId &&
            static_cast<uint64_t>(distance) == m_alertsSince &&
            m_alert->SetExtraData(extra.get())) {
            (void)extra.release();  // the alert has it now
        }
    }

    const uint32_t m_signature;
    std::unique_ptr<U2AlertEvent> m_alert;
    uint64_t m_alertsSince = 0;  // alerts after ours
    uint32_t m_newestId = 0;
    uint64_t m_further = 0;
};

// The address of a report, in the field of its IP version.
bool SetReportAddress(CrmEventSource& source, const std::string& text, bool isIpv6,
                      bool isIntruder) {
    if (isIpv6) {
        std::array<uint8_t, 16> address = {};
        if (inet_pton(AF_INET6, text.c_str(), address.data()) != 1) {
            return false;
        }
        (void)(isIntruder ? source.SetSourceIpv6(address.data())
                          : source.SetDestinationIpv6(address.data()));
        return true;
    }
    uint32_t address = 0;
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) {
        return false;
    }
    (void)(isIntruder ? source.SetSourceIp(address) : source.SetDestinationIp(address));
    return true;
}

// The seconds and microseconds of a time as JSON has it; null is no time.
std::pair<uint32_t, uint32_t> TimeOf(const Json& time) {
    if (time.is_null()) {
        return {0, 0};
    }
    constexpr double kMicroseconds = 1000000;
    double seconds = 0;
    const double fraction = std::modf(time.get<double>(), &seconds);
    if (seconds < 0 || seconds > std::numeric_limits<uint32_t>::max()) {
        return {0, 0};
    }
    return {static_cast<uint32_t>(seconds),
            static_cast<uint32_t>(std::lround(fraction * kMicroseconds))};
}

}  // namespace

bool AlertDescription::IsExample() const {
    return protocol.empty() && source.empty() && destination.empty() && !sourcePort &&
           !destinationPort && !icmpType && !icmpCode;
}

std::string ExplainedAlert::Describe(uint32_t signature, const AlertDescription& description) {
    const bool isIpv6 = description.source.find(':') != std::string::npos ||
                        description.destination.find(':') != std::string::npos ||
                        (description.source.empty() && description.destination.empty() &&
                         description.protocol == "icmpv6");
    const auto protocol = ProtocolNumber(description.protocol, isIpv6);
    if (!protocol) {
        return "--proto: " + description.protocol +
               " is neither tcp, udp, icmp nor icmpv6 nor a number up to 255";
    }
    Fields fields;
    if (std::string fault = FieldsOf(description, *protocol, isIpv6, fields); !fault.empty()) {
        return fault;
    }
    const std::string source = !description.source.empty() ? description.source
                               : isIpv6                    ? kExampleSourceIpv6
                                                           : kExampleSource;
    const std::string destination = !description.destination.empty() ? description.destination
                                    : isIpv6                         ? kExampleDestinationIpv6
                                                                     : kExampleDestination;
    const int family = isIpv6 ? AF_INET6 : AF_INET;
    std::array<uint8_t, 16> sourceBytes = {};
    std::array<uint8_t, 16> destinationBytes = {};
    const std::string version = isIpv6 ? " is no IPv6 address" : " is no IPv4 address";
    if (inet_pton(family, source.c_str(), sourceBytes.data()) != 1) {
        return "--src: " + source + version;
    }
    if (inet_pton(family, destination.c_str(), destinationBytes.data()) != 1) {
        return "--dst: " + destination + version;
    }
    const uint32_t time = description.time.value_or(static_cast<uint32_t>(std::time(nullptr)));
    if (isIpv6) {
        unified2::AlertIpv6 record = {};
        Fill(record, signature, time, *protocol, fields);
        record.ipSource = sourceBytes;
        record.ipDestination = destinationBytes;
        m_alert = std::make_unique<U2AlertEventIpv6>(RecordBytes(record));
    } else {
        unified2::AlertIpv4 record = {};
        Fill(record, signature, time, *protocol, fields);
        std::copy_n(sourceBytes.begin(), record.ipSource.size(), record.ipSource.begin());
        std::copy_n(destinationBytes.begin(), record.ipDestination.size(),
                    record.ipDestination.begin());
        m_alert = std::make_unique<U2AlertEventIpv4>(RecordBytes(record));
    }
    m_source.reset(m_alert->CreateCrmEventSource(true));
    return {};
}

std::string ExplainedAlert::TakeFromFile(uint32_t signature, const std::string& path) {
    RecordFile file;
    if (!file.Open(path)) {
        return file.Error();
    }
    AlertSearch search(signature);
    try {
        if (std::string fault = search.Read(file); !fault.empty()) {
            return fault;
        }
    } catch (const std::length_error&) {
        return path +
               ": a record of extra data is shorter than its own fields, which ends the daemon";
    }
    m_alert = search.TakeAlert();
    if (m_alert == nullptr) {
        return path + " has no alert of signature " + std::to_string(signature);
    }
    m_further = search.Further();
    m_source.reset(m_alert->CreateCrmEventSource(true));
    return {};
}

std::string ExplainedAlert::TakeFromReport(const std::string& line) {
    try {
        const Json document = Json::parse(line);
        const Json& report = document.at("report");
        const bool isIpv6 = report.at("etherType").get<uint32_t>() == kEtherTypeIpv6;
        auto source = std::make_unique<CrmEventSource>(isIpv6 ? 6 : 4);
        source->SetIssueId(report.at("issueId").get<uint32_t>());
        source->SetEventTime(report.at("startTime").get<uint64_t>());
        source->SetProtocol(report.at("ipProtocol").get<uint16_t>());
        source->SetIcmp(report.at("icmpType").get<uint8_t>(), report.at("icmpCode").get<uint8_t>());
        source->SetSourcePort(report.at("intruderPort").get<uint16_t>());
        source->SetDestinationPort(report.at("victimPort").get<uint16_t>());
        source->SetVlanId(report.at("vlanId").get<uint32_t>());
        const char* const intruder = isIpv6 ? "intruderIpv6" : "intruderIp";
        const char* const victim = isIpv6 ? "victimIpv6" : "victimIp";
        if (!SetReportAddress(*source, report.at(intruder).get<std::string>(), isIpv6, true) ||
            !SetReportAddress(*source, report.at(victim).get<std::string>(), isIpv6, false)) {
            return "an address of the report is none";
        }
        const Json& pairs = document.at("pairs");
        for (const char* const name : {"URL", "server"}) {
            if (pairs.is_object() && pairs.contains(name) && pairs.at(name).is_string()) {
                source->AddNameValue(name, pairs.at(name).get<std::string>());
            }
        }
        if (const Json& packet = document.at("packet"); packet.is_object()) {
            const auto size = static_cast<uint64_t>(
                std::max<int64_t>(packet.at("capturedSize").get<int64_t>(), 0));
            if (size > RecordFile::kLongest) {
                return "the packet of the report is longer than any packet";
            }
            m_packet.assign(size, 0);
            const auto [seconds, microseconds] = TimeOf(packet.at("time"));
            source->SetPacket(m_packet.data(), static_cast<uint32_t>(m_packet.size()), seconds,
                              microseconds);
        }
        m_wasBlocked = document.at("blocked").get<bool>();
        const Json& name = document.at("name");
        m_reportedName = name.is_string() ? name.get<std::string>() : std::string();
        m_source = std::move(source);
        return {};
    } catch (const Json::exception& fault) {
        // The library's own number of the fault comes first.
        const std::string_view text = fault.what();
        const size_t begin = text.find("] ");
        return "not a report of tarnctl crm --json: " +
               std::string(begin == std::string_view::npos ? text : text.substr(begin + 2));
    }
}

}  // namespace tarnctl
