/* Preload library of the simulated platform: klogctl() serves the kernel log from the file named by
 * HADRIX_FAKE_KLOG, read again on every call so a test can append lines while the daemon runs.
 * HADRIX_FAKE_KLOG_SIZE, when set, is the answer to the ring-buffer size query (-1: the query
 * fails). With HADRIX_FAKE_KLOG_ACCESS=kernel the real kernel decides whether the caller may read
 * a log at all: each call first asks the real klogctl() for the buffer size, and its refusal is
 * the answer (EPERM for a process without CAP_SYSLOG while kernel.dmesg_restrict is 1). Without
 * HADRIX_FAKE_KLOG every call goes to the real klogctl(). */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

enum {
    ACTION_CLOSE = 0,
    ACTION_OPEN = 1,
    ACTION_READ_ALL = 3,
    ACTION_READ_CLEAR = 4,
    ACTION_CLEAR = 5,
    ACTION_CONSOLE_OFF = 6,
    ACTION_CONSOLE_ON = 7,
    ACTION_CONSOLE_LEVEL = 8,
    ACTION_SIZE_UNREAD = 9,
    ACTION_SIZE_BUFFER = 10,
};

int klogctl(int type, char *bufp, int len);

static int real_klogctl(int type, char *bufp, int len)
{
    int (*real)(int, char *, int) = (int (*)(int, char *, int))dlsym(RTLD_NEXT, "klogctl");
    if (!real) {
        errno = ENOSYS;
        return -1;
    }
    return real(type, bufp, len);
}

static int clamp_to_int(off_t value)
{
    return value > INT_MAX ? INT_MAX : (int)value;
}

static int buffer_size(const char *path)
{
    const char *fixed = getenv("HADRIX_FAKE_KLOG_SIZE");
    if (fixed && *fixed) {
        char *end = NULL;
        errno = 0;
        long value = strtol(fixed, &end, 10);
        if (*end || errno || value < 0 || value > INT_MAX) {
            errno = EPERM;
            return -1;
        }
        return (int)value;
    }
    struct stat st;
    if (stat(path, &st) != 0)
        return 0;
    return clamp_to_int(st.st_size);
}

/* The newest len bytes of the file, as the kernel hands out the newest part of its ring. */
static int read_newest(const char *path, char *bufp, int len)
{
    if (!bufp || len < 0) {
        errno = EINVAL;
        return -1;
    }
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0; /* no file yet: an empty log */
    struct stat st;
    if (fstat(fd, &st) != 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    off_t start = st.st_size > len ? st.st_size - len : 0;
    size_t want = (size_t)(st.st_size - start);
    size_t got = 0;
    while (got < want) {
        ssize_t n = pread(fd, bufp + got, want - got, start + (off_t)got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += (size_t)n;
    }
    close(fd);
    return (int)got;
}

/* Whether the kernel lets this process read its own log (the size query is restricted exactly
 * as a read is); errno tells why not. */
static int kernel_grants_access(void)
{
    const char *access = getenv("HADRIX_FAKE_KLOG_ACCESS");
    if (!access || strcmp(access, "kernel") != 0)
        return 1;
    return real_klogctl(ACTION_SIZE_BUFFER, NULL, 0) >= 0;
}

int klogctl(int type, char *bufp, int len)
{
    const char *path = getenv("HADRIX_FAKE_KLOG");
    if (!path || !*path)
        return real_klogctl(type, bufp, len);
    if (!kernel_grants_access())
        return -1;

    switch (type) {
    case ACTION_SIZE_BUFFER:
        return buffer_size(path);
    case ACTION_READ_ALL:
    case ACTION_READ_CLEAR: /* the clearing part is not emulated */
        return read_newest(path, bufp, len);
    case ACTION_CLOSE:
    case ACTION_OPEN:
    case ACTION_CLEAR:
    case ACTION_CONSOLE_OFF:
    case ACTION_CONSOLE_ON:
    case ACTION_CONSOLE_LEVEL:
    case ACTION_SIZE_UNREAD:
        return 0;
    default:
        errno = EINVAL;
        return -1;
    }
}
