// Test support for the event pipeline: a scripted stand-in for the product
// driver behind the misc channel, draining the event list the way the
// handle thread does, and deadline-based waiting. The channel is open on
// /dev/null; the driver's ioctls never reach it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "misc_ioctl.h"
#include "securec.h"
#include "support/sys_wrap.h"
#include "udev_event.h"

namespace qmtest {

inline bool WaitUntil(const std::function<bool()> &done, std::chrono::seconds deadline = std::chrono::seconds(20))
{
    auto end = std::chrono::steady_clock::now() + deadline;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

struct DriverCall {
    unsigned long request;
    std::string text;
    bool operator==(const DriverCall &) const = default;
};

// The product driver as the misc channel sees it: records each request and
// answers with the next scripted status (then the default; a negative one
// fails the ioctl itself). HoldNext() parks the next request inside the
// ioctl until Release(), so a test can act while a dispatch is under way.
class FakeDriver {
public:
    FakeDriver()
    {
        Current() = this;
        ReplaceIoctl(&FakeDriver::Ioctl);
        (void)INTF_UTIL_MiscIoctlInitAt("/dev/null");
    }
    ~FakeDriver()
    {
        INTF_UTIL_MiscIoctlClose();
        ReplaceIoctl(nullptr);
        Current() = nullptr;
    }
    FakeDriver(const FakeDriver &) = delete;
    FakeDriver &operator=(const FakeDriver &) = delete;

    void Script(std::vector<int> statuses, int fallback = 1024)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        script_.assign(statuses.begin(), statuses.end());
        default_ = fallback;
    }
    std::vector<DriverCall> Calls()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    size_t CallCount() { return Calls().size(); }
    void ClearCalls()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.clear();
    }
    void HoldNext()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        hold_ = true;
    }
    bool WaitHeld()
    {
        return WaitUntil([this] {
            std::lock_guard<std::mutex> lock(mutex_);
            return held_;
        });
    }
    void Release()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        hold_ = false;
        held_ = false;
        cond_.notify_all();
    }

private:
    static FakeDriver *&Current()
    {
        static FakeDriver *current = nullptr;
        return current;
    }
    static int Ioctl(int, unsigned long request, void *arg)
    {
        return Current()->Handle(request, static_cast<MiscCtrlParam *>(arg));
    }
    int Handle(unsigned long request, MiscCtrlParam *param)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        calls_.push_back({request, std::string(param->data, strnlen(param->data, param->bufLen))});
        if (hold_) {
            held_ = true;
            cond_.wait(lock, [this] { return !hold_; });
        }
        int status = default_;
        if (!script_.empty()) {
            status = script_.front();
            script_.pop_front();
        }
        param->status = static_cast<uint32_t>(status);
        return status < 0 ? -1 : 0;
    }

    std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<DriverCall> calls_;
    std::deque<int> script_;
    int default_ = 1024;
    bool hold_ = false;
    bool held_ = false;
};

inline DriverCall Add(const std::string &devNum, const std::string &tag = "")
{
    return {MISC_IOCTL_ADD, devNum + " nvme V P " + tag};
}
inline DriverCall Remove(const std::string &devNum)
{
    return {MISC_IOCTL_REMOVE, devNum};
}
inline DriverCall Change(const std::string &devNum)
{
    return {MISC_IOCTL_CHANGE, devNum};
}

// A node as the start-up scan builds it: complete and without a udev
// device, so enrichment passes it unchanged. `tag` ends its devInfo (sent
// with an add) so that nodes of one device can be told apart.
inline UdevEventNode *MakeNode(const char *action, const char *devNum, const std::string &tag = "")
{
    UdevEventNode *node = UDEV_AllocEventNode();
    (void)sprintf_s(node->action, sizeof(node->action), "%s", action);
    (void)sprintf_s(node->devNum, sizeof(node->devNum), "%s", devNum);
    (void)sprintf_s(node->devInfo, sizeof(node->devInfo), "%s nvme V P %s", devNum, tag.c_str());
    node->protocol = 1;
    return node;
}

inline std::vector<UdevEventNode *> NodesOf(UdevListHead *list)
{
    std::vector<UdevEventNode *> nodes;
    for (UdevListHead *pos = list->next; pos != list; pos = pos->next) {
        nodes.push_back(UDEV_NodeOf(pos));
    }
    return nodes;
}

// Moves what is queued on the event list to `out` through the handle
// thread's own unconditional wait, run on a helper thread that is woken
// until it returns.
inline bool TakeQueued(UdevListHead *out)
{
    std::atomic<bool> done{false};
    bool took = false;
    std::thread waiter([&] {
        took = UDEV_WaitAndTakeEvents(out);
        done.store(true);
    });
    while (!done.load()) {
        UDEV_SignalEventList();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    waiter.join();
    return took;
}

}  // namespace qmtest
