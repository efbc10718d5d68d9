// tovra-readersim: a simulated reader on loopback TCP or a pseudo-terminal, driven
// from the command line.
#include "readersim/reader_sim.h"
#include "readersim/udp_responder.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using namespace tovra::readersim;

namespace {

const char* const kUsage =
    "usage: tovra-readersim [options]\n"
    "  --port N              listen on 127.0.0.1:N (default 0: the system chooses)\n"
    "  --ipv6                listen on [::1] instead\n"
    "  --udp N               also answer network discovery on UDP port N of 127.0.0.1\n"
    "                        (0: the system chooses), announcing the listening reader\n"
    "  --udp-any             answer discovery on every local address (broadcasts too)\n"
    "  --connect HOST:PORT   connect to a listening host instead (127.0.0.1:N, [::1]:N)\n"
    "  --request HEX         with --connect: once connected, send HEX as a reader request\n"
    "                        and print \"request HEX answered HEX\" or \"request HEX unanswered\"\n"
    "                        (repeatable, sent in order, each waiting up to 5 s)\n"
    "  --pty LINE            serve a pseudo-terminal instead, answering only at LINE\n"
    "                        (9600:8E1, \"9600 8E1\"); prints the port's path first\n"
    "  --reply CMD=HEX[/ST]  answer command CMD (hex) with status ST and data HEX\n"
    "  --silent CMD          never answer command CMD (hex)\n"
    "  --fault KIND[=VALUE]  silence | bad-crc | generation=std|adv|enh | no-direction |\n"
    "                        length=N | close-mid-frame | trickle[=MS] | reset | flood[=N]\n"
    "  --fault-count N       apply the fault to the next N responses only\n"
    "  --until-eof           a server or pty stops when standard input ends\n"
    "  --verbose             print every frame\n"
    "Runs until killed (a client or a pty: until its connection ends).\n";

std::optional<unsigned long> number(const std::string& text, int base = 10) {
    if (text.empty()) return std::nullopt;
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, base);
    if (*end != '\0') return std::nullopt;
    return value;
}

std::optional<std::vector<std::uint8_t>> hexBytes(const std::string& text) {
    if (text.size() % 2 != 0) return std::nullopt;
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const auto value = number(text.substr(i, 2), 16);
        if (!value) return std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>(*value));
    }
    return bytes;
}

std::optional<std::uint8_t> command(const std::string& text) {
    const auto value = number(text, 16);
    if (!value || *value > 0xFF) return std::nullopt;
    return static_cast<std::uint8_t>(*value);
}

// "CMD=HEX" or "CMD=HEX/ST"
bool parseReply(const std::string& text, ReaderSim& sim) {
    const auto equals = text.find('=');
    if (equals == std::string::npos) return false;
    const auto cmd = command(text.substr(0, equals));
    std::string data = text.substr(equals + 1);
    std::uint8_t status = 0;
    if (const auto slash = data.find('/'); slash != std::string::npos) {
        const auto st = command(data.substr(slash + 1));
        if (!st) return false;
        status = *st;
        data.resize(slash);
    }
    const auto bytes = hexBytes(data);
    if (!cmd || !bytes) return false;
    sim.setReply(*cmd, Reply::with(*bytes, status));
    return true;
}

std::optional<Fault> parseFault(const std::string& text) {
    const auto equals = text.find('=');
    const std::string kind = text.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : text.substr(equals + 1);
    Fault fault;
    if (kind == "silence") {
        fault.kind = FaultKind::silence;
    } else if (kind == "bad-crc") {
        fault.kind = FaultKind::badCrc;
    } else if (kind == "no-direction") {
        fault.kind = FaultKind::noDirection;
    } else if (kind == "close-mid-frame") {
        fault.kind = FaultKind::closeMidFrame;
    } else if (kind == "reset") {
        fault.kind = FaultKind::reset;
    } else if (kind == "generation") {
        fault.kind = FaultKind::wrongGeneration;
        if (value == "std") fault.generation = Generation::standard;
        else if (value == "adv") fault.generation = Generation::advanced;
        else if (value == "enh") fault.generation = Generation::enhanced;
        else return std::nullopt;
    } else if (kind == "length") {
        const auto n = number(value);
        if (!n || *n > 0xFFFF) return std::nullopt;
        fault.kind = FaultKind::declaredLength;
        fault.declaredLength = static_cast<std::uint16_t>(*n);
    } else if (kind == "trickle") {
        fault.kind = FaultKind::trickle;
        if (!value.empty()) {
            const auto n = number(value);
            if (!n) return std::nullopt;
            fault.byteDelay = std::chrono::milliseconds(*n);
        }
    } else if (kind == "flood") {
        fault.kind = FaultKind::flood;
        if (!value.empty()) {
            const auto n = number(value);
            if (!n || *n > 1000000) return std::nullopt;
            fault.floodCount = static_cast<int>(*n);
        }
    } else {
        return std::nullopt;
    }
    return fault;
}

std::string hexText(const std::vector<std::uint8_t>& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (const auto byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

// The reader's own requests, one after another, each reported on one line.
void sendRequests(ReaderSim& sim, const std::vector<std::vector<std::uint8_t>>& requests,
                  const std::function<void(const std::string&)>& print) {
    for (const auto& request : requests) {
        const auto answer = sim.sendRequest(request);
        print("request " + hexText(request) + (answer ? " answered " + hexText(*answer) : " unanswered"));
    }
}

int usageError(const std::string& message) {
    std::fprintf(stderr, "tovra-readersim: %s\n%s", message.c_str(), kUsage);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::mutex printing;  // outlives the simulator, which prints through it
    ReaderSim sim;
    bool verbose = false, untilEof = false, ipv6 = false, udpAny = false;
    unsigned long port = 0;
    std::optional<unsigned long> udpPort;
    std::string connectTo;
    std::vector<std::vector<std::uint8_t>> requests;
    std::optional<LineSettings> pty;
    std::optional<Fault> fault;
    std::optional<unsigned long> faultCount;

    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        const bool hasValue = i + 1 < argc;
        const std::string value = hasValue ? argv[i + 1] : "";
        const auto needsValue = [&] { return hasValue ? (++i, true) : false; };
        if (option == "--help" || option == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (option == "--verbose") {
            verbose = true;
        } else if (option == "--until-eof") {
            untilEof = true;
        } else if (option == "--ipv6") {
            ipv6 = true;
        } else if (option == "--port") {
            const auto n = needsValue() ? number(value) : std::nullopt;
            if (!n || *n > 65535) return usageError("--port needs a number from 0 to 65535");
            port = *n;
        } else if (option == "--udp") {
            udpPort = needsValue() ? number(value) : std::nullopt;
            if (!udpPort || *udpPort > 65535) return usageError("--udp needs a number from 0 to 65535");
        } else if (option == "--udp-any") {
            udpAny = true;
        } else if (option == "--connect") {
            if (!needsValue()) return usageError("--connect needs HOST:PORT");
            connectTo = value;
        } else if (option == "--request") {
            const auto bytes = needsValue() ? hexBytes(value) : std::nullopt;
            if (!bytes || bytes->empty()) return usageError("--request needs hex bytes");
            requests.push_back(*bytes);
        } else if (option == "--pty") {
            pty = needsValue() ? LineSettings::parse(value) : std::nullopt;
            if (!pty) return usageError("--pty needs line settings such as 9600:8E1");
        } else if (option == "--reply") {
            if (!needsValue() || !parseReply(value, sim)) return usageError("bad --reply " + value);
        } else if (option == "--silent") {
            const auto cmd = needsValue() ? command(value) : std::nullopt;
            if (!cmd) return usageError("bad --silent " + value);
            sim.setReply(*cmd, Reply::none());
        } else if (option == "--fault") {
            fault = needsValue() ? parseFault(value) : std::nullopt;
            if (!fault) return usageError("bad --fault " + value);
        } else if (option == "--fault-count") {
            faultCount = needsValue() ? number(value) : std::nullopt;
            if (!faultCount || *faultCount == 0 || *faultCount > 1000000000) {
                return usageError("--fault-count needs a positive number");
            }
        } else {
            return usageError("unknown option " + option);
        }
    }
    if (pty && (!connectTo.empty() || port != 0 || ipv6)) {
        return usageError("--pty does not go with --connect, --port or --ipv6");
    }
    // Announces carry IPv4 addresses: the reader announced must listen on 127.0.0.1.
    if ((udpPort || udpAny) && (pty || !connectTo.empty() || ipv6)) {
        return usageError("--udp announces a reader listening on 127.0.0.1: not with --pty, --connect or --ipv6");
    }
    if (!requests.empty() && connectTo.empty()) return usageError("--request goes with --connect");
    if (udpAny && !udpPort) return usageError("--udp-any goes with --udp");
    if (fault) {
        if (faultCount) fault->count = static_cast<int>(*faultCount);
        sim.setFault(*fault);
    }
    const auto print = [&printing](const std::string& line) {
        std::lock_guard lock(printing);
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    };
    // A pty's path must be the first line, for whoever starts this to read it.
    if (!pty) sim.setLog(print, verbose);

    if (pty) {
        if (!sim.servePty(*pty)) {
            std::fprintf(stderr, "tovra-readersim: cannot create a pseudo-terminal\n");
            return 1;
        }
        print(sim.ptyPath());
        sim.setLog(print, verbose);
    } else if (!connectTo.empty()) {
        const auto colon = connectTo.rfind(':');
        const auto target = colon == std::string::npos ? std::nullopt : number(connectTo.substr(colon + 1));
        if (!target || *target == 0 || *target > 65535) return usageError("--connect needs HOST:PORT");
        if (!sim.connect(connectTo.substr(0, colon), static_cast<std::uint16_t>(*target))) {
            std::fprintf(stderr, "tovra-readersim: cannot connect to %s\n", connectTo.c_str());
            return 1;
        }
        sendRequests(sim, requests, print);
    } else if (!sim.listen(static_cast<std::uint16_t>(port), ipv6)) {
        std::fprintf(stderr, "tovra-readersim: cannot listen on port %lu\n", port);
        return 1;
    }

    // The reader announced is the one listening; a set-up changes what it announces only.
    UdpResponder responder;
    if (udpPort) {
        SimulatedReader reader;
        reader.macAddress = "02:00:00:00:00:01";
        reader.port = sim.port();
        responder.setReader(reader);
        responder.setLog(print);
        if (!responder.start(static_cast<std::uint16_t>(*udpPort), udpAny)) {
            std::fprintf(stderr, "tovra-readersim: cannot answer discovery on UDP port %lu\n", *udpPort);
            return 1;
        }
    }

    // A closed pty does not come back under the same path: its end is the end, as a client's.
    if (!connectTo.empty() || (pty && !untilEof)) {
        while (!sim.waitForDisconnect(std::chrono::hours(1))) {
        }
    } else if (untilEof) {
        for (int c = std::getchar(); c != EOF; c = std::getchar()) {
        }
    } else {
        for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
    }
    responder.stop();
    sim.stop();
    return 0;
}
