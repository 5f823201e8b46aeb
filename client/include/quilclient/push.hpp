// A push as the application gets it, and what the application can say to it.

#pragma once

#include <string>
#include <vector>

namespace quilclient {

// A header line of a push, as the agent cut it out: blanks are kept, also the one that usually
// stands behind the colon.
struct Header {
    std::string name;
    std::string value;
};

// One push.
struct Push {
    std::string id;               // as on the wire: it may begin with a blank
    std::vector<Header> headers;  // in the order of arrival, equal names included
    std::string data;             // the bytes that the sender sent, decoded
    bool senderWaits = false;     // the sender keeps its connection open for accept() or reject()
    bool isDuplicate = false;     // a push with this id was handed over before (of the last 1024)
};

// What becomes of a push whose sender waits; without effect when nobody waits.
enum class Answer {
    Accept,  // the sender gets its acknowledgement
    Reject,  // the sender's connection is closed without a byte
    Later    // the application will call accept() or reject() itself; the sender waits till then
};

}  // namespace quilclient
