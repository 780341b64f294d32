#include "tarnctl/selftest/legs.h"

#include <algorithm>
#include <array>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tarnctl/selftest/trial_alert.h"

namespace tarnctl {
namespace {

using Json = nlohmann::json;

// Calls `use` for each whole line that is an object. The last line may be on its way.
void ForEachObject(const std::string& lines, const std::function<void(const Json&)>& use) {
    std::istringstream stream(lines.substr(0, lines.rfind('\n') + 1));
    std::string line;
    while (std::getline(stream, line)) {
        const Json object = Json::parse(line, nullptr, false);
        if (object.is_object()) {
            use(object);
        }
    }
}

// The reports of a signature, and whether any of them says that traffic was blocked.
struct Reports {
    int count = 0;
    bool isBlocked = false;
};

Reports ReportsOf(const std::string& lines, uint32_t signature) {
    Reports found;
    ForEachObject(lines, [&](const Json& object) {
        const Json report = object.value("report", Json::object());
        if (report.value("issueId", 0U) == signature) {
            ++found.count;
            found.isBlocked = found.isBlocked || object.value("blocked", false);
        }
    });
    return found;
}

Leg Proven(const std::string& name, const std::string& detail) {
    return {name, true, detail, ""};
}

Leg Dead(const std::string& name, const std::string& detail, const std::string& look) {
    return {name, false, detail, look};
}

Leg JudgeReport(const TrialOutput& output) {
    constexpr std::array kSignatures = {kReportSignature, kQuarantineSignature, kCaptureSignature};
    int came = 0;
    bool isEachOne = true;
    for (const uint32_t signature : kSignatures) {
        const int count = ReportsOf(output.reports, signature).count;
        came += count;
        isEachOne = isEachOne && count == 1;
    }
    if (isEachOne) {
        return Proven("report", "each of the 3 alerts came out as a report to the CRM");
    }
    return Dead("report", std::to_string(came) + " of 3 reports reached the CRM",
                "the rings /var/tmp/EventQueueCRM2-0 and -1, the semaphore /EventQueueCRM.sem, and "
                "who reads them: tarnctl ring show");
}

Leg JudgeQuarantine(const TrialOutput& output) {
    bool isAccepted = false;
    ForEachObject(output.rules, [&isAccepted](const Json& object) {
        isAccepted = isAccepted || (object.value("issueId", 0U) == kQuarantineSignature &&
                                    object.value("accepted", false));
    });
    const Reports reports = ReportsOf(output.reports, kQuarantineSignature);
    if (!isAccepted) {
        return Dead("quarantine", "no rule was accepted by the security manager",
                    "the socket /var/tmp/.secmgrsock and who listens there: tarnctl status");
    }
    // Without any report it is the leg of the reports that is dead.
    if (reports.count > 0 && !reports.isBlocked) {
        return Dead("quarantine", "the rule was accepted and the report does not say so",
                    "the answer of the security manager: tarnctl secmgr");
    }
    return Proven("quarantine", "a rule was accepted by the security manager");
}

Leg JudgeCapture(const TrialOutput& output) {
    bool hasPacket = false;
    ForEachObject(output.requests, [&hasPacket](const Json& object) {
        const bool isRequest = object.value("name", "") == "OffendingPacketCapture";
        hasPacket =
            hasPacket || (isRequest && object.contains("packet") && !object["packet"].is_null());
    });
    return hasPacket ? Proven("capture", "a packet reached the packet logging daemon")
                     : Dead("capture", "no packet reached the packet logging daemon",
                            "the socket /var/run/packetLog and who receives there: tarnctl status; "
                            "a tarnctl without libpcap has no stand-in");
}

Leg JudgeError(const TrialOutput& output) {
    bool hasCome = false;
    ForEachObject(output.messages, [&hasCome](const Json& object) {
        const Json text = object.value("text", Json());
        hasCome = hasCome || (text.is_string() &&
                              text.get<std::string>().find(kTrialErrorMark) != std::string::npos);
    });
    return hasCome ? Proven("message", "an error line of Snort came out as a message to the CRM")
                   : Dead("message", "no message of Snort's error line reached the CRM",
                          "the FIFO /var/cache/qor-tarn/errmsgs.fifo, the socket "
                          "/etc/crm/AuxThread_crmMQ and who receives there: tarnctl status");
}

}  // namespace

std::vector<Leg> JudgeLegs(const TrialOutput& output) {
    std::vector<Leg> legs;
    legs.push_back(output.hasBegun ? Proven("start", "the daemon reads its alert FIFO")
                                   : Dead("start", "the daemon does not read its alert FIFO",
                                          "what it says at its start, and tarnctl check"));
    if (!output.hasBegun) {
        return legs;
    }
    if (!output.isFed) {
        legs.push_back(Dead("feed", "the daemon takes nothing from its FIFOs",
                            "/var/cache/qor-tarn and who else reads there: tarnctl status"));
        return legs;
    }
    legs.push_back(JudgeReport(output));
    legs.push_back(JudgeQuarantine(output));
    legs.push_back(JudgeCapture(output));
    legs.push_back(JudgeError(output));
    if (output.status) {
        legs.push_back(
            *output.status == 0
                ? Proven("stop", "the daemon ended with status 0")
                : Dead("stop",
                       *output.status < 0
                           ? "the daemon did not end by itself, or by a fault"
                           : "the daemon ended with status " + std::to_string(*output.status),
                       "the end of its log"));
    }
    return legs;
}

bool AreProven(const std::vector<Leg>& legs) {
    return std::all_of(legs.begin(), legs.end(), [](const Leg& leg) { return leg.isProven; });
}

}  // namespace tarnctl
