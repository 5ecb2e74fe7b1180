#include "common/ks_platform.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace {

int libc_open(const char* path, int flags, mode_t mode) {
    return ::open(path, flags, mode);
}
int libc_ioctl(int fd, unsigned long request, void* arg) {
    return ::ioctl(fd, request, arg);
}
int libc_gettimeofday(struct timeval* tv, void*) {
    return ::gettimeofday(tv, nullptr);
}
// Process-private futexes: the words live in the library's own memory.
int libc_futex_wait(const uint32_t* word, uint32_t expected, const struct timespec* timeout) {
    return static_cast<int>(
        ::syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, expected, timeout, nullptr, 0));
}
int libc_futex_wake(const uint32_t* word, int count) {
    return static_cast<int>(
        ::syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0));
}

const ks_platform_ops kLibcOps = {
    libc_open,       ::close,   libc_ioctl,      ::mmap,          ::munmap, ::select,
    ::stat,          ::scandir, ::realpath,      ::usleep,        ::sleep,  libc_gettimeofday,
    ::clock_gettime, ::flock,   libc_futex_wait, libc_futex_wake,
};

// Read by every thread that touches a device; acquire pairs with the release
// of an installation so a new table is seen complete.
std::atomic<const ks_platform_ops*> g_ops{&kLibcOps};

bool is_complete(const ks_platform_ops& o) {
    return o.open && o.close && o.ioctl && o.mmap && o.munmap && o.select && o.stat && o.scandir &&
           o.realpath && o.usleep && o.sleep && o.gettimeofday && o.clock_gettime && o.flock &&
           o.futex_wait && o.futex_wake;
}

inline const ks_platform_ops& ops() {
    return *g_ops.load(std::memory_order_acquire);
}

}  // namespace

extern "C" {

const ks_platform_ops* ks_platform_default_ops(void) {
    return &kLibcOps;
}

int ks_platform_install(const ks_platform_ops* table) {
    if (table == nullptr || !is_complete(*table)) return -1;
    g_ops.store(table, std::memory_order_release);
    return 0;
}

void ks_platform_reset(void) {
    g_ops.store(&kLibcOps, std::memory_order_release);
}

const ks_platform_ops* ks_platform_ops_current(void) {
    return &ops();
}

int ks_sys_open(const char* path, int flags, mode_t mode) {
    return ops().open(path, flags, mode);
}
int ks_sys_close(int fd) {
    return ops().close(fd);
}
int ks_sys_ioctl(int fd, unsigned long request, void* arg) {
    return ops().ioctl(fd, request, arg);
}
void* ks_sys_mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) {
    return ops().mmap(addr, length, prot, flags, fd, offset);
}
int ks_sys_munmap(void* addr, size_t length) {
    return ops().munmap(addr, length);
}
int ks_sys_select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                  struct timeval* timeout) {
    return ops().select(nfds, readfds, writefds, exceptfds, timeout);
}
int ks_sys_stat(const char* path, struct stat* st) {
    return ops().stat(path, st);
}
int ks_sys_scandir(const char* dir, struct dirent*** namelist, ks_scandir_filter_fn filter,
                   ks_scandir_compar_fn compar) {
    return ops().scandir(dir, namelist, filter, compar);
}
char* ks_sys_realpath(const char* path, char* resolved) {
    return ops().realpath(path, resolved);
}
int ks_sys_usleep(useconds_t usec) {
    return ops().usleep(usec);
}
unsigned int ks_sys_sleep(unsigned int seconds) {
    return ops().sleep(seconds);
}
int ks_sys_gettimeofday(struct timeval* tv) {
    return ops().gettimeofday(tv, nullptr);
}
int ks_sys_clock_gettime(clockid_t clock, struct timespec* ts) {
    return ops().clock_gettime(clock, ts);
}
int ks_sys_flock(int fd, int operation) {
    return ops().flock(fd, operation);
}
int ks_sys_futex_wait(const uint32_t* word, uint32_t expected, const struct timespec* timeout) {
    return ops().futex_wait(word, expected, timeout);
}
int ks_sys_futex_wake(const uint32_t* word, int count) {
    return ops().futex_wake(word, count);
}

}  // extern "C"
