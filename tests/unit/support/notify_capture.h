// Stands in for the service manager: a datagram socket in a private
// directory named by NOTIFY_SOCKET, so that sd_notify's messages can be
// read back. sd_notify sends before it returns, so a non-blocking read
// right after the call sees everything that was sent.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "securec.h"
#include "support/trace_capture.h"

namespace qmtest {

class NotifyCapture {
public:
    NotifyCapture()
    {
        std::string path = dir_.File("notify");
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        (void)strcpy_s(addr.sun_path, sizeof(addr.sun_path), path.c_str());
        if (fd_ >= 0 && ::bind(fd_, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) == 0) {
            ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
        }
    }
    ~NotifyCapture()
    {
        ::unsetenv("NOTIFY_SOCKET");
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    NotifyCapture(const NotifyCapture &) = delete;
    NotifyCapture &operator=(const NotifyCapture &) = delete;

    // Every message sent since the last call, in order.
    std::vector<std::string> Take()
    {
        std::vector<std::string> messages;
        char buf[512];
        for (;;) {
            ssize_t n = ::recv(fd_, buf, sizeof(buf), MSG_DONTWAIT);
            if (n < 0) {
                break;
            }
            messages.emplace_back(buf, static_cast<size_t>(n));
        }
        return messages;
    }

private:
    TempDir dir_;
    int fd_ = -1;
};

}  // namespace qmtest
