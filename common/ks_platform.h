/*
 * The platform seam: every access of the library to a device node or to the
 * clock goes through this table of operations. By default it holds the C
 * library's own functions, so a production process makes exactly the system
 * calls it would make without the seam. A replacement table (the virtual
 * camera's backend, for instance) can be installed at run time and the
 * default restored. Ordinary files are not routed through the seam.
 */
#ifndef KS_PLATFORM_H
#define KS_PLATFORM_H

#include <dirent.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include "common/ks_export.h"

KS_BEGIN_DECLS

typedef int (*ks_scandir_filter_fn)(const struct dirent*);
typedef int (*ks_scandir_compar_fn)(const struct dirent**, const struct dirent**);

typedef struct ks_platform_ops {
    int (*open)(const char* path, int flags, mode_t mode);
    int (*close)(int fd);
    int (*ioctl)(int fd, unsigned long request, void* arg);
    void* (*mmap)(void* addr, size_t length, int prot, int flags, int fd, off_t offset);
    int (*munmap)(void* addr, size_t length);
    int (*select)(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                  struct timeval* timeout);
    int (*stat)(const char* path, struct stat* st);
    int (*scandir)(const char* dir, struct dirent*** namelist, ks_scandir_filter_fn filter,
                   ks_scandir_compar_fn compar);
    char* (*realpath)(const char* path, char* resolved);
    int (*usleep)(useconds_t usec);
    unsigned int (*sleep)(unsigned int seconds);
    int (*gettimeofday)(struct timeval* tv, void* tz);
    int (*clock_gettime)(clockid_t clock, struct timespec* ts);
    /* Advisory lock of an open device (flock(2) operations): control
     * exchanges of different processes on one node never interleave. */
    int (*flock)(int fd, int operation);
    /* Sleeps while *word holds expected, until a futex_wake on word or until
     * the relative timeout (null: none) has passed on the table's clock.
     * 0 when woken, -1 with errno EAGAIN (word differed), ETIMEDOUT or EINTR. */
    int (*futex_wait)(const uint32_t* word, uint32_t expected, const struct timespec* timeout);
    /* Wakes up to count threads waiting on word; the number woken, or -1. */
    int (*futex_wake)(const uint32_t* word, int count);
} ks_platform_ops;

/* The C library's table. */
KS_API const ks_platform_ops* ks_platform_default_ops(void);

/* Installs a complete replacement table (every slot set). The table is used
 * by reference and must outlive its installation. Returns 0, or -1 for a
 * null table or a table with an empty slot (the current table stays). */
KS_API int ks_platform_install(const ks_platform_ops* ops);

/* Restores the C library's table. */
KS_API void ks_platform_reset(void);

/* The table in force. */
KS_API const ks_platform_ops* ks_platform_ops_current(void);

/* Calls through the table in force. */
KS_API int ks_sys_open(const char* path, int flags, mode_t mode);
KS_API int ks_sys_close(int fd);
KS_API int ks_sys_ioctl(int fd, unsigned long request, void* arg);
KS_API void* ks_sys_mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset);
KS_API int ks_sys_munmap(void* addr, size_t length);
KS_API int ks_sys_select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                         struct timeval* timeout);
KS_API int ks_sys_stat(const char* path, struct stat* st);
KS_API int ks_sys_scandir(const char* dir, struct dirent*** namelist, ks_scandir_filter_fn filter,
                          ks_scandir_compar_fn compar);
KS_API char* ks_sys_realpath(const char* path, char* resolved);
KS_API int ks_sys_usleep(useconds_t usec);
KS_API unsigned int ks_sys_sleep(unsigned int seconds);
KS_API int ks_sys_gettimeofday(struct timeval* tv);
KS_API int ks_sys_clock_gettime(clockid_t clock, struct timespec* ts);
KS_API int ks_sys_flock(int fd, int operation);
KS_API int ks_sys_futex_wait(const uint32_t* word, uint32_t expected,
                             const struct timespec* timeout);
KS_API int ks_sys_futex_wake(const uint32_t* word, int count);

KS_END_DECLS

#endif
