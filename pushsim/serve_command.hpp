// `pushsim serve`: its command line, and its life until SIGTERM or SIGINT.

#pragma once

#include <CLI/CLI.hpp>

// Adds "serve" to the program; when the person chose it, its exit status is stored in *status.
void addServeCommand(CLI::App* program, int* status);
