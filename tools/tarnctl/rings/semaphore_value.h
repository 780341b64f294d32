#pragma once

// How many posts wait in a named semaphore, without taking one.
//
// Threads: a pure function, but for the look.

#include <string>

namespace tarnctl {

struct SemaphoreLook {
    int posts = 0;
    int error = 0;  // the errno of the look; 0 when `posts` is right. ENOENT: there is no such name
};

// `name` begins with a slash, as for sem_open. The semaphore is never made.
[[nodiscard]] SemaphoreLook LookAtSemaphore(const std::string& name);

// The name of the semaphore that all channels of an event queue share.
[[nodiscard]] std::string EventQueueSemaphore(const std::string& queueName = "CRM");

}  // namespace tarnctl
