// The last resort against whatever hangs.

#pragma once

// When this process still runs after so many seconds, it says so on standard error and ends with
// kTimeout. `program` and `words` are kept, not copied. To be called once.
void limitTime(double seconds, const char* program, const char* words);
