#include "tarnctl/rings/message_length.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "packet_log/packet_log_format.h"
#include "support/golden_bytes.h"
#include "unit/tarnctl/rings/crm_reports.h"

namespace tarnctl {
namespace {

// The bytes as the body of a message that goes round the end of a ring.
class InRing {
  public:
    explicit InRing(const std::vector<uint8_t>& bytes, uint32_t at = 40)
        : m_size((static_cast<uint32_t>(bytes.size()) / 4 + 20) * 4),
          m_at(m_size - at),
          m_bytes(static_cast<uint32_t>(bytes.size())),
          m_words(m_size / 4) {
        auto* const ring = reinterpret_cast<uint8_t*>(m_words.data());
        for (uint32_t i = 0; i < m_bytes; ++i) {
            ring[(m_at + i) % m_size] = bytes[i];
        }
    }
    RingBytes Body(uint32_t size) const {
        return {reinterpret_cast<const std::byte*>(m_words.data()), m_size, m_at, size};
    }
    RingBytes Body() const { return Body(m_bytes); }

  private:
    uint32_t m_size;
    uint32_t m_at;
    uint32_t m_bytes;
    std::vector<uint32_t> m_words;
};

std::optional<uint32_t> LengthOf(const std::vector<uint8_t>& bytes) {
    return ReportLength(InRing(bytes).Body());
}

void SetWord(std::vector<uint8_t>& bytes, size_t at, uint32_t value) {
    std::memcpy(&bytes.at(at), &value, sizeof value);
}

std::vector<uint8_t> ReportWithPacket() {
    CrmReport message;
    message.userData = "name:high";
    message.packet = CrmPacket{{}, std::vector<std::byte>(77, std::byte{3})};
    message.packet->info.iCapturedSize = 77;
    message.pairs = {{"key", "value"}};
    const CrmBytes bytes = Encode(message);
    const auto* const first = reinterpret_cast<const uint8_t*>(bytes.data());
    return {first, first + bytes.size()};
}

}  // namespace

TEST(ReportLength, IsThatOfEachWorkedExample) {
    for (const char* const name :
         {"event_report_ipv4.txt", "event_report_ipv6.txt", "event_report_minimal.txt"}) {
        const std::vector<uint8_t> bytes = GoldenBytes(name);
        EXPECT_EQ(bytes.size(), LengthOf(bytes)) << name;
    }
    EXPECT_EQ(ReportWithPacket().size(), LengthOf(ReportWithPacket()));
}

TEST(ReportLength, DoesNotCountWhatFollows) {
    std::vector<uint8_t> bytes = ReportWithPacket();
    const size_t length = bytes.size();
    bytes.resize(length + 30, 0xFF);
    EXPECT_EQ(length, LengthOf(bytes));
}

TEST(ReportLength, IsNoneOfAReportThatIsCutAnywhere) {
    const std::vector<uint8_t> bytes = ReportWithPacket();
    const InRing ring(bytes);
    for (uint32_t size = 0; size < bytes.size(); ++size) {
        EXPECT_EQ(std::nullopt, ReportLength(ring.Body(size))) << size;
    }
}

TEST(ReportLength, IsNoneWhereAChunkIsNotInItsPlaceOrTooShort) {
    const std::vector<uint8_t> whole = ReportWithPacket();
    const size_t packet = 32 + 256 + 1 + 1 + 10 + 1;
    const size_t pairs = packet + 48 + 77;
    const size_t end = whole.size() - 8;
    struct Damage {
        size_t at;
        uint32_t value;
    };
    const Damage damages[] = {{0, 0},
                              {0, kChunkPacket},
                              {0, kChunkNameValues},
                              {0, kChunkEnd},
                              {4, 0},
                              {4, 287},
                              {4, 0xFFFFFFFF},
                              {packet, kChunkReport},
                              {packet, 4},
                              {packet + 4, 47},
                              {packet, kChunkEnd},
                              {pairs, kChunkPacket},
                              {pairs + 4, 7},
                              {pairs, kChunkReport},
                              {pairs, kChunkEnd},
                              {pairs + 4, 0xFFFFFFF0},
                              {end + 4, 9},
                              {end + 4, 7},
                              {end, kChunkNameValues}};
    for (const Damage& damage : damages) {
        std::vector<uint8_t> bytes = whole;
        bytes.resize(whole.size() + 64);
        SetWord(bytes, damage.at, damage.value);
        EXPECT_EQ(std::nullopt, LengthOf(bytes)) << damage.at << " " << damage.value;
    }
}

TEST(PacketRecordLength, IsTheRecordWithItsBytes) {
    std::vector<uint8_t> bytes = GoldenBytes("packet_log_record.txt");
    EXPECT_EQ(bytes.size(), PacketRecordLength(InRing(bytes).Body()));
    const size_t length = bytes.size();
    bytes.resize(length + 5);
    EXPECT_EQ(length, PacketRecordLength(InRing(bytes).Body()));
    for (uint32_t size = 0; size < length; ++size) {
        EXPECT_EQ(std::nullopt, PacketRecordLength(InRing(bytes).Body(size))) << size;
    }
}

TEST(PacketRecordLength, IsNoneOfBytesThatAreNoRecord) {
    const std::vector<uint8_t> whole = GoldenBytes("packet_log_record.txt");
    const size_t constants[] = {0, 12, 60, 64, 68};
    for (const size_t at : constants) {
        std::vector<uint8_t> bytes = whole;
        SetWord(bytes, at, 1);
        EXPECT_EQ(std::nullopt, PacketRecordLength(InRing(bytes).Body())) << at;
    }
    std::vector<uint8_t> bytes = whole;
    SetWord(bytes, offsetof(PacketLogRecord, iCapturedSize), 0xFFFFFFFF);
    EXPECT_EQ(std::nullopt, PacketRecordLength(InRing(bytes).Body()));
}

}  // namespace tarnctl
