// What the tests of pushsim share: a folder, the program in a process of its own, an HTTP client
// that sends bytes as they are, and a device that answers a push in one of several ways.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "pushsim/socket.hpp"

// The longest that a test waits for anything that is to happen.
constexpr std::chrono::seconds kPatience{20};

// A folder of its own, removed with all that is in it.
class TempFolder {
  public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string path(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
};

// The bytes of a file; fails the test when there is none.
std::string fileBytes(const std::string& path);
// A golden file of tests/data.
std::string golden(const std::string& name);
void writeFile(const std::string& path, const std::string& bytes);

// Looks again and again until `condition` holds; false when patience ends.
bool eventually(const std::function<bool()>& condition);

// A started program with its output in files.
class Program {
  public:
    Program(const std::vector<std::string>& arguments, const std::string& input = "");
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    std::string out() const { return fileBytes(m_folder.path("out")); }
    std::string err() const { return fileBytes(m_folder.path("err")); }
    void signal(int number) const;
    bool isRunning();
    // The exit status; -1 when a signal ended it, -2 when it does not end.
    int wait();

  private:
    TempFolder m_folder;
    pid_t m_pid = -1;
    int m_status = -1;
    bool m_ended = false;
};

struct Ran {
    int status = -1;
    std::string out;
    std::string err;
};

Ran run(const std::vector<std::string>& arguments, const std::string& input = "");

// `pushsim serve` that is ready for requests.
class Server {
  public:
    explicit Server(std::vector<std::string> arguments = {});
    // Fails the test unless the server ends well: a sanitizer's finding shows here.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    std::uint16_t port() const { return m_port; }
    // Sends SIGTERM; the exit status.
    int stop();
    Program& program() { return *m_program; }

    // Everything that comes back for a GET of the target, until the server closes.
    std::string get(const std::string& target) const;
    std::string exchange(const std::string& request) const;
    // Both steps for the target; the second answer.
    std::string getTwoSteps(const std::string& target) const;

  private:
    TempFolder m_folder;
    std::unique_ptr<Program> m_program;
    std::uint16_t m_port = 0;
};

// The body of an HTTP answer, and the value of a header ("<none>" without it).
std::string bodyOf(const std::string& answer);
std::string headerOf(const std::string& answer, const std::string& name);
int statusOf(const std::string& answer);

// A listening socket on a port that the kernel chose; *port is that port.
Socket listenAnywhere(std::uint16_t* port);

// A connected socket.
Socket connectHere(std::uint16_t port);

// Reads until the other side closes or `enough` holds; "<reset>" is appended after a reset and
// "<time-out>" when patience ends.
std::string readUntil(int socket, const std::function<bool(const std::string&)>& enough);

// Accepts `connections` connections one after the other on a thread of its own, reads a push of
// `pushBytes` bytes from each (0: until the sender closes) and answers with `answer`, then closes.
class Device {
  public:
    struct Plan {
        std::size_t pushBytes = 0;
        std::string answer;
        bool keepsOpen = false;  // does not close until the sender does
        bool resets = false;     // ends with a reset
        int connections = 1;
    };
    explicit Device(Plan plan);
    ~Device();

    std::string port() const { return std::to_string(m_port); }
    // Waits for the thread: what each connection brought, with the marks of readUntil.
    std::vector<std::string> pushes();

  private:
    void serve();

    Plan m_plan;
    std::uint16_t m_port = 0;
    Socket m_listener;
    std::vector<std::string> m_pushes;  // the thread's until it is joined
    std::thread m_thread;
};
