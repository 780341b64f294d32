#include "tarnctl/feed/spool_reader.h"

#include <algorithm>
#include <utility>

namespace tarnctl {

SpoolReader::SpoolReader(const std::string& prefix, Teller tell)
    : m_folder(prefix), m_tell(std::move(tell)) {}

void SpoolReader::TellOnce(const std::string& text) {
    if (text != m_told) {
        m_told = text;
        m_tell(text);
    }
}

void SpoolReader::Begin(const std::optional<SpoolPlace>& place) {
    if (!place) {
        return;
    }
    std::string fault;
    const std::vector<SpoolEntry> entries = m_folder.List(fault);
    const auto begins = [&](const SpoolEntry& entry) {
        return SpoolFile::HeadOf(m_folder.PathOf(entry.name), place->head) == place->head;
    };
    // A file may be renamed, and a folder may be copied; the number of its device is as it comes.
    for (const SpoolEntry& entry : entries) {
        if (entry.inode == place->inode && begins(entry)) {
            (void)OpenEntry(entry, place->offset);
            return;
        }
    }
    for (const SpoolEntry& entry : entries) {
        if (entry.name == place->name && !place->head.empty() && begins(entry)) {
            (void)OpenEntry(entry, place->offset);
            return;
        }
    }
    BeginAfter(*place);
}

void SpoolReader::BeginAfter(const SpoolPlace& place) {
    SpoolEntry gone;
    if (!m_folder.Parse(place.name, gone)) {
        m_tell("the bookmark's file " + place.name +
               " is none of these; beginning with the oldest");
        return;
    }
    ++m_counts.vanished;
    m_tell(place.name + " is gone or written anew; what it held after offset " +
           std::to_string(place.offset) +
           " is lost unless it was fed; going on with what is newer");
    m_entry = gone;
    m_entry.inode = place.inode;
    m_entry.device = place.device;
    // A file of the same name and number is another one, and all of it is new.
    m_seenStamp = gone.stamp == 0 ? 0 : gone.stamp - 1;
    m_hasEntry = true;
}

std::optional<SpoolEntry> SpoolReader::Newer() {
    std::string fault;
    const std::vector<SpoolEntry> entries = m_folder.List(fault);
    if (!fault.empty()) {
        TellOnce(fault);
    }
    if (!m_hasEntry) {
        return entries.empty() ? std::nullopt : std::optional(entries.front());
    }
    const auto isPresent = [this](const SpoolEntry& entry) {
        return entry.inode == m_entry.inode && entry.device == m_entry.device;
    };
    auto next = entries.end();
    const auto present =
        m_file.IsOpen() ? std::find_if(entries.begin(), entries.end(), isPresent) : entries.end();
    if (present != entries.end()) {
        m_entry = *present;  // it may have been renamed
        next = present + 1;
    } else {
        const uint64_t seen = m_entry.isPlain || !m_file.IsOpen() ? m_seenStamp : m_entry.stamp;
        next = std::find_if(entries.begin(), entries.end(), [seen](const SpoolEntry& entry) {
            return entry.isPlain || entry.stamp > seen;
        });
    }
    return next == entries.end() ? std::nullopt : std::optional(*next);
}

bool SpoolReader::OpenEntry(const SpoolEntry& entry, uint64_t offset) {
    std::string fault;
    for (const SpoolEntry& other : m_folder.List(fault)) {
        m_seenStamp = std::max(m_seenStamp, other.isPlain ? 0 : other.stamp);
    }
    if (!m_known.empty()) {
        m_known.back().place.head = m_file.Head();
        m_known.back().place.name = m_entry.name;
    }
    fault = m_file.Open(m_folder.PathOf(entry.name));
    if (!fault.empty()) {
        TellOnce(fault);
        return false;
    }
    m_file.GoTo(offset);
    m_entry = entry;
    m_entry.inode = m_file.Inode();
    m_entry.device = m_file.Device();
    m_hasEntry = true;
    m_tailSince = {};
    ++m_counts.files;
    m_known.push_back({++m_number, {entry.name, m_file.Device(), m_file.Inode(), 0, ""}});
    return true;
}

void SpoolReader::OpenAnew() {
    ++m_counts.anew;
    m_tell(m_entry.name + " was cut or written anew at offset " + std::to_string(m_file.Offset()) +
           "; going on at its beginning");
    (void)Newer();  // learns the present name
    if (!OpenEntry(m_entry, 0)) {
        m_file.GoTo(0);
    }
}

bool SpoolReader::MoveOn(uint64_t* lost, const std::string& what) {
    const std::optional<SpoolEntry> newer = Newer();
    if (!newer) {
        return false;
    }
    if (lost != nullptr) {
        ++*lost;
        m_tell(m_entry.name + ": " + what + " at offset " + std::to_string(m_file.Offset()) +
               "; going on with " + newer->name);
    }
    return OpenEntry(*newer, 0);
}

SpoolReader::State SpoolReader::AtEnd(SpoolFile::Result result, Clock::time_point now) {
    const State state = result == SpoolFile::Result::kPartial ? State::kPartial : State::kEnd;
    if (now < m_nextLook) {
        return state;
    }
    m_nextLook = now + kLookInterval;
    if (result == SpoolFile::Result::kFailed) {
        TellOnce(m_file.Error());
        return state;
    }
    if (result == SpoolFile::Result::kDamaged) {
        TellOnce(m_entry.name + ": damaged at offset " + std::to_string(m_file.Offset()) +
                 ": no record is that long; waiting for a newer file");
        return MoveOn(&m_counts.damaged, "no record is that long") ? Peek(now) : state;
    }
    if (!Newer()) {
        m_tailSince = {};
        return state;
    }
    // The sensor may have written here before it began the newer file.
    const SpoolFile::Result again = m_file.Peek();
    if (again == SpoolFile::Result::kRecord) {
        return State::kRecord;
    }
    if (again == SpoolFile::Result::kEnd) {
        return MoveOn(nullptr, "") ? Peek(now) : state;
    }
    const uint64_t size = m_file.Size();
    if (m_tailSince == Clock::time_point() || size != m_tailSize) {
        m_tailSince = now;
        m_tailSize = size;
        return state;
    }
    if (now - m_tailSince < kTailPatience) {
        return state;
    }
    return MoveOn(&m_counts.cut, "the record's tail never came") ? Peek(now) : state;
}

SpoolReader::State SpoolReader::Peek(Clock::time_point now) {
    if (!m_file.IsOpen()) {
        if (now < m_nextLook) {
            return State::kEnd;
        }
        m_nextLook = now + kLookInterval;
        const std::optional<SpoolEntry> first = Newer();
        if (!first || !OpenEntry(*first, 0)) {
            return State::kEnd;
        }
    }
    SpoolFile::Result result = m_file.Peek();
    if (result == SpoolFile::Result::kAnew) {
        OpenAnew();
        result = m_file.Peek();
    }
    return result == SpoolFile::Result::kRecord ? State::kRecord : AtEnd(result, now);
}

std::optional<SpoolPlace> SpoolReader::PlaceOf(const SpoolPosition& position) const {
    for (const Known& known : m_known) {
        if (known.number == position.file) {
            SpoolPlace place = known.place;
            place.offset = position.offset;
            if (known.number == m_number) {
                place.name = m_entry.name;
                place.head = m_file.Head();
            }
            return place;
        }
    }
    return std::nullopt;
}

void SpoolReader::Forget(const SpoolPosition& position) {
    while (!m_known.empty() && m_known.front().number < position.file) {
        m_known.pop_front();
    }
}

}  // namespace tarnctl
