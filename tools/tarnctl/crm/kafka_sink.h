#pragma once

// Produces lines to a topic of a Kafka cluster, one message without a key for each.
//
// A line is taken when its delivery report is there, which the producer gives once all replicas in
// sync have the message. The producer is idempotent: what it sends again by itself is there once,
// and the messages of a partition keep their order. It holds messages back while no broker is
// there, without an end. What had no report when this process ends comes from the ring or the spill
// file again, and may then be there twice. A message that the cluster refuses ends the producer,
// and a new one begins with it.
//
// Threads: one at a time. The producer has threads of its own; what they find is looked at within
// Take() alone.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "tarnctl/crm/report_sink.h"

struct rd_kafka_s;
struct rd_kafka_message_s;

namespace tarnctl {

class KafkaSink final : public ReportSink {
  public:
    // `brokers` is HOST:PORT, or several of them with commas in between.
    KafkaSink(const std::string& brokers, std::string topic);
    ~KafkaSink() override;

    [[nodiscard]] std::string Open() override;
    [[nodiscard]] size_t Take(std::string_view lines) override;
    void Forget() override { End(); }

  private:
    struct Message {
        size_t bytes;  // of its line
        bool isDelivered;
    };

    [[nodiscard]] std::string Begin();
    void End();
    void Produce(std::string_view lines);
    void TakeReport(const rd_kafka_message_s& report);
    [[nodiscard]] size_t TakeDelivered();
    void TellError(int error, const char* reason);

    const std::string m_brokers;
    const std::string m_topic;
    rd_kafka_s* m_producer = nullptr;  // owned
    std::deque<Message> m_underWay;    // in the order of their lines
    uint64_t m_firstUnderWay = 0;      // number of the first of them, from 0 for each producer
    size_t m_sent = 0;                 // bytes of what is offered next that were produced already
    std::string m_refusal;             // why a message was refused; empty: none was
    std::string m_trouble;             // what the producer said last of its brokers
};

}  // namespace tarnctl
