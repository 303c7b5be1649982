#include "tables/table_fixture.h"

using namespace TOLVEN;
using namespace tabletest;

TEST(Mkdb, Smoke) {
    TableRl table;
    AddIndexes(table);
    ASSERT_EQ(Add(table, MakeRow(1, "a")), CSDB_SUCCESS);
    Row out{};
    uint64_t id = 1;
    EXPECT_EQ(table.FindRow(0, &id, sizeof id, &out, nullptr, false), CSDB_SUCCESS);
    Table t2;
    AddIndexes(t2);
}
