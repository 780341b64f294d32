#include "tarnctl/feed/control_server.h"

#include "tarnctl/common/feed_words.h"

namespace tarnctl {

void ControlServer::Serve(const Answer& answer) {
    m_server.Serve(
        [&](const LineClient& client, const std::string& word) {
            if (word == kFeedHold && m_holder == kNobody) {
                m_holder = client.id;
            } else if ((word == kFeedRelease || word == kFeedReloaded) && m_holder == client.id) {
                m_holder = kNobody;
            }
            return answer(word);
        },
        [this](const LineClient& client) {
            if (m_holder == client.id) {
                m_holder = kNobody;
            }
        });
}

}  // namespace tarnctl
