// The simulator's command line, shared by tovra-readersim and `tovra sim`: one set of
// options, one parser, one way to run it. Construct it on a CLI11 (sub)command, let
// CLI11 parse, then call run().
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class ParseError;
}

namespace tovra::readersim {

class SimCommand {
public:
    // Defines the options on `app`; `name` prefixes the messages of failures.
    SimCommand(CLI::App& app, std::string name);

    // Serves until killed, or until the connection ends (client, pty), or standard
    // input ends (--until-eof). 0, or 1 when the simulator cannot be set up.
    int run();

    // What a command line that does not parse gives: the message (or, for --help, the
    // help) printed by CLI11, and exit status 2 (0 for --help).
    static int usageError(CLI::App& app, const CLI::ParseError& error);

private:
    int fail(const std::string& message) const;

    std::string name_;
    unsigned port_ = 0;
    bool ipv6_ = false;
    std::optional<unsigned> udpPort_;
    bool udpAny_ = false;
    std::string connectTo_;
    std::string pty_;
    std::vector<std::string> replies_;
    std::vector<std::string> silent_;
    std::string fault_;
    std::optional<unsigned> faultCount_;
    bool untilEof_ = false;
    bool verbose_ = false;
    std::vector<std::string> requests_;
};

}  // namespace tovra::readersim
