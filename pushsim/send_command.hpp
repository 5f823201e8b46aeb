// `pushsim send` and `pushsim example`: their command lines and what they print.

#pragma once

#include <CLI/CLI.hpp>

// Adds "send" and "example" to the program. The one that the person chose stores its exit status in
// *status. Bad arguments that only show while it runs are thrown as CLI::ParseError.
void addSendCommands(CLI::App* program, int* status);
