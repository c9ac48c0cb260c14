// qmudevadm: subcommands in the manner of udevadm.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "adm.h"

namespace {

const char *const kUsage =
    "Usage: qmudevadm [--help] [--version] COMMAND [OPTIONS]\n"
    "Checks what qmudev makes of its configuration and of the disks, without touching anything.\n"
    "Commands:\n"
    "  verify   check /etc/qm_plus.conf and /etc/qmLinux.conf line by line\n"
    "  test     dry run of the start-up scan: verdict, driver text and time-outs per disk\n"
    "  status   whether a daemon runs, and its last ERROR and WARN trace records\n"
    "'qmudevadm COMMAND --help' tells more; see qmudevadm(8).\n";

int Dispatch(int argc, char **argv)
{
    // Before any of the daemon's code runs: none of it may write a trace
    // record or a system-log message on the tool's behalf.
    adm::InstallLogSink();
    if (argc < 2) {
        std::fputs(kUsage, stderr);
        return adm::kExitUsage;
    }
    const char *command = argv[1];
    if (std::strcmp(command, "--help") == 0 || std::strcmp(command, "-h") == 0 || std::strcmp(command, "help") == 0) {
        std::fputs(kUsage, stdout);
        return adm::kExitOk;
    }
    if (std::strcmp(command, "--version") == 0 || std::strcmp(command, "-V") == 0) {
        std::printf("qmudevadm %s\n", QMUDEV_VERSION);
        return adm::kExitOk;
    }
    // The subcommand's own name, for the messages of its option parser.
    std::string name = std::string("qmudevadm ") + command;
    argv[1] = name.data();
    if (std::strcmp(command, "verify") == 0) {
        return adm::RunVerify(argc - 1, argv + 1);
    }
    if (std::strcmp(command, "test") == 0) {
        return adm::RunTest(argc - 1, argv + 1);
    }
    if (std::strcmp(command, "status") == 0) {
        return adm::RunStatus(argc - 1, argv + 1);
    }
    std::fprintf(stderr, "qmudevadm: unknown command \"%s\"\n%s", command, kUsage);
    return adm::kExitUsage;
}

}  // namespace

int main(int argc, char **argv)
{
    try {
        return Dispatch(argc, argv);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "qmudevadm: %s\n", e.what());
        return adm::kExitChanged;
    }
}
