#include "plugins/unavailable_transport.h"

#include "api/error_codes.h"

namespace tovra {

TovraPluginUnavailable::TovraPluginUnavailable(ConnectionRecord* owner, std::int32_t kind,
                                               std::string transportName)
    : TovraPlugin(owner), transportName_(std::move(transportName))
{
    kind_ = kind;
}

const char* TovraPluginUnavailable::pliGetErrorText(std::int32_t code)
{
    errorText_ = "TOVRA." + transportName_ + " error " + std::to_string(code) + ": " +
                 (code == err::NotImplemented ? "Transport not available in this build" : "---");
    return errorText_.c_str();
}

std::int32_t TovraPluginUnavailable::pliConnect(const char*) { return fail(err::NotImplemented); }

std::int32_t TovraPluginUnavailable::pliAccept(TovraListener*) { return fail(err::NotImplemented); }

std::int32_t TovraPluginUnavailable::pliDisconnect(std::int32_t) { return fail(err::NotImplemented); }

std::int32_t TovraPluginUnavailable::pliTransmit(std::int32_t, const std::uint8_t*, std::size_t)
{
    return fail(err::NotImplemented);
}

std::int32_t TovraPluginUnavailable::pliReceive(std::int32_t, std::uint8_t*, std::size_t)
{
    return fail(err::NotImplemented);
}

std::int32_t TovraPluginUnavailable::pliPutParam(std::int32_t, const char*, const char*)
{
    return fail(err::NotImplemented);
}

std::int32_t TovraPluginUnavailable::pliGetParam(std::int32_t, const char*, std::string&)
{
    return fail(err::NotImplemented);
}

TovraListenerUnavailable::TovraListenerUnavailable(ConnectionRecord* owner, std::int32_t kind)
    : TovraListener(owner)
{
    kind_ = kind;
}

std::int32_t TovraListenerUnavailable::start(const char*) { return err::NotImplemented; }

} // namespace tovra
