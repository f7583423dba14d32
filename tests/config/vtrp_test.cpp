// The tag/value line syntax: item search and value copies (addresses are
// checked through the loader's endpoints).
#include "config/vtrp.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

const char *str(const char *p) { return p ? p : "(null)"; }

TEST(VtrFind, TerminatorsQuotesAndEscapes)
{
    struct find_case {
        const char *line, *name, *val; // value found by vtr_findval
        size_t l;                      // compared length for vtr_findtag
        const char *tag;               // item found by vtr_findtag
    };
    const find_case cases[] = {
        {"gain=3 pdly=10", "PDLY", "10", 4, "pdly=10"},
        {"gainv=2", "gain", nullptr, 4, nullptr},
        {R"(a="x y=1" y=2)", "y", "2", 1, "y=2"},
        {R"(a=x\ y=1 y:2)", "y", "2", 1, "y:2"},
        {"GLB gain=3", "GLB", "gain=3", 3, nullptr},
        {"b=\"open a=1", "a", nullptr, 1, nullptr},
        {nullptr, "a", nullptr, 1, nullptr},
    };
    for (const find_case &c : cases) {
        EXPECT_STREQ(str(vtr_findval(c.line, c.name)), str(c.val)) << str(c.line);
        EXPECT_STREQ(str(vtr_findtag(c.line, c.name, c.l)), str(c.tag)) << str(c.line);
    }
    const char *l = R"(a="x y",\ b ,, c)";
    EXPECT_STREQ(vtr_nextval(l), "\\ b ,, c");
    EXPECT_STREQ(vtr_nextval(vtr_nextval(l)), "c");
    EXPECT_EQ(vtr_nextval(l + strlen(l)), l + strlen(l));
    const char *e = "abc\\";
    EXPECT_EQ(vtr_nextval(e), e + 4);
}

TEST(VtrCopyval, ValuesAndBufferBounds)
{
    struct copy_case {
        const char *val;
        int size;
        const char *want;
    };
    const copy_case cases[] = {
        {R"("a b",c)", 2, "a"}, {R"(x\,y z)", 64, "x,y"}, {"ab\r\ncd", 64, "ab"},
        {"\"a\nb\" c", 64, "a\nb"}, {nullptr, 64, ""}, {"abcdef", 4, "abc"},
    };
    for (const copy_case &c : cases) {
        char buf[66];
        memset(buf, '#', sizeof buf);
        EXPECT_EQ(vtr_copyval(buf, c.val, c.size), strlen(c.want)) << str(c.val);
        EXPECT_STREQ(buf, c.want);
        EXPECT_EQ(buf[c.size], '#'); // nothing past the buffer
    }
    char buf[4] = "##";
    EXPECT_EQ(vtr_copyval(buf, "abc", 0) + vtr_copyval(buf, "abc", -3), 0u);
    EXPECT_EQ(buf[0], '#');
    EXPECT_EQ(vtr_copyval(nullptr, "abc", 4), 0u);
}

} // namespace
