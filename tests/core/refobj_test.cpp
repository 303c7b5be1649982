#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tolven/refobj.h"
#include "tolven/tickcounter.h"

namespace {
struct Tracked : TOLVEN::ReferencedObj {
    std::vector<int>* log;
    explicit Tracked(std::vector<int>* l) : log(l) {}
    ~Tracked() override { log->push_back(3); }
    void FinalRelease() override { log->push_back(1); }
    void DestroyObject() override {
        log->push_back(2);
        delete this;
    }
};
}  // namespace

TEST(ReferencedObj, LastReleaseFinalisesThenDestroys) {
    std::vector<int> log;
    auto* obj = new Tracked(&log);
    EXPECT_EQ(obj->GetRefCount(), 1);
    EXPECT_EQ(obj->AddRef(), 2);
    EXPECT_EQ(obj->Release(), 1);
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(obj->Release(), 0);
    EXPECT_EQ(log, (std::vector<int>{1, 2, 3}));
}

TEST(ReferencedObj, ConcurrentAddRefReleaseDestroysExactlyOnce) {
    std::vector<int> log;
    auto* obj = new Tracked(&log);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([obj] {
            for (int i = 0; i < 10000; ++i) {
                obj->AddRef();
                obj->Release();
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(obj->Release(), 0);
    EXPECT_EQ(log.size(), 3u);
}

TEST(OrrelTickCounter, IsASingletonThatCountsMilliseconds) {
    auto* a = TOLVEN::OrrelTickCounter::Instance();
    std::atomic<TOLVEN::OrrelTickCounter*> b{nullptr};
    std::thread([&] { b = TOLVEN::OrrelTickCounter::Instance(); }).join();
    EXPECT_EQ(a, b.load());
    const uint64_t t0 = a->GetTicks64();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_GE(a->GetTicks64() - t0, 29u);
    EXPECT_EQ(static_cast<uint32_t>(a->GetTicks64()) - a->GetTicks() < 1000u, true);
}
