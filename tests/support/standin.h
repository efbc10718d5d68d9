#pragma once

#include "platform/dynlib.h"
#include "protocol/protocol_frame.h"
#include "tovra/tovra.h"

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

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
    // Its event thread stops first: the library may really go away with this reference.
    ~StandIn()
    {
        control("reset");
        platform::unloadLibrary(module_);
    }
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

    // The recorded calls that contain `part`, in order.
    std::vector<std::string> callsWith(const std::string& part)
    {
        std::vector<std::string> lines;
        std::istringstream all(calls());
        for (std::string line; std::getline(all, line);)
            if (line.find(part) != std::string::npos) lines.push_back(line);
        return lines;
    }

private:
    using Control = std::int32_t (*)(const char*, char*, std::int32_t);
    platform::LibraryHandle module_ = nullptr;
    Control control_ = nullptr;
};

// Bytes as the stand-ins' scripts take them.
inline std::string hexOf(const std::uint8_t* bytes, std::size_t length)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string hex;
    for (std::size_t i = 0; i < length; ++i) {
        hex += digits[bytes[i] >> 4];
        hex += digits[bytes[i] & 0xF];
    }
    return hex;
}

// An enhanced response frame around `payload`, as a stand-in's script wants it.
inline std::string responseHex(const std::vector<std::uint8_t>& payload)
{
    ProtocolFrame frame;
    buildFrame(frame, payload.data(), payload.size(), 3, kDirectionResponse, 0xFF);
    return hexOf(frame.bytes.data(), frame.usedLength());
}

// One exchange through a connected reader that the stand-in answers with a scripted reply
// (none for an empty payload): 0 and the response payload, or the failure.
inline std::int32_t scriptedExchange(std::int32_t reader, StandIn& stub, const std::vector<std::uint8_t>& request,
                                     const std::vector<std::uint8_t>& responsePayload,
                                     std::vector<std::uint8_t>& response)
{
    if (!responsePayload.empty()) stub.control("reply " + responseHex(responsePayload));
    response.assign(64, 0);
    std::uint64_t length = response.size();
    const std::int32_t result = TOVRA_Transceive(reader, request.data(), request.size(), response.data(), &length);
    response.resize(result == 0 ? static_cast<std::size_t>(length) : 0);
    return result;
}

} // namespace tovra::test
