#include "tarnctl/reload/kept_entries.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "tarnctl/common/atomic_file.h"
#include "tarnctl/common/read_error.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kVersion = 1;

KeptEntries EntriesFrom(const Json& json) {
    KeptEntries entries;
    json.at("daemon").get_to(entries.mark.daemon);
    json.at("ring").get_to(entries.mark.ring);
    json.at("time").get_to(entries.mark.time);
    json.at("configFile").get_to(entries.mark.configFile);
    json.at("eventFile").get_to(entries.mark.eventFile);
    for (const Json& entry : json.at("entries")) {
        entries.policies.emplace(entry.at("signature").get<uint32_t>(),
                                 entry.at("policy").get<std::string>());
    }
    return entries;
}

}  // namespace

std::string KeepEntries(const std::string& path, const KeptEntries& entries) {
    Json json = {{"version", kVersion},
                 {"daemon", entries.mark.daemon},
                 {"ring", entries.mark.ring},
                 {"time", entries.mark.time},
                 {"configFile", entries.mark.configFile},
                 {"eventFile", entries.mark.eventFile},
                 {"entries", Json::array()}};
    for (const auto& [signature, policy] : entries.policies) {
        json["entries"].push_back({{"signature", signature}, {"policy", policy}});
    }
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    std::error_code ignored;  // the write says what is wrong
    if (!folder.empty()) {
        std::filesystem::create_directory(folder, ignored);
    }
    // The policies are plain text; the name of a file may be anything.
    return WriteFileAtOnce(path, json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n",
                           Durability::kOnDisk);
}

std::string LoadKeptEntries(const std::string& path, KeptEntries& entries) {
    entries = {};
    if (const int error = ReadError(path); error != 0) {
        return error == ENOENT ? "" : ReadFailureText(path, error);
    }
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const Json json = Json::parse(text, nullptr, false);
    std::string broken = path + ": not what a reload has kept";
    if (!json.is_object()) {
        return broken;
    }
    try {
        if (json.at("version") != kVersion) {
            return broken;
        }
        entries = EntriesFrom(json);
    } catch (const Json::exception&) {
        entries = {};
        return broken;
    }
    return "";
}

}  // namespace tarnctl
