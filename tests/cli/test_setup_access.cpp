#include "cli/Cli.h"
#include "cli/SetupAccess.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace dravinel::cli {
namespace {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;

std::string slurp(const fs::path& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

struct Outcome
{
    int code = -1;
    std::string out, err;
};

Outcome run(const Args& args)
{
    std::ostringstream out;
    std::ostringstream err;
    const int code = runCli(args, out, err);
    return {code, out.str(), err.str()};
}

// A stream whose every write fails, as standard output on a full disk does.
class FullBuffer : public std::streambuf
{
protected:
    int_type overflow(int_type) override { return traits_type::eof(); }
};

class SetupAccessTest : public ::testing::Test
{
protected:
    void SetUp() override { fs::create_directories(m_dir); }
    void TearDown() override { fs::remove_all(m_dir); }

    // The real program as nobody when the tests run as root (a user's sudo-less try), else as
    // this user; its standard error is returned with the exit code.
    Outcome asUser(Args args) const
    {
        std::vector<char*> argv{const_cast<char*>(DRAVINEL_CLI_EXE)};
        for (auto& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        const std::string err = (m_dir / "err").string();
        const pid_t pid = fork();
        if (pid == 0) {
            const int exe = open(DRAVINEL_CLI_EXE, O_RDONLY | O_CLOEXEC);
            const int errFd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
            if (exe < 0 || errFd < 0 || dup2(errFd, 2) < 0 ||
                (getuid() == 0 &&
                 (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)))
                _exit(126);
            fexecve(exe, argv.data(), environ);
            _exit(127);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, {}, slurp(err)};
    }

    const fs::path m_dir =
        fs::temp_directory_path() / ("dravinel-access-" + std::to_string(getpid()));
};

TEST_F(SetupAccessTest, PrintsTheRuleFileThePackageInstalls)
{
    const Outcome printed = run({"setup-access"});
    EXPECT_EQ(printed.code, kExitOk);
    EXPECT_EQ(printed.out, slurp(DRAVINEL_UDEV_RULE_FILE));
    EXPECT_EQ(printed.err, "");

    // The rule is the result: losing it is a failure.
    FullBuffer full;
    std::ostream out(&full);
    std::ostringstream err;
    EXPECT_EQ(runCli({"setup-access"}, out, err), kExitFailed);
    EXPECT_TRUE(contains(err.str(), "could not write the output")) << err.str();

    // A folder without --install would be silently ignored: it is refused instead.
    const Outcome folderAlone = run({"setup-access", "--rules-dir", m_dir.string()});
    EXPECT_EQ(folderAlone.code, kExitBadInput);
    EXPECT_TRUE(fs::is_empty(m_dir));
}

TEST_F(SetupAccessTest, InstallReplacesTheRuleWholeAndLeavesItReadableByAll)
{
    const fs::path rule = m_dir / kRuleFileName;
    std::ofstream(rule) << "# an older rule\n";
    fs::permissions(rule, fs::perms::owner_read | fs::perms::owner_write);
    // sudo may keep a strict umask; udev rules are still world-readable.
    const mode_t previous = umask(077);
    const Outcome installed = run({"setup-access", "--install", "--rules-dir", m_dir.string()});
    umask(previous);

    EXPECT_EQ(installed.code, kExitOk) << installed.err;
    EXPECT_EQ(slurp(rule), slurp(DRAVINEL_UDEV_RULE_FILE));
    EXPECT_EQ(fs::status(rule).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                  fs::perms::others_read);
    EXPECT_EQ(installed.out, "installed " + rule.string() +
                                 "\nudev not reloaded: " + m_dir.string() + " is not its folder\n");
    // Nothing beside the rule: the temporary file it was written through is gone.
    EXPECT_EQ(std::distance(fs::directory_iterator(m_dir), fs::directory_iterator()), 1);
}

TEST_F(SetupAccessTest, AnInstallThatCannotWriteIsExit1AndSaysWhy)
{
    const Outcome noFolder =
        run({"setup-access", "--install", "--rules-dir", (m_dir / "absent").string()});
    EXPECT_EQ(noFolder.code, kExitFailed);
    EXPECT_TRUE(contains(noFolder.err, "the rule was not installed: ")) << noFolder.err;
    EXPECT_TRUE(contains(noFolder.err, (m_dir / "absent").string())) << noFolder.err;
    EXPECT_EQ(noFolder.out, "");

    // A folder where the rule would go is left alone.
    fs::create_directory(m_dir / kRuleFileName);
    const Outcome folder = run({"setup-access", "--install", "--rules-dir", m_dir.string()});
    EXPECT_EQ(folder.code, kExitFailed);
    EXPECT_TRUE(fs::is_directory(m_dir / kRuleFileName));
    fs::remove(m_dir / kRuleFileName);

    // Without sudo: a folder this user cannot write, and the advice to use sudo.
    const fs::path locked = m_dir / "rules.d";
    fs::create_directory(locked);
    fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec | fs::perms::group_read |
                                fs::perms::group_exec | fs::perms::others_read |
                                fs::perms::others_exec);
    const Outcome unprivileged = asUser({"setup-access", "--install", "--rules-dir", locked});
    EXPECT_EQ(unprivileged.code, kExitFailed);
    EXPECT_TRUE(contains(unprivileged.err, "(run it with sudo)")) << unprivileged.err;
    EXPECT_TRUE(fs::is_empty(locked));
}

} // namespace
} // namespace dravinel::cli
