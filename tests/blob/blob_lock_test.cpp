// Locked blobs shared between threads.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "tolven/blob.h"

using namespace TOLVEN;

// Two writers append under their own names while two readers look names up and take the
// buffer; every call brackets itself with the blob's lock.
TEST(BlobLock, WritersAndReadersShareALockedBlob) {
    _BLOB_INFO* blob = nullptr;
    ASSERT_EQ(CreateBlob(&blob, BLOB_CREATE_LOCKED), BLOB_STATUS_SUCCESS);
    constexpr int kPerWriter = 300;
    std::atomic<int> writersDone{0};
    std::atomic<bool> failed{false};
    std::vector<std::thread> threads;
    for (int w = 0; w < 2; ++w)
        threads.emplace_back([&, w] {
            char name[32];
            for (int i = 0; i < kPerWriter; ++i) {
                std::snprintf(name, sizeof name, "w%d_%d", w, i);
                if (AddField(blob, name, BLOB_FIELD_TYPE_STRING, 1 + i % 40, nullptr) !=
                    BLOB_STATUS_SUCCESS)
                    failed = true;
            }
            ++writersDone;
        });
    for (int r = 0; r < 2; ++r)
        threads.emplace_back([&] {
            // Bounded, and yielding between snapshots: the lock prefers readers, so
            // readers that never pause would starve the writers.
            for (int round = 0; round < 200 && writersDone.load() < 2; ++round) {
                std::this_thread::yield();
                // A consistent snapshot under the read side: the bytes walk cleanly.
                if (BlobReadLock(blob) != BLOB_STATUS_SUCCESS) failed = true;
                unsigned char* p = nullptr;
                uint64_t n = 0;
                (void)GetBlobPtr(blob, &p, &n);
                _BLOB_INFO* copy = nullptr;
                if (CreateBlob(&copy, p, n, true, BLOB_CREATE_DEFAULT) != BLOB_STATUS_SUCCESS ||
                    GetNumFields(copy) != GetNumFields(blob))
                    failed = true;
                (void)ReleaseBlob(&copy);
                if (BlobReadUnlock(blob) != BLOB_STATUS_SUCCESS) failed = true;
                (void)IsFieldPresent(blob, "w0_10");
            }
        });
    for (std::thread& t : threads)
        t.join();
    EXPECT_FALSE(failed.load());
    EXPECT_EQ(GetNumFields(blob), 2u * kPerWriter);
    EXPECT_EQ(IsFieldPresent(blob, "W1_299"), 1);
    EXPECT_EQ(ReleaseBlob(&blob), 0);
}

// The writer may read and write again on its own blob; others wait until it is done.
TEST(BlobLock, WriterReentersAndExcludesOthers) {
    _BLOB_INFO* blob = nullptr;
    ASSERT_EQ(CreateBlob(&blob, BLOB_CREATE_LOCKED), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(BlobWriteLock(blob), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(BlobWriteLock(blob), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddField(blob, "a", BLOB_FIELD_TYPE_INT32, 0, nullptr), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(GetNumFields(blob), 1u);
    std::atomic<bool> otherDone{false};
    std::thread other([&] {
        // Blocks until the two write holds are given back.
        (void)AddField(blob, "b", BLOB_FIELD_TYPE_INT8, 0, nullptr);
        otherDone = true;
    });
    // While we hold the write side the other thread cannot have added its field.
    ASSERT_EQ(AddField(blob, "c", BLOB_FIELD_TYPE_INT8, 0, nullptr), BLOB_STATUS_SUCCESS);
    EXPECT_FALSE(otherDone.load());
    uint64_t index = 0;
    EXPECT_EQ(GetFieldNumber(blob, "b", &index), BLOB_STATUS_ITEM_NOT_FOUND);
    ASSERT_EQ(BlobWriteUnlock(blob), BLOB_STATUS_SUCCESS);
    EXPECT_FALSE(otherDone.load());
    ASSERT_EQ(BlobWriteUnlock(blob), BLOB_STATUS_SUCCESS);
    other.join();
    ASSERT_EQ(GetFieldNumber(blob, "b", &index), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(index, 2u);
    EXPECT_EQ(ReleaseBlob(&blob), 0);
}

// References may be taken and dropped from many threads; the last one frees.
TEST(BlobLock, ReferenceCountAcrossThreads) {
    _BLOB_INFO* blob = nullptr;
    ASSERT_EQ(CreateBlob(&blob), BLOB_STATUS_SUCCESS);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        (void)AddRefBlob(blob);
        threads.emplace_back([blob] {
            for (int i = 0; i < 1000; ++i) {
                _BLOB_INFO* mine = blob;
                (void)AddRefBlob(mine);
                (void)ReleaseBlob(&mine);
            }
            _BLOB_INFO* last = blob;
            (void)ReleaseBlob(&last);
        });
    }
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(GetRefCountBlob(blob), 1);
    EXPECT_EQ(ReleaseBlob(&blob), 0);
}
