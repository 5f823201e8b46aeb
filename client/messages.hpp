// The text of requests and answers. Pure functions: they take and give text, and touch no
// descriptor.

#pragma once

#include <string>
#include <vector>

#include "quilclient/channel.hpp"
#include "quilclient/push.hpp"
#include "quilclient/result.hpp"
#include "quilclient/verb.hpp"

namespace quilclient {

// The longest request text. The agent reads 8192 bytes at once, the line "@ipc.CONNECTION" in front
// included, and discards what goes beyond.
constexpr std::size_t kMaxRequestBytes = 8192 - 32;

// The name of a verb as the agent knows it.
const char* verbName(Verb verb);

// False for the verbs that the agent never answers.
bool isAnswered(Verb verb);

// Encodes a request under request id `id` (not used by AcceptPush and RejectPush, whose id is the
// push id). kBadArgument when the agent could not take it as meant: an empty application id or
// argument, more than kMaxRequestBytes, or text that is not UTF-8 where only UTF-8 can travel.
Result encodeRequest(const Request& request, const std::string& id, std::string* text);

// One message of the agent.
struct Incoming {
    enum Kind { Reply, PushArrived, SimChange } kind = Reply;
    std::string message;   // "msg"; empty in the answers about launch strings
    std::string id;        // request id, or push id
    int error = 0;         // "err"
    std::string token;     // "token" of a channel completion
    ChannelState channel;  // of the answer to QueryChannel
    Push push;             // of PushArrived; isDuplicate is left alone
    std::string damage;    // what is wrong with the message, empty when it is sound
};

Incoming decodeMessage(const std::string& text);

// True for a reply to a request with `verb`, whatever its id. The name "onSimChange" belongs to
// destroyChannel too, where the session is still that of another SIM.
bool isReplyTo(Verb verb, const Incoming& incoming);

// True for a request instead of an answer. No agent sends one: it comes back from an ordinary
// object in the place of the one that the agent serves, which keeps what is written to it.
bool isEcho(const Incoming& incoming);

// The outcome that `reply` tells of a request with `verb`: its error code, or kEmptyToken for a
// channel without a token.
Result outcomeOf(Verb verb, const Incoming& reply);

// Cuts whole messages out of a stream of text. A message begins with a line "@name"; attribute
// lines never begin so. The line "-@name" says that the server went away.
class MessageSplitter {
  public:
    // Takes bytes as they were read.
    void add(const char* bytes, std::size_t count) { m_text.append(bytes, count); }

    // Moves the messages that are complete to `messages`. With `isDrained` (nothing more was there
    // to read) the last one counts as complete too. False once the server's end was found.
    bool take(bool isDrained, std::vector<std::string>* messages);

    std::size_t heldBytes() const { return m_text.size(); }

  private:
    std::string m_text;
};

}  // namespace quilclient
