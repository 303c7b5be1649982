#include <set>
#include <vector>

#include "tables/table_fixture.h"

using namespace TOLVEN;
using namespace tabletest;

namespace {

Name N(const char* text) {
    Name name{};
    std::snprintf(name.text, sizeof name.text, "%s", text);
    return name;
}

// Ids of a walk of `index` from the first row with typed steps.
template <class T, class Key>
std::vector<uint64_t> Walk(T& table, unsigned index, Key key) {
    std::vector<uint64_t> ids;
    csdb_context ctx{};
    Row row{};
    csdb_status st = table.StepRow(index, MKDB_BEGIN, &key, sizeof key, &row, &ctx, false);
    while (st == CSDB_SUCCESS) {
        ids.push_back(row.id);
        st = table.StepRow(index, MKDB_NEXT, &key, sizeof key, &row, &ctx, false);
    }
    EXPECT_EQ(st, CSDB_END);
    return ids;
}

struct Blob {
    Blob() { EXPECT_EQ(CreateBlob(&blob), BLOB_STATUS_SUCCESS); }
    ~Blob() { (void)ReleaseBlob(&blob); }
    uint64_t U64(const char* field) const {
        uint64_t value = 0;
        EXPECT_TRUE(TakeU64(blob, field, &value)) << field;
        return value;
    }
    _BLOB_INFO* blob = nullptr;
};

}  // namespace

TEST(Mkdb, StatusesOfIndexesAndArguments) {
    Table table;
    EXPECT_EQ(table.Count(), 0u);
    EXPECT_EQ(Add(table, MakeRow(1, "a")), CSDB_NOT_OPEN);
    EXPECT_EQ(table.AddIndex(nullptr, 0, true), CSDB_BAD_ARGUMENT);
    auto* nullable = new treeindex<false, uint64_t, Row, IdTraits, RowAlloc, TOLVEN::Nullable>;
    EXPECT_EQ(table.AddIndex(nullable, 0, false), CSDB_NULLABLE_FIRST_INDEX);
    delete nullable;

    AddIndexes(table, 1);
    IdIndex taken;
    EXPECT_EQ(table.AddIndex(&taken, 0, false), CSDB_DUPLICATE_KEY);
    for (uint32_t n = 1; n < 16; ++n)
        ASSERT_EQ(table.AddIndex(new IdIndex, n, true), CSDB_SUCCESS);
    IdIndex extra;
    EXPECT_EQ(table.AddIndex(&extra, 16, false), CSDB_TOO_MANY_INDEXES);
    EXPECT_EQ(table.NumIndexes(), 16u);

    mkdb_add_request<Row> none;
    EXPECT_EQ(table.AddRow(none, false), CSDB_BAD_ARGUMENT);
    ASSERT_EQ(Add(table, MakeRow(1, "a")), CSDB_SUCCESS);
    uint64_t id = 1;
    uint32_t narrow = 1;
    Row out{};
    EXPECT_EQ(table.FindRow(0, &narrow, sizeof narrow, &out, nullptr, false), CSDB_BAD_ARGUMENT);
    EXPECT_EQ(table.FindRow(16, &id, sizeof id, &out, nullptr, false), CSDB_NO_SUCH_INDEX);
    id = 2;
    EXPECT_EQ(table.FindRow(0, &id, sizeof id, &out, nullptr, false), CSDB_NOT_FOUND);

    // The blob side only reads.
    Blob key, row;
    csdb_context ctx{};
    EXPECT_EQ(table.Add(row.blob, nullptr), CSDB_CONVERT_FAILED);
    EXPECT_EQ(table.Update(0, nullptr, row.blob, &ctx), CSDB_BAD_ARGUMENT);
    EXPECT_EQ(table.Update(0, key.blob, row.blob, &ctx), CSDB_CONVERT_FAILED);
    ASSERT_TRUE(PutU64(key.blob, "id", 1));
    EXPECT_EQ(table.GetApprox(0, key.blob, row.blob, &ctx), CSDB_NOT_SUPPORTED);
    EXPECT_EQ(table.UnlockRecord(&ctx), CSDB_NOT_FOUND);
}

TEST(Mkdb, NewIndexIsFilledAndDuplicateRowIsInNoIndex) {
    Table table;
    AddIndexes(table, 1);
    ASSERT_EQ(Add(table, MakeRow(2, "b")), CSDB_SUCCESS);
    ASSERT_EQ(Add(table, MakeRow(1, "a")), CSDB_SUCCESS);
    auto* names = new NameIndex;
    ASSERT_EQ(table.AddIndex(names, 1, true), CSDB_SUCCESS);
    EXPECT_EQ(Walk(table, 1, N("")), (std::vector<uint64_t>{1, 2}));

    // The id is taken: the row went into no index, not even the name index after it.
    EXPECT_EQ(Add(table, MakeRow(1, "c")), CSDB_DUPLICATE_KEY);
    EXPECT_EQ(table.Count(), 2u);
    EXPECT_EQ(names->Size(), 2u);
    Name c = N("c");
    EXPECT_EQ(table.FindRow(1, &c, sizeof c, nullptr, nullptr, false), CSDB_NOT_FOUND);
}

TEST(Mkdb, EqualKeysAreOrderedByRowAddress) {
    Table table;
    AddIndexes(table, 1);
    auto* names = new NameIndex;
    ASSERT_EQ(table.AddIndex(names, 1, true), CSDB_SUCCESS);
    for (uint64_t id = 1; id <= 40; ++id)
        ASSERT_EQ(Add(table, MakeRow(id, id % 3 == 0 ? "x" : "y")), CSDB_SUCCESS);
    Row* row = nullptr;
    csdb_context ctx{};
    std::vector<Row*> rows;
    for (csdb_status st = names->WalkFirst(&row, &ctx); st == CSDB_SUCCESS;
         st = names->WalkNext(&row, &ctx))
        rows.push_back(row);
    ASSERT_EQ(rows.size(), 40u);
    for (size_t i = 1; i < rows.size(); ++i) {
        const int c = std::strcmp(rows[i - 1]->name, rows[i]->name);
        EXPECT_TRUE(c < 0 || (c == 0 && rows[i - 1] < rows[i])) << i;
    }
    // A matching search walks one key's rows only.
    Name x = N("x");
    int matched = 0;
    csdb_status st = names->KeyFirst(true, &x, sizeof x, &row, &ctx);
    for (; st == CSDB_SUCCESS; st = names->KeyNext(true, &x, sizeof x, &row, &ctx))
        ++matched;
    EXPECT_EQ(st, CSDB_END);
    EXPECT_EQ(matched, 13);
}

TEST(Mkdb, CursorEndsAndStaleContexts) {
    Table table;
    AddIndexes(table, 2);
    for (uint64_t id : {10, 20, 30})
        ASSERT_EQ(Add(table, MakeRow(id, "n")), CSDB_SUCCESS);
    uint64_t key = 0;
    Row row{};
    csdb_context ctx{};
    ASSERT_EQ(table.StepRow(0, MKDB_BEGIN, &key, sizeof key, &row, &ctx, false), CSDB_SUCCESS);
    EXPECT_EQ(table.StepRow(0, MKDB_PREV, &key, sizeof key, &row, &ctx, false), CSDB_BEGIN);
    EXPECT_EQ(ctx.node, 0u);
    ASSERT_EQ(table.StepRow(0, MKDB_END, &key, sizeof key, &row, &ctx, false), CSDB_SUCCESS);
    EXPECT_EQ(key, 30u);
    EXPECT_EQ(table.StepRow(0, MKDB_NEXT, &key, sizeof key, &row, &ctx, false), CSDB_END);
    EXPECT_EQ(ctx.node, 0u);
    key = 15;
    ASSERT_EQ(table.StepRow(0, MKDB_AT_OR_AFTER, &key, sizeof key, &row, &ctx, false),
              CSDB_SUCCESS);
    EXPECT_EQ(row.id, 20u);
    key = 35;
    EXPECT_EQ(table.StepRow(0, MKDB_AT_OR_AFTER, &key, sizeof key, &row, &ctx, false),
              CSDB_NOT_FOUND);
    key = 5;
    EXPECT_EQ(table.StepRow(0, MKDB_AT_OR_BEFORE, &key, sizeof key, &row, &ctx, false),
              CSDB_NOT_FOUND);

    // A context on a deleted row is stale; the key it left behind continues the walk.
    key = 20;
    ASSERT_EQ(table.FindRow(0, &key, sizeof key, &row, &ctx, false), CSDB_SUCCESS);
    csdb_context deleted = ctx;
    const csdb_context stale = ctx;
    ASSERT_EQ(table.DeleteByKey(0, &key, sizeof key, nullptr), CSDB_SUCCESS);
    EXPECT_EQ(table.StepRow(0, MKDB_NEXT, nullptr, sizeof key, &row, &deleted, false),
              CSDB_NOT_FOUND);
    ASSERT_EQ(table.StepRow(0, MKDB_NEXT, &key, sizeof key, &row, &deleted, false), CSDB_SUCCESS);
    EXPECT_EQ(row.id, 30u);
    key = 20;
    ASSERT_EQ(table.StepRow(0, MKDB_PREV, &key, sizeof key, &row, &ctx, false), CSDB_SUCCESS);
    EXPECT_EQ(row.id, 10u);

    // A reused node is told from the old one by its generation, and a context of index 1
    // means nothing to index 0.
    ASSERT_EQ(Add(table, MakeRow(20, "n")), CSDB_SUCCESS);
    deleted = stale;
    EXPECT_EQ(table.StepRow(0, MKDB_NEXT, nullptr, sizeof key, &row, &deleted, false),
              CSDB_NOT_FOUND);
    Name n = N("n");
    ASSERT_EQ(table.FindRow(1, &n, sizeof n, &row, &ctx, false), CSDB_SUCCESS);
    csdb_context other = ctx;
    other.indexNumber = 0;
    EXPECT_EQ(table.StepRow(0, MKDB_NEXT, nullptr, sizeof key, &row, &other, false),
              CSDB_NOT_FOUND);
    EXPECT_EQ(table.DeleteItem(&other), CSDB_NOT_FOUND);
    EXPECT_EQ(table.DeleteItem(&ctx), CSDB_SUCCESS);
    EXPECT_EQ(table.Count(), 2u);
}

TEST(Mkdb, DeleteAllStatuses) {
    Table table;
    AddIndexes(table);
    ASSERT_EQ(Add(table, MakeRow(1, "a", 5)), CSDB_SUCCESS);
    ASSERT_EQ(Add(table, MakeRow(2, "b", 7)), CSDB_SUCCESS);
    ASSERT_EQ(Add(table, MakeRow(3, "c", 7)), CSDB_SUCCESS);
    ASSERT_EQ(Add(table, MakeRow(4, "d", 9)), CSDB_SUCCESS);
    Blob key;
    ASSERT_TRUE(PutU64(key.blob, "group", 12));
    EXPECT_EQ(table.DeleteAll(2, key.blob, nullptr), CSDB_NOT_FOUND);  // behind the last
    Blob between;
    ASSERT_TRUE(PutU64(between.blob, "group", 6));
    EXPECT_EQ(table.DeleteAll(2, between.blob, nullptr), CSDB_END);
    Blob seven;
    ASSERT_TRUE(PutU64(seven.blob, "group", 7));
    EXPECT_EQ(table.DeleteAll(2, seven.blob, nullptr), CSDB_SUCCESS);
    EXPECT_EQ(Walk(table, 0, uint64_t{0}), (std::vector<uint64_t>{1, 4}));
    EXPECT_EQ(Walk(table, 1, N("")), (std::vector<uint64_t>{1, 4}));
    EXPECT_EQ(table.DeleteAll(2, seven.blob, nullptr), CSDB_END);
    EXPECT_EQ(table.Clear(), CSDB_SUCCESS);
    EXPECT_EQ(table.Count(), 0u);
}

TEST(Mkdb, UpdateKeepsContextsAndRollsBackDuplicates) {
    Table table;
    AddIndexes(table);
    csdb_context byId{}, byName{}, byGroup{};
    ASSERT_EQ(Add(table, MakeRow(1, "a", 1)), CSDB_SUCCESS);
    ASSERT_EQ(Add(table, MakeRow(2, "b", 1), &byId, 0), CSDB_SUCCESS);
    ASSERT_EQ(Add(table, MakeRow(3, "c", 1)), CSDB_SUCCESS);
    Name b = N("b");
    uint32_t group = 1;
    ASSERT_EQ(table.FindRow(1, &b, sizeof b, nullptr, &byName, false), CSDB_SUCCESS);
    ASSERT_EQ(table.FindRow(2, &group, sizeof group, nullptr, &byGroup, false), CSDB_SUCCESS);

    // No key changes: no node moves.
    Row next = MakeRow(2, "b", 1, 99);
    ASSERT_EQ(table.UpdateRow(&byName, &next), CSDB_SUCCESS);
    // The name and the id change: the row moves in both, every context stays on it.
    next = MakeRow(7, "z", 1, 100);
    ASSERT_EQ(table.UpdateRow(&byName, &next), CSDB_SUCCESS);
    Row row{};
    uint64_t id = 0;
    ASSERT_EQ(table.StepRow(0, MKDB_NEXT, &id, sizeof id, &row, &byId, false), CSDB_END);
    Name name{};
    ASSERT_EQ(table.StepRow(1, MKDB_PREV, &name, sizeof name, &row, &byName, false), CSDB_SUCCESS);
    EXPECT_EQ(row.id, 3u);
    ASSERT_EQ(table.StepRow(2, MKDB_NEXT, &group, sizeof group, &row, &byGroup, false),
              CSDB_SUCCESS);
    EXPECT_EQ(Walk(table, 0, uint64_t{0}), (std::vector<uint64_t>{1, 3, 7}));
    EXPECT_EQ(Walk(table, 1, N("")), (std::vector<uint64_t>{1, 3, 7}));

    // A duplicate id after the name moved: everything is as before the call.
    csdb_context ctx{};
    id = 7;
    ASSERT_EQ(table.FindRow(0, &id, sizeof id, nullptr, &ctx, false), CSDB_SUCCESS);
    next = MakeRow(1, "q", 4);
    EXPECT_EQ(table.UpdateRow(&ctx, &next), CSDB_DUPLICATE_KEY);
    ASSERT_EQ(table.FindRow(0, &id, sizeof id, &row, nullptr, false), CSDB_SUCCESS);
    EXPECT_STREQ(row.name, "z");
    EXPECT_EQ(row.value, 100u);
    Name q = N("q");
    EXPECT_EQ(table.FindRow(1, &q, sizeof q, nullptr, nullptr, false), CSDB_NOT_FOUND);
    EXPECT_EQ(Walk(table, 1, N("")), (std::vector<uint64_t>{1, 3, 7}));
    EXPECT_EQ(Walk(table, 2, uint32_t{0}).size(), 3u);
    ASSERT_EQ(table.StepRow(0, MKDB_PREV, &id, sizeof id, &row, &ctx, false), CSDB_SUCCESS);
    EXPECT_EQ(row.id, 3u);
}

TEST(Mkdb, BlobSideReadsThroughTheConverter) {
    Table table;
    AddIndexes(table);
    for (uint64_t id : {10, 20, 30})
        ASSERT_EQ(Add(table, MakeRow(id, "n", static_cast<uint32_t>(id / 10), id * 2)),
                  CSDB_SUCCESS);
    Blob key, row;
    csdb_context ctx{};
    ASSERT_TRUE(PutU64(key.blob, "id", 20));
    ASSERT_EQ(table.FindExact(0, key.blob, row.blob, &ctx), CSDB_SUCCESS);
    EXPECT_EQ(row.U64("value"), 40u);
    EXPECT_EQ(table.FindExact(1, key.blob, row.blob, &ctx), CSDB_CONVERT_FAILED);
    // A text key: the name index reads and writes it as a STRING field.
    Blob nameKey;
    ASSERT_EQ(table.Begin(1, nameKey.blob, row.blob, &ctx), CSDB_SUCCESS);
    char text[16] = {};
    ASSERT_EQ(GetByNameStr(nameKey.blob, "name", text, sizeof text), BLOB_STATUS_SUCCESS);
    EXPECT_STREQ(text, "n");
    EXPECT_EQ(table.FindExact(1, nameKey.blob, row.blob, &ctx), CSDB_SUCCESS);

    // Walk forward and back; the key blob follows the row.
    std::vector<uint64_t> seen;
    csdb_status st = table.Begin(0, key.blob, row.blob, &ctx);
    for (; st == CSDB_SUCCESS; st = table.GetNext(0, key.blob, row.blob, &ctx)) {
        seen.push_back(row.U64("id"));
        EXPECT_EQ(key.U64("id"), row.U64("id"));
    }
    EXPECT_EQ(st, CSDB_END);
    EXPECT_EQ(seen, (std::vector<uint64_t>{10, 20, 30}));
    ASSERT_EQ(table.End(2, key.blob, row.blob, &ctx), CSDB_SUCCESS);
    EXPECT_EQ(key.U64("group"), 3u);
    ASSERT_EQ(table.GetPrev(2, key.blob, row.blob, &ctx), CSDB_SUCCESS);
    EXPECT_EQ(row.U64("id"), 20u);

    // A stale context falls back to the key blob.
    Blob twenty;
    ASSERT_TRUE(PutU64(twenty.blob, "id", 20));
    ASSERT_EQ(table.FindExact(0, twenty.blob, nullptr, &ctx), CSDB_SUCCESS);
    ASSERT_EQ(table.DeleteAll(0, twenty.blob, nullptr), CSDB_SUCCESS);
    ASSERT_EQ(table.GetNext(0, twenty.blob, row.blob, &ctx), CSDB_SUCCESS);
    EXPECT_EQ(row.U64("id"), 30u);
    ASSERT_TRUE(PutU64(key.blob, "id", 25));
    ASSERT_EQ(table.GetLast(0, key.blob, row.blob, &ctx), CSDB_SUCCESS);
    EXPECT_EQ(key.U64("id"), 10u);
    ASSERT_EQ(table.GetFirst(0, key.blob, row.blob, &ctx), CSDB_SUCCESS);
    EXPECT_EQ(key.U64("id"), 10u);
}

TEST(Mkdb, AccessorBuildsOnceAndRefusesDestroy) {
    static detail::mkdb_accessor<int> accessor;
    int built = 0;
    int* first = accessor.Get([&] { return ++built, new int(5); });
    EXPECT_EQ(accessor.Get([&] { return ++built, new int(6); }), first);
    EXPECT_EQ(built, 1);
    EXPECT_FALSE(accessor.Destroy([](int*) { return false; }, [](int* p) { delete p; }));
    EXPECT_TRUE(accessor.Destroy([](int*) { return true; }, [](int* p) { delete p; }));
    EXPECT_EQ(accessor.Peek(), nullptr);
}
