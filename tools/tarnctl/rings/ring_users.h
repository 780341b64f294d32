#pragma once

// Which processes have a ring mapped.
//
// Both sides of a ring map it to write, since each stores its own index, so a mapping does not say
// which side it belongs to. The daemon is always the writer of its rings; whoever else may write is
// taken for a reader. A process that only looks maps the ring for reading.
//
// Threads: a pure function, but for the look at /proc.

#include <string>
#include <vector>

namespace tarnctl {

struct RingUser {
    int process = 0;  // its number
    std::string name;
    bool isWriter = false;  // it is the daemon
};

struct RingUsers {
    std::vector<RingUser> users;  // those that may write into the ring; never this process
    int unseen = 0;               // processes that this user may not look into
    std::string error;            // why nothing is known; empty when all is well
};

// `writer` is the number of a process that writes in the daemon's place; 0: there is none.
[[nodiscard]] RingUsers UsersOfRing(const std::string& path, int writer = 0);

// "NAME (NUMBER), NAME (NUMBER)".
[[nodiscard]] std::string UsersText(const std::vector<RingUser>& users);

}  // namespace tarnctl
