#include "tarnctl/rings/semaphore_value.h"

#include <semaphore.h>

#include <cerrno>

#include "paths.h"

namespace tarnctl {

SemaphoreLook LookAtSemaphore(const std::string& name) {
    SemaphoreLook look;
    sem_t* const semaphore = sem_open(name.c_str(), 0);
    if (semaphore == SEM_FAILED) {
        look.error = errno;
        return look;
    }
    if (sem_getvalue(semaphore, &look.posts) != 0) {
        look.error = errno;
    }
    sem_close(semaphore);
    return look;
}

std::string EventQueueSemaphore(const std::string& queueName) {
    return tarn::paths::kEventQueueSemaphore + queueName + ".sem";
}

}  // namespace tarnctl
