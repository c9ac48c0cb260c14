// Scenarios across the whole daemon that the lab makes possible: the
// start-up scan against the driver's list. (Retries under accelerated time
// are in pipeline_test.cpp.)
#include <gtest/gtest.h>

#include "lab_support.h"

namespace qmlab::test {
namespace {

std::vector<std::string> AddsAndRemoves(const DriverEmulator &drv)
{
    std::vector<std::string> out;
    for (const auto &r : drv.Requests()) {
        if (r.op == DriverOp::Add || r.op == DriverOp::Remove) {
            out.push_back(std::string(DriverOpName(r.op)) + " " + r.DevNum());
        }
    }
    return out;
}

TEST(ScenarioScan, UnsupportedDiskIsNotAddedAndStaleNumberIsRemoved)
{
    Lab lab;
    DefaultScenario s = BuildDefaultScenario(lab);
    Daemon &d = lab.Start();
    ASSERT_TRUE(lab.WaitNotify("READY=1", 60s)) << d.Stderr();
    ASSERT_TRUE(lab.driver().WaitFor(
        [](const std::vector<DriverRequest> &all) {
            return std::count_if(all.begin(), all.end(), [](const DriverRequest &r) {
                       return (r.op == DriverOp::Add || r.op == DriverOp::Remove) && r.answered;
                   }) >= 6;
        },
        30s));
    auto seen = AddsAndRemoves(lab.driver());
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "REMOVE " + s.staleDevNum), 1);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "ADD " + s.foreign.DevNum()), 0);
    for (const BlockDevice *b : {&s.fc1, &s.fc2, &s.iscsi, &s.nvme1, &s.nvme2}) {
        EXPECT_EQ(std::count(seen.begin(), seen.end(), "ADD " + b->DevNum()), 1) << b->name;
    }
    // The removal of what udev no longer has comes after every add of the scan.
    EXPECT_EQ(seen.back(), "REMOVE " + s.staleDevNum);
}

}  // namespace
}  // namespace qmlab::test
