#include "qmlab/capture.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <regex>
#include <stdexcept>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace qmlab {

DatagramCapture::DatagramCapture(std::string path) : path_(std::move(path))
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path_.size() >= sizeof(addr.sun_path)) {
        throw std::runtime_error("capture socket path too long: " + path_);
    }
    std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
    fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0) {
        throw std::system_error(errno, std::generic_category(), "capture socket");
    }
    int on = 1;
    ::setsockopt(fd_, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on));
    if (::bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) < 0) {
        int err = errno;
        ::close(fd_);
        throw std::system_error(err, std::generic_category(), "capture bind " + path_);
    }
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) {
        int err = errno;
        ::close(fd_);
        throw std::system_error(err, std::generic_category(), "capture eventfd");
    }
    thread_ = std::thread([this] { Run(); });
}

DatagramCapture::~DatagramCapture()
{
    uint64_t one = 1;
    ssize_t n = ::write(wakeFd_, &one, sizeof(one));
    (void)n;
    if (thread_.joinable()) {
        thread_.join();
    }
    ::close(wakeFd_);
    ::close(fd_);
    ::unlink(path_.c_str());
}

void DatagramCapture::Run()
{
    std::vector<char> buf(256 * 1024);
    for (;;) {
        pollfd fds[2] = {{fd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if ((fds[0].revents & POLLIN) != 0) {
            for (;;) {
                iovec iov{buf.data(), buf.size()};
                alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
                msghdr msg{};
                msg.msg_iov = &iov;
                msg.msg_iovlen = 1;
                msg.msg_control = control;
                msg.msg_controllen = sizeof(control);
                ssize_t n = ::recvmsg(fd_, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
                if (n < 0) {
                    break;
                }
                Datagram d{StampNow(), std::string(buf.data(), static_cast<size_t>(n)), 0};
                for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
                    if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS) {
                        ucred cred;
                        std::memcpy(&cred, CMSG_DATA(c), sizeof(cred));
                        d.pid = cred.pid;
                    }
                }
                std::lock_guard<std::mutex> lock(mu_);
                messages_.push_back(std::move(d));
                cv_.notify_all();
            }
        }
        if ((fds[1].revents & POLLIN) != 0) {
            return;  // drained above: nothing sent before the stop is lost
        }
    }
}

std::vector<Datagram> DatagramCapture::Messages() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return messages_;
}

bool DatagramCapture::WaitFor(const std::function<bool(const std::vector<Datagram> &)> &pred,
                              Clock::duration timeout) const
{
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_until(lock, Clock::now() + timeout, [&] { return pred(messages_); });
}

std::optional<Datagram> DatagramCapture::WaitText(const std::string &text, Clock::duration timeout) const
{
    std::optional<Datagram> found;
    WaitFor(
        [&](const std::vector<Datagram> &all) {
            for (const auto &d : all) {
                if (d.text == text) {
                    found = d;
                    return true;
                }
            }
            return false;
        },
        timeout);
    return found;
}

bool DatagramCapture::Sync(Clock::duration timeout)
{
    static std::atomic<uint64_t> counter{0};
    std::string marker = "\x01qmlab-sync-" + std::to_string(::getpid()) + "-" + std::to_string(++counter);
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
    ssize_t n = ::sendto(fd, marker.data(), marker.size(), 0, reinterpret_cast<sockaddr *>(&addr), sizeof(addr));
    ::close(fd);
    if (n < 0) {
        return false;
    }
    std::unique_lock<std::mutex> lock(mu_);
    bool seen = cv_.wait_until(lock, Clock::now() + timeout, [&] {
        for (auto it = messages_.rbegin(); it != messages_.rend(); ++it) {
            if (it->text == marker) {
                return true;
            }
        }
        return false;
    });
    // The marker is the lab's own: it is not part of what was captured.
    for (auto it = messages_.begin(); it != messages_.end(); ++it) {
        if (it->text == marker) {
            messages_.erase(it);
            break;
        }
    }
    return seen;
}

std::optional<SyslogRecord> ParseSyslog(const Datagram &datagram)
{
    static const std::regex re(R"(^<(\d+)>(?:[A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d )?([^\[:]*)(?:\[(\d+)\])?: )");
    std::smatch m;
    if (!std::regex_search(datagram.text, m, re)) {
        return std::nullopt;
    }
    SyslogRecord r;
    r.stamp = datagram.stamp;
    r.priority = std::stoi(m[1].str());
    r.ident = m[2].str();
    r.pid = m[3].matched ? std::stoi(m[3].str()) : 0;
    r.message = datagram.text.substr(static_cast<size_t>(m.length(0)));
    r.raw = datagram.text;
    return r;
}

}  // namespace qmlab
