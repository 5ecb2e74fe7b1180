/* Checks, from a program that knows nothing of the simulator, that the
 * simulated capture node behaves like a video node through the C library:
 * the /dev listing and udev links, the character-device identity, and the
 * readiness that poll, ppoll, select, pselect and epoll report (POLLERR
 * while not streaming, readable when a buffer is filled, never writable).
 * Prints one "ok NAME" or "FAIL NAME: why" line per check; the exit status
 * is the number of failures. Every wait is bounded. */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#define WAIT_MS 5000 /* generous: a frame is due every 33 ms of camera time */
#define BUFFERS 4

static int failures;

static void check(int ok, const char* name, const char* why) {
    if (ok)
        printf("ok %s\n", name);
    else {
        printf("FAIL %s: %s (errno %d)\n", name, why, errno);
        ++failures;
    }
}

static int listed(const char* dir, const char* name) {
    DIR* d = opendir(dir);
    if (d == NULL) return 0;
    int found = 0;
    struct dirent* e;
    while ((e = readdir(d)) != NULL) found |= strcmp(e->d_name, name) == 0;
    closedir(d);
    return found;
}

static void namespace_checks(void) {
    check(listed("/dev", "video0") && listed("/dev", "video1") && listed("/dev", "v4l"),
          "dev-listing", "/dev does not list video0, video1 and v4l");
    struct dirent** names = NULL;
    const int n = scandir("/dev/v4l/by-id", &names, NULL, alphasort);
    char link[512] = "";
    for (int i = 0; i < n; ++i) {
        if (strstr(names[i]->d_name, "-video-index0") != NULL)
            snprintf(link, sizeof(link), "/dev/v4l/by-id/%s", names[i]->d_name);
        free(names[i]);
    }
    free(names);
    check(n == 4 && link[0] != '\0', "by-id-listing", "expected . .. and two links");
    char target[64] = "";
    const ssize_t len = readlink(link, target, sizeof(target) - 1);
    if (len > 0) target[len] = '\0';
    check(strcmp(target, "../../video0") == 0, "readlink", target);
    struct stat st;
    check(lstat(link, &st) == 0 && S_ISLNK(st.st_mode), "lstat-link", "not a link");
    check(stat(link, &st) == 0 && S_ISCHR(st.st_mode) && major(st.st_rdev) == 81 &&
              minor(st.st_rdev) == 0,
          "stat-node", "not character device 81:0");
    char real[256] = "";
    check(realpath(link, real) != NULL && strcmp(real, "/dev/video0") == 0, "realpath", real);
    check(access("/dev/video0", R_OK | W_OK) == 0, "access", "node not read-write");
    check(stat("/dev/video9", &st) != 0 && errno == ENOENT, "missing-node", "video9 exists");
}

/* Waits for the node with one of the five interfaces; returns the events seen
 * in poll terms (0 on a time-out). */
static short wait_node(int fd, const char* how, short events) {
    if (strcmp(how, "poll") == 0 || strcmp(how, "ppoll") == 0) {
        struct pollfd p = {fd, events, 0};
        struct timespec ts = {WAIT_MS / 1000, 0};
        const int r =
            how[0] == 'p' && how[1] == 'o' ? poll(&p, 1, WAIT_MS) : ppoll(&p, 1, &ts, NULL);
        return r > 0 ? p.revents : 0;
    }
    if (strcmp(how, "select") == 0 || strcmp(how, "pselect") == 0) {
        fd_set r, w;
        FD_ZERO(&r);
        FD_ZERO(&w);
        if (events & POLLIN) FD_SET(fd, &r);
        if (events & POLLOUT) FD_SET(fd, &w);
        struct timeval tv = {WAIT_MS / 1000, 0};
        struct timespec ts = {WAIT_MS / 1000, 0};
        const int n = how[0] == 's' ? select(fd + 1, &r, &w, NULL, &tv)
                                    : pselect(fd + 1, &r, &w, NULL, &ts, NULL);
        if (n <= 0) return 0;
        return (short)((FD_ISSET(fd, &r) ? POLLIN : 0) | (FD_ISSET(fd, &w) ? POLLOUT : 0));
    }
    const int ep = epoll_create1(EPOLL_CLOEXEC);
    struct epoll_event ev = {0};
    ev.events = (uint32_t)events;
    ev.data.u64 = 42;
    short out = 0;
    if (ep >= 0 && epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) == 0) {
        struct epoll_event got = {0};
        if (epoll_wait(ep, &got, 1, WAIT_MS) == 1 && got.data.u64 == 42)
            out = (short)(((got.events & EPOLLIN) ? POLLIN : 0) |
                          ((got.events & EPOLLOUT) ? POLLOUT : 0) |
                          ((got.events & EPOLLERR) ? POLLERR : 0));
    }
    if (ep >= 0) close(ep);
    return out;
}

static const char* const kWaiters[] = {"poll", "ppoll", "select", "pselect", "epoll"};

static void stream_checks(void) {
    const int fd = open("/dev/video0", O_RDWR | O_NONBLOCK);
    check(fd >= 0, "open", "cannot open /dev/video0");
    if (fd < 0) return;
    struct stat st;
    check(fstat(fd, &st) == 0 && S_ISCHR(st.st_mode) && st.st_rdev == makedev(81, 0), "fstat",
          "descriptor is not character device 81:0");
    check((fcntl(fd, F_GETFL) & O_NONBLOCK) != 0, "fcntl", "O_NONBLOCK lost");
    char byte;
    check(read(fd, &byte, 1) < 0 && errno == EINVAL, "read", "read() is not refused");

    /* Not streaming: an error condition, reported at once. */
    check(wait_node(fd, "poll", POLLIN) == POLLERR, "poll-idle", "expected POLLERR");
    check(wait_node(fd, "epoll", EPOLLIN) == POLLERR, "epoll-idle", "expected EPOLLERR");

    struct v4l2_format fmt;
    memset(&fmt, 0, sizeof(fmt));
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    check(ioctl(fd, VIDIOC_G_FMT, &fmt) == 0, "g-fmt", "VIDIOC_G_FMT");
    struct v4l2_requestbuffers req;
    memset(&req, 0, sizeof(req));
    req.count = BUFFERS;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_MMAP;
    check(ioctl(fd, VIDIOC_REQBUFS, &req) == 0 && req.count == BUFFERS, "reqbufs", "REQBUFS");
    void* maps[BUFFERS] = {0};
    size_t lens[BUFFERS] = {0};
    for (unsigned i = 0; i < req.count && i < BUFFERS; ++i) {
        struct v4l2_buffer b;
        memset(&b, 0, sizeof(b));
        b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b.memory = V4L2_MEMORY_MMAP;
        b.index = i;
        if (ioctl(fd, VIDIOC_QUERYBUF, &b) != 0) continue;
        lens[i] = b.length;
        maps[i] = mmap(NULL, b.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, b.m.offset);
        if (maps[i] == MAP_FAILED) maps[i] = NULL;
        ioctl(fd, VIDIOC_QBUF, &b);
    }
    check(maps[0] != NULL && maps[BUFFERS - 1] != NULL, "mmap", "buffers not mapped");
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    check(ioctl(fd, VIDIOC_STREAMON, &type) == 0, "streamon", "STREAMON");

    for (unsigned k = 0; k < sizeof(kWaiters) / sizeof(kWaiters[0]); ++k) {
        /* Asked for both directions, a capture node only ever gets readable. */
        const short got = wait_node(fd, kWaiters[k], POLLIN | POLLOUT);
        struct v4l2_buffer b;
        memset(&b, 0, sizeof(b));
        b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b.memory = V4L2_MEMORY_MMAP;
        const int dq = ioctl(fd, VIDIOC_DQBUF, &b);
        const int full = dq == 0 && b.bytesused == fmt.fmt.pix.sizeimage && b.index < BUFFERS &&
                         maps[b.index] != NULL;
        char name[32];
        snprintf(name, sizeof(name), "%s-frame", kWaiters[k]);
        check(got == POLLIN && full, name, "not readable-only with a full buffer ready");
        if (dq == 0) ioctl(fd, VIDIOC_QBUF, &b);
    }

    check(ioctl(fd, VIDIOC_STREAMOFF, &type) == 0, "streamoff", "STREAMOFF");
    check(wait_node(fd, "select", POLLIN) == POLLIN, "select-stopped",
          "stopped node not reported at once");
    check(wait_node(fd, "epoll", EPOLLIN) == POLLERR, "epoll-stopped", "expected EPOLLERR");
    for (unsigned i = 0; i < BUFFERS; ++i)
        if (maps[i] != NULL) munmap(maps[i], lens[i]);
    check(close(fd) == 0, "close", "close failed");
}

int main(void) {
    namespace_checks();
    stream_checks();
    return failures;
}
