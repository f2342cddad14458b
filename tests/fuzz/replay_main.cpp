/*
 * Replays fuzz inputs through a fuzz target built with the normal compiler
 * (no libFuzzer): the same LLVMFuzzerInitialize and LLVMFuzzerTestOneInput,
 * called once per file.  CTest runs it on each target's corpus directory
 * (fuzz-replay.<target>), in every build, sanitizer builds included.
 *
 *   <target>_replay PATH...   PATH: an input file, or a directory whose
 *                             regular files are all inputs (not recursive)
 *
 * Each input is given in a buffer of exactly its size, as libFuzzer does,
 * so that a read past its end is caught in a sanitizer build.  The file
 * being run is named on standard error before it runs, so the last name
 * printed is the one that crashed; an abort, a crash signal or the per-input
 * time-out (KC_FUZZ_REPLAY_TIMEOUT seconds, default 30) also names it.
 * Exit status 0 when every input ran, 1 otherwise.
 */
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace {

/* Name of the input being run, for the signal handler. */
char s_current[4096] = "";

void writeText(const char *text)
{
    size_t left = strlen(text);
    while (left > 0) {
        ssize_t put = write(STDERR_FILENO, text, left);
        if (put <= 0)
            return;
        text += put;
        left -= (size_t)put;
    }
}

void onFatalSignal(int sig)
{
    writeText(sig == SIGALRM ? "fuzz-replay: time-out on " : "fuzz-replay: crashed on ");
    writeText(s_current);
    writeText("\n");
    if (sig == SIGALRM)
        _exit(1);
    signal(sig, SIG_DFL);
    raise(sig);
}

#if defined(__SANITIZE_ADDRESS__)
#define KC_REPLAY_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KC_REPLAY_SANITIZED 1
#endif
#endif

#ifdef KC_REPLAY_SANITIZED
extern "C" void __sanitizer_set_death_callback(void (*callback)(void));
void onSanitizerDeath(void)
{
    writeText("fuzz-replay: sanitizer report on ");
    writeText(s_current);
    writeText("\n");
}
#endif

void installHandlers(void)
{
    signal(SIGABRT, onFatalSignal);
    signal(SIGALRM, onFatalSignal);
#ifdef KC_REPLAY_SANITIZED
    // The sanitizer's own handlers report crashes; this names the input.
    __sanitizer_set_death_callback(onSanitizerDeath);
#else
    signal(SIGSEGV, onFatalSignal);
    signal(SIGBUS, onFatalSignal);
    signal(SIGFPE, onFatalSignal);
    signal(SIGILL, onFatalSignal);
#endif
}

bool isRegularFile(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

/* The inputs named by path, sorted; false when it cannot be read. */
bool collect(const std::string &path, std::vector<std::string> *files)
{
    if (isRegularFile(path)) {
        files->push_back(path);
        return true;
    }
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr)
        return false;
    std::vector<std::string> found;
    while (struct dirent *entry = readdir(dir)) {
        std::string full = path + "/" + entry->d_name;
        if (entry->d_name[0] != '.' && isRegularFile(full))
            found.push_back(full);
    }
    closedir(dir);
    std::sort(found.begin(), found.end());
    files->insert(files->end(), found.begin(), found.end());
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: %s CORPUS_DIR_OR_FILE...\n", argv[0]);
        return 2;
    }
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++) {
        if (!collect(argv[i], &files)) {
            fprintf(stderr, "fuzz-replay: cannot read %s\n", argv[i]);
            return 1;
        }
    }
    if (files.empty()) {
        fprintf(stderr, "fuzz-replay: no inputs in the paths given\n");
        return 1;
    }
    const char *limit = getenv("KC_FUZZ_REPLAY_TIMEOUT");
    unsigned int timeout = limit != nullptr ? (unsigned int)atoi(limit) : 30;

    installHandlers();
    if (LLVMFuzzerInitialize != nullptr)
        LLVMFuzzerInitialize(&argc, &argv);

    for (const std::string &file : files) {
        std::ifstream in(file, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        if (!in) {
            fprintf(stderr, "fuzz-replay: cannot read %s\n", file.c_str());
            return 1;
        }
        std::string bytes = text.str();
        snprintf(s_current, sizeof s_current, "%s", file.c_str());
        fprintf(stderr, "fuzz-replay: %s (%zu bytes)\n", file.c_str(), bytes.size());
        // Exactly the input's size (one byte for an empty one, not given).
        uint8_t *data = static_cast<uint8_t *>(malloc(bytes.size() > 0 ? bytes.size() : 1));
        if (data == nullptr)
            abort();
        memcpy(data, bytes.data(), bytes.size());
        alarm(timeout);
        LLVMFuzzerTestOneInput(data, bytes.size());
        alarm(0);
        free(data);
    }
    fprintf(stderr, "fuzz-replay: %zu inputs passed\n", files.size());
    return 0;
}
