#include "tarnctl/crm/kafka_sink.h"

#include <librdkafka/rdkafka.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <utility>

#include "tarnctl/common/text_forms.h"

namespace tarnctl {
namespace {

struct DestroyConfiguration {
    void operator()(rd_kafka_conf_t* configuration) const { rd_kafka_conf_destroy(configuration); }
};

// What differs from the library's defaults.
constexpr std::array<std::pair<const char*, const char*>, 3> kSettings = {{
    {"client.id", "tarnctl"},
    {"enable.idempotence", "true"},
    {"message.timeout.ms", "0"},  // a message waits for its broker without an end
}};

}  // namespace

KafkaSink::KafkaSink(const std::string& brokers, std::string topic)
    : ReportSink("kafka", brokers + ' ' + topic), m_brokers(brokers), m_topic(std::move(topic)) {}

KafkaSink::~KafkaSink() {
    End();
}

std::string KafkaSink::Open() {
    return Begin();
}

// Returns an empty text, or the reason why there is no producer.
std::string KafkaSink::Begin() {
    std::unique_ptr<rd_kafka_conf_t, DestroyConfiguration> configuration(rd_kafka_conf_new());
    std::array<char, 512> reason = {};
    const auto set = [&](const char* name, const char* value) {
        return rd_kafka_conf_set(configuration.get(), name, value, reason.data(), reason.size()) ==
               RD_KAFKA_CONF_OK;
    };
    for (const auto& [name, value] : kSettings) {
        if (!set(name, value)) {
            return Target() + ": " + reason.data();
        }
    }
    if (!set("bootstrap.servers", m_brokers.c_str())) {
        return Target() + ": " + reason.data();
    }
    rd_kafka_conf_set_opaque(configuration.get(), this);
    rd_kafka_conf_set_dr_msg_cb(configuration.get(),
                                [](rd_kafka_t*, const rd_kafka_message_t* report, void* sink) {
                                    static_cast<KafkaSink*>(sink)->TakeReport(*report);
                                });
    rd_kafka_conf_set_error_cb(configuration.get(),
                               [](rd_kafka_t*, int error, const char* text, void* sink) {
                                   static_cast<KafkaSink*>(sink)->TellError(error, text);
                               });
    // What it would write to standard error comes as an error too.
    rd_kafka_conf_set_log_cb(configuration.get(),
                             [](const rd_kafka_t*, int, const char*, const char*) {});
    m_producer = rd_kafka_new(RD_KAFKA_PRODUCER, configuration.get(), reason.data(), reason.size());
    if (m_producer == nullptr) {
        return Target() + ": " + reason.data();
    }
    (void)configuration.release();  // the producer has it
    if (rd_kafka_brokers_add(m_producer, m_brokers.c_str()) == 0) {
        End();
        return "--kafka " + m_brokers + ": name brokers as HOST:PORT, with commas in between";
    }
    return "";
}

void KafkaSink::End() {
    if (m_producer != nullptr) {
        // Reports of what is given up come within these calls, and nobody wants them.
        rd_kafka_purge(m_producer, RD_KAFKA_PURGE_F_QUEUE | RD_KAFKA_PURGE_F_INFLIGHT);
        rd_kafka_poll(m_producer, 0);
        rd_kafka_destroy_flags(m_producer, RD_KAFKA_DESTROY_F_NO_CONSUMER_CLOSE);
        m_producer = nullptr;
    }
    m_underWay.clear();
    m_firstUnderWay = 0;
    m_sent = 0;
    m_refusal.clear();
    m_trouble.clear();
}

// Called within rd_kafka_poll().
void KafkaSink::TakeReport(const rd_kafka_message_t& report) {
    const auto number = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(report._private));
    const uint64_t place = number - m_firstUnderWay;
    if (report.err == RD_KAFKA_RESP_ERR_NO_ERROR) {
        m_underWay.at(place).isDelivered = true;
    } else if (m_refusal.empty()) {
        m_refusal = rd_kafka_err2str(report.err);
    }
}

// Called within rd_kafka_poll(). The producer says the same of each broker and of each attempt,
// with a time that differs; the first is enough until something is delivered.
void KafkaSink::TellError(int error, const char* reason) {
    if (m_trouble.empty()) {
        const std::string_view text(reason);
        m_trouble = ForTerminal(text.substr(0, text.find(" (after ")));
    }
    if (error == RD_KAFKA_RESP_ERR__FATAL) {
        std::array<char, 512> text = {};
        (void)rd_kafka_fatal_error(m_producer, text.data(), text.size());
        m_refusal = text.data();
    }
}

void KafkaSink::Produce(std::string_view lines) {
    while (!lines.empty()) {
        const size_t end = lines.find('\n');
        const uint64_t number = m_firstUnderWay + m_underWay.size();
        const rd_kafka_resp_err_t error = rd_kafka_producev(
            m_producer, RD_KAFKA_VTYPE_TOPIC, m_topic.c_str(), RD_KAFKA_VTYPE_VALUE, lines.data(),
            end, RD_KAFKA_VTYPE_MSGFLAGS, int{RD_KAFKA_MSG_F_COPY}, RD_KAFKA_VTYPE_OPAQUE,
            reinterpret_cast<void*>(static_cast<uintptr_t>(number)), RD_KAFKA_VTYPE_END);
        if (error == RD_KAFKA_RESP_ERR__QUEUE_FULL) {
            return;  // later, when some are delivered
        }
        if (error != RD_KAFKA_RESP_ERR_NO_ERROR) {
            m_refusal = rd_kafka_err2str(error);
            return;
        }
        m_underWay.push_back({end + 1, false});
        m_sent += end + 1;
        lines.remove_prefix(end + 1);
    }
}

// Returns the bytes of the lines at the front that are delivered. Of two partitions one may be
// ahead.
size_t KafkaSink::TakeDelivered() {
    size_t taken = 0;
    while (!m_underWay.empty() && m_underWay.front().isDelivered) {
        taken += m_underWay.front().bytes;
        m_underWay.pop_front();
        ++m_firstUnderWay;
    }
    m_sent -= taken;
    return taken;
}

size_t KafkaSink::Take(std::string_view lines) {
    const auto deadline = Clock::now() + kPatience;
    if (m_producer == nullptr) {
        if (!IsDue()) {
            return 0;
        }
        const std::string reason = Begin();
        if (!reason.empty()) {
            SetAway(reason);
            return 0;
        }
    }
    Produce(lines.substr(m_sent));
    size_t taken = 0;
    while (m_refusal.empty() && !m_underWay.empty() && Clock::now() < deadline) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        (void)rd_kafka_poll(m_producer, static_cast<int>(std::max<int64_t>(0, left.count())));
        taken += TakeDelivered();
    }
    if (!m_refusal.empty()) {
        SetAway(Target() + ": " + m_refusal);
        End();
    } else if (taken != 0) {
        m_trouble.clear();
        SetWell();
    } else if (!m_trouble.empty()) {
        SetAway(Target() + ": " + m_trouble);
    }
    return taken;
}

}  // namespace tarnctl
