// Progress bars for long camera operations.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "tools/kscam/kscam.h"

namespace kscam {

namespace {

// What the library last reported, written on the worker thread.
struct Reported {
    std::mutex mutex;
    std::string what;
    uint64_t done = 0;
    uint64_t total = 0;
    uint64_t since_us = 0;  // camera time when `what` began
    Host* host = nullptr;
    // Every step in the order reported, with its size (0: none), so that a
    // log shows each one however quickly it passed.
    std::vector<std::pair<std::string, uint64_t>> steps;
};

void on_progress(const char* what, uint64_t done, uint64_t total, void* user) {
    Reported* r = static_cast<Reported*>(user);
    std::lock_guard<std::mutex> lock(r->mutex);
    if (r->what != what || r->total != total) {
        r->since_us = r->host->now_us();
        r->steps.emplace_back(what, total);
    }
    r->what = what;
    r->done = done;
    r->total = total;
}

std::string bytes_text(uint64_t n) {
    char text[32];
    if (n >= 1024 * 1024)
        std::snprintf(text, sizeof text, "%.1f MiB", n / (1024.0 * 1024.0));
    else if (n >= 1024)
        std::snprintf(text, sizeof text, "%.1f KiB", n / 1024.0);
    else
        std::snprintf(text, sizeof text, "%u B", static_cast<unsigned>(n));
    return text;
}

std::string bar(double fraction, int width) {
    const int filled = static_cast<int>(std::lround(std::clamp(fraction, 0.0, 1.0) * width));
    return "[" + std::string(filled, '#') + std::string(width - filled, '.') + "]";
}

// A bouncing block for a step whose length nobody knows.
std::string bouncing(double seconds, int width) {
    const int span = width - 3;
    const int phase = static_cast<int>(seconds * 8) % (2 * span);
    const int at = phase < span ? phase : 2 * span - phase;
    return "[" + std::string(at, ' ') + "<=>" + std::string(width - 3 - at, ' ') + "]";
}

}  // namespace

int run_with_progress(Host& host, const std::string& label, double expected_seconds,
                      const std::function<int()>& call) {
    Reported reported;
    reported.host = &host;
    const uint64_t start = host.now_us();
    reported.since_us = start;
    ksSetProgressCallback(&on_progress, &reported);

    std::atomic<bool> finished{false};
    int result = -1;
    std::exception_ptr error;
    std::thread worker([&] {
        try {
            result = call();
        } catch (...) {
            error = std::current_exception();
        }
        finished.store(true, std::memory_order_release);
    });

    const bool terminal = out_is_terminal();
    size_t logged = 0;  // steps written to a log so far
    auto log_steps = [&] {
        std::lock_guard<std::mutex> lock(reported.mutex);
        for (; logged < reported.steps.size(); ++logged) {
            const auto& step = reported.steps[logged];
            if (step.second > 0)
                say("%s: %s (%s)\n", label.c_str(), step.first.c_str(),
                    bytes_text(step.second).c_str());
            else
                say("%s: %s\n", label.c_str(), step.first.c_str());
        }
    };
    if (!terminal) say("%s ...\n", label.c_str());
    while (!finished.load(std::memory_order_acquire)) {
        if (!terminal) {
            // A log, not an animation: one line per step.
            log_steps();
            usleep(100000);
            continue;
        }
        std::string what;
        uint64_t done, total, since;
        {
            std::lock_guard<std::mutex> lock(reported.mutex);
            what = reported.what;
            done = reported.done;
            total = reported.total;
            since = reported.since_us;
        }
        const double elapsed = (host.now_us() - start) / 1e6;
        const double step_elapsed = (host.now_us() - since) / 1e6;
        std::string line = label + (what.empty() ? "" : ": " + what) + " ";
        if (total > 0) {
            line += bar(static_cast<double>(done) / total, 30) + " " +
                    std::to_string(static_cast<int>(100.0 * done / total)) + "% " +
                    bytes_text(done) + " of " + bytes_text(total);
        } else if (expected_seconds > 0) {
            // Time-based: how far the usual duration has run, never full.
            const double seconds = what.empty() ? elapsed : step_elapsed;
            char text[64];
            std::snprintf(text, sizeof text, " %.1f s of about %.0f s", seconds, expected_seconds);
            line += bar(std::min(seconds / expected_seconds, 0.99), 30) + text;
        } else {
            char text[32];
            std::snprintf(text, sizeof text, " %.1f s", elapsed);
            line += bouncing(elapsed, 30) + text;
        }
        say("\r\033[K%s", line.c_str());
        usleep(100000);
    }
    worker.join();
    ksSetProgressCallback(nullptr, nullptr);
    if (!terminal) log_steps();
    const double elapsed = (host.now_us() - start) / 1e6;
    if (terminal) say("\r\033[K");
    if (error) std::rethrow_exception(error);
    say("%s: %s in %.1f s\n", label.c_str(), result == 0 ? "done" : "failed", elapsed);
    return result;
}

}  // namespace kscam
