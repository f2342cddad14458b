/* The device's shell as the agent starts it: what a command must not
 * inherit from the agent stays behind. */
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "util/shell.h"
#include "util/text.h"
#include "util/spawn.h"

namespace {

std::string outputOf(const char *cmd)
{
    char *out = run_shell_command(cmd, 4096);
    std::string text = out;
    free_text(out);
    return text;
}

/* The hexadecimal mask of a /proc/self/status line of the command. */
unsigned long long statusMask(const char *field)
{
    std::string cmd = std::string("grep '^") + field + ":' /proc/self/status";
    std::string line = outputOf(cmd.c_str());
    size_t at = line.find(':');
    return at == std::string::npos ? ~0ULL : strtoull(line.c_str() + at + 1, nullptr, 16);
}

} // namespace

TEST(Spawn, ACommandGetsTheDefaultSigpipe)
{
    struct sigaction ignore, old;
    memset(&ignore, 0, sizeof ignore);
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &old); // the agent ignores it
    unsigned long long ignored = statusMask("SigIgn");
    sigaction(SIGPIPE, &old, nullptr);
    EXPECT_EQ(0ULL, ignored & (1ULL << (SIGPIPE - 1))) << std::hex << ignored;
}

TEST(Spawn, ACommandHoldsNoDescriptorOfTheAgentBeyondTheStandardOnes)
{
    int ends[2];
    ASSERT_EQ(0, pipe(ends)); // without close-on-exec, as a library might
    ASSERT_EQ(77, dup2(ends[0], 77));
    std::string listing = outputOf("ls /proc/self/fd | tr '\\n' ' '");
    int status = run_system_command("[ ! -e /proc/self/fd/77 ]");
    close(77);
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(std::string::npos, listing.find("77")) << listing;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(Spawn, StatusesAreThoseOfTheCommand)
{
    int status = run_system_command("exit 3");
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(3, WEXITSTATUS(status));
    FILE *stream = spawn_pipe("echo out; exit 5");
    ASSERT_NE(nullptr, stream);
    char line[16] = {0};
    ASSERT_NE(nullptr, fgets(line, sizeof line, stream));
    EXPECT_STREQ("out\n", line);
    status = close_spawned_pipe(stream);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(5, WEXITSTATUS(status));
    EXPECT_EQ(-1, close_spawned_pipe(stdin)); // not one of its streams
    EXPECT_EQ(nullptr, spawn_pipe(nullptr));
    EXPECT_EQ(-1, spawn_and_wait(nullptr));
}

TEST(Spawn, ManyCommandsLeaveNoDescriptorBehind)
{
    int before = dup(0);
    close(before);
    for (int i = 0; i < 200; i++) {
        FILE *stream = spawn_pipe("echo x");
        ASSERT_NE(nullptr, stream);
        close_spawned_pipe(stream);
    }
    int after = dup(0);
    close(after);
    EXPECT_EQ(before, after);
}
