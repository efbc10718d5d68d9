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
    plugin_ = std::move(plugin);
}

void ConnectionRecord::releasePlugin()
{
    if (!plugin_) return;
    const std::int32_t code = plugin_->pliGetLastError(portHandle());
    const char* text = plugin_->pliGetErrorText(code);
    {
        std::lock_guard guard(textLock_);
        cachedPluginError_ = code;
        cachedPluginErrorText_ = text != nullptr ? text : "";
    }
    plugin_.reset();
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
    std::string text;
    if (code == 0) text = "Ok, no error";
    // -5022 names the libraries and versions involved: only the plugin knows them.
    else if (code >= -5999 && code <= -5000 && code != err::PluginVersionMismatch) text = libraryErrorText(code);
    else if (plugin_) {
        const char* pluginText = plugin_->pliGetErrorText(code);
        text = pluginText != nullptr ? pluginText : "";
    } else {
        std::lock_guard guard(textLock_);
        text = code == cachedPluginError_ ? cachedPluginErrorText_ : "Plugin error " + std::to_string(code);
    }
    std::lock_guard guard(textLock_);
    errorText_ = std::move(text);
    return errorText_.c_str();
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
