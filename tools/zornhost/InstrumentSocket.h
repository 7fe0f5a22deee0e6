#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace zornhost {

// Where the process that holds the instrument tells others how it stands: loading the module a second time would
// disturb what is looked at. A Unix stream socket, mode 0660; a client sends one line and gets the answer, after which
// the connection ends.
class InstrumentSocket {
public:
    // Gives the answer to a request, without its line end. Called on the socket's own thread; what it raises goes to
    // the client as "error TEXT".
    using Answer = std::function<std::string(const std::string& request)>;

    // In the runtime folder: RUNTIME_DIRECTORY, XDG_RUNTIME_DIR or /run, the first that can be written. Empty when
    // there is none.
    static std::string defaultFile();

    // Replaces a socket of that name that a process has left behind. Raises std::runtime_error.
    InstrumentSocket(std::string file, Answer answer);
    // Removes the socket. Bounded by one client, half a second.
    ~InstrumentSocket();
    InstrumentSocket(const InstrumentSocket&) = delete;
    InstrumentSocket& operator=(const InstrumentSocket&) = delete;

    const std::string& file() const { return file_; }

    // Asks the process behind a socket. Raises std::runtime_error when nobody answers within two seconds or the answer
    // is an error.
    static std::string ask(const std::string& file, const std::string& request);

private:
    void run();
    void serve(int client) const;

    const std::string file_;
    const Answer answer_;
    int listener_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace zornhost
