/*
 * The shell runner's output caps and the UCI wrappers' command lines, run
 * against a fake "uci" that records its arguments; the process check with
 * an empty name runs nothing.
 */
#include <gtest/gtest.h>

#include <sys/wait.h>

#include "test_support.h"
#include "util/shell.h"
#include "util/uci.h"
#include "util/text.h"

using namespace kctest;

namespace {

std::string run(const std::string &cmd, int cap)
{
    char *out = run_shell_command(cmd.c_str(), cap);
    std::string text = out;
    free_text(out);
    return text;
}

/* A command printing n characters "0123456789..." on one line, no newline. */
std::string printChars(int n)
{
    std::string s;
    for (int i = 0; i < n; i++)
        s.push_back((char)('0' + i % 10));
    return "printf '%s' '" + s + "'";
}

std::string chars(int n)
{
    std::string s;
    for (int i = 0; i < n; i++)
        s.push_back((char)('0' + i % 10));
    return s;
}

} // namespace

TEST(ShellCommand, CapOfThreeKeepsADigitAndItsNewline)
{
    std::string out = run("echo 1", 3);
    EXPECT_EQ("1\n", out);
    EXPECT_EQ(1, atoi(out.c_str()));
}

TEST(ShellCommand, OutputKeepsItsNewlines)
{
    EXPECT_EQ("a\nb\n", run("printf 'a\\nb\\n'", 256));
    EXPECT_EQ("", run("true", 256));
}

TEST(ShellCommand, SmallCapCutsTheFirstChunk)
{
    EXPECT_EQ("abc", run("echo abcdef", 3));
    EXPECT_EQ("a", run("echo abcdef", 1));
}

TEST(ShellCommand, CapBelow129ReadsOnlyTheFirstLine)
{
    EXPECT_EQ("first\n", run("printf 'first\\nsecond\\nthird\\n'", 100));
    EXPECT_EQ("first\n", run("printf 'first\\nsecond\\nthird\\n'", 128));
}

TEST(ShellCommand, CapBelow129ReadsOnlyTheFirst127CharactersOfALongLine)
{
    EXPECT_EQ(chars(127), run(printChars(300), 128));
    EXPECT_EQ(chars(100), run(printChars(300), 100));
}

TEST(ShellCommand, CapOf129TakesTwoChunks)
{
    EXPECT_EQ(chars(129), run(printChars(300), 129));
}

TEST(ShellCommand, CapOf256TakesTheFirst256CharactersOf300)
{
    std::string out = run(printChars(300), 256);
    EXPECT_EQ(256u, out.size());
    EXPECT_EQ(chars(256), out);
}

TEST(ShellCommand, LargeCapKeepsManyLines)
{
    std::string cmd = "i=0; while [ $i -lt 50 ]; do echo line$i; i=$((i+1)); done";
    std::string expected;
    for (int i = 0; i < 50; i++)
        expected += "line" + std::to_string(i) + "\n";
    EXPECT_EQ(expected, run(cmd, 1024));
}

TEST(ShellCommand, ShortOutputUnderALargeCapIsWhole)
{
    EXPECT_EQ(chars(300), run(printChars(300), 1024));
}

TEST(ShellCommand, FailingCommandGivesItsOutputNotAnError)
{
    EXPECT_EQ("", run("exit 3", 20));
    EXPECT_EQ("", run("no-such-command-here 2>/dev/null", 20));
}

TEST(ShellCommand, MissingCommandGivesTheErrorConstant)
{
    char *out = run_shell_command(nullptr, 20);
    EXPECT_STREQ("ERROR", out);
    EXPECT_EQ(SHELL_ERROR_TEXT, out);
    free_text(out); // leaves the constant alone
}

TEST(UpperCase, CopiesInUpperCase)
{
    char *up = str_to_upper("vk310-beta 5g");
    EXPECT_STREQ("VK310-BETA 5G", up);
    free(up);
    up = str_to_upper("");
    EXPECT_STREQ("", up);
    free(up);
}

TEST(ProcessCheck, EmptyNameIsNotRunningAndRunsNothing)
{
    FakeTools tools(false);
    tools.recorder("ps");
    tools.recorder("grep");
    tools.recorder("rm");
    EXPECT_EQ(0, is_process_running(""));
    EXPECT_EQ(0, is_process_running(nullptr));
    EXPECT_EQ("", tools.calls());
}

TEST(UciWrappers, GetRunsUciGetAndKeepsTheValue)
{
    FakeTools tools;
    tools.recorder("uci", "Europe/Helsinki\\n");
    char *value = uci_get("system.system.timezone");
    ASSERT_NE(nullptr, value);
    EXPECT_STREQ("Europe/Helsinki", value); // the newline is deleted by tr
    free_text(value);
    EXPECT_EQ("get|system.system.timezone|\n", tools.calls());
}

TEST(UciWrappers, GetOfNothingPrintsAnErrorAndRunsNothing)
{
    FakeTools tools;
    tools.recorder("uci");
    testing::internal::CaptureStdout();
    EXPECT_EQ(nullptr, uci_get(nullptr));
    EXPECT_EQ("Error!\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(-1, uci_get_int(nullptr));
    EXPECT_EQ("", tools.calls());
}

TEST(UciWrappers, GetIntReadsTheNumber)
{
    FakeTools tools;
    tools.recorder("uci", "600\\n");
    EXPECT_EQ(600, uci_get_int("korvatCloud.korvatCloud.remote_access_timeout"));
    EXPECT_EQ("get|korvatCloud.korvatCloud.remote_access_timeout|\n", tools.calls());
}

TEST(UciWrappers, GetIntOfAMissingOptionIsMinusOne)
{
    FakeTools tools;
    tools.tool("uci", "echo 'uci: Entry not found' >&2\nexit 1");
    EXPECT_EQ(-1, uci_get_int("korvatCloud.korvatCloud.nothing"));
}

TEST(UciWrappers, GetIntOfZeroIsZero)
{
    FakeTools tools;
    tools.recorder("uci", "0");
    EXPECT_EQ(0, uci_get_int("a.b.c"));
}

TEST(UciWrappers, SetQuotesTheValue)
{
    FakeTools tools;
    tools.recorder("uci");
    EXPECT_EQ(1, uci_set("system.system.hostname", "my ap"));
    EXPECT_EQ("set|system.system.hostname=my ap|\n", tools.calls());
}

TEST(UciWrappers, SetWithAMissingArgumentRunsNothing)
{
    FakeTools tools;
    tools.recorder("uci");
    EXPECT_EQ(0, uci_set(nullptr, "v"));
    EXPECT_EQ(0, uci_set("a.b.c", nullptr));
    EXPECT_EQ(0, uci_set_int(nullptr, 3));
    EXPECT_EQ("", tools.calls());
}

TEST(UciWrappers, SetIntWritesTheNumberUnquoted)
{
    FakeTools tools;
    tools.tool("uci", "printf '%s\\n' \"$*\" >> '" + tools.dir().file("calls.log") + "'");
    EXPECT_EQ(1, uci_set_int("korvatCloud.korvatCloud.auto_update", -60));
    EXPECT_EQ("set korvatCloud.korvatCloud.auto_update=-60\n", tools.calls());
}

TEST(UciWrappers, CommitOfOnePackageCommitsThemAll)
{
    FakeTools tools;
    tools.recorder("uci");
    EXPECT_EQ(0, uci_commit("network"));
    EXPECT_EQ("commit|\n", tools.calls());
}

TEST(UciWrappers, CommitWithoutAPackageCommitsThemAll)
{
    FakeTools tools;
    tools.recorder("uci");
    uci_commit(nullptr);
    uci_commit("");
    EXPECT_EQ("commit|\ncommit|\n", tools.calls());
}

TEST(UciWrappers, CommitReturnsTheShellStatus)
{
    FakeTools tools;
    tools.recorder("uci", "", 3);
    int status = uci_commit("wireless");
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(3, WEXITSTATUS(status));
}
