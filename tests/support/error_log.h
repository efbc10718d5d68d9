#pragma once

#include "tovra/tovra.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

namespace tovra::test {

// The library's error records, collected through the process-wide log callback. It must
// be in place before the first reader of the process exists: a test program that uses it
// registers ErrorLogFirst as a global test environment.
class ErrorLog {
public:
    static ErrorLog& instance()
    {
        static ErrorLog log;
        return log;
    }
    // A record of the reader with this handle that contains `text`.
    bool contains(std::int32_t reader, const std::string& text)
    {
        const std::string tag = " RH=" + std::to_string(reader) + " ";
        std::lock_guard guard(lock_);
        for (const auto& line : lines_)
            if (line.find(tag) != std::string::npos && line.find(text) != std::string::npos) return true;
        return false;
    }

private:
    ErrorLog()
    {
        TOVRA_SetLoggingParameter("[TOVRA]\nlogerror=1\n");
        TOVRA_SetLoggingCallback(this, [](void* self, const char* line) {
            auto& log = *static_cast<ErrorLog*>(self);
            std::lock_guard guard(log.lock_);
            log.lines_.emplace_back(line);
        });
    }
    std::mutex lock_;
    std::vector<std::string> lines_;
};

struct ErrorLogFirst : ::testing::Environment {
    void SetUp() override { ErrorLog::instance(); }
};

} // namespace tovra::test
