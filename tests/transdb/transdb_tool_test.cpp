// tolven-transdb as an operator runs it: help, a check of a torn file, its repair.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "transdb/transdb_test_util.h"

using namespace TOLVEN;
using namespace tolven_test;

namespace {

// Runs the tool with `args`; gives its exit status and its output in `out`.
int RunTool(const std::string& args, std::string* out) {
    const std::string command = std::string(TOLVEN_TRANSDB_TOOL) + " " + args + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return -1;
    out->clear();
    char buffer[512];
    for (size_t n; (n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;)
        out->append(buffer, n);
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST(TransDbTool, HelpCheckAndRepair) {
    std::string out;
    EXPECT_EQ(RunTool("--help", &out), 0);
    EXPECT_NE(out.find("tolven-transdb repair FILE"), std::string::npos) << out;
    EXPECT_EQ(RunTool("frobnicate", &out), 2);

    ScratchDir dir;
    const std::string path = dir / "t.tdb";
    {
        TransDb db;
        ASSERT_EQ(OpenDb(db, path, true), CSDB_SUCCESS);
        Blob row;
        for (uint64_t n = 1; n <= 2; ++n) {
            FillRow(row, n, 10);
            ASSERT_EQ(db.Add(row, nullptr), CSDB_SUCCESS);
        }
    }
    const std::string whole = Slurp(path);
    EXPECT_EQ(RunTool("check " + path, &out), 0) << out;
    EXPECT_NE(out.find("record 2 at "), std::string::npos) << out;
    WriteBytes(path, whole + whole.substr(48, 25));
    EXPECT_EQ(RunTool("check --summary " + path, &out), 1) << out;
    EXPECT_NE(out.find("behind it: 25 bytes"), std::string::npos) << out;
    EXPECT_NE(out.find("opens: no"), std::string::npos) << out;
    EXPECT_EQ(RunTool("repair " + path, &out), 0) << out;
    EXPECT_NE(out.find("moved 25 bytes to "), std::string::npos) << out;
    EXPECT_EQ(Slurp(path), whole);
    EXPECT_EQ(RunTool("check " + path, &out), 0) << out;
    EXPECT_EQ(RunTool("check " + dir / "missing.tdb", &out), 2) << out;
}
