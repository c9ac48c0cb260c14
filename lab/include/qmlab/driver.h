// The emulated kernel driver behind /dev/misc_qmnv. A thread of the lab
// process serves the preload shim that runs inside the daemon: it records
// every open, ioctl and close in arrival order and answers as the scenario
// scripts it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "qmlab/clock.h"

namespace qmlab {

enum class DriverOp {
    Open,    // open of /dev/misc_qmnv
    Close,   // the last descriptor of an open was closed
    Start,   // MISC_IOCTL_START
    Add,     // MISC_IOCTL_ADD, text = device information
    Remove,  // MISC_IOCTL_REMOVE, text = device number
    Get,     // MISC_IOCTL_GET_DEVNUMS
    Change,  // MISC_IOCTL_CHANGE, text = device number
    Other,   // any other request number
};
const char *DriverOpName(DriverOp op);

// How the driver answers one request.
struct DriverReply {
    int ret = 0;              // the ioctl's (or open's) return value; < 0 fails the call
    int err = 0;              // errno when ret < 0
    uint32_t status = 1024;   // the record's status word
    // GET only: the text to return (default: the device list), the needLen
    // and dataLen words (default: the text's length and the bytes returned).
    std::optional<std::string> data;
    std::optional<uint32_t> needLen;
    std::optional<uint32_t> dataLen;

    static DriverReply Status(uint32_t status);
    static DriverReply Fail(int err, int ret = -1);  // negative return, errno set
    static DriverReply BufferShort(uint32_t needLen);  // 1038 with needLen
    static DriverReply List(std::string text);         // 1024 with this text
};

struct DriverRequest {
    Stamp stamp;
    DriverOp op = DriverOp::Other;
    uint64_t number = 0;   // ioctl request number
    std::string text;      // the record's text (up to its first NUL)
    bool argNull = false;  // the argument was a null pointer
    bool hasRecord = false;
    uint32_t bufLen = 0;
    int pid = 0;
    int tid = 0;
    // Filled in when the answer has gone out (later for a held request).
    bool answered = false;
    int ret = 0;
    int err = 0;
    uint32_t status = 0;
    uint32_t needLen = 0;

    // First blank-separated word of the text: the device number of an add,
    // remove or change.
    std::string DevNum() const;
};

class DriverEmulator {
public:
    // Listens on `socketPath` (the daemon finds it through QMLAB_MISC_SOCKET).
    explicit DriverEmulator(std::string socketPath);
    ~DriverEmulator();
    DriverEmulator(const DriverEmulator &) = delete;
    DriverEmulator &operator=(const DriverEmulator &) = delete;

    const std::string &SocketPath() const { return socketPath_; }

    // --- Script. Each call takes effect for the next request. -------------
    // Without the device, open fails with ENOENT ("device missing").
    void SetPresent(bool present);
    // Open fails with this errno (0: open succeeds).
    void SetOpenError(int err);
    // The answer to every request of `op` that nothing more specific covers.
    // Defaults: START ret 0; ADD, REMOVE, CHANGE status 1024; GET the device
    // list (1038 with needLen when it does not fit the caller's area);
    // other requests -1/ENOTTY.
    void SetDefault(DriverOp op, DriverReply reply);
    // The answer to every request of `op` for one device number.
    void SetFor(DriverOp op, const std::string &devNum, DriverReply reply);
    // One-shot answers, used in order before the settings above: first the
    // queue for (op, device number), then the queue for op.
    void Queue(DriverOp op, DriverReply reply);
    void QueueFor(DriverOp op, const std::string &devNum, DriverReply reply);
    // What GET returns: the device numbers joined by single blanks.
    void SetDeviceList(const std::vector<std::string> &devNums);
    void SetDeviceListText(std::string text);
    // Held requests of `op` get no answer until Release: the daemon's
    // calling thread blocks in its ioctl as it would on a busy driver.
    void Hold(DriverOp op);
    void HoldAll();
    // Stops holding and answers every held request in arrival order.
    void Release();
    // Stops holding `op` alone (a HoldAll stays) and answers its held
    // requests in arrival order; the other holds go on.
    void Release(DriverOp op);
    // Requests of `op` are answered `delay` after they arrive, as by a slow
    // driver (zero: at once). A hold takes precedence.
    void SetDelay(DriverOp op, Clock::duration delay);

    // --- Observation. ------------------------------------------------------
    std::vector<DriverRequest> Requests() const;
    std::vector<DriverRequest> Requests(DriverOp op) const;
    size_t Count(DriverOp op) const;
    size_t HeldCount() const;
    // True once `pred` holds for the requests so far; false at the deadline.
    bool WaitFor(const std::function<bool(const std::vector<DriverRequest> &)> &pred,
                 Clock::duration timeout) const;
    bool WaitCount(DriverOp op, size_t n, Clock::duration timeout) const;
    bool WaitHeld(size_t n, Clock::duration timeout) const;
    // Whether the device is open now (an open whose close has not come).
    int OpenCount() const;

private:
    struct Pending {
        int fd = -1;
        size_t logIndex = 0;
        DriverOp op = DriverOp::Other;
        std::string devNum;
        bool hasRecord = false;
        uint32_t bufLen = 0;
        std::optional<Clock::time_point> due;  // delayed, not held: answer then
    };
    // Server thread only.
    void Run();
    int PollTimeoutMs() const;
    void AnswerDue();
    void ServeConnection(int fd);
    void Answer(const Pending &pending, bool wasHeld);
    // mu_ held.
    DriverReply Decide(DriverOp op, const std::string &devNum);
    size_t Record(DriverRequest request);
    void Wake();

    std::string socketPath_;
    int listenFd_ = -1;
    int wakeFd_ = -1;
    std::thread thread_;

    // mu_ guards everything below; cv_ announces a new or answered request.
    mutable std::mutex mu_;
    mutable std::condition_variable cv_;
    bool stop_ = false;
    bool present_ = true;
    int openError_ = 0;
    std::map<DriverOp, DriverReply> defaults_;
    std::map<std::pair<DriverOp, std::string>, DriverReply> perDevice_;
    std::map<DriverOp, std::deque<DriverReply>> queued_;
    std::map<std::pair<DriverOp, std::string>, std::deque<DriverReply>> queuedPerDevice_;
    std::string deviceList_;
    bool holdAll_ = false;
    std::map<DriverOp, bool> hold_;
    std::map<DriverOp, Clock::duration> delay_;
    bool releaseWanted_ = false;
    std::vector<DriverOp> releaseOps_;  // Release(op) calls not yet served
    std::vector<DriverRequest> log_;
    size_t heldCount_ = 0;
    int openCount_ = 0;
    // Only the server thread touches these.
    std::deque<Pending> held_;
    std::map<int, size_t> sessions_;  // descriptor -> index of its open in log_
};

}  // namespace qmlab
