#include "tools/quilctl/curl_codes.hpp"

#include <curl/curl.h>

std::string_view curlWords(int code) {
    return curl_easy_strerror(static_cast<CURLcode>(code));
}

std::vector<int> curlCodes() {
    // Numbers that are out of use have the words of those that never were in use.
    const std::string_view unknown = curlWords(CURL_LAST);
    std::vector<int> codes;
    for (int code = CURLE_OK + 1; code < CURL_LAST; ++code) {
        if (curlWords(code) != unknown) {
            codes.push_back(code);
        }
    }
    return codes;
}
