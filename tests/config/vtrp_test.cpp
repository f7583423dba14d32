// The tag/value line syntax: item search, value copies, numbers, addresses.
#include "config/vtrp.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr uint32_t BAD = 0xFFFFFFFFu;

std::string copied(const char *s, int size = 256)
{
    char buf[256];
    vtr_copyval(buf, s, size);
    return buf;
}

TEST(VtrFind, TagsMatchAtItemStartsOnly)
{
    const char *l1 = "gain=3 pdly=10";
    EXPECT_EQ(vtr_findval(l1, "PDLY"), l1 + 12);
    EXPECT_EQ(vtr_findval("gainv=2", "gain"), nullptr);
    const char *l2 = R"(a="x y=1" y=2)";
    EXPECT_STREQ(vtr_findval(l2, "y"), "2");
    EXPECT_STREQ(vtr_findval(R"(a=x\ y=1 y:2)", "y"), "2"); // escaped blank joins
    EXPECT_STREQ(vtr_findval("a=1 ,,a=2", "a"), "1 ,,a=2"); // first one wins
    EXPECT_EQ(vtr_findval("x=1\ty=2", "y"), nullptr);       // a tab is no separator
}

TEST(VtrFind, FindvalAcceptsBlankFindtagDoesNot)
{
    const char *l = "GLB gain=3";
    EXPECT_EQ(vtr_findval(l, "GLB"), l + 4);
    EXPECT_EQ(vtr_findtag(l, "GLB", 3), nullptr);
    EXPECT_EQ(vtr_findtag(l, "GAIN", 4), l + 4);
    EXPECT_STREQ(vtr_findtag("mix:a", "mixer", 3), "mix:a");
    const char *m = "x mix:a";
    EXPECT_EQ(vtr_findtag(m, "mixer", 3), m + 2);
    EXPECT_EQ(vtr_findtag(m, "mi", 8), nullptr); // l beyond the name
}

TEST(VtrFind, AbsentOrEndingTexts)
{
    EXPECT_EQ(vtr_findval(nullptr, "a"), nullptr);
    EXPECT_EQ(vtr_findval("a=1", nullptr), nullptr);
    EXPECT_EQ(vtr_findval("", "a"), nullptr);
    EXPECT_EQ(vtr_findval("b=\\", "a"), nullptr);
    EXPECT_EQ(vtr_findval("b=\"open a=1", "a"), nullptr);
    EXPECT_EQ(vtr_findtag(nullptr, "a", 1), nullptr);
}

TEST(VtrNextval, SkipsQuotedAndEscapedSeparators)
{
    const char *l = R"(a="x y",\ b ,, c)";
    EXPECT_STREQ(vtr_nextval(l), "\\ b ,, c");
    EXPECT_STREQ(vtr_nextval(vtr_nextval(l)), "c");
    const char *e = "abc\\";
    EXPECT_EQ(vtr_nextval(e), e + 4);
    EXPECT_EQ(vtr_nextval(e + 4), e + 4);
}

TEST(VtrCopyval, QuotesEscapesAndLineEnds)
{
    EXPECT_EQ(copied(R"("a b",c)"), "a b");
    EXPECT_EQ(copied(R"("a b",c)", 2), "a");
    EXPECT_EQ(copied(R"(x\,y z)"), "x,y");
    EXPECT_EQ(copied("ab\r\ncd"), "ab");
    EXPECT_EQ(copied("\"a\nb\" c"), "a\nb");
    EXPECT_EQ(copied("ab\\"), "ab\\");
    EXPECT_EQ(copied(nullptr), "");
    char buf[256];
    EXPECT_EQ(vtr_copyval(buf, R"("a b",c)", 256), 3u);
}

TEST(VtrCopyval, NeverWritesPastTheBuffer)
{
    char buf[6];
    memset(buf, '#', sizeof buf);
    EXPECT_EQ(vtr_copyval(buf, "abcd", 5), 4u);
    EXPECT_STREQ(buf, "abcd");
    memset(buf, '#', sizeof buf);
    EXPECT_EQ(vtr_copyval(buf, "abcdef", 4), 3u);
    EXPECT_EQ(std::string(buf, 5), std::string("abc\0#", 5));
    memset(buf, '#', sizeof buf);
    EXPECT_EQ(vtr_copyval(buf, "abc", 0), 0u);
    EXPECT_EQ(vtr_copyval(buf, "abc", -3), 0u);
    EXPECT_EQ(buf[0], '#');
    EXPECT_EQ(vtr_copyval(nullptr, "abc", 4), 0u);
}

TEST(VtrVallen, MeasuresWhatValdupCopies)
{
    const char *v = R"("a b"\,c d)";
    EXPECT_EQ(vtr_vallen(v), 5);
    char *d = vtr_valdup(v);
    EXPECT_STREQ(d, "a b,c");
    free(d);
    EXPECT_EQ(vtr_vallen("\"ab\ncd\""), 2); // ends at LF even inside quotes
    d = vtr_valdup("\"ab\ncd\"");
    EXPECT_STREQ(d, "ab");
    free(d);
    EXPECT_EQ(vtr_vallen("a\\"), 2);
    EXPECT_EQ(vtr_vallen("\r"), 0);
    EXPECT_EQ(vtr_vallen(nullptr), 0);
    d = vtr_valdup("\nx");
    EXPECT_STREQ(d, "");
    free(d);
    EXPECT_EQ(vtr_valdup(nullptr), nullptr);
}

TEST(VtrNumbers, BaseIsAutoDetected)
{
    EXPECT_EQ(vtr_getl("x=010", "x", -1), 8);
    EXPECT_EQ(vtr_getl("x=0x10", "x", -1), 16);
    EXPECT_EQ(vtr_getl("x=\"-7\"", "x", -1), -7);
    EXPECT_EQ(vtr_getl("y=1", "x", -1), -1);
    EXPECT_EQ(vtr_getl("x=abc", "x", -1), 0);
    EXPECT_EQ(vtr_vall("12,3"), 12);
    EXPECT_EQ(vtr_vall(nullptr), 0);
}

struct url_case {
    const char *url;
    const char *addr; // dotted, or null for 0
    uint32_t raw;     // compared when addr is null
    uint16_t port;    // expected port; 1 means "left untouched"
};

class VtrUrl : public ::testing::TestWithParam<url_case> {};

TEST_P(VtrUrl, AddressAndPort)
{
    const url_case &c = GetParam();
    uint16_t port = 1;
    const uint32_t a = vtr_url2ip_port(c.url, &port, 5004);
    EXPECT_EQ(a, c.addr ? inet_addr(c.addr) : c.raw) << c.url;
    EXPECT_EQ(port, c.port) << c.url;
    EXPECT_EQ(vtr_url2ip_port(c.url, nullptr, 5004), a); // port is optional
}

INSTANTIATE_TEST_SUITE_P(
    Forms, VtrUrl,
    ::testing::Values(url_case{"239.192.0.5:5004", "239.192.0.5", 0, 5004},
                      url_case{"1.2.3.4:0x1388", "1.2.3.4", 0, 5000},
                      url_case{"\"10.0.0.1:7000\"", "10.0.0.1", 0, 7000},
                      url_case{"1.2.3.300", "1.2.3.44", 0, 5004},
                      url_case{"0.0.0.0", "0.0.0.0", 0, 5004},
                      url_case{"vts://239.1.2.3:9", "239.1.2.3", 0, 9},
                      url_case{"5", "239.192.0.5", 0, 5004},
                      url_case{"5:6000", "239.192.0.5", 0, 5004},
                      url_case{"-5", "239.193.0.5", 0, 5004},
                      url_case{"vts://1234", "239.192.4.210", 0, 5004},
                      url_case{"70000", "239.192.17.112", 0, 5004},
                      url_case{"-9223372036854775808", "239.193.0.0", 0, 5004},
                      url_case{"abc://1.2.3.4", nullptr, 0, 1},
                      url_case{"VTS://5", nullptr, 0, 1},
                      url_case{nullptr, nullptr, 0, 1},
                      url_case{"0", nullptr, BAD, 1},
                      url_case{"abc", nullptr, BAD, 1},
                      url_case{"", nullptr, BAD, 1},
                      url_case{"1.2.3", nullptr, BAD, 1},
                      url_case{"1.2.3:80", nullptr, BAD, 1},
                      url_case{"-1.2.3.4", nullptr, BAD, 1},
                      url_case{"255.255.255.255", nullptr, BAD, 5004}));

TEST(VtrEscape, NeverSplitsAPair)
{
    char buf[16];
    EXPECT_EQ(vtr_escape(buf, 4, "a\"b"), 3);
    EXPECT_STREQ(buf, "a\\\"");
    EXPECT_EQ(vtr_escape(buf, 3, "a\"b"), 1);
    EXPECT_STREQ(buf, "a");
    EXPECT_EQ(vtr_escape(buf, 1, "abc"), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(vtr_escape(buf, sizeof buf, nullptr), 0);
    EXPECT_EQ(vtr_escape(nullptr, sizeof buf, "a"), 0);
    buf[0] = '#';
    EXPECT_EQ(vtr_escape(buf, 0, "a"), 0);
    EXPECT_EQ(buf[0], '#');
}

TEST(VtrEscape, ReadsBackAsTheSameValue)
{
    const char *v = "x\"y\\z\"";
    char esc[32];
    ASSERT_EQ(vtr_escape(esc, sizeof esc, v), 9);
    EXPECT_EQ(copied(esc), v);
}

} // namespace
