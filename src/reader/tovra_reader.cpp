#include "reader/tovra_reader.h"

#include "api/error_codes.h"
#include "api/version.h"
#include "logging/log.h"
#include "protocol/app_callback_1p.h"
#include "protocol/app_channel_2p.h"
#include "protocol/app_transceive_1p.h"
#include "protocol/rdr_channel_2p.h"
#include "protocol/receiver_1p.h"
#include "protocol/worker_thread.h"
#include "reader/connector.h"
#include "tovra/zk_parameter.h"

namespace tovra {
namespace {

constexpr std::uint32_t kReaderErrors = logcat::Error | logcat::Reader;
constexpr std::uint32_t kConnectTimeoutMs = 5000;
// What the application finds preset as its response length in a reader-request callback.
constexpr std::uint64_t kMaxCallbackResponse = 32760;

} // namespace

std::int32_t nextReaderHandle()
{
    static std::mutex lock;
    static std::uint32_t counter = 0;
    std::lock_guard guard(lock);
    return static_cast<std::int32_t>(++counter & 0x0FFFFFFF);
}

TovraReader::TovraReader(std::int32_t moduleKind, const char* connector)
    : moduleKind_(moduleKind), handle_(nextReaderHandle()), logger_(static_cast<std::uint32_t>(handle_))
{
    TOVRA_LOG_TRACE(logger_, logcat::Reader, " TOVRA Version: ", versionText(), " - Creating module ...");
    setFrameType(isOnePort() ? 3 : 2);
    for (ConnectionRecord* record : {&single_, &app_, &rdr_}) record->bind(this, logger_, handle_);

    ConnectionRecord& host = hostRecord();
    if (connector != nullptr) host.setConnector(connector);
    if (isOnePort()) {
        single_.createHelpers();
        single_.setName("SingleCh");
        transceive1P_ = std::make_unique<TovraAppTransceive1P>(single_);
        callback1P_ = std::make_unique<TovraAppCallback1P>(single_);
        receiver1P_ = std::make_unique<TovraReceiver1P>(single_, *transceive1P_, *callback1P_);
        transceive1P_->attachReceiver(*receiver1P_);
        callback1P_->attachReceiver(*receiver1P_);
    } else {
        app_.createHelpers();
        app_.setName("AppCh");
        rdr_.createHelpers();
        rdr_.setName("RdrCh");
        appChannel2P_ = std::make_unique<TovraAppChannel2P>(app_);
        rdrChannel2P_ = std::make_unique<TovraRdrChannel2P>(rdr_);
    }
    readerRecord().acceptedEntry = [this](ConnectionRecord& record) { return connectByReaderAccepted(record); };
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "... ", isOnePort() ? "1port" : "2port",
                    " module created - frameType=", generationLabel(host.frameType()), " connector=",
                    host.connector());
}

TovraReader::~TovraReader()
{
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "Deleting module ...");
    shutdown();
    receiver1P_.reset();
    transceive1P_.reset();
    callback1P_.reset();
    appChannel2P_.reset();
    rdrChannel2P_.reset();
    single_.destroyHelpers();
    app_.destroyHelpers();
    rdr_.destroyHelpers();
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "... Module deleted");
}

std::int32_t TovraReader::fail(std::int32_t code)
{
    lastError_.store(code);
    TOVRA_LOG_ERROR(logger_, kReaderErrors, lastErrorText());
    return code;
}

const char* TovraReader::channelWords() const
{
    return isOnePort() ? "1port" : "2port app channel";
}

const char* TovraReader::connectionState() const
{
    if (isOnePort()) return single_.connected() ? "SingleCh=Con" : "SingleCh=Discon";
    if (app_.connected()) return rdr_.connected() ? "AppCh=Con:RdrCh=Con" : "AppCh=Con:RdrCh=Discon";
    return rdr_.connected() ? "AppCh=Discon:RdrCh=Con" : "AppCh=Discon:RdrCh=Discon";
}

void TovraReader::terminate()
{
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "TERMINATE");
    terminating_.store(true);
    // Releases whatever waits inside the channels; nothing is joined here.
    if (receiver1P_) receiver1P_->stop();
    if (rdrChannel2P_) rdrChannel2P_->stop();
    for (ConnectionRecord* record : {&single_, &app_, &rdr_})
        if (record->hasHelpers()) record->receive().abort();
}

void TovraReader::shutdown()
{
    // On one of the reader's own threads its connection ends once the current callback has
    // returned, its response sent: stopping that connection's threads now would drop it.
    if (onOwnThread()) terminating_.store(true);
    else terminate();
    stopListener();
    disconnectByHost();
}

bool TovraReader::onOwnThread() const { return WorkerThread::currentOwner() == this; }

bool TovraReader::quiescent() const
{
    if (isOnePort()) return receiver1P_->finished() && callback1P_->finished() && single_.listenerIdle();
    return rdrChannel2P_->finished() && rdr_.listenerIdle();
}

void TovraReader::endOwnConnectionLater()
{
    if (isOnePort()) {
        // Inside an application callback the response goes out first; on the receiver's or
        // a listener's thread (a logging callback) the receiver is asked to stop.
        if (callback1P_->isCurrent()) callback1P_->endAfterCallback();
        else receiver1P_->stop();
    } else if (rdrChannel2P_->isCurrent()) {
        rdrChannel2P_->endAfterCallback();
    } else {
        rdrChannel2P_->stop();
    }
}

bool TovraReader::startChannel(ConnectionRecord& record, bool byReader)
{
    bool started = false;
    try {
        started = isOnePort() ? receiver1P_->start(byReader) : rdrChannel2P_->start();
    } catch (...) {
        // The system refused a thread.
    }
    if (started) return true;
    // Whatever did start ends the connection on its way out; otherwise it ends here.
    endReaderChannel();
    if (record.connected()) {
        record.disconnectPlugin();
        record.retireConnection();
    }
    return false;
}

void TovraReader::endReaderChannel()
{
    if (isOnePort()) receiver1P_->terminate();
    else rdrChannel2P_->terminate();
}

void TovraReader::setReceiveTimeout(std::uint32_t milliseconds)
{
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "Set receive timeout ", milliseconds, " msec");
    if (isOnePort()) transceive1P_->setResponseTimeout(milliseconds);
    else app_.receive().setReceiveTimeout(static_cast<std::int32_t>(milliseconds));
}

std::int32_t TovraReader::receiveTimeout() const
{
    if (isOnePort()) return static_cast<std::int32_t>(transceive1P_->responseTimeout());
    return app_.receive().receiveTimeout();
}

std::int32_t TovraReader::connectByHost(const char* connection)
{
    lastError_.store(0);
    ConnectionRecord& record = hostRecord();
    if (!record.claim().tryClaim()) return fail(err::ConnectFailed);
    std::lock_guard life(record.lifecycle());
    // Threads of a connection the reader closed are on their way out: reap them before
    // anything of the new connection exists.
    if (isOnePort()) receiver1P_->terminate();

    const std::int32_t created = record.createPlugin(connection);
    if (created < 0) {
        record.claim().free();
        return fail(created);
    }
    const std::string connector = record.connector();
    TOVRA_LOG_TRACE(logger_, logcat::Reader, isOnePort() ? "1port connect: " : "2port app channel connect: ",
                    connector);

    const std::int32_t port =
        record.openPlugin([&](TovraPlugin& plugin) { return plugin.pliConnect(connector.c_str()); });
    if (port < 0) {
        lastError_.store(port);
        TOVRA_LOG_ERROR(logger_, kReaderErrors, lastErrorText());
        record.releasePlugin();
        record.claim().free();
        return port;
    }
    if (isOnePort()) transceive1P_->beginConnection();
    record.setPortHandle(port);
    setReceiveTimeout(kConnectTimeoutMs);
    if (isOnePort() && !startChannel(record, false)) return fail(err::CannotCreateReader);
    return err::Ok;
}

std::int32_t TovraReader::transceive(const std::uint8_t* request, std::uint64_t requestLength,
                                     std::uint8_t* response, std::uint64_t* responseLength)
{
    // Connected means claimed with a port: a connect still under way has made the
    // connection's plugin, which nobody else may use before the connect is over.
    const ConnectionRecord& record = hostRecord();
    if (!record.claim().isClaimed() || record.portHandle() < 0) return fail(err::NotConnected);
    TOVRA_LOG_TRACE(logger_, logcat::Reader, channelWords(), " transceive >> ", requestLength, " bytes");
    const std::int32_t result = isOnePort()
                                    ? transceive1P_->transceive(request, requestLength, response, responseLength)
                                    : appChannel2P_->transceive(request, requestLength, response, responseLength);
    if (result < 0) return fail(result);
    lastError_.store(result);
    TOVRA_LOG_TRACE(logger_, logcat::Reader, channelWords(), " transceive << ", *responseLength, " bytes");
    return result;
}

void TovraReader::disconnectByHost()
{
    ConnectionRecord& record = hostRecord();
    TOVRA_LOG_TRACE(logger_, logcat::Reader,
                    isOnePort() ? "Shutdown bi-dir connection by host ..." : "Disconnect uni-dir app channel by host ...");
    if (isOnePort() && onOwnThread()) {
        if (record.claim().tryClaim()) record.claim().free();
        else endOwnConnectionLater();
        return;
    }
    std::lock_guard life(record.lifecycle());
    if (record.claim().tryClaim()) {
        record.claim().free();
        return;
    }
    if (isOnePort()) {
        // The callback thread closes the connection and frees the channel on its way out.
        receiver1P_->terminate();
        TOVRA_LOG_TRACE(logger_, logcat::Reader, "... bi-dir disconnected by host");
        return;
    }
    // A connect claims the channel before it waits for the lifecycle lock: until it has its
    // port there is nothing to end, and retiring now would free the channel under it.
    if (!record.connected()) return;
    // A transceive that waits is woken and returns before the plugin is closed.
    record.abortPluginReceive();
    record.receive().abort();
    std::lock_guard exchange(appChannel2P_->exchangeLock());
    record.disconnectPlugin();
    record.retireConnection();
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "... uni-dir app channel disconnected by host");
}

std::int32_t TovraReader::startListener(const char* listenerText)
{
    lastError_.store(0);
    ConnectionRecord& record = readerRecord();
    const std::int32_t created = record.createListener(listenerText);
    if (created < 0) return fail(created);
    // Accepted connections get their plugin from this text.
    record.setConnector(listenerText);
    TOVRA_LOG_TRACE(logger_, logcat::Reader, isOnePort() ? "1port listen: " : "2port reader channel listen: ",
                    listenerText);
    TovraListener* listener = record.listener();
    const std::int32_t started = listener != nullptr ? listener->start(listenerText) : err::Ok;
    lastError_.store(started);
    if (started < 0) {
        TOVRA_LOG_ERROR(logger_, kReaderErrors, lastErrorText());
        record.destroyListener();
        return started;
    }
    if (isOnePort()) receiver1P_->prepareThreads();
    else rdrChannel2P_->prepareThread();
    return err::Ok;
}

std::int32_t TovraReader::stopListener()
{
    ConnectionRecord& record = readerRecord();
    TOVRA_LOG_TRACE(logger_, logcat::Reader,
                    isOnePort() ? "Shutdown 1port connection and listener ..."
                                : "Shutdown 2port reader channel connection and listener ...");
    // The listener goes first, so that no reader is accepted behind the check below. Its
    // thread never waits for a channel thread whose connection holds the channel.
    record.destroyListener();
    if (onOwnThread()) {
        if (record.claim().tryClaim()) record.claim().free();
        else endOwnConnectionLater();
    } else {
        std::lock_guard life(record.lifecycle());
        if (record.claim().tryClaim()) record.claim().free();
        else endReaderChannel();
    }
    if (isOnePort()) receiver1P_->retireThreads();
    else rdrChannel2P_->retireThread();
    TOVRA_LOG_TRACE(logger_, logcat::Reader,
                    isOnePort() ? "... 1port listener stopped" : "... 2port reader channel listener stopped");
    return err::Ok;
}

std::int32_t TovraReader::paramPlugin(ConnectionRecord& record, const char* parameters)
{
    std::int32_t accepted = 0;
    const std::shared_ptr<TovraPlugin> plugin = record.plugin();
    if (parameters == nullptr || plugin == nullptr) return accepted;
    std::string key, value;
    for (const char* p = parameters; p != nullptr;) {
        p = ZkParameter::parseSection(p, key, value, ':', false);
        if (key.empty()) continue;
        const std::int32_t result = plugin->pliPutParam(record.portHandle(), key.c_str(), value.c_str());
        lastError_.store(result);
        if (result < 0) {
            TOVRA_LOG_ERROR(logger_, kReaderErrors, "TovraReader::paramPlugin ", lastErrorText());
            return result;
        }
        ++accepted;
    }
    return accepted;
}

void TovraReader::setConnectedCallbacks(void* context, TOVRA_ReaderConnectedCallback connected,
                                        TOVRA_ReaderDisconnectedCallback disconnected)
{
    std::lock_guard guard(connectedLock_);
    connectedContext_ = context;
    connectedCallback_ = connected;
    disconnectedCallback_ = disconnected;
}

void TovraReader::setRequestCallback(void* context, TOVRA_ReaderRequestCallback callback)
{
    std::lock_guard guard(requestLock_);
    requestContext_ = context;
    requestCallback_ = callback;
}

void TovraReader::setDetectSerialCallback(void* context, TOVRA_DetectSerialCallback callback)
{
    std::lock_guard guard(detectLock_);
    detectContext_ = context;
    detectCallback_ = callback;
}

void TovraReader::connectedByReader(ConnectionRecord& record)
{
    if (deleted_.load()) return;
    TOVRA_ReaderConnectedCallback callback = nullptr;
    void* context = nullptr;
    {
        std::lock_guard guard(connectedLock_);
        callback = connectedCallback_;
        context = connectedContext_;
    }
    if (callback == nullptr) return;
    const std::string text = record.connectionText();
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "Enter connected-by-reader-CALLBACK");
    callback(record.readerHandle(), context, text.c_str());
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "Returned from connected-by-reader-CALLBACK");
}

void TovraReader::disconnectedByReader(ConnectionRecord& record)
{
    if (deleted_.load()) return;
    TOVRA_ReaderDisconnectedCallback callback = nullptr;
    void* context = nullptr;
    {
        std::lock_guard guard(connectedLock_);
        callback = disconnectedCallback_;
        context = connectedContext_;
    }
    if (callback == nullptr) return;
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "Enter disconnected-by-reader-CALLBACK");
    callback(record.readerHandle(), context);
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "Returned from disconnected-by-reader-CALLBACK");
}

std::int32_t TovraReader::readerRequest(ConnectionRecord& record, const ProtocolFrame& request,
                                        ProtocolFrame& response)
{
    const auto payload = request.payload();
    std::uint8_t* answer = nullptr;
    std::uint64_t answerLength = kMaxCallbackResponse;
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "Reader request << ", payload.size(), " bytes");

    TOVRA_ReaderRequestCallback callback = nullptr;
    void* context = nullptr;
    if (!deleted_.load()) {
        std::lock_guard guard(requestLock_);
        callback = requestCallback_;
        context = requestContext_;
    }
    if (callback == nullptr) {
        TOVRA_LOG_TRACE(logger_, logcat::Reader, "Reader request: no app callback >> no response");
        return -1;
    }
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "Enter reader-request-CALLBACK");
    const std::int32_t result =
        callback(record.readerHandle(), context, payload.data(), payload.size(), &answer, &answerLength);
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "Returned from reader-request-CALLBACK");

    if (result != 0 || answer == nullptr || answerLength == 0) {
        TOVRA_LOG_TRACE(logger_, logcat::Reader, "Reader request >> no app response");
        return -1;
    }
    TOVRA_LOG_TRACE(logger_, logcat::Reader, "Reader request >> ", answerLength, " bytes");
    if (!buildFrame(response, answer, answerLength, static_cast<std::uint8_t>(request.generation()),
                    kDirectionResponse, record.busAddress())) {
        TOVRA_LOG_TRACE(logger_, logcat::Reader, "Reader request: response length error >> no response");
        return -1;
    }
    return 0;
}

std::int32_t TovraReader::connectByReaderAccepted(ConnectionRecord& record)
{
    if (terminating()) {
        TOVRA_LOG_TRACE(logger_, logcat::Reader, "Terminating: connection request canceled");
        return err::AcceptWhileTerminating;
    }
    // A channel that the host has connected meanwhile cannot take the reader's connection.
    if (!record.claim().tryClaim()) return fail(err::ConnectFailed);
    std::lock_guard life(record.lifecycle());
    // The threads of the previous connection are on their way out: reap them first.
    endReaderChannel();

    const std::int32_t created = record.createPlugin(nullptr);
    if (created < 0) {
        record.claim().free();
        return fail(created);
    }
    TOVRA_LOG_TRACE(logger_, logcat::Reader, isOnePort() ? "1port accept: " : "2port reader channel accept: ",
                    record.connectionText());
    const std::int32_t port = record.openPlugin([&](TovraPlugin& plugin) { return plugin.pliAccept(record.listener()); });
    if (port < 0) {
        lastError_.store(port);
        TOVRA_LOG_ERROR(logger_, kReaderErrors, record.errorText(port));
        record.releasePlugin();
        record.claim().free();
        return port;
    }
    record.setPortHandle(port);
    record.setAccepted(true);
    if (isOnePort()) {
        transceive1P_->setResponseTimeout(kConnectTimeoutMs);
        transceive1P_->beginConnection();
    }
    // Kept even if its threads could not start: the connection has then ended already,
    // and its end has released the listener's gate.
    startChannel(record, true);
    return err::Ok;
}

void TovraReader::setFrameType(std::uint8_t frameType)
{
    for (ConnectionRecord* record : {&single_, &app_, &rdr_}) record->setFrameType(frameType);
}

} // namespace tovra
