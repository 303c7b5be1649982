#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <thread>

#include "log/LogRing.h"

using namespace TOLVEN::detail;

namespace {

// A ring of exactly `capacity` data bytes.
struct SmallRing {
    LogRing ring;
    explicit SmallRing(uint32_t capacity) { EXPECT_TRUE(ring.Create(capacity, capacity)); }
    uint8_t* Data() { return reinterpret_cast<uint8_t*>(ring.Control()) + LogRing::kControlBytes; }
    uint32_t W() { return ring.Control()->writeOffset.load(); }

    ring_status Write(const std::string& payload) {
        uint8_t* target = nullptr;
        const ring_status st = ring.Reserve(static_cast<uint32_t>(payload.size()), &target);
        if (st != ring_status::ok) return st;
        std::memcpy(target, payload.data(), payload.size());
        ring.CommitWrite();
        return st;
    }
    ring_status Read(std::string* out) {
        const uint8_t* payload = nullptr;
        uint32_t length = 0;
        const ring_status st = ring.Peek(&payload, &length);
        if (st != ring_status::ok) return st;
        out->assign(reinterpret_cast<const char*>(payload), length);
        ring.CommitRead();
        return st;
    }
};

std::string Pattern(size_t n, char seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i)
        s[i] = static_cast<char>(seed + i % 23);
    return s;
}

}  // namespace

TEST(LogRing, StatusesOutsideTheHappyPath) {
    LogRing none("named");
    uint8_t* target;
    const uint8_t* payload;
    uint32_t length;
    EXPECT_EQ(none.Reserve(4, &target), ring_status::not_created);
    EXPECT_EQ(none.Peek(&payload, &length), ring_status::not_created);

    SmallRing r(64);
    EXPECT_EQ(r.ring.Peek(&payload, &length), ring_status::empty);
    EXPECT_EQ(r.ring.Reserve(60, &target), ring_status::too_large) << "4 + 60 = capacity";
    ASSERT_EQ(r.ring.Reserve(4, &target), ring_status::ok);
    EXPECT_EQ(r.ring.Reserve(4, &target), ring_status::busy);
    r.ring.CommitWrite();
    ASSERT_EQ(r.ring.Peek(&payload, &length), ring_status::ok);
    EXPECT_EQ(r.ring.Peek(&payload, &length), ring_status::busy);
    r.ring.CommitRead();
}

// Brings the write offset to capacity - tail, then writes an entry that does not fit there.
TEST(LogRing, WrapMarkerForEveryTailLength) {
    constexpr uint32_t kCap = 64;
    for (uint32_t tail = 0; tail <= 5; ++tail) {
        SCOPED_TRACE("tail " + std::to_string(tail));
        SmallRing r(kCap);
        std::string out;
        ASSERT_EQ(r.Write(Pattern(16, 'a')), ring_status::ok);
        ASSERT_EQ(r.Read(&out), ring_status::ok);
        ASSERT_EQ(r.Write(Pattern(kCap - tail - 20 - 4, 'b')), ring_status::ok);
        ASSERT_EQ(r.W(), tail == 0 ? 0u : kCap - tail);
        ASSERT_EQ(r.Read(&out), ring_status::ok);

        const std::string third = Pattern(10, 'c');
        ASSERT_EQ(r.Write(third), ring_status::ok);
        uint8_t* d = r.Data();
        uint32_t length;
        if (tail != 0) {
            const uint32_t inTail = std::min(tail, 4u);
            for (uint32_t i = 0; i < inTail; ++i)
                EXPECT_EQ(d[kCap - tail + i], 0xFF) << "marker byte " << i << " in the tail";
            for (uint32_t i = 0; i < 4 - inTail; ++i)
                EXPECT_EQ(d[i], 0xFF) << "marker byte " << inTail + i << " at the start";
            std::memcpy(&length, d + (4 - inTail), 4);
            EXPECT_EQ(length, 10u) << "the real length follows the marker";
            EXPECT_EQ(std::memcmp(d + 8 - inTail, third.data(), 10), 0);
            EXPECT_EQ(r.W(), 4 - inTail + 4 + 10);
        }
        ASSERT_EQ(r.Read(&out), ring_status::ok);
        EXPECT_EQ(out, third);
        EXPECT_EQ(r.Read(&out), ring_status::empty);
    }
}

// Random traffic against a model queue, over many capacities so that every tail occurs and
// the ring fills up to its one-byte gap: a full ring read as empty, or an entry written over
// unread data, shows as a mismatch with the model.
TEST(LogRing, RandomTrafficKeepsOrderAndContent) {
    std::mt19937 rng(12345);
    for (uint32_t cap = 24; cap <= 90; ++cap) {
        SmallRing r(cap);
        std::deque<std::string> model;
        // Entries up to half the ring: larger ones might not fit even in an empty ring.
        const uint32_t largest = (cap - 8) / 2 - 4;
        for (int step = 0; step < 3000; ++step) {
            std::string out;
            if (rng() % 2 == 0) {
                const std::string p = Pattern(rng() % (largest + 1), static_cast<char>(step));
                const ring_status st = r.Write(p);
                if (st == ring_status::ok) {
                    model.push_back(p);
                } else {
                    ASSERT_EQ(st, ring_status::full);
                    ASSERT_FALSE(model.empty()) << "an empty ring refused an entry, cap " << cap;
                }
            } else if (model.empty()) {
                ASSERT_EQ(r.Read(&out), ring_status::empty) << "cap " << cap;
            } else {
                ASSERT_EQ(r.Read(&out), ring_status::ok) << "cap " << cap;
                ASSERT_EQ(out, model.front()) << "cap " << cap << " step " << step;
                model.pop_front();
            }
        }
    }
}

TEST(LogRing, BlockedWriterIsWokenByTheReaderAndByTheRingsEnd) {
    SmallRing r(64);
    ASSERT_EQ(r.Write(std::string(50, 'x')), ring_status::ok);
    uint8_t* target;
    EXPECT_EQ(r.ring.AcquireWrite(20, &target, false), ring_status::full)
        << "a writer that may not wait gives up, without the lock";

    std::atomic<int> first{-1}, second{-1};
    std::thread writer([&] {
        uint8_t* t;
        first = static_cast<int>(r.ring.AcquireWrite(20, &t, true));
        if (first == 0) {
            std::memset(t, 'y', 20);
            r.ring.ReleaseWrite();
        }
        second = static_cast<int>(r.ring.AcquireWrite(40, &t, true));
    });
    // The writer counts itself before it sleeps.
    while (r.ring.BlockedWrites() == 0)
        std::this_thread::yield();
    std::string out;
    ASSERT_EQ(r.Read(&out), ring_status::ok);
    EXPECT_EQ(out, std::string(50, 'x'));
    r.ring.WakeWriters(true);
    while (r.ring.BlockedWrites() < 2)
        std::this_thread::yield();
    EXPECT_EQ(first.load(), 0);
    // The ring goes while the second write waits: the writer learns it and gives up.
    r.ring.WriterLock().Enter();
    r.ring.Destroy();
    r.ring.WriterLock().Leave();
    (void)r.ring.SpaceEvent().Set();
    writer.join();
    EXPECT_EQ(second.load(), static_cast<int>(ring_status::not_created));
}
