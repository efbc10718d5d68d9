// tovra: one command-line tool for the library's readers, and the reader simulator.
#include "commands.h"
#include "log_option.h"
#include "output.h"

#include "readersim/sim_command.h"
#include "tovra/tovra.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <memory>

namespace {

using namespace tovra::cli;
using tovra::readersim::SimCommand;

// Options every sub-command shares, and the one that was chosen.
struct Tool {
    bool json = false;
    std::string log;
    std::function<int(Output&)> run;
};

CLI::App* command(CLI::App& app, Tool& tool, const char* name, const char* description,
                  std::function<int(Output&)> run) {
    CLI::App* sub = app.add_subcommand(name, description);
    sub->callback([&tool, run = std::move(run)] { tool.run = run; });
    return sub;
}

void addVersion(CLI::App& app, Tool& tool) {
    command(app, tool, "version", "Print the library's version.", [](Output& output) {
        output.result(TOVRA_GetVersion(), JsonObject().add("version", TOVRA_GetVersion()));
        return 0;
    });
}

void addTransceive(CLI::App& app, Tool& tool, TransceiveOptions& options) {
    auto* sub = command(app, tool, "transceive",
                        "Connect to a reader, send requests, print each response and its status, disconnect.",
                        [&options](Output& output) { return transceive(options, output); });
    sub->add_option("CONNECTOR", options.connector, "e.g. tcp:IPAddress=127.0.0.1:Port=10001")->required();
    sub->add_option("HEX", options.requests,
                    "request payloads in hex. Arguments are joined into one request (\"65 00\" = 65 00 = 6500); "
                    "a ',' starts the next request (6500,6501 or 6500 , 6501)")
        ->required();
    sub->add_option("--timeout", options.timeoutMs, "receive timeout in milliseconds (default: the library's 5000)")
        ->check(CLI::Range(1u, 3600000u));
    sub->add_option("--repeat", options.repeat,
                    "send the requests N times; the responses of the first round are printed, then a "
                    "latency summary (count, p50, p99, max)")
        ->check(CLI::Range(1u, 100000000u));
    sub->add_option("--module-kind", options.moduleKind, "2: one-port module (default); other: two-port module");
}

void addListen(CLI::App& app, Tool& tool, ListenOptions& options) {
    auto* sub = command(app, tool, "listen",
                        "Wait for readers to connect; print them and their requests, and answer the requests.",
                        [&options](Output& output) { return listen(options, output); });
    sub->add_option("LISTENER", options.listener, "e.g. tcp:IPAddress=127.0.0.1:Port=10001 or com:Device=COM4")
        ->required();
    sub->add_option("--answer", options.answer, "response (hex) to every request that no rule answers");
    sub->add_option("--rules", options.rulesFile,
                    "rule file: lines \"REQUEST-HEX-PREFIX = RESPONSE-HEX\", '#' comments; the first rule whose "
                    "prefix starts the request answers it")
        ->check(CLI::ExistingFile);
    sub->add_option("--seconds", options.seconds, "stop after N seconds (default: at Ctrl-C)");
    sub->add_option("--count", options.count, "stop after N requests (the last one is still answered)");
}

void addDetect(CLI::App& app, Tool& tool, DetectOptions& options) {
    auto* sub = command(app, tool, "detect",
                        "Find the line settings of a serial reader; print the connector that reaches it.",
                        [&options](Output& output) { return detect(options, output); });
    sub->add_option("DETECTION", options.detection,
                    "com:Device=COM4[:BusAddress=255][:DetectMode=1 (short list)][:DetectDelay=MS]")
        ->required();
}

void addPorts(CLI::App& app, Tool& tool, PortsOptions& options) {
    auto* sub = command(app, tool, "ports",
                        "List the serial ports present, by number: COM<N> (Linux: $ZKCOM_COM<N>, "
                        "$ZKCOM_PORTDIR/com<N>, else /dev/ttyS<N-1>).",
                        [&options](Output& output) { return ports(options, output); });
    sub->add_option("--first", options.first, "first port number (default 1)")->check(CLI::Range(1, 65535));
    sub->add_option("--last", options.last, "last port number (default 256)")->check(CLI::Range(1, 65535));
}

void addDiscover(CLI::App& app, Tool& tool, DiscoverOptions& options) {
    auto* sub = command(app, tool, "discover",
                        "Print readers as they are found (\"found LINE\") or go (\"gone LINE\"). USB and BLE "
                        "need the device libraries; UDP uses the shipped one.",
                        [&options](Output& output) { return discover(options, output); });
    sub->add_option("KIND", options.kind, "usb, ble or udp")->required()->check(CLI::IsMember({"usb", "ble", "udp"}));
    sub->add_option("--seconds", options.seconds, "stop after N seconds (default 10; 0: at Ctrl-C)");
    sub->add_option("--count", options.count, "stop once N readers were found");
    sub->add_option("--target", options.target,
                    "udp: address=IPv4:port=N:lost=ROUNDS:bind=IPv4, each optional (default: broadcast to 10002)");
    sub->add_option("--interval", options.intervalMs, "udp: milliseconds between rounds (default 1000)");
}

void addSim(CLI::App& app, Tool& tool, std::unique_ptr<SimCommand>& sim) {
    CLI::App* sub = app.add_subcommand("sim", "Run the reader simulator (the options of tovra-readersim).");
    sim = std::make_unique<SimCommand>(*sub, "tovra sim");
    sub->callback([&tool, &sim] { tool.run = [&sim](Output&) { return sim->run(); }; });
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Talk to readers through the tovra library, or simulate one.", "tovra"};
    app.require_subcommand(1);
    app.fallthrough();  // --json and --log also after the sub-command
    Tool tool;
    app.add_flag("--json", tool.json, "print results as JSON, one object per line");
    app.add_option("--log", tool.log, "turn on the library's log on standard error: " + loggingCategoryNames())
        ->check(CLI::Validator(
            [](std::string& value) { return loggingParameter(value) ? std::string() : "unknown log category"; },
            "CATEGORIES"));

    TransceiveOptions transceiveOptions;
    ListenOptions listenOptions;
    DetectOptions detectOptions;
    PortsOptions portsOptions;
    DiscoverOptions discoverOptions;
    std::unique_ptr<SimCommand> sim;
    addVersion(app, tool);
    addTransceive(app, tool, transceiveOptions);
    addListen(app, tool, listenOptions);
    addDetect(app, tool, detectOptions);
    addPorts(app, tool, portsOptions);
    addDiscover(app, tool, discoverOptions);
    addSim(app, tool, sim);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return SimCommand::usageError(app, error);
    }
    if (!tool.log.empty()) enableLogging(*loggingParameter(tool.log));
    Output output(tool.json);
    return tool.run(output);
}
