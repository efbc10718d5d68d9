#include "platform/file.h"

#include "platform/windows/win.h"

#include <climits>

namespace tovra::platform {

bool appendToFile(const char* path, std::string_view data) {
    if (path == nullptr || *path == '\0') return false;
    // FILE_APPEND_DATA alone makes every write go to the current end of file.
    HANDLE file = ::CreateFileA(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    bool ok = true;
    const char* next = data.data();
    std::size_t left = data.size();
    while (left > 0) {
        const DWORD chunk = left > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<DWORD>(left);
        DWORD written = 0;
        if (!::WriteFile(file, next, chunk, &written, nullptr) || written == 0) {
            ok = false;
            break;
        }
        next += written;
        left -= written;
    }
    return ::CloseHandle(file) != 0 && ok;
}

}  // namespace tovra::platform
