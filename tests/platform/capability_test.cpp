// The capability file: what it may hold, and what is said about one that is wrong.
#include <fstream>

#include "tests/platform/recording_client.h"

namespace {

class Capability : public testing::Test {
protected:
    // In the build folder; tests run side by side.
    const std::string path = testing::UnitTest::GetInstance()->current_test_info()->name() + std::string(".xml");
    ~Capability() override { std::remove(path.c_str()); }

    void *open(const std::string &text) {
        std::ofstream(path) << text;
        return libtq_cap_get_g_cap_init(path.c_str());
    }
};

// A limit read from half a number, or from the wrong element, is worse than none.
TEST_F(Capability, ReadsPlainNumbersOnly) {
    void *cap = open(
        "<?xml version=\"1.0\"?>\n<root>\n <limits><other>1</other></limits>\n <limits>\n  <NUM> \n-16\t</NUM>\n"
        "  <UNIT>16 units</UNIT>\n  <WIDE>2147483648</WIDE>\n  <NONE/>\n </limits>\n</root>\n");
    ASSERT_NE(cap, nullptr);
    int32_t value = 7;
    for (const char *key :
         {"limits/UNIT", "limits/WIDE", "limits/NONE", "limits", "root/limits/NUM", "/limits/NUM", "limits/NUM/", ""}) {
        EXPECT_NE(libtq_cap_get_g_cap(cap, key, 2, &value, 0), 0) << key;
    }
    EXPECT_NE(libtq_cap_get_g_cap(cap, "limits/NUM", 1, &value, 0), 0);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(libtq_cap_get_g_cap(cap, "limits/NUM", 2, &value, 0), 0);
    EXPECT_EQ(value, -16);
    libtq_cap_get_g_cap_finish(cap);
    libtq_cap_get_g_cap_finish(nullptr);
}

// Most systems have no such file; one that cannot be read must be found without a debugger.
TEST_F(Capability, SaysWhereAFileIsWrong) {
    StandardError log;
    EXPECT_EQ(libtq_cap_get_g_cap_init("no such file.xml"), nullptr);
    EXPECT_EQ(log.take(), "");
    EXPECT_EQ(open("<root>\n <a></b>\n</root>"), nullptr);
    const std::string said = log.take();
    EXPECT_TRUE(has(said, path + ": line 2, column "));
    EXPECT_TRUE(has_lines(said, 1));
}

}  // namespace
