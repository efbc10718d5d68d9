// tovra-demo: connects to a simulated reader on loopback and shows the library's main use:
// request/response exchanges, a time-out, a request of the reader answered by the
// application, the disconnect, a reader that connects to the host, and finding a reader
// through UDP discovery.
#include "api/error_texts.h"
#include "readersim/reader_sim.h"
#include "readersim/udp_responder.h"
#include "tovra/tovra.h"

#include <atomic>
#include <cstdio>
#include <mutex>
#include <thread>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using tovra::readersim::ReaderSim;
using tovra::readersim::Reply;
using tovra::readersim::SimulatedReader;
using tovra::readersim::UdpResponder;
using Bytes = std::vector<std::uint8_t>;

void TOVRA_CALL onConnected(std::int32_t reader, void*, const char* connection)
{
    std::printf("  reader %d connected: %s\n", reader, connection);
}

std::atomic<bool> readerLeft{false};

void TOVRA_CALL onDisconnected(std::int32_t reader, void*)
{
    std::printf("  reader %d disconnected\n", reader);
    readerLeft = true;
}

std::string hex(const std::uint8_t* data, std::size_t length)
{
    std::string text;
    char byte[4];
    for (std::size_t i = 0; i < length; ++i) {
        std::snprintf(byte, sizeof byte, "%02X ", data[i]);
        text += byte;
    }
    if (!text.empty()) text.pop_back();
    return text;
}

void exchange(std::int32_t reader, const Bytes& request, const char* what)
{
    std::uint8_t response[256];
    std::uint64_t length = sizeof response;
    std::printf("  >> %-14s %s\n", hex(request.data(), request.size()).c_str(), what);
    const std::int32_t result = TOVRA_Transceive(reader, request.data(), request.size(), response, &length);
    if (result != 0) {
        std::printf("  !! %d  %s\n", result, TOVRA_GetLastErrorText(reader));
        return;
    }
    const std::string status = length >= 2 ? tovra::readerStatusText(response[1]) : "";
    std::printf("  << %-14s status: %s\n", hex(response, static_cast<std::size_t>(length)).c_str(), status.c_str());
}

// The application's answer to a request the reader sends on its own.
std::int32_t TOVRA_CALL onReaderRequest(std::int32_t reader, void* context, const std::uint8_t* request,
                                        std::uint64_t length, std::uint8_t** response, std::uint64_t* responseLength)
{
    auto* answer = static_cast<Bytes*>(context);
    std::printf("  reader %d asks:   %s\n", reader, hex(request, static_cast<std::size_t>(length)).c_str());
    *answer = {request[0], 0x00, 0x4F, 0x4B}; // command, status Ok, "OK"
    *response = answer->data();
    *responseLength = answer->size();
    return 0;
}

// Discovery lines, one per reader that answers; the first one is kept.
struct Found {
    std::mutex lock;
    std::string line;
};

void TOVRA_CALL onFound(void* context, std::int32_t event, const char* line)
{
    auto& found = *static_cast<Found*>(context);
    std::printf("  event %d: %s\n", event, line);
    std::lock_guard guard(found.lock);
    if (event == 1 && found.line.empty()) found.line = line;
}

// The simulator answers discovery on a loopback UDP port for the reader it simulates.
bool discoverAndConnect(ReaderSim& sim)
{
    UdpResponder responder;
    SimulatedReader simulated;
    simulated.macAddress = "02:00:00:00:00:01";
    simulated.deviceId = "00A1B2C3";
    simulated.port = sim.port();
    responder.setReader(simulated);
    if (!responder.start()) {
        std::printf("  cannot start the discovery responder\n");
        return false;
    }
    Found found;
    TOVRA_UdpManagerSetEventCallback(&found, onFound);
    const std::string target = "address=127.0.0.1:port=" + std::to_string(responder.port());
    std::printf("  discover: %s\n", target.c_str());
    if (TOVRA_UdpManagerStartDiscover(200, target.c_str()) != 0) {
        std::printf("  !! %s\n", TOVRA_GetLastErrorText(-4));
        return false;
    }
    std::string line;
    for (int i = 0; i < 500 && line.empty(); ++i) {
        std::this_thread::sleep_for(10ms);
        std::lock_guard guard(found.lock);
        line = found.line;
    }
    TOVRA_UdpManagerStopDiscover();
    if (line.rfind("UDP:", 0) != 0) {
        std::printf("  !! no reader answered\n");
        return false;
    }
    const std::string connector = "tcp" + line.substr(3);
    const std::int32_t reader = TOVRA_Create(2, nullptr);
    std::printf("  connect:  %s\n", connector.c_str());
    const bool connected = TOVRA_ConnectByHost(reader, connector.c_str()) == 0;
    if (connected) exchange(reader, {0x65, 0x00}, "read");
    else std::printf("  !! %s\n", TOVRA_GetLastErrorText(reader));
    TOVRA_Delete(reader);
    return connected;
}

} // namespace

int main()
{
    std::printf("tovra %s demo: a simulated reader on 127.0.0.1\n\n", TOVRA_GetVersion());

    ReaderSim sim;
    sim.setReply(0x65, Reply::with({0x01, 0x02, 0x03}));  // "read": three data bytes
    sim.setReply(0x22, Reply::with({}, 0x01));            // "select": no transponder
    sim.setReply(0x30, Reply::none());                    // never answered
    if (!sim.listen()) {
        std::printf("cannot start the simulated reader\n");
        return 1;
    }

    const std::string connector = "tcp:IPAddress=127.0.0.1:Port=" + std::to_string(sim.port());
    const std::int32_t reader = TOVRA_Create(2, connector.c_str());
    std::printf("1. Connect   %s\n", connector.c_str());
    if (TOVRA_ConnectByHost(reader, nullptr) != 0) {
        std::printf("  !! %s\n", TOVRA_GetLastErrorText(reader));
        return 1;
    }
    std::printf("  state: %s\n\n", TOVRA_GetConnectionState(reader));

    std::printf("2. Requests and responses (payload = command, data; response = command, status, data)\n");
    exchange(reader, {0x65, 0x00}, "read");
    exchange(reader, {0x22}, "select");
    exchange(reader, {0x10, 0xAB, 0xCD}, "any other: echoed");

    std::printf("\n3. A request the reader does not answer, with a 300 ms receive timeout\n");
    TOVRA_SetReceiveTimeout(reader, 300);
    exchange(reader, {0x30}, "no answer");

    std::printf("\n4. The reader sends a request of its own; the application answers it\n");
    Bytes answer;
    TOVRA_SetReaderRequestCallback(reader, &answer, onReaderRequest);
    sim.waitForConnection(5000ms);
    const auto reply = sim.sendRequest({0x70, 0x11});
    std::printf("  reader got back: %s\n", reply ? hex(reply->data(), reply->size()).c_str() : "(nothing)");

    std::printf("\n5. Disconnect\n");
    TOVRA_DisconnectByHost(reader);
    std::printf("  state: %s\n", TOVRA_GetConnectionState(reader));
    TOVRA_Delete(reader);

    std::printf("\n6. The other way round: the demo listens, a reader connects and asks\n");
    std::uint16_t port = 0;
    {
        ReaderSim probe; // borrows a free loopback port
        if (probe.listen()) port = probe.port();
    }
    const std::string listener = "tcp:IPAddress=127.0.0.1:Port=" + std::to_string(port);
    const std::int32_t host = TOVRA_Create(2, nullptr);
    TOVRA_SetReaderConnectedCallbacks(host, nullptr, onConnected, onDisconnected);
    TOVRA_SetReaderRequestCallback(host, &answer, onReaderRequest);
    if (TOVRA_StartListener(host, listener.c_str()) != 0) {
        std::printf("  !! %s\n", TOVRA_GetLastErrorText(host));
        return 1;
    }
    std::printf("  listening: %s\n", listener.c_str());
    ReaderSim visitor;
    if (visitor.connect("127.0.0.1", port)) {
        for (const Bytes& request : {Bytes{0x72, 0x01}, Bytes{0x73, 0x02, 0x03}}) {
            const auto got = visitor.sendRequest(request);
            std::printf("  reader got back: %s\n", got ? hex(got->data(), got->size()).c_str() : "(nothing)");
        }
        visitor.closeConnection();
        for (int i = 0; i < 200 && !readerLeft; ++i) std::this_thread::sleep_for(10ms);
    }
    TOVRA_StopListener(host);
    TOVRA_Delete(host);

    std::printf("\n7. Finding the reader on the network, then connecting to it from the line found\n");
    return discoverAndConnect(sim) ? 0 : 1;
}
