#include "reader/connection_record.h"

#include "api/error_codes.h"
#include "api/error_texts.h"
#include "plugins/plugin_factory.h"
#include "reader/connector.h"

namespace tovra {

void ConnectionRecord::bind(TovraReader* reader, TovraLogger& logger, std::int32_t readerHandle)
{
    reader_ = reader;
    logger_ = &logger;
    readerHandle_ = readerHandle;
}

void ConnectionRecord::createHelpers()
{
    transmit_ = std::make_unique<TovraTransmit>(*this);
    receive_ = std::make_unique<TovraReceive>(*this);
}

void ConnectionRecord::abortPluginReceive()
{
    // Under the lock that closing and releasing the plugin take, so it cannot vanish meanwhile.
    std::lock_guard guard(transmitLockOf());
    if (plugin_) plugin_->pliAbortReceive();
}

std::mutex& ConnectionRecord::transmitLockOf()
{
    // Records used without helpers (none in a module's unused channels) have nothing to exclude.
    return transmit_ ? transmit_->lock() : spareLock_;
}

void ConnectionRecord::destroyHelpers()
{
    transmit_.reset();
    receive_.reset();
}

std::int32_t ConnectionRecord::createPlugin(const char* connector)
{
    if (connector != nullptr) setConnector(connector);
    {
        std::lock_guard guard(textLock_);
        cachedPluginError_ = 0;
        cachedPluginErrorText_.clear();
    }
    std::unique_ptr<TovraPlugin> plugin;
    const std::int32_t result = tovra::createPlugin(connectorType(this->connector().c_str()), *this, plugin);
    adoptPlugin(std::move(plugin));
    return result;
}

void ConnectionRecord::adoptPlugin(std::unique_ptr<TovraPlugin> plugin)
{
    if (plugin_) releasePlugin();
    std::scoped_lock guard(transmitLockOf(), textLock_);
    plugin_ = std::move(plugin);
}

void ConnectionRecord::releasePlugin()
{
    std::unique_ptr<TovraPlugin> plugin;
    {
        std::scoped_lock guard(transmitLockOf(), textLock_);
        plugin = std::move(plugin_);
    }
    if (!plugin) return;
    const std::int32_t code = plugin->pliGetLastError(portHandle());
    const char* text = plugin->pliGetErrorText(code);
    std::lock_guard guard(textLock_);
    cachedPluginError_ = code;
    cachedPluginErrorText_ = text != nullptr ? text : "";
}

std::int32_t ConnectionRecord::disconnectPlugin()
{
    std::lock_guard guard(transmitLockOf());
    std::int32_t result = 0;
    if (plugin_) result = plugin_->pliDisconnect(portHandle());
    setPortHandle(-1);
    return result;
}

std::int32_t ConnectionRecord::createListener(const char* listenerText)
{
    if (listenerText == nullptr) return err::ListenerParameter;
    if (listener_) return err::ListenerRunning;
    return tovra::createListener(connectorType(listenerText), *this, listener_);
}

void ConnectionRecord::destroyListener()
{
    if (listener_) listener_->stop();
    listener_.reset();
}

const char* ConnectionRecord::errorText(std::int32_t code)
{
    std::lock_guard guard(textLock_);
    errorText_ = composeErrorText(code);
    return errorText_.c_str();
}

std::string ConnectionRecord::composeErrorText(std::int32_t code) const
{
    if (code == 0) return "Ok, no error";
    // -5022 names the libraries and versions involved: only the plugin knows them.
    if (code >= -5999 && code <= -5000 && code != err::PluginVersionMismatch) return libraryErrorText(code);
    if (plugin_) {
        const char* text = plugin_->pliGetErrorText(code);
        return text != nullptr ? text : "";
    }
    if (code == cachedPluginError_) return cachedPluginErrorText_;
    return "Plugin error " + std::to_string(code);
}

std::string ConnectionRecord::connector() const
{
    std::lock_guard guard(textLock_);
    return connector_;
}

const char* ConnectionRecord::connectorText() const
{
    std::lock_guard guard(textLock_);
    return connector_.c_str();
}

void ConnectionRecord::setConnector(const char* connector)
{
    std::lock_guard guard(textLock_);
    connector_ = connector != nullptr ? connector : "";
}

std::string ConnectionRecord::connectionText() const
{
    std::lock_guard guard(textLock_);
    return connectionText_;
}

void ConnectionRecord::setConnectionText(std::string text)
{
    std::lock_guard guard(textLock_);
    connectionText_ = std::move(text);
}

} // namespace tovra
