#include "sim/sim_clock.h"

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cmath>

namespace kssim {

namespace {

constexpr int64_t kNsPerSec = 1000000000;

int64_t scale(int64_t span, double factor) {
    if (factor == 1.0) return span;
    return static_cast<int64_t>(std::llround(static_cast<double>(span) * factor));
}

void real_sleep_ns(int64_t ns) {
    if (ns <= 0) return;
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(ns / kNsPerSec);
    ts.tv_nsec = static_cast<long>(ns % kNsPerSec);
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

}  // namespace

int64_t VirtualClock::host_ns(clockid_t id) {
    struct timespec ts;
    ::clock_gettime(id, &ts);
    return static_cast<int64_t>(ts.tv_sec) * kNsPerSec + ts.tv_nsec;
}

VirtualClock::VirtualClock() {
    base_.real_mono = host_ns(CLOCK_MONOTONIC);
    base_.virt_mono = base_.real_mono;
    base_.virt_real = host_ns(CLOCK_REALTIME);
    base_.warp = 1.0;
    base_.pristine = true;
}

VirtualClock::Base VirtualClock::base() const {
    std::lock_guard<std::mutex> lk(mu_);
    return base_;
}

void VirtualClock::set_warp(double warp) {
    std::lock_guard<std::mutex> lk(mu_);
    const int64_t now = host_ns(CLOCK_MONOTONIC);
    const int64_t elapsed = scale(now - base_.real_mono, base_.warp);
    if (base_.pristine) {
        // Until now realtime was the host's own; continue from it.
        base_.virt_real = host_ns(CLOCK_REALTIME);
    } else {
        base_.virt_real += elapsed;
    }
    base_.virt_mono += elapsed;
    base_.real_mono = now;
    base_.warp = warp;
    base_.pristine = base_.pristine && warp == 1.0;
}

double VirtualClock::warp() const {
    return base().warp;
}

int64_t VirtualClock::mono_ns() const {
    const Base b = base();
    const int64_t now = host_ns(CLOCK_MONOTONIC);
    if (b.pristine) return now;
    return b.virt_mono + scale(now - b.real_mono, b.warp);
}

int64_t VirtualClock::real_ns() const {
    const Base b = base();
    if (b.pristine) return host_ns(CLOCK_REALTIME);
    return b.virt_real + scale(host_ns(CLOCK_MONOTONIC) - b.real_mono, b.warp);
}

int64_t VirtualClock::to_real_ns(int64_t virtual_ns) const {
    return scale(virtual_ns, 1.0 / base().warp);
}

int64_t VirtualClock::to_virtual_ns(int64_t real_ns) const {
    return scale(real_ns, base().warp);
}

int VirtualClock::gettimeofday(struct timeval* tv) const {
    if (tv == nullptr) return 0;
    if (base().pristine) return ::gettimeofday(tv, nullptr);
    const int64_t ns = real_ns();
    tv->tv_sec = static_cast<time_t>(ns / kNsPerSec);
    tv->tv_usec = static_cast<suseconds_t>((ns % kNsPerSec) / 1000);
    return 0;
}

int VirtualClock::clock_gettime(clockid_t id, struct timespec* ts) const {
    if (base().pristine) return ::clock_gettime(id, ts);
    if (ts == nullptr) {
        errno = EFAULT;
        return -1;
    }
    int64_t ns;
    switch (id) {
        case CLOCK_MONOTONIC:
        case CLOCK_MONOTONIC_RAW:
        case CLOCK_MONOTONIC_COARSE:
        case CLOCK_BOOTTIME:
            ns = mono_ns();
            break;
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE:
            ns = real_ns();
            break;
        default:  // CPU-time clocks and the like are not warped.
            return ::clock_gettime(id, ts);
    }
    ts->tv_sec = static_cast<time_t>(ns / kNsPerSec);
    ts->tv_nsec = static_cast<long>(ns % kNsPerSec);
    return 0;
}

int VirtualClock::usleep(useconds_t usec) const {
    const Base b = base();
    if (b.pristine) return ::usleep(usec);
    real_sleep_ns(scale(static_cast<int64_t>(usec) * 1000, 1.0 / b.warp));
    return 0;
}

unsigned int VirtualClock::sleep(unsigned int seconds) const {
    const Base b = base();
    if (b.pristine) return ::sleep(seconds);
    real_sleep_ns(scale(static_cast<int64_t>(seconds) * kNsPerSec, 1.0 / b.warp));
    return 0;
}

int VirtualClock::futex_wait(const uint32_t* word, uint32_t expected,
                             const struct timespec* timeout) const {
    struct timespec real;
    const struct timespec* span = timeout;
    const Base b = base();
    if (timeout != nullptr && !b.pristine) {
        const int64_t ns = scale(
            static_cast<int64_t>(timeout->tv_sec) * kNsPerSec + timeout->tv_nsec, 1.0 / b.warp);
        real.tv_sec = static_cast<time_t>(ns / kNsPerSec);
        real.tv_nsec = static_cast<long>(ns % kNsPerSec);
        span = &real;
    }
    return host_futex_wait(word, expected, span);
}

int host_futex_wait(const uint32_t* word, uint32_t expected, const struct timespec* timeout) {
    return static_cast<int>(
        ::syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, expected, timeout, nullptr, 0));
}

int host_futex_wake(const uint32_t* word, int count) {
    return static_cast<int>(
        ::syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0));
}

}  // namespace kssim
