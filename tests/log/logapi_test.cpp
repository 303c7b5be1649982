#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "log/LogApiInternal.h"
#include "log/sink_test_util.h"
#include "platform/thread.h"
#include "tolven/logapi.h"

using namespace TOLVEN;

namespace {

// Keeps what a callback receives.
struct Collector {
    std::mutex lock;
    std::vector<_LOGGER_CB_DATA> seen;  // `text` is gone after the call: see `texts`
    std::vector<std::string> texts;
    static void Callback(_LOGGER_CB_DATA* const d, void* context) {
        // "LogThread" reports its own settings as it starts, possibly after a test's
        // collector has gone: such a line must not touch the collector.
        if (sinktest::IsThreadStartLine(d)) return;
        auto* self = static_cast<Collector*>(context);
        std::lock_guard<std::mutex> guard(self->lock);
        self->seen.push_back(*d);
        self->texts.push_back(d->text);
    }
    std::vector<std::string> Texts() {
        std::lock_guard<std::mutex> guard(lock);
        return texts;
    }
};

log_status LogWith(logger_event_level level, const char* file, const char* function,
                   const char* format, ...) {
    va_list args;
    va_start(args, format);
    const log_status st = LogProcessEvent(level, file, 7, function, format, args, 0);
    va_end(args);
    return st;
}
#define LOG(level, ...) LogWith(level, "logapi_test", "Test::Log", __VA_ARGS__)

// Every test starts and ends with no reference and no callback.
class LogApi : public ::testing::Test {
  protected:
    void SetUp() override {
        for (auto level : {LOGGER_TRACE, LOGGER_NORMAL, LOGGER_WARN, LOGGER_ERROR})
            ASSERT_FALSE(IsLogged(level)) << "a callback leaked from another test";
    }
    void TearDown() override {
        (void)LogInitApi();  // removal needs a running API
        for (uint32_t id : ids_)
            (void)LogRemoveCallback(id);
        for (LogTermApi(); refs_ > 0; --refs_)
            LogTermApi();
        detail::SetLogRingCapacityLimitForTest(0);
    }
    void Init() {
        ASSERT_EQ(LogInitApi(), LOG_SUCCESS);
        ++refs_;
    }
    void Term() {
        LogTermApi();
        --refs_;
    }
    uint32_t Add(LogCallbackFunc cb, void* context, logger_event_level level) {
        uint32_t id = 0;
        EXPECT_EQ(LogAddCallbackFunc(cb, context, &id, level), LOG_SUCCESS);
        ids_.push_back(id);
        return id;
    }
    uint32_t Add(Collector& c, logger_event_level level) {
        return Add(&Collector::Callback, &c, level);
    }

    std::vector<uint32_t> ids_;
    int refs_ = 0;
};

}  // namespace

TEST(LogLevels, ParsingIgnoresCaseAndRefusesTheRest) {
    EXPECT_EQ(LoggerLevelFromName("eRRoR"), LOGGER_ERROR);
    EXPECT_STREQ(LoggerLevelName(8), "UNDEFINED");
    for (const char* bad : {"UNDEFINED", "WAR", "WARNS", "", static_cast<const char*>(nullptr)})
        EXPECT_EQ(LoggerLevelFromName(bad), 0u);
}

// Order and sequence are checked under load below; here, what a log site carries.
TEST_F(LogApi, DeliversTheSiteAndTheFormattedText) {
    Init();
    Collector c;
    Add(c, LOGGER_TRACE);
    static constexpr LogSite site{"logapi_test", 1234, LOGGER_WARN, "TOLVEN::Test::Fields"};
    ASSERT_EQ(LogAt(site, 77, "a %d %s %05.1f", 5, "x", 2.25), LOG_SUCCESS);
    ASSERT_TRUE(LogFlush());
    std::lock_guard<std::mutex> guard(c.lock);
    ASSERT_EQ(c.texts, std::vector<std::string>({"a 5 x 002.2"}));
    EXPECT_EQ(c.seen[0].line, 1234u);
    EXPECT_EQ(c.seen[0].userValue, 77u);
    EXPECT_EQ(c.seen[0].threadId, platform::CurrentThreadId());
}

TEST_F(LogApi, LevelCountsDecideWhatIsFormattedAndWhoGetsIt) {
    Init();
    Collector errors, warns, odd;
    const uint32_t errorId = Add(errors, LOGGER_ERROR);
    const uint32_t warnId = Add(warns, LOGGER_WARN);
    // Level 8 is none of the four: it counts nowhere, but takes what others keep alive.
    Add(odd, static_cast<logger_event_level>(8));
    EXPECT_FALSE(IsLogged(LOGGER_NORMAL));
    EXPECT_FALSE(IsLogged(static_cast<logger_event_level>(8)));
    for (uint32_t level : {16u, 32u, 64u, 0u, 8u, 128u})
        EXPECT_EQ(LOG(static_cast<logger_event_level>(level), "%u", level), LOG_SUCCESS);
    ASSERT_TRUE(LogFlush());
    EXPECT_EQ(errors.Texts(), std::vector<std::string>({"64"}));
    EXPECT_EQ(warns.Texts(), std::vector<std::string>({"32", "64"}));
    EXPECT_EQ(odd.Texts(), std::vector<std::string>({"32", "64"}));

    ASSERT_EQ(SetLoggingLevel(LOGGER_TRACE, errorId), LOG_SUCCESS);
    EXPECT_TRUE(IsLogged(LOGGER_TRACE));
    ASSERT_EQ(SetLoggingLevel(LOGGER_ERROR, warnId), LOG_SUCCESS);
    ASSERT_EQ(SetLoggingLevel(LOGGER_ERROR, errorId), LOG_SUCCESS);
    EXPECT_FALSE(IsLogged(LOGGER_WARN)) << "counts follow level changes";
    ASSERT_EQ(LogRemoveCallback(errorId), LOG_SUCCESS);
    ASSERT_EQ(LogRemoveCallback(warnId), LOG_SUCCESS);
    EXPECT_FALSE(IsLogged(LOGGER_ERROR));
}

TEST_F(LogApi, UnknownIdsAndNullArguments) {
    Init();
    logger_event_level level = LOGGER_WARN;
    EXPECT_EQ(GetLoggingLevel(&level, 999999), LOG_NOT_AVAILABLE);
    EXPECT_EQ(level, 0u) << "a miss stores 0";
    EXPECT_EQ(LogRemoveCallback(999999), LOG_SUCCESS);
    EXPECT_EQ(GetLoggingLevel(nullptr, 1), LOG_BAD_ARGUMENT);
    uint32_t id = 0;
    EXPECT_EQ(LogAddCallbackFunc(nullptr, nullptr, &id, LOGGER_WARN), LOG_BAD_ARGUMENT);
    EXPECT_EQ(id, 0xFFFFFFFFu);
    Collector c;
    Add(c, LOGGER_TRACE);
    EXPECT_EQ(LogWith(LOGGER_WARN, nullptr, "f", "text"), LOG_BAD_ARGUMENT);
    EXPECT_EQ(LogWith(LOGGER_WARN, "f", nullptr, "text"), LOG_BAD_ARGUMENT);
    EXPECT_EQ(LogWith(LOGGER_WARN, "f", "f", nullptr), LOG_BAD_ARGUMENT);
    EXPECT_EQ(LOG(LOGGER_WARN, "%s", static_cast<const char*>(nullptr)), LOG_SUCCESS);
    ASSERT_TRUE(LogFlush());
    EXPECT_EQ(c.Texts(), std::vector<std::string>({"(null)"})) << "only the good call arrives";
}

TEST_F(LogApi, LongTextsAreCutAt4095AndStillQueued) {
    Init();
    Collector c;
    Add(c, LOGGER_TRACE);
    const std::string fits(4094, 'a'), exact(4095, 'b'), longer(5000, 'c');
    EXPECT_EQ(LOG(LOGGER_WARN, "%s", fits.c_str()), LOG_SUCCESS);
    EXPECT_EQ(LOG(LOGGER_WARN, "%s", exact.c_str()), LOG_TRUNCATED);
    EXPECT_EQ(LOG(LOGGER_WARN, "%s", longer.c_str()), LOG_TRUNCATED);
    ASSERT_TRUE(LogFlush());
    EXPECT_EQ(c.Texts(), std::vector<std::string>({fits, exact, longer.substr(0, 4095)}));
}

TEST_F(LogApi, ReferenceCountingAndRestart) {
    Init();
    Init();
    Collector c;
    Add(c, LOGGER_TRACE);
    Term();
    EXPECT_EQ(LOG(LOGGER_WARN, "one reference left"), LOG_SUCCESS);
    Term();
    // No reference: logging, adding, removing and flushing are refused.
    EXPECT_EQ(LOG(LOGGER_WARN, "none left"), LOG_NOT_AVAILABLE);
    uint32_t id = 0;
    EXPECT_EQ(LogAddCallbackFunc(&Collector::Callback, nullptr, &id, LOGGER_TRACE),
              LOG_NOT_AVAILABLE);
    EXPECT_EQ(id, 0xFFFFFFFFu);
    EXPECT_EQ(LogRemoveCallback(1), LOG_NOT_AVAILABLE);
    EXPECT_FALSE(LogFlush());
    LogTermApi();  // no reference: nothing happens
    EXPECT_TRUE(IsLogged(LOGGER_WARN)) << "callbacks survive the last LogTermApi";
    Init();
    EXPECT_EQ(LOG(LOGGER_WARN, "restarted"), LOG_SUCCESS);
    Term();  // delivers before it returns
    std::lock_guard<std::mutex> guard(c.lock);
    ASSERT_EQ(c.texts, std::vector<std::string>({"one reference left", "restarted"}));
    EXPECT_EQ(c.seen[1].sequence, c.seen[0].sequence + 1) << "not reset by LogTermApi";
}

// A callback held on purpose while messages pile up in the ring; the last LogTermApi must
// deliver all of them before it returns.
TEST_F(LogApi, LastTermDeliversWhatIsQueued) {
    struct Gate {
        std::atomic<bool> entered{false}, open{false};
        Collector c;
        static void Callback(_LOGGER_CB_DATA* const d, void* context) {
            if (sinktest::IsThreadStartLine(d)) return;
            auto* g = static_cast<Gate*>(context);
            g->entered = true;
            while (!g->open)
                std::this_thread::yield();
            Collector::Callback(d, &g->c);
        }
    } gate;
    Init();
    Add(&Gate::Callback, &gate, LOGGER_TRACE);
    ASSERT_EQ(LOG(LOGGER_WARN, "first"), LOG_SUCCESS);
    while (!gate.entered)
        std::this_thread::yield();
    for (int i = 0; i < 500; ++i)
        ASSERT_EQ(LOG(LOGGER_WARN, "queued %d", i), LOG_SUCCESS);
    gate.open = true;
    Term();
    const auto texts = gate.c.Texts();
    ASSERT_EQ(texts.size(), 501u);
    EXPECT_EQ(texts.back(), "queued 499");
}

TEST_F(LogApi, ThrowingCallbackDoesNotStopTheLogThread) {
    Init();
    Add([](_LOGGER_CB_DATA* const, void*) { throw std::runtime_error("sink failure"); }, nullptr,
        LOGGER_TRACE);
    Collector c;
    Add(c, LOGGER_TRACE);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(LOG(LOGGER_WARN, "m%d", i), LOG_SUCCESS);
    ASSERT_TRUE(LogFlush());
    EXPECT_EQ(c.Texts(), std::vector<std::string>({"m0", "m1", "m2"}));
}

// What a callback may do from the log thread: add (joins after this message), look up a
// pending record, flush (refused), log, and remove itself (after this message).
TEST_F(LogApi, CallbacksChangingTheTablesDuringDispatch) {
    struct Self {
        uint32_t id = 0, addedId = 0;
        logger_event_level pendingLevel{};
        bool flushResult = true;
        std::atomic<int> calls{0};
        Collector late;
        static void Callback(_LOGGER_CB_DATA* const d, void* context) {
            if (sinktest::IsThreadStartLine(d)) return;
            auto* s = static_cast<Self*>(context);
            if (++s->calls != 1) return;
            (void)LogAddCallbackFunc(&Collector::Callback, &s->late, &s->addedId, LOGGER_TRACE);
            (void)GetLoggingLevel(&s->pendingLevel, s->addedId);
            s->flushResult = LogFlush();
            (void)LOG(LOGGER_WARN, "from callback");
            (void)LogRemoveCallback(s->id);
        }
    } self;
    Init();
    self.id = Add(&Self::Callback, &self, LOGGER_TRACE);
    ASSERT_EQ(LOG(LOGGER_WARN, "first"), LOG_SUCCESS);
    ASSERT_TRUE(LogFlush());
    ASSERT_EQ(LOG(LOGGER_WARN, "second"), LOG_SUCCESS);
    ASSERT_TRUE(LogFlush());
    ids_.push_back(self.addedId);
    EXPECT_EQ(self.calls.load(), 1) << "removed itself after the first message";
    EXPECT_FALSE(self.flushResult) << "a flush from the log thread is refused";
    EXPECT_EQ(self.pendingLevel, LOGGER_TRACE);
    EXPECT_EQ(self.late.Texts(), std::vector<std::string>({"from callback", "second"}))
        << "the added callback starts with the next message";
}

// Producers outrun a slow callback through a small ring that fills again and again; every
// message arrives once and in each producer's order.
TEST_F(LogApi, ManyProducersSlowCallbackNothingLost) {
    constexpr int kThreads = 4;
    constexpr int kEach = 3000;
    struct Check {
        std::map<int, int> next;  // producer -> next index expected
        int errors = 0, total = 0;
        uint32_t lastSequence = 0;
        static void Callback(_LOGGER_CB_DATA* const d, void* context) {
            if (sinktest::IsThreadStartLine(d)) return;
            auto* c = static_cast<Check*>(context);
            int producer = -1, index = -1;
            if (std::sscanf(d->text, "p%d i%d", &producer, &index) != 2) ++c->errors;
            if (c->next[producer] != index) ++c->errors;
            c->next[producer] = index + 1;
            if (c->lastSequence != 0 && d->sequence != c->lastSequence + 1) ++c->errors;
            c->lastSequence = d->sequence;
            ++c->total;
            for (int spin = 0; spin < 200; ++spin)  // slow on purpose
                platform::CpuRelax();
            // Now and then wait until a producer found the ring full again since the last
            // wait, however the machine shares its cores out (bounded, so a fault shows as a
            // failure and not as a hang).
            if (c->total % 400 == 0) {
                const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
                while (!c->producersDone.load() && detail::LogBlockedWriteCount() <= c->seen &&
                       std::chrono::steady_clock::now() < until)
                    std::this_thread::yield();
                c->seen = detail::LogBlockedWriteCount();
            }
        }
        std::atomic<bool> producersDone{false};
        uint64_t seen = 0;
    } check;
    detail::SetLogRingCapacityLimitForTest(1);  // raised to the smallest safe ring
    Init();
    Add(&Check::Callback, &check, LOGGER_TRACE);
    const uint64_t blockedBefore = detail::LogBlockedWriteCount();
    check.seen = blockedBefore;
    std::atomic<int> failures{0};
    std::vector<std::thread> producers;
    for (int p = 0; p < kThreads; ++p)
        producers.emplace_back([p, &failures] {
            for (int i = 0; i < kEach; ++i)
                if (LOG(LOGGER_NORMAL, "p%d i%d and some padding", p, i) != LOG_SUCCESS) ++failures;
        });
    for (auto& t : producers)
        t.join();
    check.producersDone = true;
    Term();  // delivers the rest; the callback's data is read after the log thread ended
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(check.errors, 0);
    EXPECT_EQ(check.total, kThreads * kEach);
    for (int p = 0; p < kThreads; ++p)
        EXPECT_EQ(check.next[p], kEach);
    EXPECT_GT(detail::LogBlockedWriteCount() - blockedBefore, 10u) << "the ring filled often";
}

// Threads that take and drop references while logging: every message logged under a
// reference is delivered, and the API ends stopped.
TEST_F(LogApi, InitAndTermFromManyThreads) {
    Init();
    std::atomic<int> delivered{0};
    Add(
        [](_LOGGER_CB_DATA* const d, void* context) {
            if (!sinktest::IsThreadStartLine(d)) ++*static_cast<std::atomic<int>*>(context);
        },
        &delivered, LOGGER_TRACE);
    Term();
    std::atomic<int> queued{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([&queued] {
            for (int round = 0; round < 8; ++round) {
                if (LogInitApi() != LOG_SUCCESS) continue;
                for (int i = 0; i < 20; ++i)
                    if (LOG(LOGGER_WARN, "r%d i%d", round, i) == LOG_SUCCESS) ++queued;
                LogTermApi();
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(LOG(LOGGER_WARN, "after"), LOG_NOT_AVAILABLE);
    EXPECT_EQ(queued.load(), 3 * 8 * 20);
    EXPECT_EQ(delivered.load(), queued.load());
}
