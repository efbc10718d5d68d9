#include "platform/file.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace tovra::platform {

bool appendToFile(const char* path, std::string_view data) {
    if (path == nullptr || *path == '\0') return false;
    const int file = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (file < 0) return false;
    bool ok = true;
    const char* next = data.data();
    std::size_t left = data.size();
    while (left > 0) {
        const ssize_t written = ::write(file, next, left);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) {
            ok = false;
            break;
        }
        next += written;
        left -= static_cast<std::size_t>(written);
    }
    return ::close(file) == 0 && ok;
}

}  // namespace tovra::platform
