// The numbers that libcurl gives, which the agent logs as they come, and libcurl's own words.

#pragma once

#include <string_view>
#include <vector>

// The words for a result of a transfer; also for a number that is none.
std::string_view curlWords(int code);

// The numbers of all failures that libcurl has words for, in ascending order.
std::vector<int> curlCodes();
