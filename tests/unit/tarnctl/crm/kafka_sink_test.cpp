// Against the cluster that comes with the library, which speaks the protocol at a port.

#include "tarnctl/crm/kafka_sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <array>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace tarnctl {
namespace {

constexpr std::string_view kTwo = "{\"timestamp\":1}\n{\"timestamp\":2}\n";
constexpr const char* kTopic = "alerts";
constexpr int16_t kProduceRequest = 0;  // its number in the protocol

bool WaitFor(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

class KafkaSinkTest : public testing::Test {
  protected:
    KafkaSinkTest()
        : m_handle(rd_kafka_new(RD_KAFKA_PRODUCER, Quiet(), nullptr, 0)),
          m_cluster(rd_kafka_mock_cluster_new(m_handle, 1)) {
        rd_kafka_mock_topic_create(m_cluster, kTopic, 1, 1);
    }
    ~KafkaSinkTest() override {
        rd_kafka_mock_cluster_destroy(m_cluster);
        rd_kafka_destroy(m_handle);
    }

    static rd_kafka_conf_t* Quiet() {
        rd_kafka_conf_t* const configuration = rd_kafka_conf_new();
        rd_kafka_conf_set_log_cb(configuration,
                                 [](const rd_kafka_t*, int, const char*, const char*) {});
        return configuration;
    }
    std::string Brokers() const { return rd_kafka_mock_cluster_bootstraps(m_cluster); }
    void SetDown() { rd_kafka_mock_broker_set_down(m_cluster, 1); }
    void SetUpAgain() { rd_kafka_mock_broker_set_up(m_cluster, 1); }
    void Refuse(rd_kafka_resp_err_t error) {
        rd_kafka_mock_push_request_errors(m_cluster, kProduceRequest, 1, error);
    }

    // The messages of the topic, once there are so many; more would be there too.
    std::vector<std::string> Messages(size_t least) const {
        rd_kafka_conf_t* const configuration = Quiet();
        rd_kafka_conf_set(configuration, "bootstrap.servers", Brokers().c_str(), nullptr, 0);
        rd_kafka_conf_set(configuration, "group.id", "test", nullptr, 0);
        rd_kafka_conf_set(configuration, "enable.partition.eof", "true", nullptr, 0);
        rd_kafka_t* const consumer = rd_kafka_new(RD_KAFKA_CONSUMER, configuration, nullptr, 0);
        rd_kafka_topic_partition_list_t* const partitions = rd_kafka_topic_partition_list_new(1);
        rd_kafka_topic_partition_list_add(partitions, kTopic, 0)->offset =
            RD_KAFKA_OFFSET_BEGINNING;
        rd_kafka_assign(consumer, partitions);
        rd_kafka_topic_partition_list_destroy(partitions);
        std::vector<std::string> messages;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        for (bool isEnd = false; !isEnd && std::chrono::steady_clock::now() < deadline;) {
            rd_kafka_message_t* const message = rd_kafka_consumer_poll(consumer, 100);
            if (message == nullptr) {
                continue;
            }
            if (message->err == RD_KAFKA_RESP_ERR_NO_ERROR) {
                messages.emplace_back(static_cast<const char*>(message->payload), message->len);
            }
            isEnd = message->err == RD_KAFKA_RESP_ERR__PARTITION_EOF && messages.size() >= least;
            rd_kafka_message_destroy(message);
        }
        rd_kafka_consumer_close(consumer);
        rd_kafka_destroy(consumer);
        return messages;
    }
    static size_t TakeLater(KafkaSink& sink, std::string_view lines) {
        size_t taken = 0;
        (void)WaitFor([&] {
            taken += sink.Take(lines.substr(taken));
            return taken == lines.size();
        });
        return taken;
    }
    static std::string Failure(KafkaSink& sink, std::string_view lines) {
        EXPECT_TRUE(WaitFor([&] {
            EXPECT_EQ(0U, sink.Take(lines));
            return !sink.Error().empty();
        }));
        return sink.Error();
    }

    rd_kafka_t* m_handle;
    rd_kafka_mock_cluster_t* m_cluster;
};

TEST_F(KafkaSinkTest, HasTakenWhatTheClusterHas) {
    KafkaSink sink(Brokers(), kTopic);
    ASSERT_EQ("", sink.Open());
    EXPECT_EQ(kTwo.size(), TakeLater(sink, kTwo));
    EXPECT_EQ("", sink.Error());
    EXPECT_THAT(Messages(2), ElementsAre("{\"timestamp\":1}", "{\"timestamp\":2}"));
    EXPECT_EQ("kafka", sink.Kind());
    EXPECT_EQ(Brokers() + " alerts", sink.Target());
}

TEST_F(KafkaSinkTest, TakesManyLinesInTheirOrder) {
    KafkaSink sink(Brokers(), kTopic);
    ASSERT_EQ("", sink.Open());
    std::string lines;
    std::vector<std::string> expected;
    for (int i = 0; i < 5000; ++i) {
        expected.push_back(std::string(200, 'x') + std::to_string(i));
        lines += expected.back() + '\n';
    }
    EXPECT_EQ(lines.size(), TakeLater(sink, lines));
    EXPECT_EQ(expected, Messages(expected.size()));
}

TEST_F(KafkaSinkTest, WaitsForBrokersThatAreAwayAndThenProducesOnce) {
    SetDown();
    KafkaSink sink(Brokers(), kTopic);
    ASSERT_EQ("", sink.Open());
    const std::string failure = Failure(sink, kTwo);
    EXPECT_THAT(failure, StartsWith(Brokers() + " alerts: "));
    EXPECT_THAT(failure, testing::Not(HasSubstr("(after")));
    EXPECT_EQ(0U, sink.Take(kTwo));
    EXPECT_EQ(failure, sink.Error());
    SetUpAgain();
    EXPECT_EQ(kTwo.size(), TakeLater(sink, kTwo));
    EXPECT_EQ("", sink.Error());
    EXPECT_EQ(2U, Messages(2).size());
}

TEST_F(KafkaSinkTest, GoesOnWhenBrokersComeBack) {
    KafkaSink sink(Brokers(), kTopic);
    ASSERT_EQ("", sink.Open());
    EXPECT_EQ(kTwo.size(), TakeLater(sink, kTwo));
    SetDown();
    EXPECT_NE("", Failure(sink, kTwo));
    SetUpAgain();
    const std::string more = std::string(kTwo) + "3\n";
    EXPECT_EQ(more.size(), TakeLater(sink, more));
    EXPECT_EQ("", sink.Error());
    EXPECT_THAT(Messages(5), ElementsAre("{\"timestamp\":1}", "{\"timestamp\":2}",
                                         "{\"timestamp\":1}", "{\"timestamp\":2}", "3"));
}

TEST_F(KafkaSinkTest, NamesWhatTheClusterRefusesAndOffersItAgain) {
    KafkaSink sink(Brokers(), kTopic);
    ASSERT_EQ("", sink.Open());
    Refuse(RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED);
    EXPECT_THAT(Failure(sink, "1\n"), HasSubstr("alerts: Broker: Topic authorization failed"));
    EXPECT_EQ("1\n2\n3\n", std::string("1\n2\n3\n").substr(0, TakeLater(sink, "1\n2\n3\n")));
    EXPECT_EQ("", sink.Error());
    EXPECT_THAT(Messages(3), ElementsAre("1", "2", "3"));
}

TEST_F(KafkaSinkTest, PausesAfterARefusal) {
    KafkaSink sink(Brokers(), kTopic);
    ASSERT_EQ("", sink.Open());
    Refuse(RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED);
    EXPECT_NE("", Failure(sink, kTwo));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(kTwo.size(), TakeLater(sink, kTwo));
    EXPECT_LE(std::chrono::milliseconds(300), std::chrono::steady_clock::now() - start);
}

TEST_F(KafkaSinkTest, ForgetsWhatIsUnderWay) {
    SetDown();
    KafkaSink sink(Brokers(), kTopic);
    ASSERT_EQ("", sink.Open());
    EXPECT_EQ(0U, sink.Take(kTwo));
    sink.Forget();
    SetUpAgain();
    EXPECT_EQ(2U, TakeLater(sink, "3\n"));
    EXPECT_THAT(Messages(1), ElementsAre("3"));
}

TEST_F(KafkaSinkTest, WantsBrokers) {
    for (const char* const brokers : {"", ",", " "}) {
        KafkaSink sink(brokers, kTopic);
        EXPECT_EQ("--kafka " + std::string(brokers) +
                      ": name brokers as HOST:PORT, with commas in between",
                  sink.Open());
    }
}

}  // namespace
}  // namespace tarnctl
