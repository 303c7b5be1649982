#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log/logfile_test_util.h"
#include "tolven/asyncfile.h"

using namespace TOLVEN;
using tolven_test::ScratchDir;
using tolven_test::Slurp;

namespace {

// Queues `text` at the end of `file`.
bool Append(asyncfile& file, const std::string& text) {
    AsyncFileWrite* item = file.NewWrite();
    if (item == nullptr || text.size() > file.GetBufferSize()) return false;
    std::memcpy(item->Data(), text.data(), text.size());
    item->position = file.GetEndPosition();
    item->length = static_cast<uint32_t>(text.size());
    return file.Write(item);
}

// Holds the writer thread inside a callback until Open, so the queue fills up behind it.
class WriterGate : public AsyncEvents {
  public:
    explicit WriterGate(AsyncThreadPool* pool) {
        item_.kind = ASYNCITEM_CALLBACK;
        item_.events = this;
        EXPECT_TRUE(pool->Enqueue(&item_));
        pool->Wake();
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return entered_; });
    }
    ~WriterGate() override {
        Open();
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return left_; });
    }
    void Open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    void AsyncEvent_OnCallback(AsyncCallback*) override {
        std::unique_lock<std::mutex> lock(mutex_);
        entered_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
        left_ = true;
        changed_.notify_all();
    }

  private:
    AsyncCallback item_{};
    std::mutex mutex_;
    std::condition_variable changed_;
    bool entered_ = false;
    bool open_ = false;
    bool left_ = false;
};

// A reference on the writer for the length of a test.
struct PoolRef {
    AsyncThreadPool* pool = AsyncThreadPool::GetTp();
    ~PoolRef() { AsyncThreadPool::ReleaseTp(pool); }
};

TEST(AsyncFile, ReadsSeeQueuedWritesAndSizesFollowTheWriter) {
    ScratchDir dir;
    const std::string path = dir / "a.bin";
    {
        asyncfile file;
        ASSERT_TRUE(file.Open(path.c_str(), 64, -1));
        EXPECT_TRUE(file.IsOpen());
        EXPECT_EQ(file.GetBufferSize(), 64u);
        ASSERT_TRUE(Append(file, "alpha,"));
        ASSERT_TRUE(Append(file, "beta,"));
        ASSERT_TRUE(Append(file, "gamma"));
        EXPECT_EQ(file.GetEndPosition(), 16u);

        char buffer[32] = {};
        uint32_t read = 99;
        ASSERT_TRUE(file.ReadAt(0, buffer, sizeof(buffer), &read));
        EXPECT_EQ(std::string(buffer, read), "alpha,beta,gamma");
        EXPECT_EQ(file.GetWrittenSize(), 16u);
        EXPECT_EQ(file.GetPendingOperations(), 0u);
        EXPECT_GE(file.GetMaxPendingOperations(), 1u);
        ASSERT_TRUE(file.ReadAt(6, buffer, 4, &read));
        EXPECT_EQ(std::string(buffer, read), "beta");
        // At and past the end: true, nothing read.
        EXPECT_TRUE(file.ReadAt(16, buffer, 4, &read));
        EXPECT_EQ(read, 0u);
        EXPECT_TRUE(file.ReadAt(1000, buffer, 4, &read));
        EXPECT_EQ(read, 0u);

        // The synchronous path writes behind what is queued.
        ASSERT_TRUE(Append(file, "!"));
        uint32_t written = 0;
        ASSERT_TRUE(file.WriteNow(file.GetEndPosition(), "?", 1, &written));
        EXPECT_EQ(written, 1u);
        EXPECT_EQ(file.GetEndPosition(), 18u);
        EXPECT_EQ(file.GetWrittenSize(), 18u);
        EXPECT_TRUE(file.Flush());
        file.Close();
        EXPECT_FALSE(file.IsOpen());
        EXPECT_EQ(file.GetEndPosition(), 0u);
        EXPECT_EQ(file.GetMaxPendingOperations(), 0u);
        EXPECT_FALSE(Append(file, "closed"));
        EXPECT_FALSE(file.Flush());
    }
    EXPECT_EQ(Slurp(path), "alpha,beta,gamma!?");

    // A new open appends at the end of what is there.
    asyncfile again;
    ASSERT_TRUE(again.Open(path.c_str(), 64, -1));
    EXPECT_EQ(again.GetEndPosition(), 18u);
    EXPECT_EQ(again.GetWrittenSize(), 18u);
    ASSERT_TRUE(Append(again, "+"));
    again.Close();
    EXPECT_EQ(Slurp(path), "alpha,beta,gamma!?+");
}

TEST(AsyncFile, SecondOpenOfOnePathFailsAndLeavesTheFileAlone) {
    ScratchDir dir;
    const std::string path = dir / "held.bin";
    asyncfile first;
    asyncfile second;
    ASSERT_TRUE(first.Open(path.c_str(), 64, -1));
    ASSERT_TRUE(Append(first, "kept"));
    first.WaitPending(kInfinite);
    EXPECT_FALSE(second.Open(path.c_str(), 64, -1));
    EXPECT_FALSE(second.IsOpen());
    first.Close();
    EXPECT_EQ(Slurp(path), "kept");
    // Once the first writer is gone the file is free.
    EXPECT_TRUE(second.Open(path.c_str(), 64, -1));
    EXPECT_EQ(second.GetEndPosition(), 4u);
}

TEST(AsyncFile, CloseReturnsOnlyWhenPendingWritesAreInTheFile) {
    ScratchDir dir;
    const std::string path = dir / "c.bin";
    PoolRef ref;
    std::string expected;
    asyncfile file;
    ASSERT_TRUE(file.Open(path.c_str(), 16, -1));
    {
        // The writer is held while the writes queue, so all of them are pending at Close.
        WriterGate gate(ref.pool);
        for (int i = 0; i < 5; ++i) {
            const std::string record = "record " + std::to_string(i) + "\n";
            expected += record;
            ASSERT_TRUE(Append(file, record));
        }
        EXPECT_EQ(file.GetPendingOperations(), 5u);
        EXPECT_EQ(file.GetMaxPendingOperations(), 5u);
        EXPECT_EQ(file.GetWrittenSize(), 0u);
        file.WaitPending(0);  // a zero wait returns at once
        EXPECT_EQ(file.GetPendingOperations(), 5u);
    }
    file.Close();
    EXPECT_EQ(Slurp(path), expected);
}

TEST(AsyncFile, FullRingBlocksProducersLosesNothingAndKeepsEachOrder) {
    ScratchDir dir;
    PoolRef ref;
    // Two producers together write more records than the ring has slots.
    constexpr uint32_t kPerProducer = AsyncThreadPool::kQueueSlots * 6 / 10;
    asyncfile files[2];
    for (int p = 0; p < 2; ++p)
        ASSERT_TRUE(files[p].Open((dir / ("p" + std::to_string(p))).c_str(), 16, -1));
    const uint64_t blockedBefore = ref.pool->GetBlockedEnqueues();
    {
        WriterGate gate(ref.pool);
        std::vector<std::thread> producers;
        for (int p = 0; p < 2; ++p)
            producers.emplace_back([&file = files[p]] {
                char record[16];
                for (uint32_t i = 0; i < kPerProducer; ++i) {
                    std::snprintf(record, sizeof(record), "%08u\n", i);
                    ASSERT_TRUE(Append(file, record));
                }
            });
        // The gate holds the writer: the ring fills and a producer waits for room.
        while (ref.pool->GetBlockedEnqueues() == blockedBefore)
            std::this_thread::yield();
        gate.Open();
        for (std::thread& t : producers)
            t.join();
    }
    for (int p = 0; p < 2; ++p) {
        files[p].Close();
        const std::string text = Slurp(dir / ("p" + std::to_string(p)));
        ASSERT_EQ(text.size(), kPerProducer * 9u) << "producer " << p;
        char record[16];
        for (uint32_t i = 0; i < kPerProducer; ++i) {
            std::snprintf(record, sizeof(record), "%08u\n", i);
            ASSERT_EQ(text.compare(i * 9u, 9, record), 0) << "producer " << p << " record " << i;
        }
    }
}

TEST(AsyncFile, ManyWaitersAllReturnWhileAWriterGoesOn) {
    ScratchDir dir;
    const std::string path = dir / "w.bin";
    asyncfile file;
    ASSERT_TRUE(file.Open(path.c_str(), 16, -1));
    std::atomic<bool> done{false};
    std::vector<std::thread> waiters;
    for (int w = 0; w < 3; ++w)
        waiters.emplace_back([&] {
            while (!done.load()) {
                file.WaitPending(kInfinite);
                char buffer[8];
                uint32_t read = 0;
                EXPECT_TRUE(file.ReadAt(0, buffer, sizeof(buffer), &read));
            }
        });
    std::string expected;
    for (int i = 0; i < 3000; ++i) {
        const std::string record = std::to_string(i) + ",";
        expected += record;
        ASSERT_TRUE(Append(file, record));
    }
    done = true;
    for (std::thread& t : waiters)
        t.join();
    EXPECT_TRUE(file.Flush());
    file.Close();
    EXPECT_EQ(Slurp(path), expected);
}

}  // namespace
