#include "tarnctl/common/read_error.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tarnctl/common/failure_text.h"

namespace tarnctl {

int ReadError(const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor == -1) {
        return errno;
    }
    struct stat status = {};
    const int error = fstat(descriptor, &status) != 0 ? errno
                      : S_ISDIR(status.st_mode)       ? EISDIR
                                                      : 0;
    close(descriptor);
    return error;
}

std::string ReadFailureText(const std::string& path, int error) {
    if (error == ENOENT || error == EISDIR) {
        return path + ": " + std::strerror(error) +
               (error == ENOENT ? "; check the name" : "; name a file in it");
    }
    return FailureText(path, error);
}

}  // namespace tarnctl
