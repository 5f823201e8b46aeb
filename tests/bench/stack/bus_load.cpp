// A method call through a message bus and its reply: a caller, and a child that serves the method.
//
//     bench_bus_load COUNT BYTES
//
// The bus is that of the user, as dbus-run-session gives it. Prints one JSON object.

#include <signal.h>
#include <sys/prctl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

#include "tests/bench/stack/timing.hpp"

namespace {

constexpr const char* kName = "bench.Peer";
constexpr const char* kObject = "/bench";
constexpr int kTries = 500;
constexpr useconds_t kPauseMicroseconds = 10000;

int reply(sd_bus_message* message, void*, sd_bus_error*) {
    const char* text = nullptr;
    sd_bus_message_read(message, "s", &text);
    return sd_bus_reply_method_return(message, "s", "ok");
}

sd_bus* openBus() {
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0) {
        bench::fail("bus");
    }
    return bus;
}

[[noreturn]] void serve() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    static const sd_bus_vtable kMethods[] = {
        SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Push", "s", "s", reply, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    sd_bus* bus = openBus();
    if (sd_bus_add_object_vtable(bus, nullptr, kObject, kName, kMethods, nullptr) < 0 ||
        sd_bus_request_name(bus, kName, 0) < 0) {
        bench::fail("serve");
    }
    while (true) {
        if (sd_bus_process(bus, nullptr) == 0) {
            sd_bus_wait(bus, UINT64_MAX);
        }
    }
}

bool call(sd_bus* bus, const std::string& data) {
    sd_bus_message* answer = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const int result =
        sd_bus_call_method(bus, kName, kObject, kName, "Push", &error, &answer, "s", data.c_str());
    sd_bus_message_unref(answer);
    sd_bus_error_free(&error);
    return result >= 0;
}

}  // namespace

int main(int count, char** words) {
    if (count != 3) {
        std::fprintf(stderr, "Usage: bench_bus_load COUNT BYTES\n");
        return 2;
    }
    const std::size_t calls = bench::numberOf(words[1]);
    const std::string data(bench::numberOf(words[2]), 'x');
    const pid_t child = fork();
    if (child == 0) {
        serve();
    }
    sd_bus* bus = openBus();
    for (int i = 0; i < kTries && !call(bus, data); ++i) {
        usleep(kPauseMicroseconds);
    }
    bench::Waits waits(calls);
    for (std::size_t i = 0; i < calls; ++i) {
        const auto begin = std::chrono::steady_clock::now();
        if (!call(bus, data)) {
            bench::fail("call");
        }
        waits.addSince(begin);
    }
    std::printf("{\"reply\": %s}\n", waits.asJson().c_str());
    sd_bus_unref(bus);
    kill(child, SIGKILL);
    return 0;
}
