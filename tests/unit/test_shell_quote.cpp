// Literal shell words and double-quoted text: exact forms, and what a real
// shell makes of them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "util/shell.h"
#include "util/uci.h"
#include "util/text.h"
#include "util/shell_quote.h"

namespace {

std::string quote(const char *text)
{
    char *q = shell_quote(text);
    std::string out = q;
    free(q);
    return out;
}

std::string escape(const char *text)
{
    char *e = shell_escape_dquoted(text);
    std::string out = e;
    free(e);
    return out;
}

// What /bin/sh prints for `printf %s ARG` (this is the host's shell, run
// only to read back a word; no device command is involved).
std::string shellReads(const std::string &arg)
{
    std::string cmd = "printf %s " + arg;
    char *out = run_shell_command(cmd.c_str(), 8192);
    std::string text = out;
    free_text(out);
    return text;
}

const std::vector<std::string> kNasty = {
    "a\"b", "$(echo expanded)", "`id`", "a\\b", "a'b", "$HOME",
    "x; echo no", "\"; echo no; echo \"", "\\\"$`", "tab\there", "two  blanks",
    "*", "~", "a\nb", "'", "''", "-n", "!", "#x", "&", "|", "<>",
};

} // namespace

TEST(ShellQuote, PlainWordsStayAsTheyAre)
{
    EXPECT_EQ(quote("00:11:22:AA:bb:cc"), "00:11:22:AA:bb:cc");
    EXPECT_EQ(quote("w0_index3"), "w0_index3");
    EXPECT_EQ(quote("192.168.1.2"), "192.168.1.2");
    EXPECT_EQ(quote("/tmp/a-b.c"), "/tmp/a-b.c");
    EXPECT_EQ(quote("2.4GHz"), "2.4GHz");
    EXPECT_TRUE(shell_is_plain_word("abc09.:-_/"));
}

TEST(ShellQuote, AnythingElseIsSingleQuoted)
{
    EXPECT_EQ(quote(""), "''");
    EXPECT_EQ(quote("a b"), "'a b'");
    EXPECT_EQ(quote("a'b"), "'a'\\''b'");
    EXPECT_EQ(quote("$(id)"), "'$(id)'");
    EXPECT_EQ(quote("a\"b"), "'a\"b'");
    EXPECT_EQ(quote("a\\b"), "'a\\b'");
    EXPECT_EQ(quote("+"), "'+'");
    EXPECT_FALSE(shell_is_plain_word(""));
    EXPECT_FALSE(shell_is_plain_word("a b"));
    EXPECT_EQ(shell_quote(nullptr), nullptr);
}

TEST(ShellQuote, TheShellReadsBackExactlyTheText)
{
    for (const std::string &text : kNasty)
        EXPECT_EQ(shellReads(quote(text.c_str())), text) << text;
}

TEST(ShellEscapeDquoted, BackslashBeforeTheFourSpecialCharactersOnly)
{
    EXPECT_EQ(escape("plain text 1.2"), "plain text 1.2");
    EXPECT_EQ(escape("a\"b"), "a\\\"b");
    EXPECT_EQ(escape("$x"), "\\$x");
    EXPECT_EQ(escape("`id`"), "\\`id\\`");
    EXPECT_EQ(escape("a\\b"), "a\\\\b");
    EXPECT_EQ(escape("a'b"), "a'b");
    EXPECT_EQ(escape(""), "");
    EXPECT_EQ(shell_escape_dquoted(nullptr), nullptr);
}

TEST(ShellEscapeDquoted, TheShellReadsBackExactlyTheText)
{
    for (const std::string &text : kNasty)
        EXPECT_EQ(shellReads("\"" + escape(text.c_str()) + "\""), text) << text;
}

namespace {
std::vector<std::string> s_commands;
int recordCommand(const char *cmd)
{
    s_commands.push_back(cmd);
    return 0;
}
FILE *noPipe(const char *, const char *) { return nullptr; }
int noClose(FILE *) { return 0; }
} // namespace

TEST(UciSet, CommandLineIsUnchangedForPlainValuesAndEscapedOtherwise)
{
    const ShellBackend recorder = {noPipe, noClose, recordCommand};
    setShellBackend(&recorder);
    s_commands.clear();
    EXPECT_EQ(uci_set("system.system.SystemName", "VK310 office"), 1);
    EXPECT_EQ(uci_set("system.system.SystemName", "a\"b$c`d\\e'f"), 1);
    EXPECT_EQ(uci_set("system.system.SystemName", nullptr), 0);
    setShellBackend(nullptr);
    ASSERT_EQ(s_commands.size(), 2u);
    EXPECT_EQ(s_commands[0], "uci set system.system.SystemName=\"VK310 office\"");
    EXPECT_EQ(s_commands[1], "uci set system.system.SystemName=\"a\\\"b\\$c\\`d\\\\e'f\"");
}

TEST(ShellQuotePath, ThePathsTheAgentBuildsStayAsTheyAre)
{
    for (const char *path : {"system.system.SystemName", "dhcp.@dnsmasq[0].resolvfile",
                             "ntpclient.@ntpclient[0].TimeSettingMode",
                             "wireless.w1_index25.WLANEnable", "clientcontrol.bandsteer.enable"}) {
        char *word = shell_quote_path(path);
        EXPECT_STREQ(path, word);
        free(word);
    }
    EXPECT_EQ(nullptr, shell_quote_path(nullptr));
}

TEST(ShellQuotePath, AnyOtherPathIsOneLiteralWord)
{
    for (const std::string &text : kNasty) {
        std::string path = "wireless." + text + ".ssid";
        char *word = shell_quote_path(path.c_str());
        EXPECT_EQ(shellReads(word), path) << path;
        free(word);
    }
    char *empty = shell_quote_path("");
    EXPECT_STREQ("''", empty);
    free(empty);
}

/* A section name read back from the device (a network profile pair) may
 * hold anything: every wrapper puts its path in as one literal word. */
TEST(UciSet, APathThatIsNoPlainPathIsQuoted)
{
    const ShellBackend recorder = {noPipe, noClose, recordCommand};
    setShellBackend(&recorder);
    s_commands.clear();
    EXPECT_EQ(uci_set("wireless.w1_index2;touch /tmp/x.ssid", "net"), 1);
    EXPECT_EQ(uci_set_int("wireless.$(id).WLANEnable", 1), 1);
    EXPECT_EQ(uci_get("wireless.`id`.ssid"), SHELL_ERROR_TEXT); // no pipe: error text
    setShellBackend(nullptr);
    ASSERT_EQ(s_commands.size(), 2u);
    EXPECT_EQ(s_commands[0], "uci set 'wireless.w1_index2;touch /tmp/x.ssid'=\"net\"");
    EXPECT_EQ(s_commands[1], "uci set 'wireless.$(id).WLANEnable'=1");
}
