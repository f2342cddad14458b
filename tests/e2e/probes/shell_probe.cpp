/*
 * Runs the agent's shell helpers on their own, inside the simulated device,
 * so that a test can see what reaches the device tools:
 *   shell_probe uci-set PATH VALUE     uci_set(PATH, VALUE)
 *   shell_probe word TEXT              prints what `printf %s WORD` prints,
 *                                      WORD being shell_quote(TEXT)
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "util/shell.h"
#include "util/uci.h"
#include "util/text.h"
#include "util/shell_quote.h"

int main(int argc, char **argv)
{
    if (argc == 4 && strcmp(argv[1], "uci-set") == 0)
        return uci_set(argv[2], argv[3]) == 1 ? 0 : 1;
    if (argc == 3 && strcmp(argv[1], "word") == 0) {
        char *word = shell_quote(argv[2]);
        std::string cmd = std::string("printf %s ") + word;
        free(word);
        char *out = run_shell_command(cmd.c_str(), 4096);
        fputs(out, stdout);
        free_text(out);
        return 0;
    }
    fprintf(stderr, "usage: shell_probe uci-set PATH VALUE | word TEXT\n");
    return 2;
}
