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

class ConfigEmpty : public ::testing::Test { // state: nothing loaded
protected:
    void SetUp() override { config_reset(); }
    void TearDown() override { config_reset(); }

    int load(const std::string &text)
    {
        const std::string path = tmp_file(text);
        testing::internal::CaptureStdout();
        const int r = pelocfg_load(path.c_str());
        fflush(stdout);
        out = testing::internal::GetCapturedStdout();
        unlink(path.c_str());
        return r;
    }
    int reload(const std::string &text)
    {
        routing_calls.clear();
        return load(text);
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
    EXPECT_EQ(routing_ops(), "uaaa");
    EXPECT_EQ(routing_calls[0].srcs_used, 3);
    EXPECT_STREQ(routing_calls[1].x.src, "alsa:0"); // reverse file order
    EXPECT_STREQ(routing_calls[3].x.src, "5");

    const pelod_xpt *ch5 = find("spk", "5");
    ASSERT_NE(ch5, nullptr);
    EXPECT_EQ(ep_text(ch5->ep.sa_dst), "239.192.0.5:5004");
    EXPECT_EQ(ep_text(ch5->ep.sa_bind), "127.0.0.1:5004");
    EXPECT_EQ(ch5->gain_dB, -3.0f);
    EXPECT_EQ(ch5->fmt.nchan, 1);
    EXPECT_EQ(ch5->vox.threshold_lin, float(pow(10.0, -2.25)));
    EXPECT_EQ(ch5->vox.holdtime, 1000);
    const pelod_xpt *uni = find("spk", "127.0.0.1:5004");
    ASSERT_NE(uni, nullptr);
    EXPECT_EQ(ep_text(uni->ep.sa_bind), "127.0.0.1:5004");
    EXPECT_EQ(uni->gain_dB, -6.0f);
    const pelod_xpt *mic = find("mic", "alsa:0");
    ASSERT_NE(mic, nullptr);
    EXPECT_EQ(mic->chn, 0);
    EXPECT_EQ(mic->pdly, 48);
    EXPECT_TRUE(ep_zero(mic->ep));

    ASSERT_EQ(srcs_used, 3);
    EXPECT_EQ(srcs[0].ep.sa_dst.sin_family, alsa_src_family);
    EXPECT_EQ(srcs[0].ep.sa_bind.sin_family, alsa_src_family);
    EXPECT_STREQ(srcs[1].mix, "mic");
    EXPECT_EQ(ep_text(srcs[1].ep.sa_dst), "239.192.0.7:5004");
    EXPECT_EQ(ep_text(srcs[1].ep.sa_bind), "127.0.0.1:5004");
    EXPECT_EQ(ep_text(srcs[2].ep.sa_dst), "127.0.0.1:5006");
    EXPECT_EQ(srcs[2].rtp_pt, 255);
    EXPECT_EQ(srcs[2].rtp_ptime_samples, 48);

    reload(text);
    EXPECT_EQ(routing_ops(), "u");
    EXPECT_EQ(count(xpts), 3);
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
    EXPECT_EQ(ep_text(x->ep.sa_dst), "239.192.0.5:5004");
    EXPECT_EQ(ep_text(x->ep.sa_bind), "192.168.1.10:5004");
    EXPECT_EQ(x->ep.ssm_src, inet_addr("192.168.1.20"));
    EXPECT_EQ(x->fmt.payload_format, 0);
    EXPECT_EQ(x->fmt.bps, 24);
    EXPECT_EQ(x->fmt.samplerate, 48000);
    EXPECT_EQ(x->fmt.nchan, 2);
    EXPECT_EQ(x->pdly, 96);
    EXPECT_EQ(x->chn, 0);
    EXPECT_EQ(x->gain_dB, -6.0f);
    EXPECT_EQ(x->vox.holdtime, 2000);
    EXPECT_STREQ(x->eaec_mix, "mic");
    const limcom_params &l = x->limcom_params;
    EXPECT_EQ(l.enable, 1);
    EXPECT_EQ(l.ch0, 0);
    EXPECT_EQ(l.ch1, 1);
    EXPECT_EQ(l.attack, 5.0);
    EXPECT_EQ(l.release, 100.0);
    EXPECT_EQ(l.threshold, 0.5);
    EXPECT_EQ(l.ratio, 4.0);

    ASSERT_EQ(srcs_used, 2);
    EXPECT_EQ(srcs[0].rtp_pt, 97);
    EXPECT_EQ(srcs[0].fmt.nchan, 1);
    EXPECT_EQ(ep_text(srcs[0].ep.sa_dst), "239.192.1.1:5004");
    EXPECT_EQ(ep_text(srcs[0].ep.sa_bind), "192.168.1.10:5004");
    EXPECT_EQ(srcs[1].ep.sa_dst.sin_family, alsa_src_family);
    EXPECT_EQ(srcs[1].ep.sa_dst.sin_port, 0);
}

TEST_F(ConfigEmpty, XptDefaultsAndSourceOptions)
{
    ASSERT_EQ(pelocfg_load_xpt("XPT mix=a src=5"), 0);
    const pelod_xpt &x = dlist_entry(xpts_new.next, xpt, link)->x;
    EXPECT_EQ(x.chn, -1);
    EXPECT_EQ(x.pdly, 0);
    EXPECT_EQ(x.gain_dB, 0.0f);
    EXPECT_EQ(x.fmt.payload_format | x.fmt.bps | x.fmt.samplerate | x.fmt.nchan, 0);
    EXPECT_EQ(x.vox.threshold_lin, 0.0f);
    EXPECT_EQ(x.vox.holdtime, 0);
    EXPECT_EQ(x.limcom_params.enable | x.limcom_params.ch1, 0);
    EXPECT_STREQ(x.eaec_mix, "");

    pelocfg_load_xpt("XPT mix=b src=alsa:1");
    EXPECT_EQ(dlist_entry(xpts_new.next, xpt, link)->x.pdly, 48);
    EXPECT_TRUE(ep_zero(dlist_entry(xpts_new.next, xpt, link)->x.ep));
    pelocfg_load_xpt("XPT pdly=010 mix=c src=5");
    EXPECT_EQ(dlist_entry(xpts_new.next, xpt, link)->x.pdly, 8);
    pelocfg_load_xpt("XPT pdly=010 mix=d src=5;x=1;pdly=0x30;fmt=opus/2 fmt=L24/48000/1");
    const pelod_xpt &d = dlist_entry(xpts_new.next, xpt, link)->x;
    EXPECT_EQ(d.pdly, 48);
    EXPECT_EQ(d.fmt.payload_format, 1); // ;fmt= keeps what fmt= set for other names
    EXPECT_EQ(d.fmt.bps, 24);
    EXPECT_EQ(d.fmt.nchan, 2);
    pelocfg_load_xpt("XPT mix=e src=5;pdly=96x;fmt=L24/2");
    EXPECT_EQ(dlist_entry(xpts_new.next, xpt, link)->x.fmt.nchan, 0); // scan ended at 'x'

    strcpy(ifs, "10.1.1.1");
    pelocfg_load_xpt("XPT mix=f src=5 ifa=10.2.2.2:6000");
    EXPECT_EQ(ep_text(dlist_entry(xpts_new.next, xpt, link)->x.ep.sa_bind), "10.2.2.2:6000");
    const std::string long_mix = "XPT src=5 mix=" + std::string(300, 'm');
    pelocfg_load_xpt(long_mix.c_str());
    EXPECT_EQ(strlen(dlist_entry(xpts_new.next, xpt, link)->x.mix), 64u);
}

TEST_F(ConfigEmpty, SrcDefaultsAndValues)
{
    ASSERT_EQ(pelocfg_load_src("SRC mix=a rtpa=5"), 0);
    EXPECT_EQ(srcs[0].rtp_pt, 255);
    EXPECT_EQ(srcs[0].rtp_ptime_samples, 48);
    EXPECT_EQ(srcs[0].gainv_dB[0], 0.0f);
    EXPECT_EQ(srcs[0].bitrate, 0);
    ASSERT_EQ(pelocfg_load_src("src mix=a:b rtpa=5 pt=300 ptime=5 gainv=-3;-6 br=64000 cbr=1 "
                               "lce=1;i=10"),
              0);
    EXPECT_STREQ(srcs[1].mix, "a:b");
    EXPECT_EQ(srcs[1].rtp_pt, 44);
    EXPECT_EQ(srcs[1].rtp_ptime_samples, 240);
    EXPECT_EQ(srcs[1].gainv_dB[0], -3.0f);
    EXPECT_EQ(srcs[1].gainv_dB[1], -6.0f);
    EXPECT_EQ(srcs[1].bitrate, 64000);
    EXPECT_EQ(srcs[1].cbr, 1);
    EXPECT_EQ(srcs[1].limcom_params.ch0, 1);
    EXPECT_EQ(srcs[1].limcom_params.ch1, 0);
    pelocfg_load_src("mix=a rtpa=alsa:0x2 gainv=\"-3 x\" ifa=1.2.3.4");
    EXPECT_EQ(srcs[2].gainv_dB[0], -3.0f);
    EXPECT_EQ(srcs[2].gainv_dB[1], 0.0f);
    EXPECT_EQ(srcs[2].ep.sa_bind.sin_family, alsa_src_family);
    EXPECT_EQ(ntohs(srcs[2].ep.sa_dst.sin_port), 2);
    EXPECT_EQ(srcs[2].ep.sa_bind.sin_addr.s_addr, 0u);
    EXPECT_EQ(srcs_used, 3);
}

TEST_F(ConfigEmpty, SixtyFifthSrcAndLaterGlbAreIgnored)
{
    std::string text = "XPT mix=early src=5\nGLB ifs=10.0.0.1\n";
    for (int i = 0; i < 65; ++i)
        text += "SRC mix=m" + std::to_string(i) + " rtpa=" + std::to_string(i + 1) + "\n";
    text += "GLB ifs=10.9.9.9\nXPT mix=late src=5\n";
    load(text);
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
                       "\x01\xff\x7f garbage = \" \\\n"
                       "xpt mix=lower src=2\n";
    text += "XPT mix=cut src=3 x=" + std::string(3000, 'x') + " XPT mix=tail src=4\n";
    text += "XPT mix=huge src=\"" + std::string(65536, ' ') + "\n";
    text += std::string("XPT mix=nul src=6\0 more\n", 24) + "SRC mix=s rtpa=\\\nGLB ifs\n";
    load(text);
    EXPECT_EQ(count(xpts), 4);
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
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "pelocfg_load: No such file or directory\n");
    EXPECT_EQ(routing_ops(), "ddu");
    EXPECT_EQ(routing_calls[2].srcs_used, 0);
    EXPECT_TRUE(dlist_empty(&xpts));
    EXPECT_TRUE(dlist_empty(&xpts_del));
}

class ConfigLoaded : public ConfigEmpty { // state: three crosspoints running
protected:
    static constexpr const char *base = "XPT mix=spk src=5 gain=-3 fmt=L24/48000/2\n"
                                        "XPT mix=spk src=6 vox=1\n"
                                        "SRC mix=spk rtpa=7\n"
                                        "XPT mix=rec src=5 lce=1;a=2\n";
    void SetUp() override
    {
        ConfigEmpty::SetUp();
        load(base);
        ASSERT_EQ(routing_ops(), "uaaa");
    }
    std::string edited(const std::string &from, const std::string &to)
    {
        std::string t = base;
        t.replace(t.find(from), from.size(), to);
        return t;
    }
};

TEST_F(ConfigLoaded, UnchangedFileTouchesNoCrosspoint)
{
    reload(base);
    EXPECT_EQ(routing_ops(), "u");
    EXPECT_EQ(routing_calls[0].srcs_used, 1);
    EXPECT_EQ(count(xpts), 3);
    EXPECT_TRUE(dlist_empty(&xpts_del));
    EXPECT_TRUE(dlist_empty(&xpts_new));
}

TEST_F(ConfigLoaded, GainChangeAddsOnlyThatCrosspoint)
{
    reload(edited("gain=-3", "gain=-9"));
    ASSERT_EQ(routing_ops(), "ua");
    EXPECT_STREQ(routing_calls[1].x.mix, "spk");
    EXPECT_EQ(routing_calls[1].x.gain_dB, -9.0f);
    EXPECT_EQ(find("spk", "5")->gain_dB, -9.0f);
    EXPECT_EQ(count(xpts), 3);
}

TEST_F(ConfigLoaded, EndpointChangeAddsWithoutDelete)
{
    reload(edited("src=6", "src=6 ifa=10.0.0.2"));
    ASSERT_EQ(routing_ops(), "ua");
    EXPECT_EQ(ep_text(routing_calls[1].x.ep.sa_bind), "10.0.0.2:5004");
}

TEST_F(ConfigLoaded, FormatChangeAloneIsNotApplied)
{
    reload(edited("fmt=L24/48000/2", "fmt=L24/48000/1"));
    EXPECT_EQ(routing_ops(), "u");
    EXPECT_EQ(find("spk", "5")->fmt.nchan, 2);
}

TEST_F(ConfigLoaded, IdentityChangeDeletesThenAdds)
{
    reload(edited("mix=rec", "mix=out"));
    ASSERT_EQ(routing_ops(), "dua");
    EXPECT_STREQ(routing_calls[0].x.mix, "rec");
    EXPECT_STREQ(routing_calls[2].x.mix, "out");
    reload(edited("vox=1", "vox=1;t=-40"));
    EXPECT_EQ(routing_ops(), "dduaa"); // "out" and the old vox line go, two come
    EXPECT_EQ(count(xpts), 3);
}

TEST(ConfigFormat, FieldsAndWarnings)
{
    struct fmt_case {
        const char *text;
        rtp_fmt want;
        const char *warning;
    };
    const char *rate = "'t' fmt warning: Only supports 48000kHz sample rate. Using default "
                       "48000kHz.\n";
    const char *chans = "'t' fmt warning: Only supports streams with 1-8 channels. Using "
                        "2-channel default.\n";
    const fmt_case cases[] = {
        {"L24", {0, 0, 0, 0}, ""},
        {"", {0, 0, 0, 0}, ""},
        {"L24/2", {0, 24, 48000, 2}, ""},
        {"L24.48000.1", {0, 24, 48000, 1}, ""},
        {"L24/44100/2", {0, 24, 48000, 2}, rate},
        {"L24/48000/9", {0, 24, 48000, 2}, chans},
        {"L24/48000/-1", {0, 24, 48000, 2}, chans},
        {"L16/48000/2", {0, 0, 48000, 2}, ""},
        {"opus/48000/2", {1, 0, 48000, 2}, ""},
        {"ndi/0", {2, 0, 48000, 0}, ""},
        {"Opus/2", {0, 0, 48000, 2}, ""},
    };
    for (const fmt_case &c : cases) {
        rtp_fmt f{};
        testing::internal::CaptureStdout();
        rtp_fmt_parse(&f, c.text, "t");
        fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.warning) << c.text;
        EXPECT_EQ(f.payload_format, c.want.payload_format) << c.text;
        EXPECT_EQ(f.bps, c.want.bps) << c.text;
        EXPECT_EQ(f.samplerate, c.want.samplerate) << c.text;
        EXPECT_EQ(f.nchan, c.want.nchan) << c.text;
    }
    rtp_fmt f{0, 32, 0, 0};
    testing::internal::CaptureStdout();
    rtp_fmt_parse(&f, "L16/48000/2", "XPT a");
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "'XPT a' fmt warning: Only supports 16-bit and 24-bit streams. Using default "
              "24-bit depth.\n");
    EXPECT_EQ(f.bps, 24);
}

TEST_F(ConfigEmpty, FormatWarningsNameTheLineOrTheSource)
{
    load("XPT mix=a src=5 fmt=L24/44100/2\nXPT mix=b src=6;fmt=L24/48000/10\n");
    EXPECT_EQ(out, "'XPT mix=a src=5 fmt=L24/44100/2' fmt warning: Only supports 48000kHz sample "
                   "rate. Using default 48000kHz.\n"
                   "'6;fmt=L24/48000/10' fmt warning: Only supports streams with 1-8 channels. "
                   "Using 2-channel default.\n");
}

TEST(ConfigVox, ThresholdHoldAndGate)
{
    pelod_vox_cfg v{};
    pelocfg_vox(&v, "1");
    EXPECT_EQ(v.threshold_lin, float(pow(10.0, -2.4)));
    EXPECT_NEAR(v.threshold_lin, 0.00398f, 1e-5f);
    EXPECT_EQ(v.holdtime, 1000);
    EXPECT_EQ(v.gate, 0);
    pelocfg_vox(&v, "0;t=-20");
    EXPECT_EQ(v.threshold_lin, 0.0f);
    EXPECT_EQ(v.holdtime, 1000);
    pelocfg_vox(&v, "1;t=-120");
    EXPECT_EQ(v.threshold_lin, 0.0f);
    pelocfg_vox(&v, "1;h=0.25;g=1.9;x=5;t=-6");
    EXPECT_EQ(v.threshold_lin, float(pow(10.0, -0.3)));
    EXPECT_EQ(v.holdtime, 250);
    EXPECT_EQ(v.gate, 1);
    pelocfg_vox(&v, "1;t=-20x;h=5");
    EXPECT_EQ(v.holdtime, 1000);
    pelocfg_vox(&v, "1;h=1e300;g=-1e300");
    EXPECT_EQ(v.holdtime, INT32_MAX);
    EXPECT_EQ(v.gate, INT32_MIN);
}

TEST(ConfigLimcom, ChannelsAndParameters)
{
    limcom_params l{};
    pelocfg_limcom(&l, "1;i=23;a=1");
    EXPECT_EQ(l.enable, 1);
    EXPECT_EQ(l.ch0, 2);
    EXPECT_EQ(l.ch1, 3);
    EXPECT_EQ(l.attack, 1.0);
    l = limcom_params{};
    pelocfg_limcom(&l, "1;i=28;a=1");
    EXPECT_EQ(l.ch0, 2);
    EXPECT_EQ(l.ch1, 1);
    EXPECT_EQ(l.attack, 0.0);
    l = limcom_params{};
    pelocfg_limcom(&l, "0;a=5"); // only a leading 1 is skipped
    EXPECT_EQ(l.attack, 0.0);
    pelocfg_limcom(&l, ";r=5;R=2;T=0.1;q=3");
    EXPECT_EQ(l.enable, 0);
    EXPECT_EQ(l.release, 5.0);
    EXPECT_EQ(l.ratio, 2.0);
    EXPECT_EQ(l.threshold, 0.1);
    l = limcom_params{};
    pelocfg_limcom(&l, "1;i=01a=5");
    EXPECT_EQ(l.ch1, 1);
    EXPECT_EQ(l.attack, 0.0);
    pelocfg_limcom(&l, "1;a");
    pelocfg_limcom(&l, "1;i=");
    EXPECT_EQ(l.ch0, 0);
}

struct ep_case {
    const char *rtpa, *ifa;
    const char *dst, *bind; // null: no endpoint
    const char *ssm;
};

class ConfigEndpoint : public ::testing::TestWithParam<ep_case> {};

TEST_P(ConfigEndpoint, AddressesAndPorts)
{
    const ep_case &c = GetParam();
    rtp_ep_spec ep[2];
    memset(ep, 0x5a, sizeof ep);
    rtpa2ep(c.rtpa, c.ifa, ep, 2);
    EXPECT_EQ(memcmp(&ep[0], &ep[1], sizeof ep[0]), 0);
    if (!c.dst) {
        EXPECT_TRUE(ep_zero(ep[0])) << c.rtpa << " " << c.ifa;
        return;
    }
    EXPECT_EQ(ep[0].sa_dst.sin_family, AF_INET);
    EXPECT_EQ(ep_text(ep[0].sa_dst), c.dst) << c.rtpa;
    EXPECT_EQ(ep_text(ep[0].sa_bind), c.bind) << c.rtpa << " " << c.ifa;
    EXPECT_EQ(ep[0].ssm_src, c.ssm ? inet_addr(c.ssm) : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, ConfigEndpoint,
    ::testing::Values(
        ep_case{"5", "", "239.192.0.5:5004", "0.0.0.0:5004", nullptr},
        ep_case{"239.1.1.1:6000", "192.168.1.2", "239.1.1.1:6000", "192.168.1.2:6000", nullptr},
        ep_case{"239.1.1.1:6000", "192.168.1.2:7000", "239.1.1.1:6000", "192.168.1.2:7000",
                nullptr},
        ep_case{"10.0.0.1", nullptr, "10.0.0.1:5004", "0.0.0.0:5004", nullptr},
        ep_case{"0.0.0.0:6000", "", "0.0.0.0:6000", "0.0.0.0:6000", nullptr},
        ep_case{"vts://5", "", "239.192.0.5:0", "0.0.0.0:0", nullptr},
        ep_case{"5", ":7000", "239.192.0.5:5004", "0.0.0.0:7000", nullptr},
        ep_case{"239.1.1.1;src=10.0.0.9;fmt=x;src=10.0.0.8", "", "239.1.1.1:5004",
                "0.0.0.0:5004", "10.0.0.8"},
        ep_case{"0", "", nullptr, nullptr, nullptr},
        ep_case{"", "", nullptr, nullptr, nullptr},
        ep_case{"alsa:0", "", nullptr, nullptr, nullptr},
        ep_case{"abc://1.2.3.4", "", nullptr, nullptr, nullptr},
        ep_case{"5", "1.2.3", nullptr, nullptr, nullptr},
        ep_case{"5", "abc://1.2.3.4", nullptr, nullptr, nullptr}));

} // namespace
