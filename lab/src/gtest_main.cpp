// main of the lab's test binaries: umockdev's preload and the private mount
// namespace come first, while the process still has a single thread.
#include <cstdio>
#include <exception>

#include <gtest/gtest.h>

#include "qmlab/daemon.h"
#include "qmlab/sandbox.h"

int main(int argc, char **argv)
{
    try {
        qmlab::Sandbox::EnsureUmockdevPreload(argv);
        qmlab::Sandbox::EnterPrivateNamespace();
    } catch (const std::exception &e) {
        std::fprintf(stderr, "lab: %s\n", e.what());
        return 2;
    }
    testing::InitGoogleTest(&argc, argv);
    // Reported while the test that ran the program is still running.
    qmlab::SetSanitizerReportHandler([](const std::string &program, const std::string &report) {
        ADD_FAILURE() << "sanitizer report from " << program << ":\n" << report;
    });
    return RUN_ALL_TESTS();
}
