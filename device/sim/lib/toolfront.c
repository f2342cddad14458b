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
 * Started under a tool's own name instead (a link named after the tool to
 * a front end shared by many devices, fleet/; its exec path outside
 * /simrun/.simtools), it is that tool: the script is /simdevice/bin/NAME
 * and the call goes on as if the header had run it with -S, without the
 * shell that reads the header.
 *
 * The server may answer a call itself (MAGIC says this program takes
 * that): the pid it answers is then 0, and the status follows at once.
 *
 * Without a server for its environment it starts one (under a lock).  It
 * runs the tool as its own Python program instead (the process Python had)
 * when SIMDEVICE_TOOLSERVER=0, outside a device, or when no server can be
 * had.  `lua SCRIPT ARGS` runs SCRIPT directly, as the simulated lua does.
 *
 * Every call pays for this program's start, so it does without the C
 * library: the C library's start alone costs several times what the
 * program does.  It starts at _start and makes its system calls itself, on
 * x86_64 (elsewhere toolfront.sh builds nothing and the tools run as their
 * own Python programs).  Built by toolfront.sh into the run directory;
 * SOURCE_KEY (size, mtime and inode of this file at build time) makes a
 * stale build build again.
 */
#include <asm/unistd.h>
#include <stddef.h>
#include <stdint.h>

#ifndef SOURCE_KEY
#define SOURCE_KEY ""
#endif

#define TOOLS "/simrun/.simtools"
#define SOURCE "/simdevice/lib/toolfront.c"
#define SERVER "/simdevice/lib/toolserver.py"
#define PYTHON "/usr/bin/python3"
#define MAGIC "KTF2"  /* KTF1 and a worker: takes an answer without one */

/* ---- system calls -------------------------------------------------------- */

#if defined(__x86_64__)
static long sc(long n, long a, long b, long c, long d, long e)
{
    register long r10 __asm__("r10") = d;
    register long r8 __asm__("r8") = e;
    long r;
    __asm__ volatile("syscall"
                     : "=a"(r)
                     : "a"(n), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8)
                     : "rcx", "r11", "memory");
    return r;
}
#else
#error "the front end makes system calls of x86_64 only"
#endif

#define sc0(n) sc(n, 0, 0, 0, 0, 0)
#define sc1(n, a) sc(n, (long)(a), 0, 0, 0, 0)
#define sc2(n, a, b) sc(n, (long)(a), (long)(b), 0, 0, 0)
#define sc3(n, a, b, c) sc(n, (long)(a), (long)(b), (long)(c), 0, 0)
#define sc4(n, a, b, c, d) sc(n, (long)(a), (long)(b), (long)(c), (long)(d), 0)
#define sc5(n, a, b, c, d, e) \
    sc(n, (long)(a), (long)(b), (long)(c), (long)(d), (long)(e))

/* The few constants and structures of the kernel's interface used here
 * (x86_64). */
#define E_INTR 4
#define O_RDONLY_ 0
#define O_RDWR_ 2
#define O_CREAT_ 0100
#define O_APPEND_ 02000
#define O_WRONLY_ 1
#define O_CLOEXEC_ 02000000
#define O_PATH_ 010000000
#define AT_FDCWD_ (-100)
#define F_GETFD_ 1
#define F_DUPFD_ 0
#define LOCK_EX_ 2
#define AF_UNIX_ 1
#define SOCK_STREAM_ 1
#define SOCK_CLOEXEC_ 02000000
#define MSG_NOSIGNAL_ 0x4000
#define SOL_SOCKET_ 1
#define SCM_RIGHTS_ 1
#define SIG_BLOCK_ 0
#define SIG_UNBLOCK_ 1
#define SIG_SETMASK_ 2
#define SA_RESTART_ 0x10000000UL
#define SA_RESTORER_ 0x04000000UL
#define SIG_DFL_ ((void *)0)
#define SIG_IGN_ ((void *)1)
#define SIGHUP_ 1
#define SIGKILL_ 9
#define SIGCHLD_ 17
#define SIGSTOP_ 19
#define SIGRTMIN_ 34  /* the C library keeps 32 and 33 for itself */
#define NSIG_ 64
#define PRIO_PROCESS_ 0
#define STATX_BASIC_ 0x7ffU

typedef uint64_t sigset;  /* the kernel's sigset_t: one bit a signal */
#define SIGBIT(sig) (1ULL << ((sig) - 1))

struct ksigaction {
    void *handler;
    unsigned long flags;
    void (*restorer)(void);
    sigset mask;
};

struct iov {
    void *base;
    size_t len;
};

struct msg {
    void *name;
    uint32_t namelen;
    struct iov *iov;
    size_t iovlen;
    void *control;
    size_t controllen;
    int flags;
};

struct cmsg {
    size_t len;
    int level;
    int type;
};

struct sun {
    uint16_t family;
    char path[108];
};

struct kstatx {
    uint32_t mask, blksize;
    uint64_t attributes;
    uint32_t nlink, uid, gid;
    uint16_t mode, pad0;
    uint64_t ino, size, blocks, attributes_mask;
    struct {
        int64_t sec;
        uint32_t nsec;
        int32_t pad;
    } atime, btime, ctime, mtime;
    uint64_t rest[16];  /* the kernel writes 256 bytes in all */
};
_Static_assert(sizeof(struct kstatx) == 256, "struct statx is 256 bytes");
_Static_assert(sizeof(struct ksigaction) == 32, "struct sigaction, x86_64");
_Static_assert(sizeof(struct msg) == 56, "struct user_msghdr, x86_64");
_Static_assert(sizeof(struct cmsg) == 16, "struct cmsghdr, x86_64");
_Static_assert(sizeof(struct sun) == 110, "struct sockaddr_un");

/* returns from a signal handler (the kernel wants it given) */
void toolfront_restorer(void);
__asm__(".text\n"
        ".type toolfront_restorer,@function\n"
        "toolfront_restorer:\n"
        "    mov $15, %rax\n"  /* rt_sigreturn */
        "    syscall\n");
#define RESTORER toolfront_restorer
#define RESTORER_FLAG SA_RESTORER_

static int set_action(int sig, void *handler)
{
    struct ksigaction sa = {handler, RESTORER_FLAG, RESTORER, ~0ULL};
    if (handler == SIG_DFL_ || handler == SIG_IGN_)
        sa.mask = 0;
    else
        sa.flags |= SA_RESTART_;
    return (int)sc4(__NR_rt_sigaction, sig, &sa, 0, sizeof(sigset));
}

static int is_ignored(int sig)
{
    struct ksigaction old;
    return sc4(__NR_rt_sigaction, sig, 0, &old, sizeof(sigset)) == 0 &&
           old.handler == SIG_IGN_;
}

static void set_mask(int how, sigset set, sigset *old)
{
    sc4(__NR_rt_sigprocmask, how, &set, old, sizeof(sigset));
}

static void my_exit(int status)
{
    for (;;)
        sc1(__NR_exit_group, status);
}

static int my_open(const char *path, int flags, int mode)
{
    return (int)sc4(__NR_openat, AT_FDCWD_, path, flags | O_CLOEXEC_, mode);
}

static void my_close(int fd)
{
    sc1(__NR_close, fd);
}

/* ---- strings -------------------------------------------------------------- */

static size_t slen(const char *s)
{
    size_t n = 0;
    while (s[n])
        n++;
    return n;
}

static int starts(const char *s, const char *prefix)
{
    while (*prefix)
        if (*s++ != *prefix++)
            return 0;
    return 1;
}

static int same(const char *a, const char *b)
{
    return starts(a, b) && slen(a) == slen(b);
}

static void copy(void *to, const void *from, size_t n)
{
    char *t = to;
    const char *f = from;
    while (n--)
        *t++ = *f++;
}

/* p + text, within end; returns the new end of the text */
static char *add(char *p, char *end, const char *text)
{
    while (*text && p < end - 1)
        *p++ = *text++;
    *p = 0;
    return p;
}

static char *add_num(char *p, char *end, uint64_t v, int base, int width)
{
    char digits[24];
    int n = 0;
    do {
        digits[n++] = "0123456789abcdef"[v % (unsigned)base];
        v /= (unsigned)base;
    } while (v || n < width);
    while (n && p < end - 1)
        *p++ = digits[--n];
    *p = 0;
    return p;
}

static void say(const char *text)
{
    sc3(__NR_write, 2, text, slen(text));
}

static char **g_env;

static const char *get_env(const char *name)
{
    size_t n = slen(name);
    for (char **e = g_env; *e; e++)
        if (starts(*e, name) && (*e)[n] == '=')
            return *e + n + 1;
    return 0;
}

/* ---- the call ----------------------------------------------------------------- */

static char **g_argv;
static const char *g_name;
static volatile int g_worker;
static int g_stdio;  /* bit n: descriptor n was open at the start */
static int g_held;   /* /dev/null holds the closed ones' numbers */
static sigset g_forwarded, g_orig_mask;

/* Signals that end or concern the tool: they go on to the worker.  (Stop
 * signals and those a fault raises stay with this process.) */
static const int FORWARD[] = {1, 2, 3, 10, 12, 13, 14, 15, 16, 23, 24, 25,
                              26, 27, 28, 29, 30};

static void forward(int sig)
{
    int w = g_worker;
    if (w > 0)
        sc2(__NR_kill, w, sig);
}

/* The tool as its own Python program, the process the shell header's
 * `python3 -S SCRIPT ARGS` was: run through a link to python3 named after
 * the tool (command name), with this argv (command line). */
static void direct(void)
{
    for (int sig = 1; sig <= NSIG_; sig++)
        if (g_forwarded & SIGBIT(sig))
            set_action(sig, SIG_DFL_);
    set_mask(SIG_SETMASK_, g_orig_mask, 0);
    for (int fd = 0; fd < 3 && g_held; fd++)
        if (!(g_stdio & 1 << fd))
            my_close(fd);
    char path[256];
    char *end = path + sizeof path;
    add(add(add(path, end, TOOLS "/py/"), end, g_name), end, "");
    sc3(__NR_execve, path, g_argv, g_env);
    sc3(__NR_execve, PYTHON, g_argv, g_env);
    say("toolfront: cannot run " PYTHON "\n");
    my_exit(127);
}

static int stale(void)
{
    struct kstatx st;
    char key[96], *end = key + sizeof key, *p = key;
    if (sc5(__NR_statx, AT_FDCWD_, SOURCE, 0, STATX_BASIC_, &st) != 0)
        return 0;
    p = add_num(p, end, st.size, 10, 1);
    p = add(p, end, ":");
    p = add_num(p, end, (uint64_t)st.mtime.sec, 10, 1);
    p = add(p, end, ":");
    add_num(p, end, st.ino, 10, 1);
    return !same(key, SOURCE_KEY);
}

/* Environment that shapes a Python process from its start (dynamic
 * loader, Python's own settings, locale): calls that differ in it go to
 * different servers.  Order-independent. */
static uint64_t env_signature(void)
{
    static const char *const prefixes[] = {"LD_", "PYTHON", "LC_", "LANG=",
                                           "LANGUAGE=", "GLIBC_", "MALLOC_"};
    uint64_t sum = 0x5eed;
    for (char **e = g_env; *e; e++) {
        int hit = 0;
        for (size_t i = 0; i < sizeof prefixes / sizeof *prefixes; i++)
            if (starts(*e, prefixes[i]))
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
    struct sun a = {AF_UNIX_, {0}};
    add(a.path, a.path + sizeof a.path, path);
    int s = (int)sc3(__NR_socket, AF_UNIX_, SOCK_STREAM_ | SOCK_CLOEXEC_, 0);
    if (s < 0)
        return -1;
    if (sc3(__NR_connect, s, &a, sizeof a) == 0)
        return s;
    my_close(s);
    return -1;
}

/* Starts the server of this environment, detached (its own session, no
 * descriptor of the caller but the ready pipe), and waits until it
 * listens.  Returns 0 when it said so. */
static int spawn_server(const char *path)
{
    int p[2];
    if (sc2(__NR_pipe2, p, O_CLOEXEC_) != 0)
        return -1;
    long pid = sc5(__NR_clone, SIGCHLD_, 0, 0, 0, 0);
    if (pid < 0) {
        my_close(p[0]);
        my_close(p[1]);
        return -1;
    }
    if (pid == 0) {
        sc0(__NR_setsid);
        if (sc5(__NR_clone, SIGCHLD_, 0, 0, 0, 0) != 0)
            my_exit(0);
        for (int sig = 1; sig <= NSIG_; sig++)
            if (sig != SIGKILL_ && sig != SIGSTOP_)
                set_action(sig, SIG_DFL_);
        int ready = (int)sc3(__NR_fcntl, p[1], F_DUPFD_, 10);
        int null = my_open("/dev/null", O_RDWR_, 0);
        int log = my_open(TOOLS "/server.log",
                          O_WRONLY_ | O_APPEND_ | O_CREAT_, 0644);
        if (ready < 0 || null < 0)
            my_exit(127);
        sc3(__NR_dup3, null, 0, 0);
        sc3(__NR_dup3, null, 1, 0);
        sc3(__NR_dup3, log >= 0 ? log : null, 2, 0);
        sc3(__NR_dup3, ready, 3, 0);
        if (sc3(__NR_close_range, 4, ~0U, 0) != 0)
            for (int fd = 4; fd < 4096; fd++)
                my_close(fd);
        if (sc1(__NR_chdir, "/") != 0)
            my_exit(127);
        sc1(__NR_umask, 022);
        set_mask(SIG_SETMASK_, 0, 0);
        char *argv[] = {PYTHON, "-S", SERVER, (char *)path, "3", 0};
        sc3(__NR_execve, PYTHON, argv, g_env);
        my_exit(127);
    }
    my_close(p[1]);
    while (sc4(__NR_wait4, pid, 0, 0, 0) == -E_INTR)
        ;
    char c = 0;
    long n;
    while ((n = sc3(__NR_read, p[0], &c, 1)) == -E_INTR)
        ;
    my_close(p[0]);
    return n == 1 && c == 'R' ? 0 : -1;
}

static int connect_server(void)
{
    char path[108], *end = path + sizeof path;
    add_num(add(path, end, TOOLS "/srv-"), end, env_signature(), 16, 16);
    add(path + slen(path), end, ".sock");
    int s = try_connect(path);
    if (s >= 0)
        return s;
    int lock = my_open(TOOLS "/server.lock", O_RDWR_ | O_CREAT_, 0600);
    if (lock < 0)
        return -1;
    long r;
    while ((r = sc2(__NR_flock, lock, LOCK_EX_)) == -E_INTR)
        ;
    if (r != 0) {
        my_close(lock);
        return -1;
    }
    s = try_connect(path);
    if (s < 0) {
        sc3(__NR_unlinkat, AT_FDCWD_, path, 0);
        if (spawn_server(path) == 0)
            s = try_connect(path);
    }
    my_close(lock);
    return s;
}

static uint64_t signal_bits(int (*test)(int))
{
    uint64_t bits = 0;
    for (int sig = 1; sig <= NSIG_; sig++)
        if (test(sig))
            bits |= SIGBIT(sig);
    return bits;
}

static int is_blocked(int sig)
{
    return (g_orig_mask & SIGBIT(sig)) != 0;
}

/* Room for the request: the kernel's limit on arguments and environment
 * (ARG_MAX) is 2 MiB by default; the data segment holds it. */
static char g_buf[1 << 21];

/* The request: magic, then eight u64 (length of what follows, argument
 * count, environment count, umask, nice value, ignored signals, blocked
 * signals, which descriptors follow), then the arguments (SCRIPT first)
 * and the environment, each NUL-terminated.  Descriptors: working
 * directory, then standard input, output, error (those open). */
static int send_request(int s, int argc, char **argv)
{
    uint64_t envc = 0;
    for (char **e = g_env; *e; e++)
        envc++;
    int fds[4], nfd = 0;
    uint64_t mask = 0;
    int cwd = my_open(".", O_PATH_, 0);
    if (cwd >= 0) {
        fds[nfd++] = cwd;
        mask |= 8;
    }
    for (int fd = 0; fd < 3; fd++)
        if (g_stdio & 1 << fd) {
            fds[nfd++] = fd;
            mask |= 1ULL << fd;
        }
    long um = sc1(__NR_umask, 0);
    sc1(__NR_umask, um);
    long prio = sc2(__NR_getpriority, PRIO_PROCESS_, 0);  /* 20 - nice */
    int64_t nice = prio < 0 ? 0 : 20 - prio;
    uint64_t head[8] = {0, (uint64_t)argc, envc, (uint64_t)um,
                        (uint64_t)nice, signal_bits(is_ignored),
                        signal_bits(is_blocked), mask};
    size_t len = 4 + sizeof head;
    copy(g_buf, MAGIC, 4);
    for (int i = 0; i < argc + (int)envc; i++) {
        const char *text = i < argc ? argv[i] : g_env[i - argc];
        size_t n = slen(text) + 1;
        if (len + n > sizeof g_buf) {
            if (cwd >= 0)
                my_close(cwd);
            return -1;
        }
        copy(g_buf + len, text, n);
        len += n;
    }
    head[0] = len - 4 - sizeof head;
    copy(g_buf + 4, head, sizeof head);

    union {
        char buf[sizeof(struct cmsg) + sizeof fds];
        struct cmsg align;
    } ctl;
    struct iov iov = {g_buf, len};
    struct msg m = {0, 0, &iov, 1, &ctl, sizeof ctl, 0};
    ctl.align.len = sizeof(struct cmsg) + (size_t)nfd * sizeof(int);
    if (nfd < 4)  /* the space of the descriptors sent, 8-byte aligned */
        m.controllen = sizeof(struct cmsg) + ((size_t)nfd * 4 + 7) / 8 * 8;
    ctl.align.level = SOL_SOCKET_;
    ctl.align.type = SCM_RIGHTS_;
    copy(ctl.buf + sizeof(struct cmsg), fds, (size_t)nfd * sizeof(int));
    long n;
    while ((n = sc3(__NR_sendmsg, s, &m, MSG_NOSIGNAL_)) == -E_INTR)
        ;
    size_t done = n < 0 ? 0 : (size_t)n;
    while (n >= 0 && done < len) {
        n = sc4(__NR_sendto, s, g_buf + done, len - done, MSG_NOSIGNAL_);
        if (n == -E_INTR)
            n = 0;
        done += n < 0 ? 0 : (size_t)n;
    }
    if (cwd >= 0)
        my_close(cwd);
    return n < 0 ? -1 : 0;
}

/* One 4-byte answer; 0 when it came, -1 on end of stream or error. */
static int read_int(int s, int32_t *v)
{
    size_t got = 0;
    char *p = (char *)v;
    while (got < sizeof *v) {
        long n = sc3(__NR_read, s, p + got, sizeof *v - got);
        if (n == -E_INTR)
            continue;
        if (n <= 0)
            return -1;
        got += (size_t)n;
    }
    return 0;
}

/* The tool's own name: argv as the header would have made it. */
#define MAX_ARGS (1 << 18)  /* ARG_MAX (2 MiB) holds no more pointers */
static char *g_named_argv[MAX_ARGS + 4];
static char g_script[256];

static int named_call(const char *execfn, int *argc, char ***argv)
{
    const char *base = execfn;
    for (const char *p = execfn; *p; p++)
        if (*p == '/')
            base = p + 1;
    if (starts(execfn, TOOLS "/") || !*base || *base == '.' ||
            *argc > MAX_ARGS)
        return 0;
    char *end = g_script + sizeof g_script;
    add(add(g_script, end, "/simdevice/bin/"), end, base);
    char **in = *argv;
    g_named_argv[0] = PYTHON;
    g_named_argv[1] = "-S";
    g_named_argv[2] = g_script;
    int n = 3;
    for (int i = 1; i < *argc; i++)
        g_named_argv[n++] = in[i];
    g_named_argv[n] = 0;
    *argc = n;
    *argv = g_named_argv;
    return 1;
}

static int toolfront_main(int argc, char **argv, char **envp,
                          const char *execfn)
{
    if (execfn)
        named_call(execfn, &argc, &argv);
    g_argv = argv;
    g_env = envp;
    for (int fd = 0; fd < 3; fd++)
        if (sc2(__NR_fcntl, fd, F_GETFD_) >= 0)
            g_stdio |= 1 << fd;
    set_mask(SIG_BLOCK_, 0, &g_orig_mask);
    /* argv as Python had it: python3 -S SCRIPT ARGS... */
    if (argc < 3 || !same(argv[1], "-S")) {
        say("toolfront: usage: toolfront -S SCRIPT [ARGS...]\n");
        return 2;
    }
    g_name = argv[2];
    for (const char *p = argv[2]; *p; p++)
        if (*p == '/')
            g_name = p + 1;
    const char *off = get_env("SIMDEVICE_TOOLSERVER");
    if ((off && same(off, "0")) || get_env("SIMDEVICE_RUN"))
        direct();
    if (stale()) {
        /* built from an older source: the header builds it again */
        sc3(__NR_unlinkat, AT_FDCWD_, TOOLS "/front", 0);
        sc3(__NR_execve, argv[2], argv + 2, envp);
        direct();
    }
    if (same(g_name, "lua") && argc > 3)
        sc3(__NR_execve, argv[3], argv + 3, envp);
    /* (not runnable: Python reports it as it does) */

    /* Standard descriptors the caller left closed stay so for the tool;
     * until the call is handed over, /dev/null holds their numbers. */
    for (int fd = 0; fd < 3; fd++)
        if (!(g_stdio & 1 << fd))
            sc3(__NR_openat, AT_FDCWD_, "/dev/null", O_RDWR_ | O_CLOEXEC_);
    g_held = 1;

    /* Signals wait until the worker is known, then go on to it. */
    for (size_t i = 0; i < sizeof FORWARD / sizeof *FORWARD; i++)
        if (!is_ignored(FORWARD[i]))
            g_forwarded |= SIGBIT(FORWARD[i]);
    for (int sig = SIGRTMIN_; sig <= NSIG_; sig++)
        if (!is_ignored(sig))
            g_forwarded |= SIGBIT(sig);
    set_mask(SIG_SETMASK_, g_orig_mask | g_forwarded, 0);
    for (int sig = 1; sig <= NSIG_; sig++)
        if (g_forwarded & SIGBIT(sig))
            set_action(sig, (void *)forward);

    int s = connect_server();
    if (s < 0)
        direct();
    int32_t worker, status;
    if (send_request(s, argc - 2, argv + 2) != 0 ||
            read_int(s, &worker) != 0 || worker < 0) {
        my_close(s);
        direct();
    }
    /* 0: the server answered the call itself (no worker to signal); its
     * status follows at once */
    g_worker = worker;
    set_mask(SIG_SETMASK_, g_orig_mask, 0);
    if (read_int(s, &status) != 0)
        my_exit(1);  /* the server went (the device is going down) */
    set_mask(SIG_BLOCK_, g_forwarded, 0);
    int sig = status & 0x7f;
    if (sig == 0)
        my_exit((status >> 8) & 0xff);
    if (sig != 0x7f) {  /* ended by a signal: so does this program */
        set_action(sig, SIG_DFL_);
        set_mask(SIG_UNBLOCK_, SIGBIT(sig), 0);
        sc2(__NR_kill, sc0(__NR_getpid), sig);
        my_exit(128 + sig);
    }
    my_exit(1);
    return 1;
}

/* The compiler may call these for copies and clearing. */
void *memcpy(void *to, const void *from, size_t n)
{
    char *t = to;
    const char *f = from;
    while (n--)
        *t++ = *f++;
    return to;
}

void *memset(void *to, int c, size_t n)
{
    char *t = to;
    while (n--)
        *t++ = (char)c;
    return to;
}

#define AT_NULL_ 0
#define AT_EXECFN_ 31

__attribute__((used)) void toolfront_start(long *sp)
{
    int argc = (int)sp[0];
    char **argv = (char **)(sp + 1);
    char **envp = argv + argc + 1;
    char **e = envp;
    while (*e)
        e++;
    /* the auxiliary vector: the path this program was executed by */
    const char *execfn = 0;
    for (unsigned long *aux = (unsigned long *)(e + 1); aux[0] != AT_NULL_;
         aux += 2)
        if (aux[0] == AT_EXECFN_)
            execfn = (const char *)aux[1];
    my_exit(toolfront_main(argc, argv, envp, execfn));
}

__asm__(".text\n"
        ".global _start\n"
        "_start:\n"
        "    xor %rbp, %rbp\n"
        "    mov %rsp, %rdi\n"
        "    and $-16, %rsp\n"
        "    call toolfront_start\n"
        "    hlt\n");
