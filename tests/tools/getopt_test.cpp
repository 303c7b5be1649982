#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "tolven/osutils.h"

using TOLVEN::GetOpt;

namespace {
// A word list the way main gives it: argc words, then a null.
struct Words {
    explicit Words(std::initializer_list<const char*> list) {
        for (const char* w : list)
            storage.emplace_back(w);
        for (auto& s : storage)
            pointers.push_back(s.data());
        pointers.push_back(nullptr);
        argc = static_cast<int>(storage.size());
        argv = pointers.data();
    }
    std::vector<std::string> storage;
    std::vector<char*> pointers;
    int argc;
    char** argv;
};
}  // namespace

TEST(GetOpt, ValuesJoinedOrNextFlagsAndUnknowns) {
    Words w{"-a1", "-a", "1", "-b", "-c", "tail"};
    const char* value = "stale";
    EXPECT_EQ(GetOpt(w.argc, w.argv, "a:b", &value), 'a');
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value, "1");
    EXPECT_EQ(w.argc, 5);

    EXPECT_EQ(GetOpt(w.argc, w.argv, "a:b", &value), 'a');
    EXPECT_STREQ(value, "1");
    EXPECT_EQ(w.argc, 3);  // two words consumed
    EXPECT_STREQ(w.argv[0], "-b");

    EXPECT_EQ(GetOpt(w.argc, w.argv, "a:b", &value), 'b');
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(w.argc, 2);

    // Unknown option: -1, nothing consumed, value cleared.
    value = "stale";
    EXPECT_EQ(GetOpt(w.argc, w.argv, "a:b", &value), -1);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(w.argc, 2);
    EXPECT_STREQ(w.argv[0], "-c");
}

TEST(GetOpt, StopsOnTheFinalWordAndOnNonOptions) {
    Words last{"-b"};
    const char* value = nullptr;
    EXPECT_EQ(GetOpt(last.argc, last.argv, "a:b", &value), -1);  // argc is 1
    EXPECT_EQ(last.argc, 1);

    for (const char* first : {"b", "-", "", "x-b"}) {
        Words w{first, "-b"};
        EXPECT_EQ(GetOpt(w.argc, w.argv, "a:b", &value), -1) << first;
        EXPECT_EQ(w.argc, 2);
    }
    Words w{"-b", "-b"};
    EXPECT_EQ(GetOpt(w.argc, w.argv, nullptr, &value), -1);
    EXPECT_EQ(GetOpt(w.argc, w.argv, "b", nullptr), 'b');  // a null value pointer is allowed
    EXPECT_EQ(w.argc, 1);
}

TEST(GetOpt, SpecIsAPlainSubstringSearch) {
    const char* value = nullptr;
    // ':' occurs in the option list, so "-:" is a flag; "::" is not in it.
    Words colon{"-:", "x"};
    EXPECT_EQ(GetOpt(colon.argc, colon.argv, "a:b", &value), ':');
    // An argc of 2 is enough for a value in the next word; both words go.
    Words edge{"-a", "1"};
    EXPECT_EQ(GetOpt(edge.argc, edge.argv, "a:", &value), 'a');
    EXPECT_STREQ(value, "1");
    EXPECT_EQ(edge.argc, 0);
}
