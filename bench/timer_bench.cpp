// Period drift and jitter of Timer and HiResTimer, each beside a raw periodic timerfd loop
// (CLOCK_MONOTONIC, one thread blocked in read) at the same period, in the same run.
//
// Not a nanosecond loop: every case stamps the monotonic clock at each tick and reports,
// over the intervals between ticks,
//   drift  = mean interval - period (how far the ticks fall behind the period, per tick),
//   jitter = |interval - period|, as p50, p99 and max,
// in microseconds. Ours and the raw loop take turns in rounds, so both see the same load.
// Linux only. Runs about 70 seconds; --quick runs a fifth of the ticks, --hires only the
// HiResTimer case (20 seconds), --timer only the Timer cases.
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "tolven/timer.h"

using namespace TOLVEN;

namespace {

int64_t NowNs() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void SleepMs(uint32_t ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// Tick stamps of one run; the callback side fills them.
struct Stamps {
    std::vector<int64_t> at;
    size_t wanted = 0;
    uint32_t workMs = 0;  // time each tick's callback spends
    std::atomic<size_t> count{0};

    void Reset(size_t ticks, uint32_t work) {
        at.assign(ticks, 0);
        wanted = ticks;
        workMs = work;
        count = 0;
    }
    // Records one tick; true while more are wanted.
    bool Tick() {
        const size_t n = count.load(std::memory_order_relaxed);
        if (n >= wanted) return false;
        at[n] = NowNs();
        count.store(n + 1, std::memory_order_release);
        if (workMs != 0) SleepMs(workMs);
        return n + 1 < wanted;
    }
    bool Done() const { return count.load(std::memory_order_acquire) >= wanted; }
};

unsigned int OnTick(void* p) {
    (void)static_cast<Stamps*>(p)->Tick();
    return 0;
}

void WaitDone(const Stamps& s) {
    while (!s.Done())
        SleepMs(5);
}

// The raw loop: a periodic timerfd and a thread blocked in read on it.
void RunRaw(Stamps& s, uint32_t periodMs) {
    const int fd = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    itimerspec spec{};
    spec.it_interval.tv_sec = periodMs / 1000;
    spec.it_interval.tv_nsec = static_cast<long>(periodMs % 1000) * 1000000L;
    spec.it_value = spec.it_interval;
    std::thread t([&] {
        (void)::timerfd_settime(fd, 0, &spec, nullptr);
        uint64_t expirations = 0;
        for (;;) {
            if (::read(fd, &expirations, sizeof(expirations)) != sizeof(expirations)) continue;
            if (!s.Tick()) break;
        }
    });
    t.join();
    ::close(fd);
}

void RunTimer(Stamps& s, uint32_t periodMs) {
    Timer timer;
    (void)timer.AddCallback(&OnTick, &s, nullptr);
    if (timer.Startup(periodMs, 50, "Bench") != timer_success) {
        std::fprintf(stderr, "Timer::Startup failed\n");
        std::exit(1);
    }
    WaitDone(s);
    (void)timer.Shutdown();
}

void RunHiRes(Stamps& s, uint32_t periodMs) {
    HiResTimer timer;
    (void)timer.AddCallback(&OnTick, &s, nullptr);
    if (timer.Startup(periodMs) != hrt_success) {
        std::fprintf(stderr, "HiResTimer::Startup failed\n");
        std::exit(1);
    }
    WaitDone(s);
    (void)timer.Shutdown();
}

struct Figures {
    size_t intervals = 0;
    double driftUs = 0, p50Us = 0, p99Us = 0, maxUs = 0;
};

// Intervals of every round pooled; drift from each round's first to last tick.
Figures Analyse(const std::vector<std::vector<int64_t>>& rounds, uint32_t periodMs) {
    const double period = periodMs * 1e6;
    std::vector<double> jitter;
    double spanNs = 0;
    size_t n = 0;
    for (const auto& at : rounds) {
        for (size_t i = 1; i < at.size(); ++i)
            jitter.push_back(std::fabs(static_cast<double>(at[i] - at[i - 1]) - period));
        if (at.size() > 1) {
            spanNs += static_cast<double>(at.back() - at.front());
            n += at.size() - 1;
        }
    }
    Figures f;
    if (n == 0) return f;
    std::sort(jitter.begin(), jitter.end());
    auto pct = [&](double q) {
        const size_t i = std::min(jitter.size() - 1, static_cast<size_t>(q * (jitter.size() - 1)));
        return jitter[i] / 1e3;
    };
    f.intervals = n;
    f.driftUs = (spanNs / n - period) / 1e3;
    f.p50Us = pct(0.50);
    f.p99Us = pct(0.99);
    f.maxUs = jitter.back() / 1e3;
    return f;
}

void Print(const char* name, const Figures& f) {
    std::printf("%-34s %6zu %+12.1f %10.1f %10.1f %10.1f\n", name, f.intervals, f.driftUs, f.p50Us,
                f.p99Us, f.maxUs);
}

using Runner = void (*)(Stamps&, uint32_t);

// Ours and the raw loop in turns, `rounds` times `ticks` ticks each.
void Case(const char* ours, const char* raw, Runner run, uint32_t periodMs, uint32_t workMs,
          size_t ticks, int rounds) {
    std::vector<std::vector<int64_t>> mine, theirs;
    Stamps s;
    for (int r = 0; r < rounds; ++r) {
        s.Reset(ticks + 1, workMs);
        run(s, periodMs);
        mine.push_back(s.at);
        s.Reset(ticks + 1, workMs);
        RunRaw(s, periodMs);
        theirs.push_back(s.at);
    }
    const Figures a = Analyse(mine, periodMs), b = Analyse(theirs, periodMs);
    Print(ours, a);
    Print(raw, b);
    std::printf("%-34s %6s %12s %10s %9.2fx %9.2fx\n", "  ratio ours / raw", "", "", "",
                b.p99Us > 0 ? a.p99Us / b.p99Us : 0.0, b.maxUs > 0 ? a.maxUs / b.maxUs : 0.0);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    bool quick = false, hiresOnly = false, timerOnly = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0)
            quick = true;
        else if (std::strcmp(argv[i], "--hires") == 0)
            hiresOnly = true;
        else if (std::strcmp(argv[i], "--timer") == 0)
            timerOnly = true;
        else if (std::strncmp(argv[i], "--benchmark_", 12) == 0)
            continue;  // scripts/bench.sh passes Google Benchmark's flags to every program
        else {
            std::fprintf(stderr, "usage: %s [--quick] [--hires | --timer]\n", argv[0]);
            return 1;
        }
    }
    const size_t scale = quick ? 5 : 1;
    configure_mainthread();
    auto_thread parked;
    bench::ParkAThread(parked);

    std::printf("%-34s %6s %12s %10s %10s %10s   (microseconds)\n", "case", "ticks", "drift/tick",
                "jitter p50", "p99", "max");
    if (!timerOnly) Case("HiResTimer 1 ms", "raw timerfd 1 ms", &RunHiRes, 1, 0, 500 / scale, 20);
    if (!hiresOnly) {
        Case("Timer 100 ms", "raw timerfd 100 ms", &RunTimer, 100, 0, 50 / scale, 2);
        Case("Timer 1000 ms", "raw timerfd 1000 ms", &RunTimer, 1000, 0, 10 / scale, 1);
        Case("Timer 1000 ms, 400 ms callback", "raw timerfd 1000 ms, 400 ms work", &RunTimer, 1000,
             400, 10 / scale, 1);
    }
    (void)GetShutdownEvent()->Set();
    return 0;
}
