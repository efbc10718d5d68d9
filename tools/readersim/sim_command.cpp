#include "readersim/sim_command.h"

#include "readersim/hex_text.h"
#include "readersim/reader_sim.h"
#include "readersim/udp_responder.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <utility>

namespace tovra::readersim {

namespace {

using Print = std::function<void(const std::string&)>;

std::optional<unsigned long> number(const std::string& text, int base = 10) {
    if (text.empty()) return std::nullopt;
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, base);
    if (*end != '\0') return std::nullopt;
    return value;
}

std::optional<std::uint8_t> command(const std::string& text) {
    const auto value = number(text, 16);
    if (!value || *value > 0xFF) return std::nullopt;
    return static_cast<std::uint8_t>(*value);
}

struct ReplyRule {
    std::uint8_t command = 0;
    Reply reply;
};

// "CMD=HEX" or "CMD=HEX/ST"
std::optional<ReplyRule> parseReply(const std::string& text) {
    const auto equals = text.find('=');
    if (equals == std::string::npos) return std::nullopt;
    const auto cmd = command(text.substr(0, equals));
    std::string data = text.substr(equals + 1);
    std::uint8_t status = 0;
    if (const auto slash = data.find('/'); slash != std::string::npos) {
        const auto st = command(data.substr(slash + 1));
        if (!st) return std::nullopt;
        status = *st;
        data.resize(slash);
    }
    const auto bytes = parseHex(data);
    if (!cmd || !bytes) return std::nullopt;
    return ReplyRule{*cmd, Reply::with(*bytes, status)};
}

std::optional<Generation> generationNamed(const std::string& name) {
    if (name == "std") return Generation::standard;
    if (name == "adv") return Generation::advanced;
    if (name == "enh") return Generation::enhanced;
    return std::nullopt;
}

// The faults that take no value.
std::optional<FaultKind> plainFault(const std::string& kind) {
    static const std::pair<const char*, FaultKind> kinds[] = {
        {"silence", FaultKind::silence},
        {"bad-crc", FaultKind::badCrc},
        {"no-direction", FaultKind::noDirection},
        {"close-mid-frame", FaultKind::closeMidFrame},
        {"reset", FaultKind::reset},
    };
    for (const auto& [name, value] : kinds) {
        if (kind == name) return value;
    }
    return std::nullopt;
}

std::optional<Fault> parseFault(const std::string& text) {
    const auto equals = text.find('=');
    const std::string kind = text.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : text.substr(equals + 1);
    const auto n = number(value);
    Fault fault;
    if (const auto plain = plainFault(kind)) {
        fault.kind = *plain;
    } else if (kind == "generation") {
        const auto generation = generationNamed(value);
        if (!generation) return std::nullopt;
        fault.kind = FaultKind::wrongGeneration;
        fault.generation = *generation;
    } else if (kind == "length") {
        if (!n || *n > 0xFFFF) return std::nullopt;
        fault.kind = FaultKind::declaredLength;
        fault.declaredLength = static_cast<std::uint16_t>(*n);
    } else if (kind == "trickle") {
        if (!value.empty() && !n) return std::nullopt;
        fault.kind = FaultKind::trickle;
        if (n) fault.byteDelay = std::chrono::milliseconds(*n);
    } else if (kind == "flood") {
        if (!value.empty() && (!n || *n > 1000000)) return std::nullopt;
        fault.kind = FaultKind::flood;
        if (n) fault.floodCount = static_cast<int>(*n);
    } else {
        return std::nullopt;
    }
    return fault;
}

struct Endpoint {
    std::string host;
    std::uint16_t port = 0;
};

std::optional<Endpoint> parseEndpoint(const std::string& text) {
    const auto colon = text.rfind(':');
    if (colon == std::string::npos) return std::nullopt;
    const auto port = number(text.substr(colon + 1));
    if (!port || *port == 0 || *port > 65535) return std::nullopt;
    return Endpoint{text.substr(0, colon), static_cast<std::uint16_t>(*port)};
}

// A CLI11 check from a parser: the value is good when the parser takes it.
template <typename Parse>
CLI::Validator acceptedBy(Parse parse, const std::string& form) {
    return CLI::Validator(
        [parse, form](std::string& value) { return parse(value) ? std::string() : "expects " + form; }, form);
}

void sendRequests(ReaderSim& sim, const std::vector<std::string>& requests, const Print& print) {
    for (const std::string& text : requests) {
        const std::vector<std::uint8_t> payload = *parseHex(text);
        const auto answer = sim.sendRequest(payload);
        print("request " + hexText(payload, false) + (answer ? " answered " + hexText(*answer, false) : " unanswered"));
    }
}

}  // namespace

SimCommand::SimCommand(CLI::App& app, std::string name) : name_(std::move(name)) {
    auto* port = app.add_option("--port", port_, "listen on 127.0.0.1:N (default 0: the system chooses)")
                     ->check(CLI::Range(0u, 65535u));
    auto* ipv6 = app.add_flag("--ipv6", ipv6_, "listen on [::1] instead");
    auto* udp = app.add_option("--udp", udpPort_,
                               "also answer network discovery on UDP port N of 127.0.0.1 (0: the system "
                               "chooses), announcing the listening reader")
                    ->check(CLI::Range(0u, 65535u));
    app.add_flag("--udp-any", udpAny_, "answer discovery on every local address (broadcasts too)")->needs(udp);
    auto* connect = app.add_option("--connect", connectTo_,
                                   "connect to a listening host instead (127.0.0.1:N, [::1]:N)")
                        ->check(acceptedBy(parseEndpoint, "HOST:PORT"));
    auto* pty = app.add_option("--pty", pty_,
                               "serve a pseudo-terminal instead, answering only at LINE (9600:8E1, \"9600 8E1\"); "
                               "prints the port's path first")
                    ->check(acceptedBy(LineSettings::parse, "LINE"));
    app.add_option("--reply", replies_, "answer command CMD (hex) with status ST and data HEX: CMD=HEX[/ST]")
        ->check(acceptedBy(parseReply, "CMD=HEX[/ST]"));
    app.add_option("--silent", silent_, "never answer command CMD (hex)")->check(acceptedBy(command, "CMD"));
    app.add_option("--fault", fault_,
                   "silence | bad-crc | generation=std|adv|enh | no-direction | length=N | close-mid-frame | "
                   "trickle[=MS] | reset | flood[=N]")
        ->check(acceptedBy(parseFault, "KIND[=VALUE]"));
    app.add_option("--fault-count", faultCount_, "apply the fault to the next N responses only")
        ->check(CLI::Range(1u, 1000000000u));
    app.add_flag("--until-eof", untilEof_, "a server or pty stops when standard input ends");
    app.add_flag("--verbose", verbose_, "print every frame");
    app.add_option("--request", requests_,
                   "with --connect: once connected, send HEX as a request of the reader and print "
                   "\"request HEX answered HEX\" or \"request HEX unanswered\"; repeatable, sent in order")
        ->check(acceptedBy([](const std::string& text) { return !text.empty() && parseHex(text); }, "HEX"))
        ->needs(connect);
    pty->excludes(connect)->excludes(ipv6)->excludes(port);
    // Announces carry IPv4 addresses: the reader announced must listen on 127.0.0.1.
    udp->excludes(pty)->excludes(connect)->excludes(ipv6);
    app.footer("Runs until killed (a client or a pty: until its connection ends).");
}

int SimCommand::usageError(CLI::App& app, const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
}

int SimCommand::fail(const std::string& message) const {
    std::fprintf(stderr, "%s: %s\n", name_.c_str(), message.c_str());
    return 1;
}

int SimCommand::run() {
    std::mutex printing;  // outlives the simulator, which prints through it
    ReaderSim sim;
    for (const std::string& text : replies_) {
        const ReplyRule rule = *parseReply(text);
        sim.setReply(rule.command, rule.reply);
    }
    for (const std::string& text : silent_) sim.setReply(*command(text), Reply::none());
    if (!fault_.empty()) {
        Fault fault = *parseFault(fault_);
        if (faultCount_) fault.count = static_cast<int>(*faultCount_);
        sim.setFault(fault);
    }
    const Print print = [&printing](const std::string& line) {
        std::lock_guard lock(printing);
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    };
    const std::optional<LineSettings> pty = pty_.empty() ? std::nullopt : LineSettings::parse(pty_);
    // A pty's path must be the first line, for whoever starts this to read it.
    if (!pty) sim.setLog(print, verbose_);

    if (pty) {
        if (!sim.servePty(*pty)) return fail("cannot create a pseudo-terminal");
        print(sim.ptyPath());
        sim.setLog(print, verbose_);
    } else if (!connectTo_.empty()) {
        const Endpoint target = *parseEndpoint(connectTo_);
        if (!sim.connect(target.host, target.port)) return fail("cannot connect to " + connectTo_);
        sendRequests(sim, requests_, print);
    } else if (!sim.listen(static_cast<std::uint16_t>(port_), ipv6_)) {
        return fail("cannot listen on port " + std::to_string(port_));
    }

    // The reader announced is the one listening; a set-up changes what it announces only.
    UdpResponder responder;
    if (udpPort_) {
        SimulatedReader reader;
        reader.macAddress = "02:00:00:00:00:01";
        reader.port = sim.port();
        responder.setReader(reader);
        responder.setLog(print);
        if (!responder.start(static_cast<std::uint16_t>(*udpPort_), udpAny_)) {
            return fail("cannot answer discovery on UDP port " + std::to_string(*udpPort_));
        }
    }

    // A closed pty does not come back under the same path: its end is the end, as a client's.
    if (!connectTo_.empty() || (pty && !untilEof_)) {
        while (!sim.waitForDisconnect(std::chrono::hours(1))) {
        }
    } else if (untilEof_) {
        for (int c = std::getchar(); c != EOF; c = std::getchar()) {
        }
    } else {
        for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
    }
    responder.stop();
    sim.stop();
    return 0;
}

}  // namespace tovra::readersim
