// The world's virtual clock: virtual time = base + (real elapsed) x warp.
// While the warp has never left 1 the clock and the sleeps are the real ones.
#ifndef KSSIM_SIM_CLOCK_H
#define KSSIM_SIM_CLOCK_H

#include <sys/time.h>
#include <time.h>

#include <cstdint>
#include <mutex>

namespace kssim {

// The host's own futex calls (process-private), for waits on a real span.
int host_futex_wait(const uint32_t* word, uint32_t expected, const struct timespec* timeout);
int host_futex_wake(const uint32_t* word, int count);

class VirtualClock {
  public:
    VirtualClock();

    // Changes the warp without a jump of the virtual clock. warp > 0.
    void set_warp(double warp);
    double warp() const;

    // Virtual CLOCK_MONOTONIC / CLOCK_REALTIME in nanoseconds.
    int64_t mono_ns() const;
    int64_t real_ns() const;
    int64_t mono_us() const { return mono_ns() / 1000; }

    // Real nanoseconds that correspond to a virtual span (at the current warp).
    int64_t to_real_ns(int64_t virtual_ns) const;
    int64_t to_virtual_ns(int64_t real_ns) const;

    // Seam operations.
    int gettimeofday(struct timeval* tv) const;
    int clock_gettime(clockid_t id, struct timespec* ts) const;
    int usleep(useconds_t usec) const;
    unsigned int sleep(unsigned int seconds) const;
    // A futex wait whose time-out is a virtual span.
    int futex_wait(const uint32_t* word, uint32_t expected, const struct timespec* timeout) const;

  private:
    static int64_t host_ns(clockid_t id);
    struct Base {
        int64_t real_mono;  // host monotonic at the last rebase
        int64_t virt_mono;  // virtual monotonic at that moment
        int64_t virt_real;  // virtual realtime at that moment
        double warp;
        bool pristine;  // warp never changed from 1: pass through
    };
    Base base() const;
    mutable std::mutex mu_;
    Base base_;
};

}  // namespace kssim

#endif
