// qmudevadm verify over a table of bad files, one row per thing the
// daemon's readers drop, change or hang on: the FILE:LINE message and the
// exit code of the real binary. The shipped samples pass clean.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>

#include <sys/wait.h>

#include "support/unit_support.h"

using namespace qmtest;

namespace {

const std::string kRules = "[vendors]\nruler_name=a,vendor_id=V,product_id=P\n";
const std::string kSettings = "scsi_timeout = 45\n";

struct VerifyRun {
    std::string out;
    int exit = -1;
};

VerifyRun Verify(const std::string &vendors, const std::string &settings)
{
    std::string command = std::string(QMUDEVADM_PATH) + " verify --vendors '" + vendors + "' --settings '" +
                          settings + "' 2>&1";
    VerifyRun run;
    FILE *pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return run;
    }
    char chunk[4096];
    for (size_t n; (n = std::fread(chunk, 1, sizeof(chunk), pipe)) > 0;) {
        run.out.append(chunk, n);
    }
    int status = ::pclose(pipe);
    run.exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

TEST(AdmVerify, EachLineTheReadersDropChangeOrHangOnIsNamedWithTheDaemonsOutcome)
{
    const std::string longLine(600, 'x');
    const std::string longValue = "ruler_name=b,vendor_id=" + std::string(64, 'v') + ",product_id=P\n";
    struct Row {
        const char *name;
        std::string vendors;
        std::string settings;
        bool inSettings;
        int line;  // 0: the file as a whole
        const char *message;
        int exit;
    };
    const Row rows[] = {
        {"note after the header", kRules + "# old array\n", kSettings, false, 3, "read as a rule with no vendor_id", 1},
        {"blank lines are skipped, no rule", kRules + "\n   \n", kSettings, false, 0, "", 0},
        {"backslash join", "[vendors]\nruler_name=a,\\\nvendor_id=V,product_id=P\n", kSettings, false, 2,
         "backslash: the daemon drops it and joins line 3 to this line", 1},
        {"a joined rule goes by its first line", "[vendors]\n#\nruler_name=a,colour=red,\\\nvendor_id=V\n", kSettings,
         false, 3, "unknown key \"colour\"", 1},
        {"over-long line", kRules + longLine + "\n", kSettings, false, 3, "longer than 510 characters", 1},
        {"value of 64 characters", kRules + longValue, kSettings, false, 3, "a value of 64 characters or more", 1},
        {"unknown key", kRules + "ruler_name=c,vendor_id=V,product_id=Q,colour=red\n", kSettings, false, 3,
         "unknown key \"colour\": the daemon ignores it", 1},
        {"key without a value", kRules + "ruler_name=f,vendor_id=V,product_id=\n", kSettings, false, 3,
         "product_id without a value: the daemon gives it the value before it, \"V\"", 1},
        {"five pairs", kRules + "ruler_name=d,vendor_id=V,product_id=R,driver=x,driver=y\n", kSettings, false, 3,
         "more than four key = value pairs: the daemon drops this rule", 1},
        {"last line without newline", kRules + "ruler_name=e,vendor_id=V,product_id=S", kSettings, false, 3,
         "no newline at the end of the file: the daemon ignores this last line", 1},
        {"no [vendors] line", "ruler_name=a,vendor_id=V,product_id=P\n", kSettings, false, 0,
         "no [vendors] line: the daemon reads no rule and takes over no disk", 1},
        {"unknown setting", kRules, "scsi_timeout 60\n", true, 1,
         "unknown name \"scsi_timeout60\": the daemon skips the line (written without \"=\"", 1},
        {"setting without a number", kRules, "dev_loss_tmo = 9\nrecovery_tmo =\n", true, 2,
         "recovery_tmo without a number: the daemon skips the line", 1},
        {"value out of range", kRules, "dev_loss_tmo = 9\ndev_loss_tmo = 0\n", true, 2,
         "dev_loss_tmo = 0 is out of range 1 to 600: the daemon keeps dev_loss_tmo = 9", 1},
        {"settings backslash join", kRules, "scsi_timeout = 4\\\n5\n", true, 1,
         "backslash at the end of the line: the daemon joins line 2 to it", 1},
        {"setting lines go on after a join", kRules, "scsi_timeout = 4\\\n5\nspeed = 1\n", true, 3,
         "unknown name \"speed\"", 1},
        {"over-long setting line", kRules, longLine + "\nscsi_timeout = 45\n", true, 1,
         "longer than 510 characters: the daemon skips the whole line", 1},
        {"setting without newline", kRules, "scsi_timeout = 45\ndev_loss_tmo = 9", true, 2,
         "no newline at the end of the file: the daemon ignores this last line", 1},
        {"empty setting line", kRules, "scsi_timeout = 45\n\ndev_loss_tmo = 9\n", true, 2,
         "empty line: the daemon's reader never returns from it and start-up hangs", 2},
    };
    TempDir dir;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        WriteFile(dir.File("vendors"), row.vendors);
        WriteFile(dir.File("settings"), row.settings);
        VerifyRun run = Verify(dir.File("vendors"), dir.File("settings"));
        EXPECT_EQ(run.exit, row.exit) << run.out;
        std::string file = dir.File(row.inSettings ? "settings" : "vendors");
        std::string where = row.line != 0 ? file + ":" + std::to_string(row.line) : file;
        if (*row.message != '\0') {
            EXPECT_NE(run.out.find(where + ": " + row.message), std::string::npos) << run.out;
        } else {
            EXPECT_FALSE(std::regex_search(run.out, std::regex(":[0-9]+: "))) << run.out;
        }
    }
    VerifyRun missing = Verify(dir.File("none"), dir.File("settings"));
    EXPECT_EQ(missing.exit, 2) << missing.out;
}

TEST(AdmVerify, ShippedSamplesMeanWhatTheySeemTo)
{
    const std::string samples = std::string(QMUDEV_SOURCE_DIR) + "/packaging/config/";
    VerifyRun run = Verify(samples + "qm_plus.conf", samples + "qmLinux.conf");
    EXPECT_EQ(run.exit, 0) << run.out;
    EXPECT_NE(run.out.find("vendor_id=QUILLMSH product_id=QM-ARRAY"), std::string::npos) << run.out;
}

}  // namespace
