#include "qmlab/testbed.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <tuple>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <condition_variable>
#include <mutex>
#include <thread>

#include <endian.h>
#include <poll.h>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <glob.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <umockdev.h>
#include <unistd.h>

#include "qmlab/sandbox.h"

namespace qmlab {

namespace {

constexpr unsigned kSdMajors[16] = {8, 65, 66, 67, 68, 69, 70, 71, 128, 129, 130, 131, 132, 133, 134, 135};
constexpr unsigned kNvmeMajor = 259;

// libudev's monitor message header (network order where marked).
struct MonitorHeader {
    char prefix[8];
    uint32_t magic;        // network order
    uint32_t headerSize;
    uint32_t propertiesOff;
    uint32_t propertiesLen;
    uint32_t subsystemHash;  // network order
    uint32_t devtypeHash;    // network order
    uint32_t tagBloomHi;
    uint32_t tagBloomLo;
};
static_assert(sizeof(MonitorHeader) == 40);
constexpr uint32_t kMonitorMagic = 0xfeedcafe;

std::string Pad(const std::string &text, size_t width)
{
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string Line(const std::string &value)
{
    return value + "\n";
}

// umockdev wants NULL-terminated name/value vectors.
class CStrings {
public:
    explicit CStrings(const Attributes &pairs)
    {
        for (const auto &[k, v] : pairs) {
            ptrs_.push_back(const_cast<gchar *>(k.c_str()));
            ptrs_.push_back(const_cast<gchar *>(v.c_str()));
        }
        ptrs_.push_back(nullptr);
    }
    gchar **Get() { return ptrs_.data(); }

private:
    std::vector<gchar *> ptrs_;
};

std::string Basename(const std::string &path)
{
    auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::vector<std::string> Glob(const std::string &pattern)
{
    std::vector<std::string> out;
    glob_t g{};
    if (::glob(pattern.c_str(), GLOB_NOSORT, nullptr, &g) == 0) {
        for (size_t i = 0; i < g.gl_pathc; ++i) {
            out.emplace_back(g.gl_pathv[i]);
        }
    }
    ::globfree(&g);
    return out;
}

// A datagram connection to a monitor socket, or -1 with errno.
int ConnectMonitor(const std::string &path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    if (::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) < 0) {
        int err = errno;
        ::close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

// umockdev sends an "add" event of its own for every device it adds, without
// waiting on a full queue (it aborts the process instead). The lab sends
// every event itself: while umockdev adds a device, the monitors' sockets
// are moved out of the way of its sender, and put back after.
class QuietMonitors {
public:
    explicit QuietMonitors(const std::string &root)
    {
        for (const auto &path : Glob(root + "/event[0-9]*")) {
            std::string hidden = root + "/qmlab-quiet-" + Basename(path);
            if (::rename(path.c_str(), hidden.c_str()) == 0) {
                moved_.emplace_back(hidden, path);
            }
        }
    }
    ~QuietMonitors()
    {
        for (const auto &[hidden, path] : moved_) {
            ::rename(hidden.c_str(), path.c_str());
        }
    }
    QuietMonitors(const QuietMonitors &) = delete;
    QuietMonitors &operator=(const QuietMonitors &) = delete;

private:
    std::vector<std::pair<std::string, std::string>> moved_;
};

}  // namespace

// Watches attribute files with inotify. Its thread records each write and
// cuts the file back to its first line; mu_ guards the tables and the log.
class AttributeWatcher {
public:
    AttributeWatcher()
    {
        inotify_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (inotify_ < 0 || wake_ < 0) {
            throw std::system_error(errno, std::generic_category(), "attribute watcher");
        }
        thread_ = std::thread([this] { Run(); });
    }
    ~AttributeWatcher()
    {
        uint64_t one = 1;
        ssize_t n = ::write(wake_, &one, sizeof(one));
        (void)n;
        thread_.join();
        ::close(inotify_);
        ::close(wake_);
    }
    AttributeWatcher(const AttributeWatcher &) = delete;
    AttributeWatcher &operator=(const AttributeWatcher &) = delete;

    void Watch(const std::string &file, const std::string &syspath, const std::string &name)
    {
        int wd = ::inotify_add_watch(inotify_, file.c_str(), IN_CLOSE_WRITE);
        if (wd < 0) {
            throw std::system_error(errno, std::generic_category(), "inotify watch " + file);
        }
        std::lock_guard<std::mutex> lock(mu_);
        watched_[wd] = Entry{file, syspath, name, ReadFile(file).value_or("")};
        byFile_[file] = wd;
    }
    // The lab writes `content` into `file` itself: not a write to record.
    void OwnWrite(const std::string &file, const std::string &content)
    {
        std::lock_guard<std::mutex> lock(mu_);
        auto it = byFile_.find(file);
        if (it != byFile_.end()) {
            watched_[it->second].content = content;
        }
        WriteFile(file, content);
    }
    std::vector<AttributeWrite> Writes() const
    {
        std::lock_guard<std::mutex> lock(mu_);
        return writes_;
    }
    bool WaitWrites(size_t n, Clock::duration timeout) const
    {
        std::unique_lock<std::mutex> lock(mu_);
        return cv_.wait_until(lock, Clock::now() + timeout, [&] { return writes_.size() >= n; });
    }
    // inotify reports in order: once the watcher has seen a write of the
    // lab's own marker file, it has recorded (and cut) every write before.
    bool Sync(const std::string &markerFile, Clock::duration timeout)
    {
        uint64_t wanted = 0;
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (markerWd_ < 0) {
                WriteFile(markerFile, "0");
                markerWd_ = ::inotify_add_watch(inotify_, markerFile.c_str(), IN_CLOSE_WRITE);
                if (markerWd_ < 0) {
                    throw std::system_error(errno, std::generic_category(), "inotify watch " + markerFile);
                }
                markerFile_ = markerFile;
            }
            wanted = ++markerSent_;
        }
        WriteFile(markerFile_, std::to_string(wanted));
        std::unique_lock<std::mutex> lock(mu_);
        return cv_.wait_until(lock, Clock::now() + timeout, [&] { return markerSeen_ >= wanted; });
    }

private:
    struct Entry {
        std::string file;
        std::string syspath;
        std::string name;
        // What the file held after the last write seen or made by the lab.
        // inotify merges events that are not read yet, so a write is
        // recognised by a change of content, not by counting events.
        std::string content;
    };

    void Run()
    {
        alignas(inotify_event) char buf[64 * 1024];
        for (;;) {
            pollfd fds[2] = {{inotify_, POLLIN, 0}, {wake_, POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0 && errno != EINTR) {
                return;
            }
            if ((fds[0].revents & POLLIN) != 0) {
                ssize_t n = ::read(inotify_, buf, sizeof(buf));
                for (ssize_t off = 0; n > 0 && off < n;) {
                    auto *ev = reinterpret_cast<inotify_event *>(buf + off);
                    // A removed device's files end their watches: no write.
                    if ((ev->mask & (IN_IGNORED | IN_Q_OVERFLOW)) == 0) {
                        Handle(ev->wd);
                    }
                    off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
                }
            }
            if ((fds[1].revents & POLLIN) != 0) {
                return;
            }
        }
    }

    void Handle(int wd)
    {
        std::unique_lock<std::mutex> lock(mu_);
        if (wd == markerWd_ && markerWd_ >= 0) {
            uint64_t seen = std::strtoull(ReadFile(markerFile_).value_or("0").c_str(), nullptr, 10);
            markerSeen_ = std::max(markerSeen_, seen);
            cv_.notify_all();
            return;
        }
        auto it = watched_.find(wd);
        if (it == watched_.end()) {
            return;
        }
        Entry &e = it->second;
        std::string content = ReadFile(e.file).value_or("");
        if (content == e.content) {
            return;  // the lab's own write, or its cut
        }
        std::string value = content.substr(0, content.find('\n'));
        writes_.push_back(AttributeWrite{StampNow(), e.syspath, e.name, value});
        cv_.notify_all();
        e.content = value + "\n";
        if (content != e.content) {
            WriteFile(e.file, e.content);
        }
    }

    int inotify_ = -1;
    int wake_ = -1;
    std::thread thread_;
    mutable std::mutex mu_;
    mutable std::condition_variable cv_;
    std::map<int, Entry> watched_;
    std::map<std::string, int> byFile_;
    std::vector<AttributeWrite> writes_;
    int markerWd_ = -1;
    std::string markerFile_;
    uint64_t markerSent_ = 0;
    uint64_t markerSeen_ = 0;
};

// Holds a process's first open of a file until an action of the lab has
// run (fanotify permission events). Its thread answers every permission
// event; mu_ guards the table and the fired flag.
class OpenGate {
public:
    OpenGate()
    {
        fan_ = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY | O_LARGEFILE | O_CLOEXEC);
        if (fan_ < 0) {
            throw std::system_error(errno, std::generic_category(), "fanotify_init");
        }
        wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wake_ < 0) {
            int err = errno;
            ::close(fan_);
            throw std::system_error(err, std::generic_category(), "eventfd");
        }
        thread_ = std::thread([this] { Run(); });
    }
    ~OpenGate()
    {
        uint64_t one = 1;
        ssize_t n = ::write(wake_, &one, sizeof(one));
        (void)n;
        thread_.join();
        ::close(fan_);  // any open still held is allowed when the group goes
        ::close(wake_);
    }
    OpenGate(const OpenGate &) = delete;
    OpenGate &operator=(const OpenGate &) = delete;

    void Add(const std::string &file, std::function<void()> action)
    {
        struct stat st {};
        if (::stat(file.c_str(), &st) < 0) {
            throw std::system_error(errno, std::generic_category(), "stat " + file);
        }
        {
            std::lock_guard<std::mutex> lock(mu_);
            gates_.push_back(Gate{st.st_dev, st.st_ino, std::move(action), false});
        }
        if (::fanotify_mark(fan_, FAN_MARK_ADD, FAN_OPEN_PERM, AT_FDCWD, file.c_str()) < 0) {
            throw std::system_error(errno, std::generic_category(), "fanotify_mark " + file);
        }
    }
    bool WaitFired(Clock::duration timeout) const
    {
        std::unique_lock<std::mutex> lock(mu_);
        return cv_.wait_until(lock, Clock::now() + timeout, [&] { return fired_ > 0; });
    }

private:
    struct Gate {
        dev_t dev;
        ino_t ino;
        std::function<void()> action;
        bool fired;
    };

    void Run()
    {
        alignas(fanotify_event_metadata) char buf[4096];
        for (;;) {
            pollfd fds[2] = {{fan_, POLLIN, 0}, {wake_, POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0 && errno != EINTR) {
                return;
            }
            if ((fds[1].revents & POLLIN) != 0) {
                return;
            }
            if ((fds[0].revents & POLLIN) == 0) {
                continue;
            }
            ssize_t len = ::read(fan_, buf, sizeof(buf));
            auto *md = reinterpret_cast<fanotify_event_metadata *>(buf);
            for (; len > 0 && FAN_EVENT_OK(md, len); md = FAN_EVENT_NEXT(md, len)) {
                if (md->fd < 0) {
                    continue;
                }
                if ((md->mask & FAN_OPEN_PERM) != 0) {
                    Handle(*md);
                }
                ::close(md->fd);
            }
        }
    }

    void Handle(const fanotify_event_metadata &md)
    {
        std::function<void()> action;
        struct stat st {};
        if (md.pid != ::getpid() && ::fstat(md.fd, &st) == 0) {
            std::lock_guard<std::mutex> lock(mu_);
            for (auto &g : gates_) {
                if (!g.fired && g.dev == st.st_dev && g.ino == st.st_ino) {
                    g.fired = true;
                    action = std::move(g.action);
                    break;
                }
            }
        }
        if (action) {
            try {
                action();
            } catch (const std::exception &e) {
                std::fprintf(stderr, "lab: open gate action failed: %s\n", e.what());
            }
            std::lock_guard<std::mutex> lock(mu_);
            ++fired_;
            cv_.notify_all();
        }
        fanotify_response response{md.fd, FAN_ALLOW};
        ssize_t n = ::write(fan_, &response, sizeof(response));
        (void)n;
    }

    int fan_ = -1;
    int wake_ = -1;
    std::thread thread_;
    mutable std::mutex mu_;
    mutable std::condition_variable cv_;
    std::vector<Gate> gates_;
    int fired_ = 0;
};

uint32_t UdevStringHash32(const std::string &text)
{
    // MurmurHash2 with seed 0, as libudev computes it.
    const uint32_t m = 0x5bd1e995;
    const int r = 24;
    size_t len = text.size();
    uint32_t h = static_cast<uint32_t>(len);
    const auto *data = reinterpret_cast<const unsigned char *>(text.data());
    while (len >= 4) {
        uint32_t k;
        std::memcpy(&k, data, 4);
        k *= m;
        k ^= k >> r;
        k *= m;
        h *= m;
        h ^= k;
        data += 4;
        len -= 4;
    }
    switch (len) {
        case 3:
            h ^= static_cast<uint32_t>(data[2]) << 16;
            [[fallthrough]];
        case 2:
            h ^= static_cast<uint32_t>(data[1]) << 8;
            [[fallthrough]];
        case 1:
            h ^= data[0];
            h *= m;
            break;
        default:
            break;
    }
    h ^= h >> 13;
    h *= m;
    h ^= h >> 15;
    return h;
}

std::string SdName(unsigned index)
{
    std::string letters;
    long i = index;
    do {
        letters.insert(letters.begin(), static_cast<char>('a' + i % 26));
        i = i / 26 - 1;
    } while (i >= 0);
    return "sd" + letters;
}

std::pair<unsigned, unsigned> SdDevNum(unsigned index)
{
    return {kSdMajors[(index & 0xf0) >> 4], ((index & 0xf) << 4) | (index & 0xfff00)};
}

Testbed::Testbed() : testbed_(umockdev_testbed_new())
{
    if (testbed_ == nullptr) {
        throw std::runtime_error("umockdev_testbed_new failed");
    }
    gchar *root = umockdev_testbed_get_root_dir(testbed_);  // ours to free
    root_ = root;
    g_free(root);
    try {
        watcher_ = std::make_unique<AttributeWatcher>();
    } catch (...) {
        g_object_unref(testbed_);
        throw;
    }
}

Testbed::~Testbed()
{
    gate_.reset();
    for (auto it = readOnlyMounts_.rbegin(); it != readOnlyMounts_.rend(); ++it) {
        ::umount2(it->c_str(), MNT_DETACH);
    }
    watcher_.reset();
    std::string root = Root();
    g_object_unref(testbed_);
    // umockdev leaves its directory behind.
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
}

std::string Testbed::Root() const
{
    return root_;
}

std::string Testbed::AddDevice(const std::string &subsystem, const std::string &name, const std::string &parent,
                               const Attributes &attributes, const Attributes &properties)
{
    CStrings attrs(attributes);
    CStrings props(properties);
    QuietMonitors quiet(Root());
    gchar *path = umockdev_testbed_add_devicev(testbed_, subsystem.c_str(), name.c_str(),
                                               parent.empty() ? nullptr : parent.c_str(), attrs.Get(), props.Get());
    if (path == nullptr) {
        throw std::runtime_error("umockdev could not add " + subsystem + " device " + name);
    }
    std::string out(path);
    g_free(path);
    return out;
}

std::string Testbed::AddBareDevice(const std::string &name, const std::string &parent)
{
    // A device without subsystem: a directory with an (empty) uevent file.
    std::string syspath = parent + "/" + name;
    std::string dir = Root() + syspath;
    std::error_code ignored;
    std::filesystem::create_directories(Root() + parent, ignored);
    if (::mkdir(dir.c_str(), 0755) < 0 && errno != EEXIST) {
        throw std::system_error(errno, std::generic_category(), "mkdir " + dir);
    }
    WriteFile(dir + "/uevent", "");
    return syspath;
}

std::string Testbed::EnsurePciFunction(int slot)
{
    if (made_.count("pci0000:00") == 0) {
        std::string devices = Root() + "/sys/devices";
        ::mkdir((Root() + "/sys").c_str(), 0755);
        ::mkdir(devices.c_str(), 0755);
        made_["pci0000:00"] = AddBareDevice("pci0000:00", "/sys/devices");
    }
    char name[32];
    std::snprintf(name, sizeof(name), "0000:00:%02x.0", slot & 0xff);
    auto it = made_.find(name);
    if (it != made_.end()) {
        return it->second;
    }
    std::string path = AddDevice("pci", name, made_["pci0000:00"], {{"vendor", Line("0x1d0f")}},
                                 {{"PCI_SLOT_NAME", name}});
    made_[name] = path;
    return path;
}

std::string Testbed::EnsureHost(int host, const std::string &parent)
{
    std::string key = "host" + std::to_string(host);
    auto it = made_.find(key);
    if (it != made_.end()) {
        return it->second;
    }
    std::string path = AddDevice("scsi", key, parent, {}, {{"DEVTYPE", "scsi_host"}});
    AddDevice("scsi_host", "scsi_host/" + key, path, {{"proc_name", Line("qmlab")}}, {});
    made_[key] = path;
    return path;
}

std::string Testbed::EnsureFcPort(int host, int channel, int port, const FcDiskSpec &spec)
{
    char name[64];
    std::snprintf(name, sizeof(name), "rport-%d:%d-%d", host, channel, port);
    auto it = made_.find(name);
    if (it != made_.end()) {
        return it->second;
    }
    std::string hostPath = EnsureHost(host, EnsurePciFunction(0x10 + (host & 0x3f)));
    std::string rport = AddBareDevice(name, hostPath);
    char wwpn[32];
    std::snprintf(wwpn, sizeof(wwpn), "0x50014380%02x%02x%04x", host & 0xff, channel & 0xff, port & 0xffff);
    std::string portClass = rport + "/fc_remote_ports/" + name;
    AddDevice("fc_remote_ports", std::string("fc_remote_ports/") + name, rport,
              {{"dev_loss_tmo", Line(spec.devLossTmo)},
               {"fast_io_fail_tmo", Line(spec.fastIoFailTmo)},
               {"port_state", Line("Online")},
               {"roles", Line("FCP Target")},
               {"port_name", Line(wwpn)}},
              {});
    Watch(portClass, "dev_loss_tmo");
    Watch(portClass, "fast_io_fail_tmo");
    made_[name] = rport;
    return rport;
}

std::string Testbed::EnsureIscsiSession(int host, int session, const IscsiDiskSpec &spec)
{
    std::string name = "session" + std::to_string(session);
    auto it = made_.find(name);
    if (it != made_.end()) {
        return it->second;
    }
    if (made_.count("platform") == 0) {
        made_["platform"] = AddBareDevice("platform", "/sys/devices");
    }
    std::string hostPath = EnsureHost(host, made_["platform"]);
    std::string sess = AddBareDevice(name, hostPath);
    AddDevice("iscsi_session", "iscsi_session/" + name, sess,
              {{"recovery_tmo", Line(spec.recoveryTmo)},
               {"targetname", Line("iqn.2024-01.com.quillmesh:lab." + std::to_string(session))},
               {"tpgt", Line("1")}},
              {});
    Watch(sess + "/iscsi_session/" + name, "recovery_tmo");
    made_[name] = sess;
    return sess;
}

std::string Testbed::EnsureTarget(const std::string &parent, int host, int channel, int target)
{
    char name[64];
    std::snprintf(name, sizeof(name), "target%d:%d:%d", host, channel, target);
    std::string key = parent + "/" + name;
    auto it = made_.find(key);
    if (it != made_.end()) {
        return it->second;
    }
    std::string path = AddDevice("scsi", name, parent, {}, {{"DEVTYPE", "scsi_target"}});
    made_[key] = path;
    return path;
}

std::pair<std::string, std::pair<unsigned, unsigned>> Testbed::NextSdName()
{
    unsigned index = sdIndex_++;
    return {SdName(index), SdDevNum(index)};
}

BlockDevice Testbed::AddScsiDisk(const std::string &targetPath, int host, int channel, int target, int lun,
                                 const ScsiIdentity &id)
{
    char hctl[64];
    std::snprintf(hctl, sizeof(hctl), "%d:%d:%d:%d", host, channel, target, lun);
    std::string lunPath = AddDevice("scsi", hctl, targetPath,
                                    {{"vendor", Line(Pad(id.vendor, 8))},
                                     {"model", Line(Pad(id.model, 16))},
                                     {"rev", Line("0001")},
                                     {"timeout", Line(id.timeout)},
                                     {"state", Line("running")},
                                     {"type", Line("0")}},
                                    {{"DEVTYPE", "scsi_device"}});
    Watch(lunPath, "timeout");
    auto [autoName, autoNum] = NextSdName();
    BlockDevice disk;
    disk.name = id.name.value_or(autoName);
    std::tie(disk.major, disk.minor) = id.devNum.value_or(autoNum);
    disk.hctl = hctl;
    disk.scsiDevice = lunPath;
    if (id.wwn) {
        disk.wwn = *id.wwn;
    } else {
        char wwn[40];
        std::snprintf(wwn, sizeof(wwn), "0x60014380%024llx", static_cast<unsigned long long>(++serial_));
        disk.wwn = wwn;
    }
    Attributes props = {{"DEVTYPE", "disk"},
                        {"MAJOR", std::to_string(disk.major)},
                        {"MINOR", std::to_string(disk.minor)},
                        {"DEVNAME", disk.name}};
    if (!disk.wwn.empty()) {
        props.emplace_back("ID_WWN_WITH_EXTENSION", disk.wwn);
        props.emplace_back("ID_WWN", disk.wwn.substr(0, std::min<size_t>(disk.wwn.size(), 18)));
    }
    disk.syspath = AddDevice("block", disk.name, lunPath,
                             {{"dev", Line(disk.DevNum())}, {"size", Line("2097152")}, {"ro", Line("0")}},
                             props);
    return disk;
}

BlockDevice Testbed::AddFcDisk(const FcDiskSpec &spec)
{
    std::string rport = EnsureFcPort(spec.host, spec.channel, spec.port, spec);
    std::string target = EnsureTarget(rport, spec.host, spec.channel, spec.target);
    BlockDevice disk = AddScsiDisk(target, spec.host, spec.channel, spec.target, spec.lun, spec.id);
    char name[64];
    std::snprintf(name, sizeof(name), "rport-%d:%d-%d", spec.host, spec.channel, spec.port);
    disk.transport = rport + "/fc_remote_ports/" + name;
    return disk;
}

BlockDevice Testbed::AddIscsiDisk(const IscsiDiskSpec &spec)
{
    std::string sess = EnsureIscsiSession(spec.host, spec.session, spec);
    std::string target = EnsureTarget(sess, spec.host, spec.channel, spec.target);
    BlockDevice disk = AddScsiDisk(target, spec.host, spec.channel, spec.target, spec.lun, spec.id);
    disk.transport = sess + "/iscsi_session/session" + std::to_string(spec.session);
    return disk;
}

BlockDevice Testbed::AddLocalDisk(const LocalDiskSpec &spec)
{
    std::string host = EnsureHost(spec.host, EnsurePciFunction(0x1f));
    std::string target = EnsureTarget(host, spec.host, spec.channel, spec.target);
    return AddScsiDisk(target, spec.host, spec.channel, spec.target, spec.lun, spec.id);
}

BlockDevice Testbed::AddPartition(const BlockDevice &disk, int number)
{
    BlockDevice part;
    bool digitEnd = !disk.name.empty() && std::isdigit(static_cast<unsigned char>(disk.name.back()));
    part.name = disk.name + (digitEnd ? "p" : "") + std::to_string(number);
    part.major = disk.major;
    // NVMe partitions take the next free minor of the extended major.
    part.minor = disk.major == kNvmeMajor ? nvmeMinor_++ : disk.minor + static_cast<unsigned>(number);
    part.hctl = disk.hctl;
    part.scsiDevice = disk.scsiDevice;
    part.transport = disk.transport;
    part.syspath = AddDevice("block", part.name, disk.syspath,
                             {{"dev", Line(part.DevNum())}, {"partition", Line(std::to_string(number))}},
                             {{"DEVTYPE", "partition"},
                              {"MAJOR", std::to_string(part.major)},
                              {"MINOR", std::to_string(part.minor)},
                              {"DEVNAME", part.name},
                              {"PARTN", std::to_string(number)}});
    return part;
}

BlockDevice Testbed::AddBlock(const BlockSpec &spec)
{
    BlockDevice dev;
    dev.name = spec.name;
    dev.major = spec.major;
    dev.minor = spec.minor;
    Attributes props = {{"DEVTYPE", spec.devtype},
                        {"MAJOR", std::to_string(spec.major)},
                        {"MINOR", std::to_string(spec.minor)},
                        {"DEVNAME", spec.name}};
    props.insert(props.end(), spec.properties.begin(), spec.properties.end());
    Attributes attrs = {{"dev", Line(dev.DevNum())}};
    attrs.insert(attrs.end(), spec.attributes.begin(), spec.attributes.end());
    if (spec.parent == "/sys/devices/virtual/block" && made_.count("virtual/block") == 0) {
        ::mkdir((Root() + "/sys").c_str(), 0755);
        ::mkdir((Root() + "/sys/devices").c_str(), 0755);
        ::mkdir((Root() + "/sys/devices/virtual").c_str(), 0755);
        ::mkdir((Root() + "/sys/devices/virtual/block").c_str(), 0755);
        made_["virtual"] = "/sys/devices/virtual";
        made_["virtual/block"] = "/sys/devices/virtual/block";
    }
    dev.syspath = AddDevice("block", spec.name, spec.parent, attrs, props);
    return dev;
}

BlockDevice Testbed::AddLoop(int n)
{
    return AddBlock({"loop" + std::to_string(n), 7, static_cast<unsigned>(n)});
}

BlockDevice Testbed::AddDm(int n)
{
    return AddBlock(BlockSpec{"dm-" + std::to_string(n), 253, static_cast<unsigned>(n), "/sys/devices/virtual/block",
                              "disk", {{"DM_NAME", "vg-lv" + std::to_string(n)}}, {}});
}

BlockDevice Testbed::AddCdrom(int n)
{
    int host = 9;
    std::string hostPath = EnsureHost(host, EnsurePciFunction(0x1e));
    std::string target = EnsureTarget(hostPath, host, 0, n);
    char hctl[64];
    std::snprintf(hctl, sizeof(hctl), "%d:0:%d:0", host, n);
    std::string lunPath = AddDevice("scsi", hctl, target,
                                    {{"vendor", Line(Pad("QEMU", 8))},
                                     {"model", Line(Pad("QEMU DVD-ROM", 16))},
                                     {"timeout", Line("30")},
                                     {"type", Line("5")}},
                                    {{"DEVTYPE", "scsi_device"}});
    BlockSpec spec{"sr" + std::to_string(n), 11, static_cast<unsigned>(n), lunPath, "disk", {}, {}};
    BlockDevice dev = AddBlock(spec);
    dev.hctl = hctl;
    dev.scsiDevice = lunPath;
    return dev;
}

NvmeController Testbed::AddNvmeController(const NvmeControllerSpec &spec)
{
    NvmeController ctrl;
    ctrl.instance = spec.instance;
    ctrl.name = "nvme" + std::to_string(spec.instance);
    std::string pci = EnsurePciFunction(0x40 + (spec.instance & 0x3f));
    std::string model = spec.modelPad > 0 ? Pad(spec.model, spec.modelPad) : spec.model;
    ctrl.syspath = AddDevice("nvme", "nvme/" + ctrl.name, pci,
                             {{"model", Line(model)},
                              {"serial", Line("QMLAB" + std::to_string(spec.instance))},
                              {"firmware_rev", Line("1.0")},
                              {"cntlid", Line(spec.cntlid)},
                              {"transport", Line("pcie")}},
                             {{"DEVNAME", ctrl.name}});
    return ctrl;
}

namespace {

BlockDevice NvmeBlock(const std::string &name, const NvmeNamespaceSpec &spec, unsigned &nextMinor, uint64_t &serial,
                      int host, Attributes &attrs, Attributes &props)
{
    BlockDevice dev;
    dev.name = name;
    if (spec.devNum) {
        std::tie(dev.major, dev.minor) = *spec.devNum;
    } else {
        dev.major = kNvmeMajor;
        dev.minor = nextMinor++;
    }
    std::string nsid = spec.nsid.value_or(std::to_string(spec.nsIndex));
    if (!nsid.empty()) {
        attrs.emplace_back("nsid", Line(nsid));
    }
    if (spec.cntlid && !spec.cntlid->empty()) {
        attrs.emplace_back("cntlid", Line(*spec.cntlid));
    }
    if (spec.hidden && !spec.hidden->empty()) {
        attrs.emplace_back("hidden", Line(*spec.hidden));
    }
    attrs.emplace_back("dev", Line(dev.DevNum()));
    if (spec.wwn) {
        dev.wwn = *spec.wwn;
    } else {
        char wwn[40];
        std::snprintf(wwn, sizeof(wwn), "eui.0025388b%08llx", static_cast<unsigned long long>(++serial));
        dev.wwn = wwn;
    }
    props = {{"DEVTYPE", "disk"},
             {"MAJOR", std::to_string(dev.major)},
             {"MINOR", std::to_string(dev.minor)},
             {"DEVNAME", dev.name}};
    if (!dev.wwn.empty()) {
        props.emplace_back("ID_WWN", dev.wwn);
    }
    dev.hctl = std::to_string(host) + ":" + std::to_string(spec.cntlid ? std::atoi(spec.cntlid->c_str()) : 0) + ":" +
               std::to_string(spec.nsIndex) + ":" + std::to_string(std::atoi(nsid.c_str()));
    return dev;
}

}  // namespace

BlockDevice Testbed::AddNvmeNamespace(const NvmeController &ctrl, const NvmeNamespaceSpec &spec)
{
    Attributes attrs;
    Attributes props;
    std::string name = ctrl.name + "n" + std::to_string(spec.nsIndex);
    BlockDevice dev = NvmeBlock(name, spec, nvmeMinor_, serial_, ctrl.instance, attrs, props);
    dev.syspath = AddDevice("block", name, ctrl.syspath, attrs, props);
    return dev;
}

NvmeSubsystem Testbed::AddNvmeSubsystem(int instance)
{
    NvmeSubsystem subsys;
    subsys.instance = instance;
    if (made_.count("virtual") == 0) {
        ::mkdir((Root() + "/sys").c_str(), 0755);
        ::mkdir((Root() + "/sys/devices").c_str(), 0755);
        ::mkdir((Root() + "/sys/devices/virtual").c_str(), 0755);
        made_["virtual"] = "/sys/devices/virtual";
    }
    ::mkdir((Root() + "/sys/devices/virtual/nvme-subsystem").c_str(), 0755);
    subsys.syspath = AddDevice("nvme-subsystem", "nvme-subsys" + std::to_string(instance),
                               "/sys/devices/virtual/nvme-subsystem",
                               {{"subsysnqn", Line("nqn.2024-01.com.quillmesh:lab")}}, {});
    return subsys;
}

BlockDevice Testbed::AddNvmeSubsystemNamespace(const NvmeSubsystem &subsys, const NvmeController &ctrl,
                                               const NvmeNamespaceSpec &spec)
{
    Attributes attrs;
    Attributes props;
    std::string name = "nvme" + std::to_string(subsys.instance) + "n" + std::to_string(spec.nsIndex);
    BlockDevice dev = NvmeBlock(name, spec, nvmeMinor_, serial_, ctrl.instance, attrs, props);
    dev.syspath = AddDevice("block", name, subsys.syspath, attrs, props);
    return dev;
}

BlockDevice Testbed::AddNvmePathDevice(const NvmeController &ctrl, int pathIndex, const NvmeNamespaceSpec &spec)
{
    NvmeNamespaceSpec s = spec;
    if (!s.hidden || *s.hidden == "0") {
        s.hidden = "1";
    }
    Attributes attrs;
    Attributes props;
    std::string name = ctrl.name + "c" + std::to_string(pathIndex) + "n" + std::to_string(spec.nsIndex);
    BlockDevice dev = NvmeBlock(name, s, nvmeMinor_, serial_, ctrl.instance, attrs, props);
    dev.syspath = AddDevice("block", name, ctrl.syspath, attrs, props);
    return dev;
}

void Testbed::Remove(const std::string &syspath)
{
    umockdev_testbed_remove_device(testbed_, syspath.c_str());
}

void Testbed::SetAttribute(const std::string &syspath, const std::string &name, const std::string &value)
{
    // In place, as sysfs keeps its files: a watch on the file stays valid.
    watcher_->OwnWrite(Root() + syspath + "/" + name, value);
}

void Testbed::FailAttributeWrites(const std::string &syspath, const std::string &name)
{
    std::string file = Root() + syspath + "/" + name;
    if (::mount(file.c_str(), file.c_str(), nullptr, MS_BIND, nullptr) < 0) {
        throw std::system_error(errno, std::generic_category(), "bind " + file);
    }
    readOnlyMounts_.push_back(file);
    if (::mount(nullptr, file.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) < 0) {
        throw std::system_error(errno, std::generic_category(), "remount read-only " + file);
    }
}

void Testbed::OnFirstOpen(const std::string &syspath, const std::string &name, std::function<void()> action)
{
    if (!gate_) {
        gate_ = std::make_unique<OpenGate>();
    }
    gate_->Add(Root() + syspath + "/" + name, std::move(action));
}

bool Testbed::WaitFirstOpen(Clock::duration timeout) const
{
    return gate_ && gate_->WaitFired(timeout);
}

void Testbed::Watch(const std::string &syspath, const std::string &name)
{
    watcher_->Watch(Root() + syspath + "/" + name, syspath, name);
}

std::vector<AttributeWrite> Testbed::AttributeWrites() const
{
    return watcher_->Writes();
}

bool Testbed::WaitAttributeWrites(size_t n, Clock::duration timeout) const
{
    return watcher_->WaitWrites(n, timeout);
}

bool Testbed::SyncAttributeWrites(Clock::duration timeout)
{
    return watcher_->Sync(Root() + "/qmlab-attribute-sync", timeout);
}

std::optional<std::string> Testbed::RawAttribute(const std::string &syspath, const std::string &name) const
{
    return ReadFile(Root() + syspath + "/" + name);
}

std::optional<std::string> Testbed::Attribute(const std::string &syspath, const std::string &name) const
{
    auto raw = RawAttribute(syspath, name);
    if (!raw) {
        return std::nullopt;
    }
    return raw->substr(0, raw->find('\n'));
}

void Testbed::RemoveAttribute(const std::string &syspath, const std::string &name)
{
    if (::unlink((Root() + syspath + "/" + name).c_str()) < 0) {
        throw std::system_error(errno, std::generic_category(), "remove attribute " + syspath + "/" + name);
    }
}

void Testbed::RemoveProperty(const std::string &syspath, const std::string &key)
{
    std::string file = Root() + syspath + "/uevent";
    std::istringstream in(ReadFile(file).value_or(""));
    std::string kept;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(key + "=", 0) != 0) {
            kept += line + "\n";
        }
    }
    WriteFile(file, kept);
}

void Testbed::SetProperty(const std::string &syspath, const std::string &key, const std::string &value)
{
    umockdev_testbed_set_property(testbed_, syspath.c_str(), key.c_str(), value.c_str());
}

std::string Testbed::BuildMessage(const std::string &syspath, const std::string &action)
{
    std::string dir = Root() + syspath;
    char link[4096];
    ssize_t n = ::readlink((dir + "/subsystem").c_str(), link, sizeof(link) - 1);
    if (n <= 0) {
        throw std::runtime_error("no subsystem for " + syspath);
    }
    link[n] = '\0';
    std::string subsystem = Basename(link);

    std::string props;
    auto add = [&props](const std::string &kv) {
        props += kv;
        props.push_back('\0');
    };
    add("ACTION=" + action);
    add("DEVPATH=" + syspath.substr(4));  // without "/sys"
    add("SUBSYSTEM=" + subsystem);
    add("SEQNUM=" + std::to_string(++seqnum_));
    std::string devtype;
    std::istringstream uevent(ReadFile(dir + "/uevent").value_or(""));
    std::string line;
    while (std::getline(uevent, line)) {
        if (line.empty()) {
            continue;
        }
        if (line.rfind("DEVTYPE=", 0) == 0) {
            devtype = line.substr(8);
        }
        add(line);
    }

    MonitorHeader h{};
    std::memcpy(h.prefix, "libudev", 8);
    h.magic = htobe32(kMonitorMagic);
    h.headerSize = sizeof(MonitorHeader);
    h.propertiesOff = sizeof(MonitorHeader);
    h.propertiesLen = static_cast<uint32_t>(props.size());
    h.subsystemHash = htobe32(UdevStringHash32(subsystem));
    h.devtypeHash = devtype.empty() ? 0 : htobe32(UdevStringHash32(devtype));
    std::string message(reinterpret_cast<const char *>(&h), sizeof(h));
    message += props;
    return message;
}

size_t Testbed::Send(const std::string &message, Deadline deadline)
{
    size_t delivered = 0;
    for (const auto &path : Glob(Root() + "/event[0-9]*")) {
        int fd = ConnectMonitor(path);
        if (fd < 0) {
            if (errno == ECONNREFUSED) {
                ::unlink(path.c_str());  // left behind by a monitor that is gone
            }
            continue;
        }
        // A full queue blocks the send (the kernel's back-pressure) instead
        // of losing the event, until the deadline.
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline.Remaining()).count();
            if (left <= 0) {
                break;
            }
            timeval tv{static_cast<time_t>(left / 1000000), static_cast<suseconds_t>(left % 1000000)};
            ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
            ssize_t sent = ::send(fd, message.data(), message.size(), MSG_NOSIGNAL);
            if (sent == static_cast<ssize_t>(message.size())) {
                ++delivered;
                break;
            }
            if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                continue;
            }
            break;  // the monitor went away
        }
        ::close(fd);
    }
    return delivered;
}

size_t Testbed::Emit(const std::string &syspath, const std::string &action, Clock::duration timeout)
{
    Deadline deadline(timeout);
    return Send(BuildMessage(syspath, action), deadline);
}

size_t Testbed::RemoveAndEmit(const std::string &syspath, Clock::duration timeout)
{
    Deadline deadline(timeout);
    std::string message = BuildMessage(syspath, "remove");
    Remove(syspath);
    return Send(message, deadline);
}

size_t Testbed::ListenerCount()
{
    size_t n = 0;
    for (const auto &path : Glob(Root() + "/event[0-9]*")) {
        int fd = ConnectMonitor(path);
        if (fd >= 0) {
            ++n;
            ::close(fd);
        } else if (errno == ECONNREFUSED) {
            ::unlink(path.c_str());
        }
    }
    return n;
}

bool Testbed::WaitListeners(size_t n, Clock::duration timeout)
{
    return Eventually([&] { return ListenerCount() >= n; }, timeout);
}

}  // namespace qmlab
