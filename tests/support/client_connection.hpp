// An application as the agent sees it: one open of the served object, objects written and read as
// text.

#pragma once

#include <string>
#include <string_view>

// One object from the agent.
struct Reply {
    std::string text;  // as read, "" when nothing came in time
    std::string msg;   // "" when there is none, like the others
    std::string id;
    int err = 0;  // 0 when there is none
    bool hasDat = false;
    std::string token;  // out of "dat"
    std::string data;   // out of "dat", as it stands there
    int appLevelAck = -1;
    std::string headers;  // out of "dat": "[name=value]..." in order
};

class ClientConnection {
  public:
    explicit ClientConnection(const std::string& objectPath);
    // Takes an object over that is open already, or was not to be had (-1).
    explicit ClientConnection(int descriptor) : m_descriptor(descriptor) {}
    ~ClientConnection();
    ClientConnection(const ClientConnection&) = delete;
    ClientConnection& operator=(const ClientConnection&) = delete;

    bool isOpen() const { return m_descriptor >= 0; }
    void close();

    // Writes a text as it stands, in one write. False when it was refused (errno says why).
    bool write(std::string_view text) const;
    // Writes a request: "msg", "id" and "dat" with the application id and, when `extra` is not
    // empty, more members of the JSON object (`"ppgUrl":"..."`).
    bool request(const std::string& name, const std::string& id, const std::string& appId,
                 const std::string& extra = "") const;

    // The next object from the agent.
    Reply next(double seconds = 20);
    // True when nothing comes for that long.
    bool isSilent(double seconds = 0.3);
    // True when the agent's end is closed: "-@ipc" and the end of the file.
    bool isEnded(double seconds = 20);

  private:
    bool readMore(double seconds);

    int m_descriptor;
    std::string m_pending;
};
