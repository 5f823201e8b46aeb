// pushsim: a push data server and a push sender, to develop and test a device's push agent against.

#include <CLI/CLI.hpp>
#include <iostream>
#include <stdexcept>

#include "pushsim/send_command.hpp"
#include "pushsim/serve_command.hpp"

namespace {

constexpr int kBadArguments = 2;

}  // namespace

int main(int argc, char** argv) {
    CLI::App program("A push data server and a push sender, for tests with a push agent");
    program.require_subcommand(1);
    int status = 0;
    addServeCommand(&program, &status);
    addSendCommands(&program, &status);
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? 0 : kBadArguments;
    } catch (const std::runtime_error& error) {
        // An input file or a state file that cannot be read.
        std::cerr << "pushsim: " << error.what() << std::endl;
        return kBadArguments;
    }
    return status;
}
