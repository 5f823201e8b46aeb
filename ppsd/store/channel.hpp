// A served object: one server, any number of clients, bounded queues between them.
//
// What comes from one client keeps its order. Before the server, users have their turns, of each
// user the processes, and of each process its clients: whoever writes or opens in a storm delays a
// message of another by one of its own, however many clients it has been. What waits on either side
// counts for the user of the client.
//
// The channel is shared by the server's end, the clients' ends and the node in the tree. It ends
// with the server; clients that are still there read what is queued, then the notice, then the end.
// Not thread-safe, like all of the store. Results of type int are 0 or an errno value.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "ppsd/store/accounts.hpp"
#include "ppsd/store/open_file.hpp"
#include "ppsd/store/turns.hpp"

class Channel;

// The server's end.
class ServerFile : public OpenFile {
  public:
    // `onClose` takes the object out of the tree; it is called before the clients hear of the end,
    // so that a client that opens again upon it finds the next server. It must not throw.
    ServerFile(std::shared_ptr<Channel> channel, OpenOptions options, Charge place, uid_t user,
               std::function<void()> onClose);
    ~ServerFile() override;

    ReadOutcome read(uid_t reader, std::size_t size, std::string& bytes) override;
    void write(uid_t writer, std::string_view text, const Done& done) override;
    void takeBackCutWrite() override;
    Readiness readiness() const override;
    bool isStream() const override { return true; }

  private:
    std::shared_ptr<Channel> m_channel;
    std::function<void()> m_onClose;
};

// One client's end.
class ClientFile : public OpenFile {
  public:
    // `reads` is false for a descriptor that cannot read: nothing is queued for it.
    ClientFile(std::shared_ptr<Channel> channel, OpenOptions options, Charge place,
               std::uint64_t id, Opener opener, bool reads);
    ~ClientFile() override;

    ReadOutcome read(uid_t reader, std::size_t size, std::string& bytes) override;
    void write(uid_t writer, std::string_view text, const Done& done) override;
    void takeBackCutWrite() override;
    Readiness readiness() const override;
    bool isStream() const override { return true; }

  private:
    friend class Channel;

    enum class State { kConnected, kHungUp, kServerGone };

    // False, and nothing queued, where there is no room: of the queue, of the user's share, or of
    // the machine's memory.
    bool enqueue(const std::shared_ptr<const std::string>& message);
    bool takeBack(const std::shared_ptr<const std::string>& message) noexcept;

    std::shared_ptr<Channel> m_channel;
    const std::uint64_t m_id;
    const Opener m_opener;
    const bool m_reads;
    State m_state = State::kConnected;
    bool m_isEndRead = false;  // the notice that the server is gone
    std::deque<std::shared_ptr<const std::string>> m_queue;
    std::size_t m_queuedBytes = 0;  // of all messages in m_queue, the begun one included
    std::size_t m_readOfFirst = 0;  // bytes of the first message, or of the notice, that were read
    Charge m_queueCharge;
};

// Who has the object open: "@NAME" and a line "ID:json:{...}" for each client, as it was at the
// opening.
class ClientListFile : public OpenFile {
  public:
    // `charge` is what the text takes of the share of memory of the reader.
    ClientListFile(std::string text, OpenOptions options, Charge place, Charge charge);

    ReadOutcome read(uid_t reader, std::size_t size, std::string& bytes) override;
    void write(uid_t writer, std::string_view text, const Done& done) override;
    Readiness readiness() const override;
    bool isStream() const override { return true; }

  private:
    std::string m_text;  // that has not been read
    Charge m_charge;     // for it
};

class Channel {
  public:
    Channel(std::string name, ReadinessListener& listener, Accounts& accounts);

    void attachServer(ServerFile& server, uid_t user);
    void detachServer() noexcept;

    // Counts the client for its user's share of memory. ENOBUFS, and nothing has happened, when
    // that is spent. To be called before the client's end is made.
    int admit(std::uint64_t id, Opener opener);
    // The client's end, which was admitted.
    void attachClient(ClientFile& client);
    void detachClient(ClientFile& client) noexcept;
    // A client that was admitted and whose end could not be made.
    void dismiss(std::uint64_t id, Opener opener) noexcept;

    // The oldest message or notice of the client whose turn it is, or an empty string.
    std::string takePending();
    bool hasPending() const { return !m_pending.empty(); }

    // The user whose process read the server's end last, or opened it: a server may go on as
    // somebody else.
    uid_t serverUser() const { return m_serverUser; }
    std::string listClients() const;

    int sendToServer(ClientFile& from, uid_t writer, std::string_view text);
    int sendToClients(std::string_view text);
    // Takes the last message of the client, or of the server, back, or hangs up.
    void takeBackFrom(ClientFile& client) noexcept;
    void takeBackFromServer() noexcept;

  private:
    struct Message {
        std::string text;
        Charge charge;
    };

    // What the server is given at a time.
    struct Pending {
        std::uint64_t client;
        Opener opener;
        char sign;         // of a notice, '+' or '-'; 0 for a message
        std::string text;  // of a message
    };

    // What the server has not heard of one client: that it opened, its messages, that it closed.
    // Notices are a flag each, so that neither an opening nor a closing can be refused or lost.
    class Backlog {
      public:
        bool empty() const { return !m_isOpening && m_messages.empty() && !m_isClosing; }
        bool isDone() const { return m_isClosed && empty(); }
        std::size_t bytes() const { return m_bytes; }

        void open(std::uint64_t id, Opener opener, Charge charge);
        void add(Message message);
        // False when the last message was read.
        bool takeBack() noexcept;
        void close() noexcept;
        Pending take();

      private:
        std::uint64_t m_id = 0;
        Opener m_opener;
        bool m_isOpening = false;
        bool m_isClosing = false;
        bool m_isClosed = false;
        std::size_t m_bytes = 0;  // of the messages
        std::list<Message> m_messages;
        Charge m_charge;
    };

    template <typename Action>
    void changeBacklog(std::uint64_t id, Opener opener, Action action);
    std::string tagOf(std::uint64_t client) const;
    void hangUp(ClientFile& client) noexcept;
    void sendToAll(const std::shared_ptr<const std::string>& message);
    int parseAddress(std::string_view& text, ClientFile*& receiver, bool& toOne) const;

    friend class ClientFile;
    friend class ServerFile;

    const std::string m_name;
    const std::string m_endNotice;  // what clients read last when the server is gone
    ReadinessListener& m_listener;
    Accounts& m_accounts;
    ServerFile* m_server = nullptr;
    uid_t m_serverUser = 0;
    // What the server wrote last, and to whom: 0 for all.
    std::weak_ptr<const std::string> m_lastSent;
    std::uint64_t m_lastReceiver = 0;
    std::map<std::uint64_t, ClientFile*> m_clients;
    Turns<uid_t, Turns<pid_t, Turns<std::uint64_t, Backlog>>> m_pending;
};
