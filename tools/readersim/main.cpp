// tovra-readersim: a simulated reader on loopback TCP or a pseudo-terminal, driven
// from the command line. `tovra sim` is the same program inside the tool.
#include "readersim/sim_command.h"

#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
    CLI::App app{"A simulated reader on loopback TCP or a pseudo-terminal.", "tovra-readersim"};
    tovra::readersim::SimCommand command(app, "tovra-readersim");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return tovra::readersim::SimCommand::usageError(app, error);
    }
    return command.run();
}
