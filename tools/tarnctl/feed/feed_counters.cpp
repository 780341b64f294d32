#include "tarnctl/feed/feed_counters.h"

#include <array>
#include <nlohmann/json.hpp>

#include "tarnctl/common/counted.h"

namespace tarnctl {
namespace {

struct Field {
    const char* json;
    const char* metric;
    const char* help;
    uint64_t FeedCounters::*value;
};

constexpr std::array<Field, 21> kCounts = {{
    {"records", "records", "Records put into the alert FIFO.", &FeedCounters::records},
    {"bytes", "bytes", "Bytes put into the alert FIFO.", &FeedCounters::bytes},
    {"alerts", "alerts", "Alerts put into the alert FIFO.", &FeedCounters::alerts},
    {"reports", "reports", "Reports seen of fed alerts.", &FeedCounters::reports},
    {"fedAgain", "fed_again", "Alerts fed more than once.", &FeedCounters::fedAgain},
    {"lostInside", "lost_inside", "Alerts that a running daemon dropped; they were fed again.",
     &FeedCounters::lostInside},
    {"reportedBefore", "reported_before", "Alerts after the bookmark that had their report.",
     &FeedCounters::reportedBefore},
    {"duplicates", "duplicates", "Second reports of one alert.", &FeedCounters::duplicates},
    {"foreignReports", "foreign_reports", "Reports of alerts that somebody else fed.",
     &FeedCounters::foreignReports},
    {"rejectedAlerts", "rejected_alerts", "Alerts without an entry.",
     &FeedCounters::rejectedAlerts},
    {"rejectedRecords", "rejected_records", "Records that would do the daemon harm.",
     &FeedCounters::rejectedRecords},
    {"foreignRecords", "foreign_records", "Records of kinds that the daemon does not take.",
     &FeedCounters::foreignRecords},
    {"cutRecords", "cut_records", "Records whose tail never came.", &FeedCounters::cutRecords},
    {"filesAnew", "files_anew", "Spool files cut or written anew.", &FeedCounters::filesAnew},
    {"filesVanished", "files_vanished", "Spool files gone before all was read.",
     &FeedCounters::filesVanished},
    {"filesDamaged", "files_damaged", "Spool files in which no next record can be found.",
     &FeedCounters::filesDamaged},
    {"daemonEnds", "daemon_ends", "Ends of the daemon.", &FeedCounters::daemonEnds},
    {"readerCloses", "reader_closes", "Times that the daemon opened the FIFO anew.",
     &FeedCounters::readerCloses},
    {"unsureCounts", "unsure_counts", "Times that the ring could not be followed.",
     &FeedCounters::unsureCounts},
    {"bookmarks", "bookmarks", "Bookmarks written.", &FeedCounters::bookmarks},
    {"bookmarkFailures", "bookmark_failures", "Bookmarks that could not be written.",
     &FeedCounters::bookmarkFailures},
}};

}  // namespace

nlohmann::ordered_json AsJson(const FeedCounters& counters) {
    nlohmann::ordered_json json;
    for (const Field& field : kCounts) {
        json[field.json] = counters.*field.value;
    }
    json["underWay"] = counters.underWay;
    json["mostUnderWay"] = counters.mostUnderWay;
    json["held"] = counters.isHeld;
    json["waitingFor"] = nullptr;
    if (!counters.waitingFor.empty()) {
        json["waitingFor"] = counters.waitingFor;
    }
    return json;
}

std::string AsPrometheus(const FeedCounters& counters) {
    std::string text;
    const auto add = [&text](const std::string& name, const char* help, const char* type,
                             uint64_t value) {
        const std::string metric = "tarnctl_feed_" + name;
        text += "# HELP " + metric + " " + help + "\n# TYPE " + metric + " " + type + "\n" +
                metric + " " + std::to_string(value) + "\n";
    };
    for (const Field& field : kCounts) {
        add(std::string(field.metric) + "_total", field.help, "counter", counters.*field.value);
    }
    add("under_way", "Alerts fed and not yet reported.", "gauge", counters.underWay);
    add("held", "1 while a reload holds the feeder.", "gauge", counters.isHeld ? 1 : 0);
    add("waiting", "1 while something keeps the feeder from feeding.", "gauge",
        counters.waitingFor.empty() ? 0 : 1);
    return text;
}

std::string AsText(const FeedCounters& counters) {
    std::string text = "fed " + Counted(counters.alerts, "alert") + " in " +
                       Counted(counters.records, "record") + ", " +
                       Counted(counters.reports, "report") + " seen";
    const auto add = [&text](uint64_t count, const std::string& what) {
        if (count != 0) {
            text += ", " + std::to_string(count) + " " + what;
        }
    };
    add(counters.underWay, "under way");
    add(counters.fedAgain, "fed again");
    add(counters.lostInside, "dropped by a running tarn");
    add(counters.reportedBefore, "reported before");
    add(counters.duplicates, "reported twice");
    add(counters.foreignReports, "fed by others");
    add(counters.rejectedAlerts, "without an entry");
    add(counters.rejectedRecords, "refused as harmful");
    add(counters.foreignRecords, "of other kinds");
    add(counters.cutRecords, "without their tails");
    add(counters.filesAnew, "files written anew");
    add(counters.filesVanished, "files vanished");
    add(counters.filesDamaged, "files damaged");
    return text;
}

}  // namespace tarnctl
