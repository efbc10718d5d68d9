#include "reader/connection_record.h"

#include "api/error_codes.h"
#include "api/error_texts.h"
#include "plugins/plugin_factory.h"
#include "reader/connector.h"

namespace tovra {

ConnectionRecord::~ConnectionRecord()
{
    destroyListener();
    reapStoppedListener();
}

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

std::shared_ptr<TovraPlugin> ConnectionRecord::plugin() const
{
    std::lock_guard guard(pluginLock_);
    return plugin_;
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

void ConnectionRecord::adoptPlugin(std::shared_ptr<TovraPlugin> plugin)
{
    if (this->plugin()) releasePlugin();
    std::lock_guard guard(pluginLock_);
    plugin_ = std::move(plugin);
}

void ConnectionRecord::releasePlugin()
{
    std::shared_ptr<TovraPlugin> plugin = this->plugin();
    if (!plugin) return;
    // Asked before the plugin leaves the record, so that the error text never falls
    // between the plugin's own text and the cached one.
    const std::int32_t code = plugin->pliGetLastError(portHandle());
    const char* text = plugin->pliGetErrorText(code);
    std::string cachedText = text != nullptr ? text : "";
    std::scoped_lock guard(textLock_, pluginLock_);
    cachedPluginError_ = code;
    cachedPluginErrorText_ = std::move(cachedText);
    plugin_.reset();
}

std::int32_t ConnectionRecord::disconnectPlugin()
{
    const std::shared_ptr<TovraPlugin> plugin = this->plugin();
    if (!plugin) return err::Ok;
    std::lock_guard guard(sendingLock());
    return plugin->pliDisconnect(portHandle());
}

std::int32_t ConnectionRecord::openPlugin(const std::function<std::int32_t(TovraPlugin&)>& open)
{
    const std::shared_ptr<TovraPlugin> plugin = this->plugin();
    if (!plugin) return err::CannotLoadPlugin;
    std::lock_guard guard(sendingLock());
    return open(*plugin);
}

void ConnectionRecord::abortPluginReceive()
{
    if (const std::shared_ptr<TovraPlugin> plugin = this->plugin()) plugin->abortConnection();
}

void ConnectionRecord::retireConnection()
{
    releasePlugin();
    const bool accepted = accepted_.exchange(false);
    claim_.freeAfter([this] { setPortHandle(-1); });
    // The listener took the gate for this connection: the next reader may come now.
    if (accepted) gate_.release();
}

std::int32_t ConnectionRecord::createListener(const char* listenerText)
{
    if (listenerText == nullptr) return err::ListenerParameter;
    if (listener_) return err::ListenerRunning;
    reapStoppedListener();
    return tovra::createListener(connectorType(listenerText), *this, listener_);
}

void ConnectionRecord::destroyListener()
{
    if (!listener_) return;
    listener_->stop();
    // Its own thread cannot wait for itself: the listener is destroyed later, from elsewhere.
    if (listener_->onOwnThread()) stoppedListener_ = std::move(listener_);
    else listener_.reset();
    reapStoppedListener();
}

void ConnectionRecord::reapStoppedListener()
{
    if (stoppedListener_ && !stoppedListener_->onOwnThread()) stoppedListener_.reset();
}

bool ConnectionRecord::listenerIdle() const
{
    return (!listener_ || listener_->idle()) && (!stoppedListener_ || stoppedListener_->idle());
}

const char* ConnectionRecord::errorText(std::int32_t code)
{
    // The plugin composes its text without any lock of ours held.
    const std::shared_ptr<TovraPlugin> plugin = this->plugin();
    std::string text = composeErrorText(code, plugin);
    std::lock_guard guard(textLock_);
    errorText_ = std::move(text);
    return errorText_.c_str();
}

std::string ConnectionRecord::composeErrorText(std::int32_t code, const std::shared_ptr<TovraPlugin>& plugin) const
{
    if (code == 0) return "Ok, no error";
    // -5022 names the libraries and versions involved: only the plugin knows them.
    if (code >= -5999 && code <= -5000 && code != err::PluginVersionMismatch) return libraryErrorText(code);
    if (plugin) {
        const char* text = plugin->pliGetErrorText(code);
        return text != nullptr ? text : "";
    }
    std::lock_guard guard(textLock_);
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
