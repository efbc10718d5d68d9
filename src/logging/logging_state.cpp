#include "logging/logging_state.h"

#include "platform/clock.h"
#include "platform/env.h"
#include "platform/file.h"
#include "platform/system.h"
#include "tovra/zk_parameter.h"

#include <cstdio>
#include <utility>

namespace tovra {
namespace {

struct PendingSettings {
    std::mutex lock;
    std::string parameterText;
    TOVRA_LoggingCallback callback = nullptr;
    void* context = nullptr;
};

PendingSettings& pending()
{
    static PendingSettings settings;
    return settings;
}

// Taken while the library loads, before any application call.
[[maybe_unused]] const LibraryStart& startAtLoad = libraryStart();

std::string readConfiguration()
{
    {
        PendingSettings& p = pending();
        std::lock_guard guard(p.lock);
        if (!p.parameterText.empty()) return std::exchange(p.parameterText, {});
    }
    const auto named = platform::getEnv("OLMA_LOGGER_CONGIG_FILE");
    const std::string path = named ? *named : std::string(".") + platform::pathSeparator() + "olma.conf";
    std::string text;
    if (!ZkParameter::readFromFile(path, text)) text.clear();
    return text;
}

} // namespace

const LibraryStart& libraryStart()
{
    static const LibraryStart start = [] {
        const std::int64_t wall = platform::wallClockMicros();
        return LibraryStart{wall, platform::monotonicMicros(),
                            platform::formatLocalTime(wall, "%Y.%m.%d-%H.%M.%S")};
    }();
    return start;
}

void setPendingLoggingParameter(const char* parameterText)
{
    PendingSettings& p = pending();
    std::lock_guard guard(p.lock);
    p.parameterText = parameterText != nullptr ? parameterText : "";
}

void setPendingLoggingCallback(void* context, TOVRA_LoggingCallback callback)
{
    PendingSettings& p = pending();
    std::lock_guard guard(p.lock);
    p.callback = callback;
    p.context = context;
}

LoggingState& LoggingState::instance()
{
    static LoggingState state;
    return state;
}

LoggingState::LoggingState()
    : configText_(readConfiguration()),
      headerText_(std::string("Log file of VARN SDK\n\nOperating System: ") + platform::osName() + "\n\n")
{
    PendingSettings& p = pending();
    std::lock_guard guard(p.lock);
    callback_ = std::exchange(p.callback, nullptr);
    callbackContext_ = std::exchange(p.context, nullptr);
}

std::string LoggingState::getSection(const std::string& name) const
{
    return ZkParameter::getSection(configText_, name);
}

void LoggingState::writeConsole(std::string_view line)
{
    std::lock_guard guard(consoleLock_);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void LoggingState::writeSharedFile(const std::string& path, std::string_view line)
{
    std::lock_guard guard(sharedFileLock_);
    appendLogLine(path, line, headerText_, sharedHeaderPending_);
}

void LoggingState::callGlobalCallback(const std::string& line) const
{
    if (callback_ != nullptr) callback_(callbackContext_, line.c_str());
}

void appendLogLine(const std::string& path, std::string_view line, const std::string& header,
                   bool& headerPending)
{
    std::string text;
    text.reserve(header.size() + line.size() + 2);
    if (headerPending) (text += header) += '\n';
    (text += line) += '\n';
    if (platform::appendToFile(path.c_str(), text)) headerPending = false;
}

} // namespace tovra
