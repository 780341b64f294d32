#include "tarnctl/feed/bookmark.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <vector>

#include "tarnctl/common/atomic_file.h"
#include "tarnctl/common/read_error.h"

namespace tarnctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kVersion = 1;

// A file name of the sensor may be no UTF-8, so a byte of it is a number of its own.
Json NameAsJson(const std::string& name) {
    return std::vector<unsigned char>(name.begin(), name.end());
}

Json AsJson(const std::optional<SpoolPlace>& place) {
    if (!place) {
        return nullptr;
    }
    const bool isAscii = std::all_of(place->name.begin(), place->name.end(),
                                     [](char letter) { return letter >= ' ' && letter <= '~'; });
    return {{"name", isAscii ? Json(place->name) : NameAsJson(place->name)},
            {"device", place->device},
            {"inode", place->inode},
            {"offset", place->offset},
            {"head", place->head}};
}

std::optional<SpoolPlace> SpoolFrom(const Json& json) {
    if (json.is_null()) {
        return std::nullopt;
    }
    SpoolPlace place;
    const Json& name = json.at("name");
    if (name.is_array()) {
        for (const Json& byte : name) {
            place.name += static_cast<char>(byte.get<unsigned char>());
        }
    } else {
        place.name = name.get<std::string>();
    }
    json.at("device").get_to(place.device);
    json.at("inode").get_to(place.inode);
    json.at("offset").get_to(place.offset);
    json.at("head").get_to(place.head);
    return place;
}

Json AsJson(const Bookmark& bookmark) {
    Json json = {{"version", kVersion},
                 {"spool", AsJson(bookmark.spool)},
                 {"refeed", AsJson(bookmark.refeed)},
                 {"ring", nullptr},
                 {"rejects", nullptr},
                 {"settled", bookmark.isSettled}};
    if (bookmark.ring) {
        json["ring"] = {{"device", bookmark.ring->device},
                        {"inode", bookmark.ring->inode},
                        {"index", bookmark.ring->index}};
    }
    if (bookmark.rejects) {
        json["rejects"] = {{"device", bookmark.rejects->device},
                           {"inode", bookmark.rejects->inode},
                           {"size", bookmark.rejects->size}};
    }
    return json;
}

Bookmark BookmarkFrom(const Json& json) {
    Bookmark bookmark;
    bookmark.spool = SpoolFrom(json.at("spool"));
    bookmark.refeed = SpoolFrom(json.at("refeed"));
    if (const Json& ring = json.at("ring"); !ring.is_null()) {
        bookmark.ring = {ring.at("device"), ring.at("inode"), ring.at("index")};
    }
    if (const Json& rejects = json.at("rejects"); !rejects.is_null()) {
        bookmark.rejects = {rejects.at("device"), rejects.at("inode"), rejects.at("size")};
    }
    json.at("settled").get_to(bookmark.isSettled);
    return bookmark;
}

}  // namespace

std::string SaveBookmark(const std::string& path, const Bookmark& bookmark) {
    return WriteFileAtOnce(path, AsJson(bookmark).dump() + "\n", Durability::kOnDisk);
}

std::string LoadBookmark(const std::string& path, Bookmark& bookmark) {
    bookmark = {};
    if (const int error = ReadError(path); error != 0) {
        return error == ENOENT ? "" : ReadFailureText(path, error);
    }
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const Json json = Json::parse(text, nullptr, false);
    std::string broken =
        path + ": not a bookmark; move it away to begin with the oldest spool file";
    if (!json.is_object() || json.value("version", 0) != kVersion) {
        return broken;
    }
    try {
        bookmark = BookmarkFrom(json);
    } catch (const Json::exception&) {
        bookmark = {};
        return broken;
    }
    return "";
}

}  // namespace tarnctl
