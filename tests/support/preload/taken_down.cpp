// To be preloaded into a program: says on standard error when the program's libraries are taken
// down at its end.

#include <unistd.h>

namespace {

__attribute__((destructor)) void tell() {
    constexpr char kText[] = "libraries were taken down\n";
    static_cast<void>(!write(STDERR_FILENO, kText, sizeof kText - 1));
}

}  // namespace
