// Whole files, in and out. Errors are std::runtime_error with a text for the person at the
// terminal.

#pragma once

#include <string>

// All bytes of the file, or of standard input for "-".
std::string readInput(const std::string& path);

// Replaces the file in one step: a reader finds the old text or the new one, never a part.
void replaceFile(const std::string& path, const std::string& text);
