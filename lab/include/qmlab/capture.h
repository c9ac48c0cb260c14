// Datagram sinks that stand in for the system log (/dev/log) and the
// service manager's notification socket (NOTIFY_SOCKET).
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "qmlab/clock.h"

namespace qmlab {

struct Datagram {
    Stamp stamp;
    std::string text;
    int pid = 0;  // the sender's process id, from its credentials
};

// Binds a Unix datagram socket at `path` and records every datagram that
// arrives, with its place in the lab-wide order.
class DatagramCapture {
public:
    explicit DatagramCapture(std::string path);
    ~DatagramCapture();
    DatagramCapture(const DatagramCapture &) = delete;
    DatagramCapture &operator=(const DatagramCapture &) = delete;

    const std::string &Path() const { return path_; }
    std::vector<Datagram> Messages() const;
    // True once `pred` holds for the datagrams so far (called under the
    // capture's lock: it must not call back into the capture).
    bool WaitFor(const std::function<bool(const std::vector<Datagram> &)> &pred, Clock::duration timeout) const;
    // The first datagram whose text equals `text` (a notification such as
    // "READY=1"), waiting for it until the deadline.
    std::optional<Datagram> WaitText(const std::string &text, Clock::duration timeout) const;
    // Returns once everything sent to the socket before the call has been
    // recorded (a marker goes through the same queue); false at the deadline.
    // Lets a test assert that something was not sent.
    bool Sync(Clock::duration timeout = 10s);

private:
    void Run();

    std::string path_;
    int fd_ = -1;
    int wakeFd_ = -1;
    std::thread thread_;
    // mu_ guards messages_; cv_ announces each new one.
    mutable std::mutex mu_;
    mutable std::condition_variable cv_;
    std::vector<Datagram> messages_;
};

// One system-log datagram as glibc's syslog() sends it:
// "<priority>Mmm dd hh:mm:ss ident[pid]: message".
struct SyslogRecord {
    Stamp stamp;
    int priority = -1;
    std::string ident;
    int pid = 0;
    std::string message;  // as sent, with any line end it carried
    std::string raw;
};
std::optional<SyslogRecord> ParseSyslog(const Datagram &datagram);

}  // namespace qmlab
