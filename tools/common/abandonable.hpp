// Work that may never come back, such as a file operation on a mount whose service hangs.

#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

// Runs `work` in a child process and gives its text. Nothing when that takes longer than `limit`,
// or when the child ended without it. The child is then killed, but not waited for: a process that
// waits within a hung mount may be beyond any signal. It has no standard streams and none of our
// descriptors, so nobody who reads what we print waits for it either.
std::optional<std::string> runAbandonable(std::chrono::milliseconds limit,
                                          const std::function<std::string()>& work);
