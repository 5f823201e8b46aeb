// The door: in, and out without taking down the libraries that the other threads are still in.

#include <unistd.h>

#include "agent/process/start_up.hpp"
#include "agent/support/log.hpp"

int main(int argc, char** argv) {
    const int status = runAgent(argc, argv);
    finishLogEcho();
    _exit(status);
}
