#pragma once

#include "platform/dynlib.h"

#include <cstdint>
#include <string>

namespace tovra::test {

// A stand-in device library of the test build, loaded by absolute path so that the
// library's later load by file name finds this very instance. Steered through its
// STANDIN_Control export.
class StandIn {
public:
    // `folder` below the stand-ins' build folder ("zkcom", "zkcom-partial"), `base` the
    // library's base name ("zkcom").
    StandIn(const std::string& folder, const std::string& base)
        : module_(platform::loadLibrary((std::string(TOVRA_STANDIN_DIR) + "/" + folder + "/" +
                                        platform::libraryFileName(base)).c_str()))
    {
        if (module_ != nullptr)
            control_ = platform::symbolAs<Control>(platform::findSymbol(module_, "STANDIN_Control"));
        if (control_ != nullptr) control("reset");
    }
    ~StandIn() { platform::unloadLibrary(module_); }
    StandIn(const StandIn&) = delete;
    StandIn& operator=(const StandIn&) = delete;

    bool loaded() const { return control_ != nullptr; }
    // The stand-in's reply: "ok", "unknown" or what was asked for.
    std::string control(const std::string& command)
    {
        char reply[65536] = {};
        if (control_ == nullptr || control_(command.c_str(), reply, sizeof reply) != 0) return {};
        return reply;
    }
    std::string calls() { return control("calls"); }

private:
    using Control = std::int32_t (*)(const char*, char*, std::int32_t);
    platform::LibraryHandle module_ = nullptr;
    Control control_ = nullptr;
};

} // namespace tovra::test
