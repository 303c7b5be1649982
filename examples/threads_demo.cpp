// Named threads start, park on their shutdown events, are listed by the registry and
// stopped one by one.
#include <tolven/tolven.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <vector>

using namespace TOLVEN;

namespace {
void ListThreads(const char* heading) {
    std::printf("%s\n", heading);
    auto& registry = thread_details::get();
    QuickLockGuard guard(registry.get_lock());
    for (const auto& [id, data] : registry.get_thread_map())
        std::printf("  %-16s os id %-8u priority %-3u lazy check %u ms\n", data->name.c_str(),
                    data->nativeId, data->priority, data->lazyCheckInterval);
}

// A worker parks on its shutdown event through a cached detector and counts its wake-ups.
void Worker(const char* name) {
    EventDetectorType* detector = GetCachedDetectorType();
    (void)detector->Add(GetShutdownEvent());
    std::printf("  %s parked\n", name);
    std::fflush(stdout);
    (void)detector->Wait(kInfinite);
    detector->Clear();
    ReturnToCache(detector);
    std::printf("  %s saw its shutdown event\n", name);
    std::fflush(stdout);
}
}  // namespace

int main() {
    configure_mainthread();
    const char* names[] = {"OrderGateway", "PriceFeed", "RiskCheck"};
    std::vector<std::unique_ptr<auto_thread>> threads;
    std::printf("starting threads\n");
    std::fflush(stdout);
    for (const char* name : names) {
        threads.push_back(std::make_unique<auto_thread>());
        if (!threads.back()->launch(name, Worker, name)) {
            std::fprintf(stderr, "could not start %s\n", name);
            return 1;
        }
    }
    // Give the workers a moment to park, then show the registry.
    for (int i = 0; i < 50; ++i) {
        size_t count;
        {
            QuickLockGuard guard(thread_details::get().get_lock());
            count = thread_details::get().get_thread_map().size();
        }
        if (count == 4) break;
        EventDetectorType* d = GetCachedDetectorType();
        Event never(false);
        (void)d->Add(&never);
        (void)d->Wait(10);
        d->Clear();
        ReturnToCache(d);
    }
    ListThreads("registered threads:");
    std::printf("stopping threads\n");
    for (auto& t : threads)
        (void)t->join_shutdown();
    ListThreads("registered threads after stop:");
    return 0;
}
