// The tag/value line syntax: item search, value copies, addresses.
#include "config/vtrp.h"

#include <arpa/inet.h>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr uint32_t BAD = 0xFFFFFFFFu;
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

TEST(VtrUrl, AddressForms)
{
    struct url_case {
        const char *url, *addr; // addr null: compare with raw
        uint32_t raw;
        uint16_t port; // 1: left untouched
    };
    const url_case cases[] = {
        {"239.192.0.5:5004", "239.192.0.5", 0, 5004}, {"1.2.3.4:0x1388", "1.2.3.4", 0, 5000},
        {"1.2.3.300", "1.2.3.44", 0, 5004},            {"vts://239.1.2.3:9", "239.1.2.3", 0, 9},
        {"5:6000", "239.192.0.5", 0, 5004},            {"-5", "239.193.0.5", 0, 5004},
        {"vts://1234", "239.192.4.210", 0, 5004},      {"abc://1.2.3.4", nullptr, 0, 1},
        {nullptr, nullptr, 0, 1},                      {"0", nullptr, BAD, 1},
        {"1.2.3:80", nullptr, BAD, 1},                 {"255.255.255.255", nullptr, BAD, 5004},
    };
    for (const url_case &c : cases) {
        uint16_t port = 1;
        const uint32_t a = vtr_url2ip_port(c.url, &port, 5004);
        EXPECT_EQ(a, c.addr ? inet_addr(c.addr) : c.raw) << str(c.url);
        EXPECT_EQ(port, c.port) << str(c.url);
        EXPECT_EQ(vtr_url2ip_port(c.url, nullptr, 5004), a);
    }
}

} // namespace
