// A served object: one server, any number of clients, bounded queues between them.
//
// What comes from one client keeps its order. Before the server, users have their turns, of each
// user the processes, and of each process its clients: whoever writes or opens in a storm delays a
// message of another by one of its own, however many clients it has been.
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
#include <unordered_map>

#include "ppsd/store/open_file.hpp"
#include "ppsd/store/turns.hpp"

class Channel;

// The server's end.
class ServerFile : public OpenFile {
  public:
    // `onClose` takes the object out of the tree; it is called before the clients hear of the end,
    // so that a client that opens again upon it finds the next server.
    ServerFile(std::shared_ptr<Channel> channel, OpenOptions options,
               std::function<void()> onClose);
    ~ServerFile() override;

    ReadOutcome read(std::size_t size, std::string& bytes) override;
    int write(std::string_view text) override;
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
    ClientFile(std::shared_ptr<Channel> channel, OpenOptions options, std::uint64_t id,
               Opener opener, bool reads);
    ~ClientFile() override;

    ReadOutcome read(std::size_t size, std::string& bytes) override;
    int write(std::string_view text) override;
    Readiness readiness() const override;
    bool isStream() const override { return true; }

  private:
    friend class Channel;

    bool hasRoomFor(std::size_t bytes) const;
    void enqueue(const std::shared_ptr<const std::string>& message);

    std::shared_ptr<Channel> m_channel;
    const std::uint64_t m_id;
    const Opener m_opener;
    const bool m_reads;
    std::deque<std::shared_ptr<const std::string>> m_queue;
    std::size_t m_queuedBytes = 0;    // of all messages in m_queue, the begun one included
    std::size_t m_readOfFirst = 0;    // bytes of the first message that were read
    std::size_t m_bytesAtServer = 0;  // messages of this client that the server has not read
    bool m_ended = false;             // the server is gone, or has hung up on this client
};

class Channel {
  public:
    Channel(std::string name, ReadinessListener& listener);

    void attachServer(ServerFile& server);
    void detachServer();
    void attachClient(ClientFile& client);
    void detachClient(ClientFile& client);

    // The oldest message or notice of the client whose turn it is, or an empty string.
    std::string takePending();
    bool hasPending() const { return !m_pending.empty(); }

    int sendToServer(ClientFile& from, std::string_view text);
    int sendToClients(std::string_view text);

  private:
    // Notices are never refused, so one must be small: its text is made when it is read.
    struct Pending {
        std::uint64_t client;
        std::unique_ptr<std::string> text;  // of a message; null for a notice
        Opener opener;
        char sign = 0;  // of a notice: '+' or '-'
    };
    static_assert(sizeof(Pending) <= 32);

    // What the server has not read of one client. A list, as an empty one takes no memory: gone
    // clients may be many.
    class Backlog {
      public:
        bool empty() const { return m_items.empty(); }
        bool isOpeningAlone() const { return m_items.size() == 1 && m_items.front().sign == '+'; }
        void add(Pending item) { m_items.push_back(std::move(item)); }
        void clear() { m_items.clear(); }
        Pending take();

      private:
        std::list<Pending> m_items;
    };

    template <typename Action>
    void changeBacklog(const ClientFile& client, Action action);
    void addPending(const ClientFile& from, std::unique_ptr<std::string> text, char sign);
    void giveBack(const Pending& read);
    std::string textOf(const Pending& notice) const;
    void hangUp(ClientFile& client);
    void sendToAll(const std::shared_ptr<const std::string>& message);
    std::string tagOf(std::uint64_t client) const;
    int parseAddress(std::string_view& text, ClientFile*& receiver, bool& toOne) const;

    const std::string m_name;
    ReadinessListener& m_listener;
    ServerFile* m_server = nullptr;
    std::map<std::uint64_t, ClientFile*> m_clients;
    Turns<uid_t, Turns<pid_t, Turns<std::uint64_t, Backlog>>> m_pending;
    // What clients that are gone left to be read, by user.
    std::unordered_map<uid_t, std::size_t> m_departedBytes;
};
