#include "discovery.h"

#include "error_codes.h"
#include "fields.h"

#include <algorithm>
#include <climits>
#include <system_error>

namespace zkudp {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Datagrams read before the thread looks at its clock and its stop flag again.
constexpr int kBatch = 64;
// Each set-up datagram is waited for this long, and sent this often in all.
constexpr milliseconds kSetupWait{1000};
constexpr int kSetupSends = 3;
// Readers remembered at most: forged answers cannot grow the table without end.
constexpr std::size_t kMaxReaders = 4096;

thread_local bool t_onDiscoveryThread = false;

// Seq numbers count up across the process from a start that differs between runs, so an
// answer meant for an earlier run or an earlier socket hardly ever matches a new round.
std::uint32_t nextSeq()
{
    static std::atomic<std::uint32_t> next{
        static_cast<std::uint32_t>(Clock::now().time_since_epoch().count() & 0x7FFFFFFF)};
    return next.fetch_add(1) + 1;
}

} // namespace

Discovery::Discovery(const Target& target, milliseconds interval, void* context, ZKUDP_Handler handler)
    : target_(target), interval_(interval), context_(context), handler_(handler)
{
}

Discovery::~Discovery() { stop(); }

std::int32_t Discovery::start(const Target& target, milliseconds interval, void* context, ZKUDP_Handler handler,
                              std::shared_ptr<Discovery>& discovery)
{
    std::shared_ptr<Discovery> started(new Discovery(target, interval, context, handler));
    const std::int32_t opened = UdpSocket::open(target.bind, started->socket_);
    if (opened != kOk) return opened;
    try {
        // The thread's owner keeps the object until stop() has joined the thread.
        started->thread_ = std::thread([self = started.get()] { self->run(); });
    } catch (const std::system_error&) {
        return kThreadFailed;
    }
    discovery = std::move(started);
    return kOk;
}

void Discovery::stop()
{
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    acknowledged_.notify_all();
    if (socket_) socket_->wake();
    if (thread_.joinable()) thread_.join();
}

bool Discovery::onDiscoveryThread() { return t_onDiscoveryThread; }

void Discovery::run()
{
    t_onDiscoveryThread = true;
    std::vector<char> buffer;
    while (!stopping_) {
        try {
            // One byte more than any datagram of ours, so that a longer one shows.
            buffer.resize(kMaxText + 1);
            runRound(buffer);
        } catch (...) {
            // Out of memory in a round: wait for the next one rather than spin.
            if (socket_->wait(static_cast<int>(std::min<milliseconds::rep>(interval_.count(), INT_MAX))) ==
                UdpSocket::Wait::woken)
                break;
        }
    }
}

void Discovery::runRound(std::vector<char>& buffer)
{
    const auto deadline = Clock::now() + interval_;
    ++round_;
    roundSeq_ = nextSeq();
    const std::string request = discoverDatagram(roundSeq_);
    for (const Endpoint& to : destinations()) socket_->send(request.data(), request.size(), to);
    receiveUntil(deadline, buffer);
    if (!stopping_) reportGone();
}

void Discovery::receiveUntil(Clock::time_point deadline, std::vector<char>& buffer)
{
    while (!stopping_) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return;
        switch (socket_->wait(static_cast<int>(std::min<milliseconds::rep>(left, INT_MAX)))) {
        case UdpSocket::Wait::woken: return;
        case UdpSocket::Wait::timeout: break;
        case UdpSocket::Wait::failed:
            // Not seen in practice; keep the round's rhythm without spinning.
            std::this_thread::sleep_for(milliseconds(10));
            break;
        case UdpSocket::Wait::readable:
            for (int taken = 0; taken < kBatch && !stopping_; ++taken) {
                const UdpSocket::Received got = socket_->receive(buffer.data(), buffer.size());
                if (got.kind == UdpSocket::Received::none || got.kind == UdpSocket::Received::failed) break;
                if (got.kind == UdpSocket::Received::datagram)
                    handleDatagram(std::string_view(buffer.data(), got.size), got.from);
            }
            break;
        }
    }
}

void Discovery::handleDatagram(std::string_view text, const Endpoint& from)
{
    Message message;
    if (!parseMessage(text, message)) return;
    if (message.command == Command::announce && message.seq == roundSeq_) onAnnounce(message.announce, from);
    if (message.command == Command::setupAck) onSetupAck(message);
}

void Discovery::onAnnounce(const Announce& announce, const Endpoint& from)
{
    const std::string key = upperCase(announce.macAddress);
    std::string line = scanInfo(announce);
    bool changed = false;
    {
        std::lock_guard lock(mutex_);
        auto found = readers_.find(key);
        if (found == readers_.end()) {
            if (readers_.size() >= kMaxReaders) return;
            found = readers_.emplace(key, Known{}).first;
        }
        Known& known = found->second;
        changed = known.scanInfo != line;
        if (changed) known.scanInfo = line;
        known.lastRound = round_;
        known.from = from;
    }
    if (changed) report(ZKUDP_EVENT_SEEN, line);
}

void Discovery::onSetupAck(const Message& message)
{
    const std::string key = upperCase(message.macAddress);
    std::lock_guard lock(mutex_);
    for (PendingSetup* pending : pending_) {
        if (pending->seq == message.seq && pending->macKey == key && !pending->result) {
            pending->result = message.result;
            acknowledged_.notify_all();
        }
    }
}

void Discovery::reportGone()
{
    std::vector<std::string> gone;
    {
        std::lock_guard lock(mutex_);
        for (auto at = readers_.begin(); at != readers_.end();) {
            if (round_ - at->second.lastRound >= target_.lost) {
                gone.push_back(std::move(at->second.scanInfo));
                at = readers_.erase(at);
            } else {
                ++at;
            }
        }
    }
    for (const std::string& line : gone) report(ZKUDP_EVENT_GONE, line);
}

void Discovery::report(std::int32_t event, const std::string& line)
{
    if (stopping_) return; // nobody waits for news any more
    try {
        handler_(context_, event, line.c_str());
    } catch (...) {
        // A handler's exception stops here, on the library's own thread.
    }
}

std::vector<Endpoint> Discovery::destinations() const
{
    if (target_.address != kBroadcast) return {Endpoint{target_.address, target_.port}};
    // Every interface gets its own directed broadcast: the limited one leaves by one
    // interface only.
    std::vector<std::uint32_t> addresses = broadcastAddresses(target_.bind);
    if (addresses.empty()) addresses.push_back(kBroadcast);
    std::vector<Endpoint> endpoints;
    for (const std::uint32_t address : addresses) endpoints.push_back(Endpoint{address, target_.port});
    return endpoints;
}

bool Discovery::sendSetup(const std::string& datagram, const std::string& macKey)
try {
    std::vector<Endpoint> to = destinations();
    {
        std::lock_guard lock(mutex_);
        const auto known = readers_.find(macKey);
        if (known != readers_.end() && std::find(to.begin(), to.end(), known->second.from) == to.end())
            to.push_back(known->second.from);
    }
    bool sent = false;
    for (const Endpoint& endpoint : to) sent = socket_->send(datagram.data(), datagram.size(), endpoint) || sent;
    return sent;
} catch (...) {
    return false; // the caller holds no lock here and must get one back
}

std::int32_t Discovery::setup(const SetupFields& fields, std::uint8_t flags)
{
    PendingSetup pending{nextSeq(), upperCase(fields.macAddress), std::nullopt};
    const std::string datagram = setupDatagram(pending.seq, fields, flags);
    std::unique_lock lock(mutex_);
    if (stopping_) return kNotRunning;
    pending_.push_back(&pending);
    // Off the list however the wait ends; the lock is held at every way out.
    struct Unlist {
        std::vector<PendingSetup*>& list;
        PendingSetup* entry;
        ~Unlist() { list.erase(std::remove(list.begin(), list.end(), entry), list.end()); }
    } unlist{pending_, &pending};

    for (int send = 0; send < kSetupSends; ++send) {
        lock.unlock();
        const bool sent = sendSetup(datagram, pending.macKey);
        lock.lock();
        if (!sent && send == 0) return kSendFailed;
        if (acknowledged_.wait_for(lock, kSetupWait, [&] { return pending.result.has_value() || stopping_; }))
            break;
    }
    if (pending.result) return *pending.result;
    return stopping_ ? kStoppedDuringSetup : kNoAcknowledgement;
}

} // namespace zkudp
