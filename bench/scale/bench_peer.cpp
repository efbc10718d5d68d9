// The far end of the scale benchmark. It runs in a process of its own so that its work
// never counts towards the client's CPU figures.
//   tovra_bench_peer serve           answers every request frame; prints "port <n>" first
//   tovra_bench_peer connect P...    connects to each port at once; prints the start time
//                                    of each connect (monotonic ns), then "done", and holds
#include "readersim/frame_codec.h"
#include "scale/sockets.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

namespace sim = tovra::readersim;
using Bytes = std::vector<std::uint8_t>;

[[noreturn]] void fail(const char* what)
{
    std::perror(what);
    std::exit(1);
}

struct Connection {
    Bytes in;
    Bytes out;
    bool waitsForRoom = false;
};

// Answers each whole request in `in` with the same payload, flagged as a response.
void answerRequests(Connection& connection)
{
    std::size_t used = 0;
    for (;;) {
        const auto decoded = sim::decode(std::span(connection.in).subspan(used));
        if (decoded.status == sim::Decoded::Status::incomplete) break;
        used += decoded.size;
        if (decoded.status != sim::Decoded::Status::frame || !decoded.crcOk) continue;
        sim::Frame response = decoded.frame;
        response.flags = response.generation == sim::Generation::enhanced ? sim::kDirectionResponse : 0;
        const Bytes wire = sim::encode(response);
        connection.out.insert(connection.out.end(), wire.begin(), wire.end());
    }
    connection.in.erase(connection.in.begin(), connection.in.begin() + static_cast<std::ptrdiff_t>(used));
}

class Server {
public:
    explicit Server(int listener) : epoll_(epoll_create1(EPOLL_CLOEXEC)), listener_(listener)
    {
        watch(listener_, EPOLL_CTL_ADD, false);
    }

    [[noreturn]] void run()
    {
        std::vector<epoll_event> events(256);
        for (;;) {
            const int ready = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), -1);
            for (int i = 0; i < ready; ++i) {
                const int fd = events[i].data.fd;
                if (fd == listener_) acceptAll();
                else if (events[i].events & EPOLLOUT) flush(fd);
                else receive(fd);
            }
        }
    }

private:
    void watch(int fd, int operation, bool writable)
    {
        epoll_event event{};
        event.events = writable ? EPOLLOUT : EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(epoll_, operation, fd, &event);
    }

    void acceptAll()
    {
        for (;;) {
            const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) return;
            tovra::bench::setNoDelay(fd);
            connections_[fd] = {};
            watch(fd, EPOLL_CTL_ADD, false);
        }
    }

    void receive(int fd)
    {
        Connection& connection = connections_[fd];
        std::uint8_t chunk[16384];
        for (;;) {
            const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
            if (n > 0) {
                connection.in.insert(connection.in.end(), chunk, chunk + n);
                continue;
            }
            if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return drop(fd);
            break;
        }
        answerRequests(connection);
        flush(fd);
    }

    // Writes what it can; a connection with bytes left waits for room, not for requests.
    void flush(int fd)
    {
        Connection& connection = connections_[fd];
        Bytes& out = connection.out;
        const ssize_t n = out.empty() ? 0 : send(fd, out.data(), out.size(), MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return drop(fd);
        out.erase(out.begin(), out.begin() + std::max<ssize_t>(n, 0));
        if (connection.waitsForRoom == out.empty()) {
            connection.waitsForRoom = !out.empty();
            watch(fd, EPOLL_CTL_MOD, connection.waitsForRoom);
        }
    }

    void drop(int fd)
    {
        connections_.erase(fd);
        close(fd);
    }

    int epoll_;
    int listener_;
    std::unordered_map<int, Connection> connections_;
};

[[noreturn]] void serve()
{
    const int listener = tovra::bench::listenLoopback(4096);
    std::printf("port %u\n", unsigned{tovra::bench::localPort(listener)});
    std::fflush(stdout);
    Server(listener).run();
}

[[noreturn]] void connectBurst(std::span<char*> ports)
{
    std::vector<int> sockets(ports.size());
    std::vector<std::int64_t> starts(ports.size());
    for (std::size_t i = 0; i < ports.size(); ++i) {
        sockets[i] = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const sockaddr_in address = tovra::bench::loopback(static_cast<std::uint16_t>(std::atoi(ports[i])));
        starts[i] = tovra::bench::monotonicNanos();
        if (connect(sockets[i], reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
            errno != EINPROGRESS)
            fail("connect");
    }
    // Printed after the burst so that writing the pipe does not slow the connects down.
    for (const std::int64_t start : starts) std::printf("%lld\n", static_cast<long long>(start));
    std::printf("done\n");
    std::fflush(stdout);
    for (;;) pause();
}

} // namespace

int main(int argc, char** argv)
{
    tovra::bench::raiseDescriptorLimit();
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "serve") serve();
    if (mode == "connect") connectBurst(std::span(argv + 2, static_cast<std::size_t>(argc - 2)));
    std::fprintf(stderr, "usage: %s serve | connect <port>...\n", argv[0]);
    return 2;
}
