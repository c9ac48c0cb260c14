#include "qmlab/driver.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <linux/ioctl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "qmlab/wire.h"

namespace qmlab {

namespace {

constexpr uint64_t kIoctlType = 0xAC;
constexpr uint32_t kStatusOk = 1024;
constexpr uint32_t kStatusBufShort = 1038;

DriverOp OpOfRequest(uint64_t number)
{
    if (_IOC_TYPE(number) != kIoctlType || _IOC_DIR(number) != (_IOC_READ | _IOC_WRITE) || _IOC_SIZE(number) != 20) {
        return DriverOp::Other;
    }
    switch (_IOC_NR(number)) {
        case 10:
            return DriverOp::Add;
        case 11:
            return DriverOp::Remove;
        case 12:
            return DriverOp::Get;
        case 13:
            return DriverOp::Start;
        case 14:
            return DriverOp::Change;
        default:
            return DriverOp::Other;
    }
}

bool WriteAll(int fd, const void *data, size_t len)
{
    const char *p = static_cast<const char *>(data);
    while (len > 0) {
        ssize_t n = ::send(fd, p, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool ReadAll(int fd, void *data, size_t len)
{
    char *p = static_cast<char *>(data);
    while (len > 0) {
        ssize_t n = ::recv(fd, p, len, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

const char *DriverOpName(DriverOp op)
{
    switch (op) {
        case DriverOp::Open:
            return "OPEN";
        case DriverOp::Close:
            return "CLOSE";
        case DriverOp::Start:
            return "START";
        case DriverOp::Add:
            return "ADD";
        case DriverOp::Remove:
            return "REMOVE";
        case DriverOp::Get:
            return "GET";
        case DriverOp::Change:
            return "CHANGE";
        case DriverOp::Other:
            break;
    }
    return "OTHER";
}

DriverReply DriverReply::Status(uint32_t status)
{
    DriverReply r;
    r.status = status;
    return r;
}

DriverReply DriverReply::Fail(int err, int ret)
{
    DriverReply r;
    r.ret = ret;
    r.err = err;
    return r;
}

DriverReply DriverReply::BufferShort(uint32_t needLen)
{
    DriverReply r;
    r.status = kStatusBufShort;
    r.needLen = needLen;
    r.dataLen = 0;
    r.data = std::string();
    return r;
}

DriverReply DriverReply::List(std::string text)
{
    DriverReply r;
    r.data = std::move(text);
    return r;
}

std::string DriverRequest::DevNum() const
{
    auto end = text.find(' ');
    return text.substr(0, end);
}

DriverEmulator::DriverEmulator(std::string socketPath) : socketPath_(std::move(socketPath))
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socketPath_.size() >= sizeof(addr.sun_path)) {
        throw std::runtime_error("driver socket path too long: " + socketPath_);
    }
    std::memcpy(addr.sun_path, socketPath_.c_str(), socketPath_.size() + 1);
    ::unlink(socketPath_.c_str());
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listenFd_ < 0) {
        throw std::system_error(errno, std::generic_category(), "driver socket");
    }
    if (::bind(listenFd_, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) < 0 || ::listen(listenFd_, 1024) < 0) {
        int err = errno;
        ::close(listenFd_);
        throw std::system_error(err, std::generic_category(), "driver socket bind " + socketPath_);
    }
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) {
        int err = errno;
        ::close(listenFd_);
        throw std::system_error(err, std::generic_category(), "driver eventfd");
    }
    thread_ = std::thread([this] { Run(); });
}

DriverEmulator::~DriverEmulator()
{
    {
        std::lock_guard<std::mutex> lock(mu_);
        stop_ = true;
    }
    Wake();
    if (thread_.joinable()) {
        thread_.join();
    }
    ::close(wakeFd_);
    ::close(listenFd_);
    ::unlink(socketPath_.c_str());
}

void DriverEmulator::Wake()
{
    uint64_t one = 1;
    ssize_t n = ::write(wakeFd_, &one, sizeof(one));
    (void)n;  // a full counter still wakes the server
}

void DriverEmulator::SetPresent(bool present)
{
    std::lock_guard<std::mutex> lock(mu_);
    present_ = present;
}

void DriverEmulator::SetOpenError(int err)
{
    std::lock_guard<std::mutex> lock(mu_);
    openError_ = err;
}

void DriverEmulator::SetDefault(DriverOp op, DriverReply reply)
{
    std::lock_guard<std::mutex> lock(mu_);
    defaults_[op] = std::move(reply);
}

void DriverEmulator::SetFor(DriverOp op, const std::string &devNum, DriverReply reply)
{
    std::lock_guard<std::mutex> lock(mu_);
    perDevice_[{op, devNum}] = std::move(reply);
}

void DriverEmulator::Queue(DriverOp op, DriverReply reply)
{
    std::lock_guard<std::mutex> lock(mu_);
    queued_[op].push_back(std::move(reply));
}

void DriverEmulator::QueueFor(DriverOp op, const std::string &devNum, DriverReply reply)
{
    std::lock_guard<std::mutex> lock(mu_);
    queuedPerDevice_[{op, devNum}].push_back(std::move(reply));
}

void DriverEmulator::SetDeviceList(const std::vector<std::string> &devNums)
{
    std::string text;
    for (const auto &d : devNums) {
        if (!text.empty()) {
            text += ' ';
        }
        text += d;
    }
    SetDeviceListText(std::move(text));
}

void DriverEmulator::SetDeviceListText(std::string text)
{
    std::lock_guard<std::mutex> lock(mu_);
    deviceList_ = std::move(text);
}

void DriverEmulator::SetDelay(DriverOp op, Clock::duration delay)
{
    std::lock_guard<std::mutex> lock(mu_);
    delay_[op] = delay;
}

void DriverEmulator::Hold(DriverOp op)
{
    std::lock_guard<std::mutex> lock(mu_);
    hold_[op] = true;
}

void DriverEmulator::HoldAll()
{
    std::lock_guard<std::mutex> lock(mu_);
    holdAll_ = true;
}

void DriverEmulator::Release()
{
    {
        std::lock_guard<std::mutex> lock(mu_);
        holdAll_ = false;
        hold_.clear();
        releaseWanted_ = true;
    }
    Wake();
}

void DriverEmulator::Release(DriverOp op)
{
    {
        std::lock_guard<std::mutex> lock(mu_);
        hold_[op] = false;
        releaseOps_.push_back(op);
    }
    Wake();
}

std::vector<DriverRequest> DriverEmulator::Requests() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return log_;
}

std::vector<DriverRequest> DriverEmulator::Requests(DriverOp op) const
{
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<DriverRequest> out;
    std::copy_if(log_.begin(), log_.end(), std::back_inserter(out), [op](const DriverRequest &r) { return r.op == op; });
    return out;
}

size_t DriverEmulator::Count(DriverOp op) const
{
    std::lock_guard<std::mutex> lock(mu_);
    return static_cast<size_t>(
        std::count_if(log_.begin(), log_.end(), [op](const DriverRequest &r) { return r.op == op; }));
}

size_t DriverEmulator::HeldCount() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return heldCount_;
}

int DriverEmulator::OpenCount() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return openCount_;
}

bool DriverEmulator::WaitFor(const std::function<bool(const std::vector<DriverRequest> &)> &pred,
                             Clock::duration timeout) const
{
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_until(lock, Clock::now() + timeout, [&] { return pred(log_); });
}

bool DriverEmulator::WaitCount(DriverOp op, size_t n, Clock::duration timeout) const
{
    return WaitFor(
        [op, n](const std::vector<DriverRequest> &log) {
            return static_cast<size_t>(std::count_if(log.begin(), log.end(),
                                                     [op](const DriverRequest &r) { return r.op == op; })) >= n;
        },
        timeout);
}

bool DriverEmulator::WaitHeld(size_t n, Clock::duration timeout) const
{
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_until(lock, Clock::now() + timeout, [&] { return heldCount_ >= n; });
}

size_t DriverEmulator::Record(DriverRequest request)
{
    request.stamp = StampNow();
    log_.push_back(std::move(request));
    cv_.notify_all();
    return log_.size() - 1;
}

DriverReply DriverEmulator::Decide(DriverOp op, const std::string &devNum)
{
    auto qd = queuedPerDevice_.find({op, devNum});
    if (qd != queuedPerDevice_.end() && !qd->second.empty()) {
        DriverReply r = std::move(qd->second.front());
        qd->second.pop_front();
        return r;
    }
    auto q = queued_.find(op);
    if (q != queued_.end() && !q->second.empty()) {
        DriverReply r = std::move(q->second.front());
        q->second.pop_front();
        return r;
    }
    auto pd = perDevice_.find({op, devNum});
    if (pd != perDevice_.end()) {
        return pd->second;
    }
    auto d = defaults_.find(op);
    if (d != defaults_.end()) {
        return d->second;
    }
    if (op == DriverOp::Other) {
        return DriverReply::Fail(ENOTTY);
    }
    return DriverReply::Status(kStatusOk);
}

void DriverEmulator::Run()
{
    for (;;) {
        std::vector<pollfd> fds;
        fds.push_back({wakeFd_, POLLIN, 0});
        fds.push_back({listenFd_, POLLIN, 0});
        for (const auto &[fd, index] : sessions_) {
            fds.push_back({fd, POLLIN, 0});
        }
        size_t heldBase = fds.size();
        for (const auto &p : held_) {
            fds.push_back({p.fd, POLLIN, 0});  // readable only when the caller went away
        }
        int n = ::poll(fds.data(), fds.size(), PollTimeoutMs());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        bool release = false;
        std::vector<DriverOp> releaseOps;
        if ((fds[0].revents & POLLIN) != 0) {
            uint64_t count;
            ssize_t r = ::read(wakeFd_, &count, sizeof(count));
            (void)r;
            std::lock_guard<std::mutex> lock(mu_);
            if (stop_) {
                break;
            }
            release = std::exchange(releaseWanted_, false);
            releaseOps.swap(releaseOps_);
        }
        // A caller that went away while held (the daemon was killed).
        for (size_t i = heldBase; i < fds.size(); ++i) {
            if (fds[i].revents == 0) {
                continue;
            }
            int fd = fds[i].fd;
            auto it = std::find_if(held_.begin(), held_.end(), [fd](const Pending &p) { return p.fd == fd; });
            if (it != held_.end()) {
                bool delayed = it->due.has_value();
                ::close(it->fd);
                held_.erase(it);
                std::lock_guard<std::mutex> lock(mu_);
                if (!delayed) {
                    --heldCount_;
                }
                cv_.notify_all();
            }
        }
        if (release || !releaseOps.empty()) {
            std::deque<Pending> answering;
            std::deque<Pending> still;
            for (auto &p : held_) {
                bool chosen = !p.due && (release || std::find(releaseOps.begin(), releaseOps.end(), p.op) != releaseOps.end());
                (chosen ? answering : still).push_back(std::move(p));
            }
            held_.swap(still);
            for (const auto &p : answering) {
                Answer(p, /*wasHeld=*/true);
                ::close(p.fd);
            }
        }
        AnswerDue();
        for (size_t i = 2; i < heldBase; ++i) {
            if (fds[i].revents == 0) {
                continue;
            }
            char byte;
            ssize_t r = ::recv(fds[i].fd, &byte, 1, MSG_DONTWAIT);
            if (r > 0 || (r < 0 && (errno == EAGAIN || errno == EINTR))) {
                continue;  // the shim never writes on a session; ignore
            }
            auto it = sessions_.find(fds[i].fd);
            if (it != sessions_.end()) {
                DriverRequest closeReq;
                closeReq.op = DriverOp::Close;
                closeReq.answered = true;
                {
                    std::lock_guard<std::mutex> lock(mu_);
                    closeReq.pid = log_[it->second].pid;
                    closeReq.tid = log_[it->second].tid;
                    Record(std::move(closeReq));
                    --openCount_;
                }
                ::close(it->first);
                sessions_.erase(it);
            }
        }
        if ((fds[1].revents & POLLIN) != 0) {
            for (;;) {
                int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
                if (fd < 0) {
                    break;
                }
                ServeConnection(fd);
            }
        }
    }
    for (const auto &p : held_) {
        ::close(p.fd);
    }
    held_.clear();
    for (const auto &[fd, index] : sessions_) {
        ::close(fd);
    }
    sessions_.clear();
}

int DriverEmulator::PollTimeoutMs() const
{
    std::optional<Clock::time_point> first;
    for (const auto &p : held_) {
        if (p.due && (!first || *p.due < *first)) {
            first = p.due;
        }
    }
    if (!first) {
        return -1;
    }
    auto left = std::chrono::ceil<std::chrono::milliseconds>(*first - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Delayed requests whose time has come, in arrival order.
void DriverEmulator::AnswerDue()
{
    auto now = Clock::now();
    std::deque<Pending> still;
    for (auto &p : held_) {
        if (p.due && *p.due <= now) {
            Answer(p, /*wasHeld=*/false);
            ::close(p.fd);
        } else {
            still.push_back(std::move(p));
        }
    }
    held_.swap(still);
}

void DriverEmulator::ServeConnection(int fd)
{
    // The shim writes its request right after connecting; a peer that does
    // not is dropped rather than allowed to stall the server.
    timeval tv{5, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));

    wire::Request req{};
    if (!ReadAll(fd, &req, sizeof(req)) || req.magic != wire::kMagic || req.payloadLen > wire::kMaxPayload) {
        ::close(fd);
        return;
    }

    if (req.op == wire::kOpOpen) {
        DriverRequest rec;
        rec.op = DriverOp::Open;
        rec.pid = req.pid;
        rec.tid = req.tid;
        wire::Reply rep{};
        rep.magic = wire::kMagic;
        size_t index;
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (!present_) {
                rep.ret = -1;
                rep.err = ENOENT;
            } else if (openError_ != 0) {
                rep.ret = -1;
                rep.err = openError_;
            }
            rec.answered = true;
            rec.ret = rep.ret;
            rec.err = rep.err;
            index = Record(std::move(rec));
            if (rep.ret >= 0) {
                ++openCount_;
            }
        }
        bool sent = WriteAll(fd, &rep, sizeof(rep));
        if (rep.ret >= 0 && sent) {
            sessions_[fd] = index;
        } else {
            if (rep.ret >= 0) {
                std::lock_guard<std::mutex> lock(mu_);
                --openCount_;
            }
            ::close(fd);
        }
        return;
    }

    std::string payload(req.payloadLen, '\0');
    if (req.payloadLen > 0 && !ReadAll(fd, payload.data(), payload.size())) {
        ::close(fd);
        return;
    }
    Pending pending;
    pending.fd = fd;
    pending.op = OpOfRequest(req.number);
    pending.hasRecord = req.hasRecord != 0;
    pending.bufLen = req.bufLen;

    DriverRequest rec;
    rec.op = pending.op;
    rec.number = req.number;
    rec.text = payload.substr(0, payload.find('\0'));
    rec.argNull = req.argNull != 0;
    rec.hasRecord = pending.hasRecord;
    rec.bufLen = req.bufLen;
    rec.pid = req.pid;
    rec.tid = req.tid;
    pending.devNum = rec.DevNum();
    bool hold;
    {
        std::lock_guard<std::mutex> lock(mu_);
        hold = holdAll_ || hold_[pending.op];
        pending.logIndex = Record(std::move(rec));
        if (hold) {
            ++heldCount_;
            cv_.notify_all();
        } else if (auto d = delay_.find(pending.op); d != delay_.end() && d->second > Clock::duration::zero()) {
            pending.due = Clock::now() + d->second;
            hold = true;
        }
    }
    // Cleared from the descriptor: a held caller may wait for a long time.
    timeval none{0, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &none, sizeof(none));
    if (hold) {
        held_.push_back(std::move(pending));
        return;
    }
    Answer(pending, /*wasHeld=*/false);
    ::close(fd);
}

void DriverEmulator::Answer(const Pending &pending, bool wasHeld)
{
    wire::Reply rep{};
    rep.magic = wire::kMagic;
    std::string payload;
    {
        std::lock_guard<std::mutex> lock(mu_);
        DriverReply r = Decide(pending.op, pending.devNum);
        rep.ret = r.ret;
        rep.err = r.ret < 0 ? r.err : 0;
        rep.status = r.status;
        if (r.ret >= 0 && pending.hasRecord) {
            rep.writeBack = wire::kWriteStatus;
            if (pending.op == DriverOp::Get) {
                rep.writeBack |= wire::kWriteLengths | wire::kWriteData;
                if (!r.data.has_value()) {
                    // A well-behaved driver: the list, or 1038 with the
                    // length it needs when the caller's area is too small.
                    const std::string &text = deviceList_;
                    if (text.size() + 1 > pending.bufLen && r.status == kStatusOk) {
                        rep.status = kStatusBufShort;
                        rep.dataLen = 0;
                        rep.needLen = static_cast<uint32_t>(text.size());
                    } else {
                        payload = text;
                        payload.push_back('\0');
                        rep.dataLen = static_cast<uint32_t>(text.size());
                        rep.needLen = static_cast<uint32_t>(text.size());
                    }
                } else {
                    payload = *r.data;
                    if (!payload.empty()) {
                        payload.push_back('\0');
                    }
                    rep.dataLen = r.dataLen.value_or(static_cast<uint32_t>(r.data->size()));
                    rep.needLen = r.needLen.value_or(static_cast<uint32_t>(r.data->size()));
                }
            } else {
                if (r.dataLen || r.needLen) {
                    rep.writeBack |= wire::kWriteLengths;
                    rep.dataLen = r.dataLen.value_or(0);
                    rep.needLen = r.needLen.value_or(0);
                }
            }
        }
        rep.payloadLen = static_cast<uint32_t>(payload.size());
        DriverRequest &rec = log_[pending.logIndex];
        rec.answered = true;
        rec.ret = rep.ret;
        rec.err = rep.err;
        rec.status = rep.status;
        rec.needLen = rep.needLen;
        if (wasHeld) {
            --heldCount_;
        }
        // Observers see the answer no later than the caller does.
        cv_.notify_all();
    }
    if (WriteAll(pending.fd, &rep, sizeof(rep))) {
        (void)(payload.empty() || WriteAll(pending.fd, payload.data(), payload.size()));
    }
}

}  // namespace qmlab
