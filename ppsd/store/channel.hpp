// A served object: one server, any number of clients, bounded queues between them.
//
// The channel is shared by the server's end, the clients' ends and the node in the tree. It ends
// with the server; clients that are still there read what is queued, then the notice, then the end.
// Not thread-safe, like all of the store. Results of type int are 0 or an errno value.

#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "ppsd/store/open_file.hpp"

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
    ClientFile(std::shared_ptr<Channel> channel, OpenOptions options, std::uint64_t id, bool reads);
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
    const bool m_reads;
    std::deque<std::shared_ptr<const std::string>> m_queue;
    std::size_t m_queuedBytes = 0;    // of all messages in m_queue, the begun one included
    std::size_t m_readOfFirst = 0;    // bytes of the first message that were read
    std::size_t m_bytesAtServer = 0;  // messages of this client that the server has not read
    bool m_ended = false;             // the server is gone
};

class Channel {
  public:
    Channel(std::string name, ReadinessListener& listener);

    void attachServer(ServerFile& server);
    void detachServer();
    void attachClient(ClientFile& client);
    void detachClient(ClientFile& client);

    // The oldest pending message, or an empty string.
    std::string takePending();
    bool hasPending() const { return !m_pending.empty(); }

    int sendToServer(ClientFile& from, std::string_view text);
    int sendToClients(std::string_view text);

  private:
    // Notices are not bounded in number, so one must be small: its text is made when it is read.
    struct Pending {
        std::uint64_t client;
        std::unique_ptr<std::string> text;  // of a message; null for a notice
        char sign = 0;                      // of a notice: '+' or '-'
    };
    static_assert(sizeof(Pending) <= 24);

    void addNotice(char sign, std::uint64_t client);
    void addPending(Pending message);
    std::string tagOf(std::uint64_t client) const;
    int parseAddress(std::string_view& text, ClientFile*& receiver, bool& toOne) const;

    const std::string m_name;
    ReadinessListener& m_listener;
    ServerFile* m_server = nullptr;
    std::map<std::uint64_t, ClientFile*> m_clients;
    std::deque<Pending> m_pending;
    std::size_t m_departedBytes = 0;  // pending messages of clients that closed
};
