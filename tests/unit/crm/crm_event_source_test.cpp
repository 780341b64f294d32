#include "crm/crm_event_source.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "crm/crm_event_message.h"
#include "support/allocation_count.h"
#include "unit/crm/report_samples.h"

namespace {

TEST(CrmEventSource, StartsWithTheValuesThatTheCrmExpects) {
    const CrmEventSource source(4);
    const EventReport& report = source.GetReport();
    EventReport expected;
    EXPECT_EQ(0, memcmp(&expected, &report, sizeof(report)));
    EXPECT_EQ(1, report.reportVersion);
    EXPECT_EQ(0xFFFFFFFFu, report.vlanId);
    EXPECT_EQ(0xFFFFFFFFu, report.adapterId);
    EXPECT_EQ(1u, report.count);
    EXPECT_EQ(6u, report.eventType);
    EXPECT_EQ(2u, report.reportType);
    EXPECT_EQ(1, report.priority);
    EXPECT_EQ(nullptr, report.userString);
    EXPECT_EQ("Unnamed Snort Event", source.GetEventName());
    EXPECT_EQ(nullptr, source.GetPacket().pData);
}

TEST(CrmEventSourceIpVersion, IsSixForSixAndFourForAnythingElse) {
    EXPECT_EQ(6, CrmEventSource(6).GetIpVersion());
    EXPECT_EQ(0x86DD, CrmEventSource(6).GetReport().etherType);
    for (const int version : {4, 0, 5, -6, 60}) {
        EXPECT_EQ(4, CrmEventSource(version).GetIpVersion()) << version;
        EXPECT_EQ(0x0800, CrmEventSource(version).GetReport().etherType) << version;
    }
    CrmEventSource source(6);
    EXPECT_EQ(0, source.SetIpVersion(4));
    EXPECT_EQ(4, source.GetIpVersion());
    EXPECT_EQ(0, source.SetIpVersion(6));
    EXPECT_EQ(6, source.GetIpVersion());
}

TEST(CrmEventSourceSetters, StoreWhatTheyAreGivenAndReturnZero) {
    CrmEventSource source(4);
    EXPECT_EQ(0, source.SetProtocol(IPPROTO_UDP));
    EXPECT_EQ(0, source.SetIcmp(8, 3));
    EXPECT_EQ(0, source.SetIssueId(4000000000u));
    EXPECT_EQ(0, source.SetVlanId(12));
    EXPECT_EQ(0, source.SetEventTime(0x100000002ULL));
    EXPECT_EQ(0, source.SetEventName("name"));
    EXPECT_EQ(0, source.SetSeverity(3));
    EXPECT_EQ(0, source.SetBlockedStatus(5));
    EXPECT_EQ(0, source.SetUserResponse(0, "text"));
    EXPECT_EQ(IPPROTO_UDP, source.GetProtocol());
    EXPECT_EQ(8, source.GetIcmpType());
    EXPECT_EQ(3, source.GetIcmpCode());
    EXPECT_EQ(4000000000u, source.GetIssueId());
    EXPECT_EQ(12u, source.GetVlanId());
    EXPECT_EQ(0x100000002ULL, source.GetStartTime());
    EXPECT_EQ(0x100000002ULL, source.GetReport().endTime);
    EXPECT_EQ("name", source.GetEventName());
}

TEST(CrmEventSourceEndpoints, SourceIsIntruderAndDestinationIsVictim) {
    CrmEventSource source(4);
    source.SetSourcePort(1111);
    source.SetDestinationPort(2222);
    source.SetSourceIp(inet_addr("10.1.2.3"));
    source.SetDestinationIp(inet_addr("10.4.5.6"));
    uint8_t from[16] = {0xfe, 0x80};
    uint8_t to[16] = {0x20, 0x01};
    source.SetSourceIpv6(from);
    source.SetDestinationIpv6(to);
    const EventReport& report = source.GetReport();
    EXPECT_EQ(1111, report.sourcePort);
    EXPECT_EQ(1111, source.GetIntruderPort());
    EXPECT_EQ(2222, report.destinationPort);
    EXPECT_EQ(2222, source.GetVictimPort());
    EXPECT_EQ(0x0A010203u, report.sourceIp);
    EXPECT_EQ(0x0A010203u, report.intruderIp);
    EXPECT_EQ(0x0A040506u, report.destinationIp);
    EXPECT_EQ(0x0A040506u, report.victimIp);
    EXPECT_EQ(0, memcmp(from, report.sourceIpv6, 16));
    EXPECT_EQ(0, memcmp(from, report.intruderIpv6, 16));
    EXPECT_EQ(0, memcmp(to, report.destinationIpv6, 16));
    EXPECT_EQ(0, memcmp(to, report.victimIpv6, 16));
}

TEST(CrmEventSourceSocketAddress, GivesAddressAndPortInHostOrder) {
    CrmEventSource source(4);
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(0x1234);
    ipv4.sin_addr.s_addr = inet_addr("10.1.2.3");
    EXPECT_EQ(0, source.SetSource(reinterpret_cast<const sockaddr*>(&ipv4)));
    ipv4.sin_port = htons(0x4321);
    ipv4.sin_addr.s_addr = inet_addr("10.1.2.4");
    EXPECT_EQ(0, source.SetDestination(reinterpret_cast<const sockaddr*>(&ipv4)));
    EXPECT_EQ(0x1234, source.GetIntruderPort());
    EXPECT_EQ(0x0A010203u, source.GetReport().intruderIp);
    EXPECT_EQ(0x4321, source.GetVictimPort());
    EXPECT_EQ(0x0A010204u, source.GetReport().victimIp);

    sockaddr_in6 ipv6{};
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(53);
    ipv6.sin6_addr.s6_addr[15] = 9;
    EXPECT_EQ(0, source.SetSource(reinterpret_cast<const sockaddr*>(&ipv6)));
    ipv6.sin6_port = htons(54);
    ipv6.sin6_addr.s6_addr[15] = 8;
    EXPECT_EQ(0, source.SetDestination(reinterpret_cast<const sockaddr*>(&ipv6)));
    EXPECT_EQ(53, source.GetIntruderPort());
    EXPECT_EQ(9, source.GetReport().sourceIpv6[15]);
    EXPECT_EQ(54, source.GetVictimPort());
    EXPECT_EQ(8, source.GetReport().victimIpv6[15]);
    EXPECT_EQ(4, source.GetIpVersion());
}

TEST(CrmEventSourceSocketAddress, RefusesAnyOtherFamilyAndChangesNothing) {
    CrmEventSource source(4);
    sockaddr_storage other{};
    memset(&other, 0x5a, sizeof(other));
    other.ss_family = AF_UNIX;
    const EventReport before = source.GetReport();
    EXPECT_EQ(1, source.SetSource(reinterpret_cast<const sockaddr*>(&other)));
    EXPECT_EQ(1, source.SetDestination(reinterpret_cast<const sockaddr*>(&other)));
    EXPECT_EQ(0, memcmp(&before, &source.GetReport(), sizeof(before)));
}

TEST(CrmEventSourceAddressText, FollowsTheIpVersion) {
    CrmEventSource source(4);
    source.SetSourceIp(inet_addr("10.1.2.3"));
    source.SetDestinationIp(inet_addr("192.168.0.250"));
    uint8_t from[16] = {0x20, 0x01, 0x0d, 0xb8};
    from[15] = 1;
    uint8_t to[16] = {};
    source.SetSourceIpv6(from);
    source.SetDestinationIpv6(to);
    std::string text;
    EXPECT_EQ(0, source.GetIntruderAddressText(text));
    EXPECT_EQ("10.1.2.3", text);
    EXPECT_EQ(0, source.GetVictimAddressText(text));
    EXPECT_EQ("192.168.0.250", text);
    source.SetIpVersion(6);
    EXPECT_EQ(0, source.GetIntruderAddressText(text));
    EXPECT_EQ("2001:db8::1", text);
    EXPECT_EQ(0, source.GetVictimAddressText(text));
    EXPECT_EQ("::", text);
}

TEST(CrmEventSourceSetPacket, BorrowsTheBytesAndStoresTheTime) {
    CrmEventSource source(4);
    const uint8_t bytes[] = {1, 2, 3, 4, 5};
    EXPECT_EQ(0, source.SetPacket(bytes, sizeof(bytes), 77, 88));
    const PacketInfo& packet = source.GetPacket();
    EXPECT_EQ(bytes, packet.pData);
    EXPECT_EQ(5u, packet.uPacketLength);
    EXPECT_EQ(5, packet.iCapturedSize);
    EXPECT_EQ(77u, packet.uSeconds);
    EXPECT_EQ(88u, packet.uMicroseconds);
    EXPECT_EQ(0u, packet.uFrameNumber | packet.uReserved | packet.uFlags | packet.uAdapterID);
}

TEST(CrmEventSourceSetPacket, WithoutBytesOrWithoutLengthMeansNoPacketButStoresTheTime) {
    const uint8_t bytes[] = {1, 2, 3};
    for (const bool withoutBytes : {false, true}) {
        CrmEventSource source(4);
        source.SetPacket(bytes, sizeof(bytes), 1, 2);
        EXPECT_EQ(0, source.SetPacket(withoutBytes ? nullptr : bytes, withoutBytes ? 3 : 0, 7, 8));
        EXPECT_EQ(nullptr, source.GetPacket().pData);
        EXPECT_EQ(0u, source.GetPacket().uPacketLength);
        EXPECT_EQ(0, source.GetPacket().iCapturedSize);
        EXPECT_EQ(7u, source.GetPacket().uSeconds);
        EXPECT_EQ(8u, source.GetPacket().uMicroseconds);
    }
}

TEST(CrmEventSourceCopyPacket, MakesThePacketIndependentOfItsLender) {
    CrmEventSource source(4);
    uint8_t bytes[] = {1, 2, 3};
    source.SetPacket(bytes, sizeof(bytes), 0, 0);
    source.CopyPacket();
    const uint8_t* const copy = source.GetPacket().pData;
    ASSERT_NE(bytes, copy);
    bytes[0] = 99;
    EXPECT_EQ(1, copy[0]);
    EXPECT_EQ(3, copy[2]);

    source.CopyPacket();
    EXPECT_EQ(copy, source.GetPacket().pData) << "a private packet is not copied again";

    source.SetPacket(bytes, sizeof(bytes), 0, 0);
    EXPECT_EQ(bytes, source.GetPacket().pData);
    source.CopyPacket();
    EXPECT_EQ(99, source.GetPacket().pData[0]);
}

TEST(CrmEventSourceCopyPacket, DoesNothingWithoutAPacket) {
    CrmEventSource source(4);
    source.CopyPacket();
    EXPECT_EQ(nullptr, source.GetPacket().pData);
}

TEST(CrmEventSourceCopy, OwnsNoPacketAndBorrowsThatOfTheOriginal) {
    CrmEventSource source(6);
    const uint8_t bytes[] = {1, 2, 3};
    source.SetPacket(bytes, sizeof(bytes), 0, 0);
    source.SetEventName("first");
    source.CopyPacket();
    CrmEventSource copy(source);
    EXPECT_EQ(source.GetPacket().pData, copy.GetPacket().pData);
    copy.CopyPacket();
    EXPECT_NE(source.GetPacket().pData, copy.GetPacket().pData);
    copy.SetEventName("second");
    EXPECT_EQ("first", source.GetEventName());
    EXPECT_EQ(6, copy.GetIpVersion());
}

std::vector<uint8_t> MessageOf(const CrmEventSource& source) {
    const CrmEventMessage message(source);
    std::vector<uint8_t> bytes;
    for (int i = 0; i < message.PieceCount(); ++i) {
        const auto* const piece = static_cast<const uint8_t*>(message.Pieces()[i].iov_base);
        bytes.insert(bytes.end(), piece, piece + message.Pieces()[i].iov_len);
    }
    return bytes;
}

// With packet, pairs, response, severity and blocked status.
TEST(CrmEventSourceCopy, SendsTheSameBytesAsTheOriginal) {
    const CrmEventSource source = samples::Ipv4();
    const CrmEventSource copy(source);
    EXPECT_EQ(MessageOf(source), MessageOf(copy));
}

TEST(CrmEventSourceCopy, HasItsOwnPairs) {
    CrmEventSource source = samples::Ipv4();
    const CrmEventSource copy(source);
    source.ClearNameValues();
    EXPECT_EQ(3u, copy.GetNameValues().size());
    EXPECT_TRUE(source.GetNameValues().empty());
}

TEST(CrmEventSourceCopy, HasItsOwnFormOfBorrowedTexts) {
    auto name = std::make_unique<std::string>("borrowed");
    auto source = std::make_unique<CrmEventSource>(4);
    source->SetEventName(ReportText::Borrow(*name));
    source->SetUserResponse(0, ReportText::Borrow(*name));
    source->AddNameValue("Rule", ReportText::Borrow(*name));
    const CrmEventSource copy(*source);
    const std::vector<uint8_t> sent = MessageOf(*source);
    source.reset();
    *name = "changed";
    name.reset();
    EXPECT_EQ(sent, MessageOf(copy));
}

TEST(CrmEventSourceTexts, AreBorrowedAndNotCopied) {
    CrmEventSource source(4);
    const std::string name = "a name that is longer than what fits into a string itself";
    source.SetEventName(ReportText::Borrow(name));
    EXPECT_EQ(&name, &source.GetEventName());
}

// ---- Memory ----

TEST(CrmEventSourceMemory, OfTheUsualEventIsTakenOnce) {
    const std::string text(100, 't');
    const auto make = [&text] {
        auto source = std::make_unique<CrmEventSource>(4);
        source->SetEventName(ReportText::Borrow(text));
        source->SetUserResponse(0, ReportText::Borrow(text));
        source->AddNameValue("URL", ReportText::Borrow(text));
        source->AddNameValue("server", ReportText::Borrow(text));
        source->AddNameValue("Rule", ReportText::Borrow(text));
        EXPECT_EQ(3u, source->GetNameValues().size());
        return source;
    };
    make().reset();
    const uint64_t before = AllocationCount();
    make().reset();
    EXPECT_EQ(before, AllocationCount());
}

TEST(CrmEventSourceMemory, IsNotSharedByEventsThatLiveAtOnce) {
    std::make_unique<CrmEventSource>(4).reset();
    const auto first = std::make_unique<CrmEventSource>(4);
    const auto second = std::make_unique<CrmEventSource>(6);
    const auto third = std::make_unique<CrmEventSource>(6);
    EXPECT_NE(first.get(), second.get());
    EXPECT_EQ(4, first->GetIpVersion());
}

}  // namespace
