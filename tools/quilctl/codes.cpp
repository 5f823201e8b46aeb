#include "tools/quilctl/codes.hpp"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "quilclient/result.hpp"
#include "tools/common/terminal.hpp"
#include "tools/quilctl/curl_codes.hpp"
#include "tools/quilctl/output.hpp"

namespace {

constexpr std::string_view kServer = "push server";
constexpr std::string_view kCurl = "libcurl";

constexpr CodeEntry kServerCodes[] = {
    {CodeTable::Server, 0, kServer,
     "neither yes nor no, as an answer without a number is: counts as done, but no port is opened, "
     "so that the application has a token and never gets a push",
     "let the push server say 200 when it accepts"},
    {CodeTable::Server, 200, kServer,
     "accepted, when it stands in the second answer; a first answer that ends with it has no port "
     "and counts as a failure",
     "nothing to do, or let the push server answer the first request with \"param=\""},
    {CodeTable::Server, 10003, kServer,
     "the push server knows this application already: success for a registration, in the second "
     "answer; a failure for a deregistration, whose reply has it as err",
     "nothing for a registration; else ask who runs the push server"},
};

// What to do about the failures that a wrong set-up brings.
struct Advice {
    int code;
    std::string_view nextStep;
};
constexpr Advice kAdvice[] = {
    {1, "let the application give a URL with http:// or https://"},
    {3, "check ppgUrl, and HardwareID and scmbundle of the device: a blank in them is too much"},
    {5, "check proxy-host in quilagent.conf"},
    {6, "check the host in ppgUrl, and the device's name service"},
    {7,
     "check whether the push server runs, ppgUrl, and proxy-host and proxy-port in "
     "quilagent.conf"},
    {28, "look whether the push server hangs; http-timeout in quilagent.conf is how long it has"},
    {52, "look whether the push server ends while it is asked, and whether it is one"},
};
constexpr std::string_view kOtherAdvice = "see libcurl-errors(3)";

CodeEntry ofReply(const quilclient::CodeInfo& info) {
    return {CodeTable::Reply, info.code, info.origin, info.meaning, info.nextStep};
}

CodeEntry ofServer(int code) {
    const auto* found = std::find_if(std::begin(kServerCodes), std::end(kServerCodes),
                                     [code](const CodeEntry& each) { return each.code == code; });
    if (found != std::end(kServerCodes)) {
        return *found;
    }
    return {CodeTable::Server, code, kServer,
            "refused, with a number of the push server's own: a channel is not created, its token "
            "is empty; the reply to destroyChannel has it as err",
            "ask who runs the push server what it means"};
}

CodeEntry ofCurl(int code) {
    const auto* found = std::find_if(std::begin(kAdvice), std::end(kAdvice),
                                     [code](const Advice& each) { return each.code == code; });
    return {CodeTable::Curl, code, kCurl, curlWords(code),
            found == std::end(kAdvice) ? kOtherAdvice : found->nextStep};
}

const char* nameOf(CodeTable table) {
    return table == CodeTable::Reply ? "err" : table == CodeTable::Server ? "rc" : "libcurl";
}

const char* headingOf(CodeTable table) {
    switch (table) {
        case CodeTable::Reply:
            return "In err of a reply; below 0, what quilctl and the client library say themselves";
        case CodeTable::Server:
            return "Behind rc= in a push server's answer, \"response code\" in the agent's log";
        case CodeTable::Curl:
            break;
    }
    return "libcurl's, \"HTTP Transport failure: rc [...]\" in the agent's log";
}

void show(const Style& style, const CodeEntry& entry) {
    char start[32];
    std::snprintf(start, sizeof start, "%6d  ", entry.code);
    std::printf("%s%s\n", style.strong(start).c_str(), wrapped(entry.meaning, 8, 8).c_str());
    std::printf("        %s\n", wrapped("next: " + std::string(entry.nextStep), 8, 14).c_str());
    std::printf("        from: %s\n", std::string(entry.origin).c_str());
}

}  // namespace

std::vector<CodeEntry> allCodes() {
    std::vector<CodeEntry> all;
    for (const quilclient::CodeInfo& info : quilclient::knownCodes()) {
        all.push_back(ofReply(info));
    }
    all.insert(all.end(), std::begin(kServerCodes), std::end(kServerCodes));
    for (const int code : curlCodes()) {
        all.push_back(ofCurl(code));
    }
    return all;
}

std::vector<CodeEntry> meaningsOf(int code) {
    std::vector<CodeEntry> meanings{ofReply(quilclient::explain(code))};
    if (code >= 0) {
        meanings.push_back(ofServer(code));
    }
    const std::vector<int> ofLibrary = curlCodes();
    if (std::find(ofLibrary.begin(), ofLibrary.end(), code) != ofLibrary.end()) {
        meanings.push_back(ofCurl(code));
    }
    return meanings;
}

ExitStatus explainCodes(std::optional<int> code, bool json) {
    const Style style(stdout);
    std::optional<CodeTable> table;
    for (const CodeEntry& entry : code ? meaningsOf(*code) : allCodes()) {
        if (json) {
            printJson({{"code", entry.code},
                       {"seen", nameOf(entry.table)},
                       {"origin", entry.origin},
                       {"meaning", entry.meaning},
                       {"next", entry.nextStep}});
            continue;
        }
        if (entry.table != table) {
            const std::string heading = std::string(headingOf(entry.table)) + ":";
            std::printf("%s%s\n", table ? "\n" : "", wrapped(heading, 0, 0).c_str());
            table = entry.table;
        }
        show(style, entry);
    }
    return kDone;
}
