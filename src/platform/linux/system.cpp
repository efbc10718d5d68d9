#include "platform/system.h"

#include <fcntl.h>
#include <unistd.h>
#include <sys/resource.h>

namespace tovra::platform {

char pathSeparator() { return '/'; }
const char* gadgetLibraryBaseName() { return "zkgadget"; }
const char* osName() { return "Linux"; }

bool setOpenFileLimit(unsigned long count)
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
    limit.rlim_cur = count;
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

unsigned long lowestFreeDescriptor()
{
    const int free = ::fcntl(0, F_DUPFD, 0);
    if (free < 0) return 0;
    ::close(free);
    return static_cast<unsigned long>(free);
}

bool standardErrorIsTerminal() { return ::isatty(STDERR_FILENO) == 1; }

}  // namespace tovra::platform
