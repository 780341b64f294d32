#include "tarnctl/crm/report_sinks.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "tarnctl/common/counted.h"
#include "tarnctl/crm/eve_file.h"
#include "tarnctl/crm/eve_socket.h"
#include "tarnctl/crm/kafka_sink.h"
#include "tarnctl/crm/redis_sink.h"
#include "tarnctl/crm/spill_file.h"

namespace tarnctl {
namespace {

namespace fs = std::filesystem;

std::unique_ptr<ReportSink> MakeEveSink(const std::string& place) {
    constexpr std::string_view kSocket = "unix:";
    if (place.starts_with(kSocket)) {
        return std::make_unique<EveSocket>(place.substr(kSocket.size()));
    }
    return std::make_unique<EveFile>(place);
}

// Adds the sinks whose libraries may be missing. Returns an empty text or a reason.
std::string AddStreams(const CrmOptions& options, std::vector<std::unique_ptr<ReportSink>>& sinks) {
    if (!options.redis.empty()) {
#ifdef TARNCTL_WITH_HIREDIS
        sinks.push_back(
            std::make_unique<RedisSink>(options.redis, options.stream, options.streamLimit));
#else
        return "--redis: this tarnctl was built without hiredis";
#endif
    }
    if (!options.kafka.empty()) {
#ifdef TARNCTL_WITH_RDKAFKA
        sinks.push_back(std::make_unique<KafkaSink>(options.kafka, options.topic));
#else
        return "--kafka: this tarnctl was built without librdkafka";
#endif
    }
    (void)sinks;  // of a build without both
    return "";
}

// A part of a file's name. No two sinks have the same.
std::string NameInFile(const ReportSink& sink) {
    constexpr std::string_view kPlain = "+,-.:=@[]_";
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string name = sink.Kind() + '-';
    for (const char letter : sink.Target()) {
        const auto byte = static_cast<unsigned char>(letter);
        const bool isLetter = (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
                              (byte >= 'a' && byte <= 'z');
        if (isLetter || kPlain.find(letter) != std::string_view::npos) {
            name += letter;
        } else {
            name += '%';
            name += kDigits[byte >> 4];
            name += kDigits[byte & 0xF];
        }
    }
    return name;
}

}  // namespace

std::string MakeOutlets(const CrmOptions& options, std::vector<Outlet>& outlets) {
    std::vector<std::unique_ptr<ReportSink>> sinks;
    for (const std::string& place : options.eve) {
        sinks.push_back(MakeEveSink(place));
    }
    std::string reason = AddStreams(options, sinks);
    if (!reason.empty()) {
        return reason;
    }
    const bool isAlone = sinks.size() == 1;
    for (std::unique_ptr<ReportSink>& sink : sinks) {
        const auto isSame = [&sink](const Outlet& outlet) {
            return outlet.Sink().Kind() == sink->Kind() && outlet.Sink().Target() == sink->Target();
        };
        if (std::any_of(outlets.begin(), outlets.end(), isSame)) {
            return "--" + sink->Kind() + ' ' + sink->Target() + " is named twice";
        }
        std::unique_ptr<SpillFile> spill;
        if (!options.spill.empty()) {
            spill = std::make_unique<SpillFile>(
                isAlone ? options.spill : options.spill + '.' + NameInFile(*sink),
                options.spillLimit);
        }
        outlets.emplace_back(std::move(sink), std::move(spill));
    }
    return "";
}

std::vector<std::string> ForgottenReports(const CrmOptions& options,
                                          const std::vector<Outlet>& outlets) {
    std::vector<std::string> texts;
    if (options.spill.empty()) {
        return texts;
    }
    const fs::path file(options.spill);
    const std::string name = file.filename().string();
    std::error_code error;
    fs::directory_iterator entries(file.has_parent_path() ? file.parent_path() : ".", error);
    for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
        const std::string other = entries->path().filename().string();
        const std::string path = options.spill + other.substr(std::min(name.size(), other.size()));
        if ((other != name && !other.starts_with(name + '.')) ||
            std::any_of(outlets.begin(), outlets.end(),
                        [&path](const Outlet& outlet) { return outlet.Spill()->Path() == path; })) {
            continue;
        }
        const uint64_t waiting = WaitingInSpillFile(path).value_or(0);
        if (waiting != 0) {
            texts.push_back(path + ": " + Counted(waiting, "report") +
                            " still there, and for no sink of this command");
        }
    }
    std::sort(texts.begin(), texts.end());
    return texts;
}

}  // namespace tarnctl
