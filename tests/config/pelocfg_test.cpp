// The configuration loader: line handlers with their defaults, the value
// parsers, endpoints, and the reload by difference seen through the
// recorded routing calls.
#include "config/pelocfg.h"
#include "daemon/pelod.h"
#include "routing_double.h"
#include "support/proc.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <unistd.h>

namespace {

std::string ep_text(const sockaddr_in &sa)
{
    char a[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &sa.sin_addr, a, sizeof a);
    return std::string(a) + ":" + std::to_string(ntohs(sa.sin_port));
}

bool ep_zero(const rtp_ep_spec &ep)
{
    static const rtp_ep_spec zero{};
    return memcmp(&ep, &zero, sizeof ep) == 0;
}

std::tuple<int, int, int, int> fields(const rtp_fmt &f)
{
    return {f.payload_format, f.bps, f.samplerate, f.nchan};
}

std::tuple<int, int, int, double, double, double, double> fields(const limcom_params &l)
{
    return {l.enable, l.ch0, l.ch1, l.attack, l.release, l.threshold, l.ratio};
}

std::string captured_stdout()
{
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

class ConfigEmpty : public ::testing::Test { // state: nothing loaded
protected:
    void SetUp() override { config_reset(); }
    void TearDown() override { config_reset(); }

    int load(const std::string &text)
    {
        routing_calls.clear();
        const std::string path = tmp_file(text);
        testing::internal::CaptureStdout();
        const int r = pelocfg_load(path.c_str());
        out = captured_stdout();
        unlink(path.c_str());
        return r;
    }
    static const pelod_xpt *find(const char *mix, const char *src_text)
    {
        for (dlist *e = xpts.next; e != &xpts; e = e->next) {
            const pelod_xpt &x = dlist_entry(e, xpt, link)->x;
            if (!strcmp(x.mix, mix) && !strcmp(x.src, src_text))
                return &x;
        }
        return nullptr;
    }
    static int count(const dlist &h)
    {
        int n = 0;
        for (const dlist *e = h.next; e != &h; e = e->next)
            ++n;
        return n;
    }
    std::string out;
};

TEST_F(ConfigEmpty, ExampleFileLoads)
{
    const std::string text = read_file(std::string(PELOD_SOURCE_DIR) + "/examples/pelod.conf");
    ASSERT_FALSE(text.empty());
    load(text);
    EXPECT_EQ(out, "");
    EXPECT_STREQ(ifs, "127.0.0.1");
    ASSERT_EQ(routing_ops(), "uaaa");
    EXPECT_EQ(routing_calls[0].srcs_used, 3);
    EXPECT_STREQ(routing_calls[1].x.src, "alsa:0"); // reverse file order
    EXPECT_STREQ(routing_calls[3].x.src, "5");

    const pelod_xpt *ch5 = find("spk", "5");
    ASSERT_NE(ch5, nullptr);
    EXPECT_EQ(ep_text(ch5->ep.sa_dst) + " " + ep_text(ch5->ep.sa_bind),
              "239.192.0.5:5004 127.0.0.1:5004");
    EXPECT_EQ(std::make_tuple(ch5->gain_dB, ch5->fmt.nchan, ch5->vox.holdtime, ch5->pdly),
              std::make_tuple(-3.0f, 1, 1000, 0));
    EXPECT_EQ(ch5->vox.threshold_lin, float(pow(10.0, -2.25)));
    const pelod_xpt *uni = find("spk", "127.0.0.1:5004");
    ASSERT_NE(uni, nullptr);
    EXPECT_EQ(ep_text(uni->ep.sa_bind), "127.0.0.1:5004");
    EXPECT_EQ(uni->gain_dB, -6.0f);
    const pelod_xpt *mic = find("mic", "alsa:0");
    ASSERT_NE(mic, nullptr);
    EXPECT_EQ(std::make_tuple(mic->chn, mic->pdly, ep_zero(mic->ep)), std::make_tuple(0, 48, true));

    ASSERT_EQ(srcs_used, 3);
    EXPECT_EQ(srcs[0].ep.sa_dst.sin_family, alsa_src_family);
    EXPECT_EQ(srcs[0].ep.sa_bind.sin_family, alsa_src_family);
    EXPECT_STREQ(srcs[1].mix, "mic");
    EXPECT_EQ(ep_text(srcs[1].ep.sa_dst) + " " + ep_text(srcs[1].ep.sa_bind),
              "239.192.0.7:5004 127.0.0.1:5004");
    EXPECT_EQ(ep_text(srcs[2].ep.sa_dst), "127.0.0.1:5006");
}

TEST_F(ConfigEmpty, ExampleLinesLoad)
{
    load("GLB ifs=192.168.1.10\n"
         "XPT mix=spk src=239.192.0.5:5004;src=192.168.1.20;fmt=L24/48000/2;pdly=96 chn=0 "
         "gain=-6 vox=1;t=-45;h=2 ecs=mic lce=1;a=5;r=100;T=0.5;R=4\n"
         "SRC mix=mic rtpa=239.192.1.1:5004 fmt=L24/48000/1 pt=97 ptime=1\n"
         "SRC mix=line rtpa=alsa:0\n");
    EXPECT_EQ(out, "");
    const pelod_xpt *x = find("spk", "239.192.0.5:5004;src=192.168.1.20;fmt=L24/48000/2;pdly=96");
    ASSERT_NE(x, nullptr);
    EXPECT_EQ(ep_text(x->ep.sa_dst) + " " + ep_text(x->ep.sa_bind),
              "239.192.0.5:5004 192.168.1.10:5004");
    EXPECT_EQ(x->ep.ssm_src, inet_addr("192.168.1.20"));
    EXPECT_EQ(fields(x->fmt), std::make_tuple(0, 24, 48000, 2));
    EXPECT_EQ(std::make_tuple(x->pdly, x->chn, x->gain_dB, x->vox.holdtime),
              std::make_tuple(96, 0, -6.0f, 2000));
    EXPECT_STREQ(x->eaec_mix, "mic");
    EXPECT_EQ(fields(x->limcom_params), std::make_tuple(1, 0, 1, 5.0, 100.0, 0.5, 4.0));

    ASSERT_EQ(srcs_used, 2);
    EXPECT_EQ(std::make_tuple(srcs[0].rtp_pt, srcs[0].fmt.nchan), std::make_tuple(uint8_t(97), 1));
    EXPECT_EQ(ep_text(srcs[0].ep.sa_dst) + " " + ep_text(srcs[0].ep.sa_bind),
              "239.192.1.1:5004 192.168.1.10:5004");
    EXPECT_EQ(srcs[1].ep.sa_dst.sin_family, alsa_src_family);
}

TEST_F(ConfigEmpty, XptDefaultsAndSourceOptions)
{
    auto newest = [](const std::string &line) -> const pelod_xpt & {
        EXPECT_EQ(pelocfg_load_xpt(line.c_str()), 0);
        return dlist_entry(xpts_new.next, xpt, link)->x;
    };
    const pelod_xpt &x = newest("XPT mix=a src=5");
    EXPECT_EQ(std::make_tuple(x.chn, x.pdly, x.gain_dB, x.vox.threshold_lin, x.vox.holdtime),
              std::make_tuple(-1, 0, 0.0f, 0.0f, 0));
    EXPECT_EQ(fields(x.fmt), std::make_tuple(0, 0, 0, 0));
    EXPECT_EQ(fields(x.limcom_params), std::make_tuple(0, 0, 0, 0.0, 0.0, 0.0, 0.0));
    EXPECT_STREQ(x.eaec_mix, "");
    EXPECT_EQ(newest("XPT mix=b src=alsa:1").pdly, 48);
    EXPECT_TRUE(ep_zero(newest("XPT mix=b src=alsa:1").ep));
    EXPECT_EQ(newest("XPT pdly=010 mix=c src=5").pdly, 8);
    // ;fmt= overrides, and keeps what fmt= set where its name sets nothing
    const pelod_xpt &d = newest("XPT pdly=010 mix=d src=5;x=1;pdly=0x30;fmt=opus/2 fmt=L24/48000/1");
    EXPECT_EQ(d.pdly, 48);
    EXPECT_EQ(fields(d.fmt), std::make_tuple(1, 24, 48000, 2));
    EXPECT_EQ(newest("XPT mix=e src=5;pdly=96x;fmt=L24/2").fmt.nchan, 0); // scan ends at 'x'
    strcpy(ifs, "10.1.1.1");
    EXPECT_EQ(ep_text(newest("XPT mix=f src=5 ifa=10.2.2.2:6000").ep.sa_bind), "10.2.2.2:6000");
    EXPECT_EQ(strlen(newest("XPT src=5 mix=" + std::string(300, 'm')).mix), 64u);
}

TEST_F(ConfigEmpty, SrcDefaultsAndValues)
{
    ASSERT_EQ(pelocfg_load_src("SRC mix=a rtpa=5"), 0);
    ASSERT_EQ(pelocfg_load_src("src mix=a:b rtpa=5 pt=300 ptime=5 gainv=-3;-6 br=64000 cbr=1 "
                               "lce=1;i=10"),
              0);
    ASSERT_EQ(pelocfg_load_src("mix=a rtpa=alsa:0x2 gainv=\"-3 x\" ifa=1.2.3.4"), 0);
    const src &a = srcs[0], &b = srcs[1], &c = srcs[2];
    EXPECT_EQ(std::make_tuple(a.rtp_pt, a.rtp_ptime_samples, a.gainv_dB[0], a.bitrate, a.cbr),
              std::make_tuple(uint8_t(255), 48, 0.0f, 0, 0));
    EXPECT_STREQ(b.mix, "a:b");
    EXPECT_EQ(std::make_tuple(b.rtp_pt, b.rtp_ptime_samples, b.gainv_dB[0], b.gainv_dB[1],
                              b.bitrate, b.cbr),
              std::make_tuple(uint8_t(44), 240, -3.0f, -6.0f, 64000, 1));
    EXPECT_EQ(fields(b.limcom_params), std::make_tuple(1, 1, 0, 0.0, 0.0, 0.0, 0.0));
    EXPECT_EQ(std::make_tuple(c.gainv_dB[0], c.gainv_dB[1]), std::make_tuple(-3.0f, 0.0f));
    EXPECT_EQ(std::make_tuple(c.ep.sa_bind.sin_family, ntohs(c.ep.sa_dst.sin_port),
                              c.ep.sa_bind.sin_addr.s_addr),
              std::make_tuple(alsa_src_family, uint16_t(2), 0u));
}

TEST_F(ConfigEmpty, LimiterWithoutItsValuesIsReported)
{
    testing::internal::CaptureStdout();
    pelocfg_load_src("SRC mix=a rtpa=5 lce=1");
    pelocfg_load_xpt("XPT mix=a src=5 lce=1;a=5;r=100;T=0.5");
    pelocfg_load_xpt("XPT mix=b src=6 lce=0;T=0.5");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "'mix=a rtpa=5 lce=1' lce warning: limiter enabled without T=, a= and r= (all "
              "non-zero); its output is silent.\n");
}

TEST_F(ConfigEmpty, SixtyFifthSrcAndLaterGlbAreIgnored)
{
    std::string text = "XPT mix=early src=5\nGLB ifs=10.0.0.1\n";
    for (int i = 0; i < 65; ++i)
        text += "SRC mix=m" + std::to_string(i) + " rtpa=" + std::to_string(i + 1) + "\n";
    load(text + "GLB ifs=10.9.9.9\nXPT mix=late src=5\n");
    EXPECT_EQ(srcs_used, 64);
    EXPECT_STREQ(srcs[63].mix, "m63");
    EXPECT_STREQ(ifs, "10.0.0.1");
    EXPECT_EQ(ep_text(find("early", "5")->ep.sa_bind), "0.0.0.0:5004");
    EXPECT_EQ(ep_text(find("late", "5")->ep.sa_bind), "10.0.0.1:5004");
    EXPECT_EQ(pelocfg_load_src("SRC mix=x rtpa=1"), -1);
}

TEST_F(ConfigEmpty, GarbageLinesAreIgnored)
{
    std::string text = "XPT\tmix=tab src=1\n#XPT mix=comment src=1\nXPTmix=nb src=1\n"
                       "\x01\xff\x7f garbage = \" \\\nxpt mix=lower src=2\n";
    text += "XPT mix=cut src=3 x=" + std::string(3000, 'x') + " XPT mix=tail src=4\n";
    text += "XPT mix=huge src=\"" + std::string(65536, ' ') + "\n";
    text += std::string("XPT mix=nul src=6\0 more\n", 24) + "SRC mix=s rtpa=\\\nGLB ifs\n";
    load(text);
    EXPECT_EQ(count(xpts), 4); // lower, cut, huge, nul
    EXPECT_NE(find("lower", "2"), nullptr);
    EXPECT_NE(find("cut", "3"), nullptr);
    EXPECT_NE(find("nul", "6"), nullptr);
    EXPECT_EQ(srcs_used, 1);
    EXPECT_TRUE(ep_zero(srcs[0].ep));
}

TEST_F(ConfigEmpty, MissingFileRemovesEverything)
{
    load("XPT mix=a src=1\nXPT mix=b src=2\nSRC mix=a rtpa=3\n");
    routing_calls.clear();
    testing::internal::CaptureStderr();
    EXPECT_EQ(pelocfg_load("/nonexistent/pelod.conf"), ENOENT);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "pelocfg_load: No such file or directory\n");
    EXPECT_EQ(routing_ops(), "ddu");
    EXPECT_EQ(routing_calls[2].srcs_used, 0);
    EXPECT_TRUE(dlist_empty(&xpts) && dlist_empty(&xpts_del));
}

TEST_F(ConfigEmpty, FormatWarningsNameTheLineOrTheSource)
{
    load("XPT mix=a src=5 fmt=L24/44100/2\nXPT mix=b src=6;fmt=L24/48000/10\n");
    EXPECT_EQ(out, "'XPT mix=a src=5 fmt=L24/44100/2' fmt warning: Only supports 48000kHz sample "
                   "rate. Using default 48000kHz.\n"
                   "'6;fmt=L24/48000/10' fmt warning: Only supports streams with 1-8 channels. "
                   "Using 2-channel default.\n");
}

TEST_F(ConfigEmpty, ReloadAppliesOnlyTheDifference)
{
    const std::string base = "XPT mix=spk src=5 gain=-3 fmt=L24/48000/2\nXPT mix=spk src=6 vox=1\n"
                             "SRC mix=spk rtpa=7\nXPT mix=rec src=5 lce=1;a=2\n";
    const struct {
        const char *from, *to, *ops;
        float gain; // of spk/5 afterwards
    } cases[] = {
        {"", "", "u", -3.0f},                                // unchanged
        {"gain=-3", "gain=-9", "ua", -9.0f},                 // gain only
        {"src=6", "src=6 ifa=10.0.0.2", "ua", -3.0f},        // endpoint only
        {"fmt=L24/48000/2", "fmt=L24/48000/1", "u", -3.0f},  // format only: not applied
        {"mix=rec", "mix=out", "dua", -3.0f},                // identity
        {"vox=1", "vox=1;t=-40", "dua", -3.0f},
    };
    for (const auto &c : cases) {
        config_reset();
        load(base);
        ASSERT_EQ(routing_ops(), "uaaa");
        std::string edited = base;
        edited.replace(edited.find(c.from), strlen(c.from), c.to);
        load(edited);
        EXPECT_EQ(routing_ops(), c.ops) << c.to;
        EXPECT_EQ(count(xpts), 3);
        EXPECT_TRUE(dlist_empty(&xpts_del) && dlist_empty(&xpts_new));
        EXPECT_EQ(find("spk", "5")->gain_dB, c.gain) << c.to;
        EXPECT_EQ(find("spk", "5")->fmt.nchan, 2) << c.to;
        for (const routing_call &r : routing_calls) { // adds carry what now runs
            const pelod_xpt *n = r.op == 'a' ? find(r.x.mix, r.x.src) : nullptr;
            EXPECT_TRUE(r.op != 'a' || (n && !memcmp(&n->ep, &r.x.ep, sizeof n->ep) &&
                                        n->gain_dB == r.x.gain_dB));
        }
    }
    EXPECT_STREQ(routing_calls[0].x.src, "6"); // the old vox line is deleted
    EXPECT_EQ(routing_calls[0].x.vox.threshold_lin, float(pow(10.0, -2.4)));
}

TEST(ConfigFormat, FieldsAndWarnings)
{
    const char *rate = "'t' fmt warning: Only supports 48000kHz sample rate. Using default "
                       "48000kHz.\n";
    const char *chans = "'t' fmt warning: Only supports streams with 1-8 channels. Using "
                        "2-channel default.\n";
    const struct {
        const char *text;
        rtp_fmt want;
        const char *warning;
    } cases[] = {
        {"L24", {0, 0, 0, 0}, ""},                   {"", {0, 0, 0, 0}, ""},
        {"L24/2", {0, 24, 48000, 2}, ""},            {"L24.48000.1", {0, 24, 48000, 1}, ""},
        {"L24/44100/2", {0, 24, 48000, 2}, rate},    {"L24/48000/9", {0, 24, 48000, 2}, chans},
        {"L24/48000/-1", {0, 24, 48000, 2}, chans},  {"L16/48000/2", {0, 0, 48000, 2}, ""},
        {"opus/48000/2", {1, 0, 48000, 2}, ""},      {"ndi/0", {2, 0, 48000, 0}, ""},
        {"Opus/2", {0, 0, 48000, 2}, ""},
    };
    for (const auto &c : cases) {
        rtp_fmt f{};
        testing::internal::CaptureStdout();
        rtp_fmt_parse(&f, c.text, "t");
        EXPECT_EQ(captured_stdout(), c.warning) << c.text;
        EXPECT_EQ(fields(f), fields(c.want)) << c.text;
    }
    rtp_fmt f{0, 32, 0, 0};
    testing::internal::CaptureStdout();
    rtp_fmt_parse(&f, "L16/48000/2", "XPT a");
    EXPECT_EQ(captured_stdout(), "'XPT a' fmt warning: Only supports 16-bit and 24-bit streams. "
                                 "Using default 24-bit depth.\n");
    EXPECT_EQ(f.bps, 24);
}

TEST(ConfigVoxLimcom, ValuesAndWhereParsingStops)
{
    auto vox = [](const char *s) {
        pelod_vox_cfg v{};
        pelocfg_vox(&v, s);
        return std::make_tuple(v.threshold_lin, v.holdtime, v.gate);
    };
    const float minus48 = float(pow(10.0, -2.4));
    EXPECT_NEAR(minus48, 0.00398f, 1e-5f);
    EXPECT_EQ(vox("1"), std::make_tuple(minus48, 1000, 0));
    EXPECT_EQ(vox("0;t=-20"), std::make_tuple(0.0f, 1000, 0));
    EXPECT_EQ(vox("1;t=-120"), std::make_tuple(0.0f, 1000, 0));
    EXPECT_EQ(vox("1;h=0.25;g=1.9;x=5;t=-6"), std::make_tuple(float(pow(10.0, -0.3)), 250, 1));
    EXPECT_EQ(vox("1;t=-20x;h=5"), std::make_tuple(float(pow(10.0, -1.0)), 1000, 0));
    EXPECT_EQ(vox("1;h=1e300;g=-1e300"), std::make_tuple(minus48, INT32_MAX, INT32_MIN));

    auto lce = [](const char *s) {
        limcom_params l{};
        pelocfg_limcom(&l, s);
        return fields(l);
    };
    EXPECT_EQ(lce("1;i=23;a=1"), std::make_tuple(1, 2, 3, 1.0, 0.0, 0.0, 0.0));
    EXPECT_EQ(lce("1;i=28;a=1"), std::make_tuple(1, 2, 1, 0.0, 0.0, 0.0, 0.0));
    EXPECT_EQ(lce("1;i=01a=5"), std::make_tuple(1, 0, 1, 0.0, 0.0, 0.0, 0.0));
    EXPECT_EQ(lce("0;a=5"), std::make_tuple(0, 0, 1, 0.0, 0.0, 0.0, 0.0)); // only 1 is skipped
    EXPECT_EQ(lce(";r=5;R=2;T=0.1;q=3;a=7"), std::make_tuple(0, 0, 1, 7.0, 5.0, 0.1, 2.0));
    EXPECT_EQ(lce("1;a"), std::make_tuple(1, 0, 1, 0.0, 0.0, 0.0, 0.0));
    EXPECT_EQ(lce("1;i="), std::make_tuple(1, 0, 1, 0.0, 0.0, 0.0, 0.0));
}

TEST(ConfigEndpoint, AddressesAndPorts)
{
    const struct {
        const char *rtpa, *ifa, *want; // "dst bind ssm", or "" for no endpoint
    } cases[] = {
        {"5", "", "239.192.0.5:5004 0.0.0.0:5004 0.0.0.0"},
        {"239.1.1.1:6000", "192.168.1.2", "239.1.1.1:6000 192.168.1.2:6000 0.0.0.0"},
        {"239.1.1.1:6000", "192.168.1.2:7000", "239.1.1.1:6000 192.168.1.2:7000 0.0.0.0"},
        {"10.0.0.1", nullptr, "10.0.0.1:5004 0.0.0.0:5004 0.0.0.0"},
        {"0.0.0.0:6000", "", "0.0.0.0:6000 0.0.0.0:6000 0.0.0.0"},
        {"vts://5", "", "239.192.0.5:0 0.0.0.0:0 0.0.0.0"},
        {"5", ":7000", "239.192.0.5:5004 0.0.0.0:7000 0.0.0.0"},
        {"239.1.1.1;src=10.0.0.9;fmt=x;src=10.0.0.8", "", "239.1.1.1:5004 0.0.0.0:5004 10.0.0.8"},
        {"0", "", ""}, {"", "", ""}, {"alsa:0", "", ""}, {"abc://1.2.3.4", "", ""},
        {"5", "1.2.3", ""}, {"5", "abc://1.2.3.4", ""},
    };
    for (const auto &c : cases) {
        rtp_ep_spec ep[2];
        memset(ep, 0x5a, sizeof ep);
        rtpa2ep(c.rtpa, c.ifa, ep, 2);
        EXPECT_EQ(memcmp(&ep[0], &ep[1], sizeof ep[0]), 0);
        if (!*c.want) {
            EXPECT_TRUE(ep_zero(ep[0])) << c.rtpa;
            continue;
        }
        sockaddr_in ssm{};
        ssm.sin_addr.s_addr = ep[0].ssm_src;
        const std::string got = ep_text(ep[0].sa_dst) + " " + ep_text(ep[0].sa_bind) + " " +
                                ep_text(ssm).substr(0, ep_text(ssm).size() - 2);
        EXPECT_EQ(got, c.want) << c.rtpa;
        EXPECT_EQ(ep[0].sa_dst.sin_family, AF_INET);
    }
}

} // namespace
