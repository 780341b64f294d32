#pragma once

// Stands in for the system log of the C library in this executable: it keeps what it gets.
//
// Threads: the stand-in may be called by any thread; Clear and the queries by the test alone.

#include <string>
#include <vector>

namespace syslog_stand_in {

struct Line {
    int priority;
    std::string text;
    bool operator==(const Line&) const = default;
};

struct Opening {
    std::string name;
    int options;
    int facility;
    bool operator==(const Opening&) const = default;
};

void Clear();
std::vector<Line> Lines();
std::vector<Opening> Openings();
int Closings();

// Runs inside every later syslog(), on the thread that called it; a null one ends that.
void Inside(void (*hook)());

}  // namespace syslog_stand_in
