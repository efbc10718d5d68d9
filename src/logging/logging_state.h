#pragma once

#include "tovra/tovra.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

namespace tovra {

// When the library was loaded: relative time stamps count from here, and the default
// log file name carries its local time.
struct LibraryStart {
    std::int64_t wallMicros;
    std::int64_t monotonicMicros;
    std::string text; // "%Y.%m.%d-%H.%M.%S"
};
const LibraryStart& libraryStart();

// Settings the application may give before the first logger exists.
void setPendingLoggingParameter(const char* parameterText);
void setPendingLoggingCallback(void* context, TOVRA_LoggingCallback callback);

// Process-wide logging state, made by the first logger: the configuration text, the
// global callback and the locks of the shared outputs.
class LoggingState {
public:
    static LoggingState& instance();

    // Body of a section of the configuration text.
    std::string getSection(const std::string& name) const;
    const std::string& headerText() const { return headerText_; }

    void writeConsole(std::string_view line);
    void writeSharedFile(const std::string& path, std::string_view line);
    void callGlobalCallback(const std::string& line) const;

    LoggingState(const LoggingState&) = delete;
    LoggingState& operator=(const LoggingState&) = delete;

private:
    LoggingState();

    std::string configText_;
    TOVRA_LoggingCallback callback_ = nullptr;
    void* callbackContext_ = nullptr;
    std::mutex consoleLock_;
    std::mutex sharedFileLock_;
    bool sharedHeaderPending_ = true;
    std::string headerText_;
};

// Appends one line to a log file, preceded by the header text when `headerPending`;
// clears `headerPending` once the header is written. A file that cannot be opened is skipped.
void appendLogLine(const std::string& path, std::string_view line, const std::string& header,
                   bool& headerPending);

} // namespace tovra
