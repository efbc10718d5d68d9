#pragma once

#include "logging/tovra_logger.h"

#include <mutex>
#include <string>

namespace tovra::test {

// A logger with TCP and error records on that keeps every line for the test to search.
class CapturingLogger : public TovraLogger {
public:
    CapturingLogger() : TovraLogger(9) { configure("logtcp=on\nlogerror=on\n", '\n'); }
    void output(const std::string& line) override
    {
        std::lock_guard guard(lock_);
        text_ += line + "\n";
    }
    bool saw(const std::string& part)
    {
        std::lock_guard guard(lock_);
        return text_.find(part) != std::string::npos;
    }

private:
    std::mutex lock_;
    std::string text_;
};

} // namespace tovra::test
