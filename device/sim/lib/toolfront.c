/*
 * Front end of the simulated device's tools (device/README.md, "Tool
 * cost").  A tool call starts this small program under the tool's name in
 * place of a new Python; it hands the call to the device's warm tool
 * server (toolserver.py) over a Unix socket and ends as the tool ends.
 *
 * The tool scripts' shell header runs it as
 *     exec -a /usr/bin/python3 /simrun/.simtools/bin/TOOL -S SCRIPT ARGS...
 * so that its command name is the tool's (BusyBox killall finds it) and its
 * command line is the one Python had.  It sends SCRIPT, ARGS, its
 * environment, umask, nice value, signal mask and ignored signals, and, as
 * descriptors (SCM_RIGHTS), its working directory and standard input,
 * output and error.  The server forks a worker that runs SCRIPT as Python
 * would, on those descriptors, and answers the worker's pid, later its wait
 * status, which this program takes as its own (exit code, or death by the
 * same signal).  Signals sent to it go on to the worker; when it dies
 * (SIGKILL too), the worker is told by the kernel at once (SIGIO on its end
 * of the socket) and dies with it, so a `logread -f` writes nothing more.
 *
 * Without a server for its environment it starts one (under a lock).  It
 * runs the tool as its own Python program instead (the process Python had)
 * when SIMDEVICE_TOOLSERVER=0, outside a device, or when no server can be
 * had.  `lua SCRIPT ARGS` runs SCRIPT directly, as the simulated lua does.
 *
 * Built by toolfront.sh into the run directory; SOURCE_KEY (size, mtime and
 * inode of this file at build time) makes a stale build build again.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef SOURCE_KEY
#define SOURCE_KEY ""
#endif

#define TOOLS "/simrun/.simtools"
#define SOURCE "/simdevice/lib/toolfront.c"
#define SERVER "/simdevice/lib/toolserver.py"
#define PYTHON "/usr/bin/python3"
#define MAGIC "KTF1"

extern char **environ;

static char **g_argv;
static const char *g_name;
static volatile pid_t g_worker;
static int g_stdio;  /* bit n: descriptor n was open at the start */
static int g_held;   /* /dev/null holds the closed ones' numbers */
static sigset_t g_forwarded, g_orig_mask;

/* Signals that end or concern the tool: they go on to the worker.  (Stop
 * signals and those a fault raises stay with this process.) */
static const int FORWARD[] = {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2,
                              SIGPIPE, SIGALRM, SIGTERM, SIGSTKFLT, SIGXCPU,
                              SIGXFSZ, SIGVTALRM, SIGPROF, SIGIO, SIGPWR,
                              SIGWINCH, SIGURG};

static void forward(int sig)
{
    pid_t w = g_worker;
    if (w > 0)
        kill(w, sig);
}

/* The tool as its own Python program, the process the shell header's
 * `python3 -S SCRIPT ARGS` was: run through a link to python3 named after
 * the tool (command name), with this argv (command line). */
static void direct(void)
{
    struct sigaction dfl;
    memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; sig++)
        if (sigismember(&g_forwarded, sig) == 1)
            sigaction(sig, &dfl, NULL);
    sigprocmask(SIG_SETMASK, &g_orig_mask, NULL);
    for (int fd = 0; fd < 3 && g_held; fd++)
        if (!(g_stdio & 1 << fd))
            close(fd);
    char path[PATH_MAX];
    snprintf(path, sizeof path, "%s/py/%s", TOOLS, g_name);
    execv(path, g_argv);
    execv(PYTHON, g_argv);
    perror(PYTHON);
    _exit(127);
}

static int stale(void)
{
    struct stat st;
    char key[96];
    if (stat(SOURCE, &st) != 0)
        return 0;
    snprintf(key, sizeof key, "%lld:%lld:%llu", (long long)st.st_size,
             (long long)st.st_mtime, (unsigned long long)st.st_ino);
    return strcmp(key, SOURCE_KEY) != 0;
}

/* Environment that shapes a Python process from its start (dynamic
 * loader, Python's own settings, locale): calls that differ in it go to
 * different servers.  Order-independent. */
static uint64_t env_signature(void)
{
    static const char *const prefixes[] = {"LD_", "PYTHON", "LC_", "LANG=",
                                           "LANGUAGE=", "GLIBC_", "MALLOC_"};
    uint64_t sum = 0x5eed;
    for (char **e = environ; *e; e++) {
        int hit = 0;
        for (size_t i = 0; i < sizeof prefixes / sizeof *prefixes; i++)
            if (strncmp(*e, prefixes[i], strlen(prefixes[i])) == 0)
                hit = 1;
        if (!hit)
            continue;
        uint64_t h = 1469598103934665603ULL;
        for (const unsigned char *p = (const unsigned char *)*e; *p; p++)
            h = (h ^ *p) * 1099511628211ULL;
        sum += h;
    }
    return sum;
}

static int try_connect(const char *path)
{
    struct sockaddr_un a;
    memset(&a, 0, sizeof a);
    a.sun_family = AF_UNIX;
    snprintf(a.sun_path, sizeof a.sun_path, "%s", path);
    int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0)
        return -1;
    if (connect(s, (struct sockaddr *)&a, sizeof a) == 0)
        return s;
    close(s);
    return -1;
}

static void close_from(int first)
{
#ifdef SYS_close_range
    if (syscall(SYS_close_range, first, ~0U, 0) == 0)
        return;
#endif
    for (int fd = first; fd < 4096; fd++)
        close(fd);
}

/* Starts the server of this environment, detached (its own session, no
 * descriptor of the caller but the ready pipe), and waits until it
 * listens.  Returns 0 when it said so. */
static int spawn_server(const char *path)
{
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0)
        return -1;
    pid_t pid = fork();
    if (pid < 0) {
        close(p[0]);
        close(p[1]);
        return -1;
    }
    if (pid == 0) {
        setsid();
        if (fork() != 0)
            _exit(0);
        struct sigaction dfl;
        memset(&dfl, 0, sizeof dfl);
        dfl.sa_handler = SIG_DFL;
        for (int sig = 1; sig < NSIG; sig++)
            sigaction(sig, &dfl, NULL);
        int ready = fcntl(p[1], F_DUPFD, 10);
        int null = open("/dev/null", O_RDWR);
        int log = open(TOOLS "/server.log",
                       O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW, 0644);
        if (ready < 0 || null < 0)
            _exit(127);
        dup2(null, 0);
        dup2(null, 1);
        dup2(log >= 0 ? log : null, 2);
        dup2(ready, 3);
        close_from(4);
        if (chdir("/") != 0)
            _exit(127);
        umask(022);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, NULL);
        execl(PYTHON, PYTHON, "-S", SERVER, path, "3", (char *)NULL);
        _exit(127);
    }
    close(p[1]);
    while (waitpid(pid, NULL, 0) < 0 && errno == EINTR)
        ;
    char c = 0;
    ssize_t n;
    while ((n = read(p[0], &c, 1)) < 0 && errno == EINTR)
        ;
    close(p[0]);
    return n == 1 && c == 'R' ? 0 : -1;
}

static int connect_server(void)
{
    char path[108];
    snprintf(path, sizeof path, "%s/srv-%016llx.sock", TOOLS,
             (unsigned long long)env_signature());
    int s = try_connect(path);
    if (s >= 0)
        return s;
    int lock = open(TOOLS "/server.lock",
                    O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lock < 0)
        return -1;
    while (flock(lock, LOCK_EX) != 0)
        if (errno != EINTR) {
            close(lock);
            return -1;
        }
    s = try_connect(path);
    if (s < 0) {
        unlink(path);
        if (spawn_server(path) == 0)
            s = try_connect(path);
    }
    close(lock);
    return s;
}

struct buf {
    char *data;
    size_t len, cap;
};

static int put(struct buf *b, const void *p, size_t n)
{
    if (b->len + n > b->cap) {
        size_t cap = b->cap ? b->cap : 4096;
        while (cap < b->len + n)
            cap *= 2;
        char *d = realloc(b->data, cap);
        if (d == NULL)
            return -1;
        b->data = d;
        b->cap = cap;
    }
    memcpy(b->data + b->len, p, n);
    b->len += n;
    return 0;
}

static uint64_t signal_bits(int (*test)(int))
{
    uint64_t bits = 0;
    for (int sig = 1; sig < NSIG && sig <= 64; sig++)
        if (test(sig))
            bits |= 1ULL << (sig - 1);
    return bits;
}

static int is_ignored(int sig)
{
    struct sigaction sa;
    return sigaction(sig, NULL, &sa) == 0 && sa.sa_handler == SIG_IGN;
}

static int is_blocked(int sig)
{
    return sigismember(&g_orig_mask, sig) == 1;
}

/* The request: magic, then eight u64 (length of what follows, argument
 * count, environment count, umask, nice value, ignored signals, blocked
 * signals, which descriptors follow), then the arguments (SCRIPT first)
 * and the environment, each NUL-terminated.  Descriptors: working
 * directory, then standard input, output, error (those open). */
static int send_request(int s, int argc, char **argv)
{
    struct buf b = {0};
    int envc = 0;
    for (char **e = environ; *e; e++)
        envc++;
    int fds[4], nfd = 0;
    uint64_t mask = 0;
    int cwd = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (cwd >= 0) {
        fds[nfd++] = cwd;
        mask |= 8;
    }
    for (int fd = 0; fd < 3; fd++)
        if (g_stdio & 1 << fd) {
            fds[nfd++] = fd;
            mask |= 1ULL << fd;
        }
    mode_t um = umask(0);
    umask(um);
    errno = 0;
    int nice = getpriority(PRIO_PROCESS, 0);
    uint64_t head[8] = {0, (uint64_t)argc, (uint64_t)envc, (uint64_t)um,
                        (uint64_t)(int64_t)nice, signal_bits(is_ignored),
                        signal_bits(is_blocked), mask};
    int bad = put(&b, MAGIC, 4) || put(&b, head, sizeof head);
    for (int i = 0; i < argc && !bad; i++)
        bad = put(&b, argv[i], strlen(argv[i]) + 1);
    for (char **e = environ; *e && !bad; e++)
        bad = put(&b, *e, strlen(*e) + 1);
    if (bad) {
        free(b.data);
        if (cwd >= 0)
            close(cwd);
        return -1;
    }
    uint64_t len = b.len - 4 - sizeof head;
    memcpy(b.data + 4, &len, sizeof len);

    union {
        char buf[CMSG_SPACE(sizeof fds)];
        struct cmsghdr align;
    } ctl;
    memset(&ctl, 0, sizeof ctl);
    struct iovec iov = {b.data, b.len};
    struct msghdr msg;
    memset(&msg, 0, sizeof msg);
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = ctl.buf;
    msg.msg_controllen = CMSG_SPACE(nfd * sizeof(int));
    struct cmsghdr *c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(nfd * sizeof(int));
    memcpy(CMSG_DATA(c), fds, nfd * sizeof(int));
    ssize_t n;
    while ((n = sendmsg(s, &msg, MSG_NOSIGNAL)) < 0 && errno == EINTR)
        ;
    size_t done = n < 0 ? 0 : (size_t)n;
    while (n >= 0 && done < b.len) {
        n = send(s, b.data + done, b.len - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            n = 0;
        done += n < 0 ? 0 : (size_t)n;
    }
    free(b.data);
    if (cwd >= 0)
        close(cwd);
    return n < 0 ? -1 : 0;
}

/* One 4-byte answer; 0 when it came, -1 on end of stream or error. */
static int read_int(int s, int32_t *v)
{
    size_t got = 0;
    char *p = (char *)v;
    while (got < sizeof *v) {
        ssize_t n = read(s, p + got, sizeof *v - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        got += (size_t)n;
    }
    return 0;
}

int main(int argc, char **argv)
{
    g_argv = argv;
    for (int fd = 0; fd < 3; fd++)
        if (fcntl(fd, F_GETFD) != -1)
            g_stdio |= 1 << fd;
    sigemptyset(&g_forwarded);
    sigprocmask(SIG_SETMASK, NULL, &g_orig_mask);
    /* argv as Python had it: python3 -S SCRIPT ARGS... */
    if (argc < 3 || strcmp(argv[1], "-S") != 0) {
        fprintf(stderr, "toolfront: usage: %s -S SCRIPT [ARGS...]\n",
                argv[0]);
        return 2;
    }
    const char *slash = strrchr(argv[2], '/');
    g_name = slash ? slash + 1 : argv[2];
    const char *off = getenv("SIMDEVICE_TOOLSERVER");
    if ((off && strcmp(off, "0") == 0) || getenv("SIMDEVICE_RUN"))
        direct();
    if (stale()) {
        /* built from an older source: the header builds it again */
        unlink(TOOLS "/front");
        execv(argv[2], argv + 2);
        direct();
    }
    if (strcmp(g_name, "lua") == 0 && argc > 3) {
        execv(argv[3], argv + 3);
        /* not runnable: Python reports it as it does */
    }
    /* Standard descriptors the caller left closed stay so for the tool;
     * until the call is handed over, /dev/null holds their numbers. */
    for (int fd = 0; fd < 3; fd++)
        if (!(g_stdio & 1 << fd))
            open("/dev/null", O_RDWR | O_CLOEXEC);
    g_held = 1;

    /* Signals wait until the worker is known, then go on to it. */
    for (size_t i = 0; i < sizeof FORWARD / sizeof *FORWARD; i++)
        if (!is_ignored(FORWARD[i]))
            sigaddset(&g_forwarded, FORWARD[i]);
    for (int sig = SIGRTMIN; sig <= SIGRTMAX; sig++)
        if (!is_ignored(sig))
            sigaddset(&g_forwarded, sig);
    sigset_t during;
    sigorset(&during, &g_orig_mask, &g_forwarded);
    sigprocmask(SIG_SETMASK, &during, NULL);
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = forward;
    sa.sa_flags = SA_RESTART;
    sigfillset(&sa.sa_mask);
    for (int sig = 1; sig < NSIG; sig++)
        if (sigismember(&g_forwarded, sig) == 1)
            sigaction(sig, &sa, NULL);

    int s = connect_server();
    if (s < 0)
        direct();
    int32_t worker, status;
    if (send_request(s, argc - 2, argv + 2) != 0 || read_int(s, &worker) != 0
            || worker <= 0) {
        close(s);
        direct();
    }
    g_worker = worker;
    sigprocmask(SIG_SETMASK, &g_orig_mask, NULL);
    if (read_int(s, &status) != 0) {
        /* the server went (the device is going down) */
        _exit(1);
    }
    sigprocmask(SIG_BLOCK, &g_forwarded, NULL);
    if (WIFEXITED(status))
        _exit(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) {
        int sig = WTERMSIG(status);
        struct sigaction dfl;
        memset(&dfl, 0, sizeof dfl);
        dfl.sa_handler = SIG_DFL;
        sigaction(sig, &dfl, NULL);
        sigset_t one;
        sigemptyset(&one);
        sigaddset(&one, sig);
        sigprocmask(SIG_UNBLOCK, &one, NULL);
        kill(getpid(), sig);
        _exit(128 + sig);
    }
    _exit(1);
}
