// Helpers shared by the lab tests.
#pragma once

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qmlab/lab.h"

namespace qmlab::test {

// Runs the ioctl probe with the daemon's environment (shim first) and
// returns its output lines. Fails the test when it does not end in time.
inline std::vector<std::string> RunProbe(Lab &lab, std::vector<std::string> steps, bool driver = true)
{
    DaemonOptions opts;
    opts.binary = IoctlProbePath();
    opts.args = std::move(steps);
    opts.driver = driver;
    Daemon &probe = lab.Start(opts);
    auto status = probe.WaitExit(30s);
    EXPECT_TRUE(status.has_value()) << "probe did not end";
    if (status) {
        EXPECT_EQ(status->Describe(), "exit 0") << probe.Stderr();
    }
    std::vector<std::string> lines;
    std::istringstream in(probe.Stdout());
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

// "name k1=v1 k2=v2 ..." -> {"", name}, {k1, v1}, ...; "text=" takes the
// rest of the line.
inline std::map<std::string, std::string> Fields(const std::string &line)
{
    std::map<std::string, std::string> out;
    auto sp = line.find(' ');
    out[""] = line.substr(0, sp);
    size_t pos = sp == std::string::npos ? line.size() : sp + 1;
    while (pos < line.size()) {
        if (line.compare(pos, 5, "text=") == 0) {
            out["text"] = line.substr(pos + 5);
            break;
        }
        size_t end = line.find(' ', pos);
        std::string kv = line.substr(pos, end - pos);
        auto eq = kv.find('=');
        out[kv.substr(0, eq)] = eq == std::string::npos ? "" : kv.substr(eq + 1);
        pos = end == std::string::npos ? line.size() : end + 1;
    }
    return out;
}

inline std::vector<std::string> Texts(const std::vector<Datagram> &all, int pid = 0)
{
    std::vector<std::string> out;
    for (const auto &d : all) {
        if (pid == 0 || d.pid == pid) {
            out.push_back(d.text);
        }
    }
    return out;
}

}  // namespace qmlab::test
