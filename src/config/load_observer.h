#pragma once

// What a load makes of each line, for programs that explain a configuration instead of acting on
// it. The loader itself fills these values while it reads, so that there is one grammar and not
// two. The daemon has no observer and pays one comparison with null for each line and each list.
//
// Owned by whoever installs it in Config::s_observer; Config borrows it.
//
// Threads: an observer is called on the thread that loads.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "config/event_rule_node.h"
#include "config/event_rule_parser.h"

// One line that is neither empty nor a comment. All offsets count bytes from 0.
struct LineRead {
    enum class Outcome {
        kBlank,         // empty or a comment; never passed to an observer
        kMissingValue,  // has no "="; dropped with a message
        kMissingName,   // has nothing before its "="; dropped with a message
        kUnknownName,   // the name is none that this kind of file has; dropped in silence
        kRefused,       // an event setting whose key, id or severity is none; dropped in silence
        kApplied,
    };

    // Makes everything as it is before a line is read.
    void Begin(std::string_view line, int fileKind, uint32_t lineNumber) {
        text = line;
        number = lineNumber;
        kind = fileKind;
        outcome = Outcome::kBlank;
        nameAt = nameLength = valueAt = numberEnd = 0;
        name.clear();
        value.clear();
        isNumber = false;
        numberRead = 0;
        numberStored = 0;
        eventKey = kEventKeyNone;
        id = flags = 0;
        keyTrace = {};
        blockRule = {};
        list.Clear();
    }

    std::string_view text;  // as the file has it; borrowed for the call
    uint32_t number = 0;    // from 1
    int kind = 0;           // Config::kMainFile or Config::kEventFile
    Outcome outcome = Outcome::kBlank;

    size_t nameAt = 0;      // in `text`; where the stripped line begins
    size_t nameLength = 0;  // bytes
    size_t valueAt = 0;     // in `text`
    std::string name;
    std::string value;

    // A tarn.* key with a number: what was read, and what is in force. A text is kept unchanged.
    bool isNumber = false;
    long numberRead = 0;   // at most and at least what 64 bits hold
    size_t numberEnd = 0;  // in `value`; 0 where it holds no number
    int numberStored = 0;

    // An event setting. The key is kEventKeyNone where the name has none.
    int eventKey = kEventKeyNone;  // EventKey
    uint32_t id = 0;
    EventKeyTrace keyTrace;
    uint32_t flags = 0;   // EventSeverity, UserResponseFlag or ResponseFlag, by the key
    BlockRule blockRule;  // of a quarantine rule
    ListTrace list;       // of a response or a quarantine rule
};

class LoadObserver {
  public:
    LoadObserver() = default;
    LoadObserver(const LoadObserver&) = delete;
    LoadObserver& operator=(const LoadObserver&) = delete;
    virtual ~LoadObserver() = default;

    // The loader has tried to open a file for reading and writing; `error` is 0 or the errno. Where
    // it failed, true has the file read all the same if it can be opened for reading alone.
    virtual bool OnFile(const char* path, int kind, int error) = 0;

    // A line has taken effect, or has been dropped.
    virtual void OnLine(const LineRead& line) = 0;

    // The pending event entry was to enter the table: another id has come, or the load has ended.
    // It is false for an id that the table has already; the pending entry is then without effect.
    virtual void OnEntryClosed(uint32_t id, bool entered) = 0;
};
