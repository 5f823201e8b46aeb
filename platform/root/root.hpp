// Where the platform's absolute paths lie.
//
// Every program of this project opens "/pps/...", "/etc/quilagent.conf" and the like through
// platformPath. With QUIL_ROOT set to a folder, they all live below that folder instead: this is
// how somebody runs everything unprivileged in a scratch folder, runs many agents on one machine,
// and how the tests run in parallel. Log lines and messages show the path without the prefix.

#pragma once

#include <string>
#include <string_view>

// The path to open for `absolutePath`: the value of QUIL_ROOT in front of it when that variable is
// set and not empty, else the path itself. A trailing '/' of the root is dropped. Reads the
// environment at every call; safe on any thread as long as nobody changes the environment.
std::string platformPath(std::string_view absolutePath);
