// The configuration loader: line handlers with their defaults, the value
// parsers, endpoints, and the reload by difference seen through the
// recorded routing calls.
#include "config/pelocfg.h"
#include "daemon/pelod.h"
#include "routing_double.h"
#include "support/proc.h"

#include <arpa/inet.h>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {
std::string addr(const sockaddr_in &sa)
{
    char a[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &sa.sin_addr, a, sizeof a);
    const std::string family = sa.sin_family == AF_INET ? "" : "family " + std::to_string(sa.sin_family) + " ";
    return (sa.sin_family == alsa_src_family ? "alsa" : family + a) + ":" + std::to_string(ntohs(sa.sin_port));
}
// "destination bind", " from S" for a source-specific group; "none" when all zero.
std::string ep_text(const rtp_ep_spec &e)
{
    static const rtp_ep_spec zero{};
    const sockaddr_in ssm{AF_INET, 0, {e.ssm_src}, {}};
    return !memcmp(&e, &zero, sizeof e) ? "none"
                                        : addr(e.sa_dst) + " " + addr(e.sa_bind) + (e.ssm_src ? " from " + addr(ssm) : "");
}
std::string fields(const rtp_fmt &f, const limcom_params &l)
{
    char b[200];
    snprintf(b, sizeof b, "fmt %d/%d/%d/%d lce %d/%d/%d/%g/%g/%g/%g", f.payload_format, f.bps, f.samplerate, f.nchan,
             l.enable, l.ch0, l.ch1, l.attack, l.release, l.threshold, l.ratio);
    return b;
}
std::string vox_text(const pelod_vox_cfg &v)
{
    char b[80];
    snprintf(b, sizeof b, "vox %.2f/%d/%d", v.threshold_lin > 0 ? 20 * log10(v.threshold_lin) : 0.0, v.holdtime, v.gate);
    return b;
}
// Every field of a crosspoint but its names, in one line.
std::string describe(const pelod_xpt &x)
{
    char b[120];
    snprintf(b, sizeof b, " chn %d pdly %d gain %g ", x.chn, x.pdly, x.gain_dB);
    return ep_text(x.ep) + b + vox_text(x.vox) + " ecs " + (*x.eaec_mix ? x.eaec_mix : "-") + " " +
           fields(x.fmt, x.limcom_params);
}
// Every field of an outgoing stream, in one line.
std::string describe(const src &s)
{
    char b[160];
    snprintf(b, sizeof b, " pt %d ptime %d gain %g/%g br %d cbr %d ", s.rtp_pt, s.rtp_ptime_samples, s.gainv_dB[0],
             s.gainv_dB[1], s.bitrate, s.cbr);
    return s.mix + (" " + ep_text(s.ep)) + b + fields(s.fmt, s.limcom_params);
}

class ConfigEmpty : public ::testing::Test { // state: nothing loaded
protected:
    void SetUp() override { config_reset(); }
    void TearDown() override { config_reset(); }

    // Loads text as the configuration file; what it printed goes to `out`.
    void load(const std::string &text)
    {
        routing_calls.clear();
        const std::string path = tmp_file(text);
        testing::internal::CaptureStdout();
        pelocfg_load(path.c_str());
        fflush(stdout);
        out = testing::internal::GetCapturedStdout();
        unlink(path.c_str());
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
    static const pelod_xpt &line(const std::string &text)
    {
        EXPECT_EQ(pelocfg_load_xpt(text.c_str()), 0);
        return dlist_entry(xpts_new.next, xpt, link)->x;
    }
    std::string out;
};

TEST_F(ConfigEmpty, ExampleFileLoadsWithoutAWord)
{
    load(read_file(std::string(PELOD_SOURCE_DIR) + "/examples/pelod.conf"));
    EXPECT_EQ(out, "");
    EXPECT_EQ(routing_ops(), "uaaa"); // additions in reverse file order
    EXPECT_EQ(srcs_used, 3);
}

// A line and its reading: the whole description, or the part a row is about.
TEST_F(ConfigEmpty, LinesWithTheirDefaultsValuesAndEndpoints)
{
    const std::pair<std::string, const char *> rows[] = {
        {"XPT mix=a src=5", "239.192.0.5:5004 10.1.1.1:5004 chn -1 pdly 0 gain 0 vox 0.00/0/0 ecs - fmt 0/0/0/0 lce 0/0/0/0/0/0/0"},
        {"XPT mix=b src=alsa:1", "none chn -1 pdly 48 gain 0 vox 0.00/0/0 ecs - fmt 0/0/0/0 lce 0/0/0/0/0/0/0"},
        {"XPT pdly=010 mix=c src=5", " pdly 8 "},
        // ;fmt= overrides, and keeps what fmt= set where its name sets nothing
        {"XPT pdly=010 mix=d src=5;x=1;pdly=0x30;fmt=opus/2 fmt=L24/48000/1", " pdly 48 gain 0 vox 0.00/0/0 ecs - fmt 1/24/48000/2 "},
        {"XPT mix=e src=5;pdly=96x;fmt=L24/2", " pdly 96 gain 0 vox 0.00/0/0 ecs - fmt 0/0/0/0 "}, // the scan ends at 'x'
        {"XPT mix=f src=5 ifa=10.2.2.2:6000 chn=1 gain=-100 vox=1;g=1 ecs=\"m m\"",
         "239.192.0.5:5004 10.2.2.2:6000 chn 1 pdly 0 gain -100 vox -48.00/1000/1 ecs m m fmt"},
        {"XPT mix=v src=5 vox=0;t=-20", "vox 0.00/1000/0"}, {"XPT mix=v src=5 vox=1;t=-120", "vox 0.00/1000/0"},
        {"XPT mix=v src=5 vox=1;h=0.25;g=1.9;x=5;t=-6", "vox -6.00/250/1"},
        {"XPT mix=v src=5 vox=1;t=-20x;h=5", "vox -20.00/1000/0"},
        {"XPT mix=l src=5 lce=1;i=23;a=1", "lce 1/2/3/1/0/0/0"}, {"XPT mix=l src=5 lce=1;i=28;a=1", "lce 1/2/1/0/0/0/0"},
        {"XPT mix=l src=5 lce=0;a=5", "lce 0/0/1/0/0/0/0"},
        {"XPT mix=l src=5 lce=;r=5;R=2;T=0.1;q=3;a=7", "lce 0/0/1/7/5/0.1/2"}, // only 1 is skipped
        {"SRC mix=a rtpa=5", "a 239.192.0.5:5004 10.1.1.1:5004 pt 255 ptime 48 gain 0/0 br 0 cbr 0 fmt 0/0/0/0 lce 0/0/0/0/0/0/0"},
        {"src mix=a:b rtpa=5 pt=300 ptime=5 gainv=-3;-6 br=64000 cbr=1 lce=1;i=10",
         "a:b 239.192.0.5:5004 10.1.1.1:5004 pt 255 ptime 240 gain -3/-6 br 64000 cbr 1 fmt 0/0/0/0 lce 1/1/0/0/0/0/0"},
        {"mix=a rtpa=alsa:0x2 gainv=\"-3 x\" ifa=1.2.3.4", "a alsa:2 alsa:0 pt 255 ptime 48 gain -3/0 "},
        {"SRC mix=a rtpa=239.1.1.1:6000 ifa=192.168.1.2", "a 239.1.1.1:6000 192.168.1.2:6000 "},
        {"SRC mix=a rtpa=vts://5 ifa=0.0.0.0", "a 239.192.0.5:0 0.0.0.0:0 "},
        {"SRC mix=a rtpa=5 ifa=:7000", "a 239.192.0.5:5004 0.0.0.0:7000 "},
        {"SRC mix=a rtpa=239.1.1.1;src=10.0.0.9;fmt=x;src=10.0.0.8 ifa=0.0.0.0", "a 239.1.1.1:5004 0.0.0.0:5004 from 10.0.0.8:0 "},
        {"SRC mix=a rtpa=0", "a none "}, {"SRC mix=a rtpa=5 ifa=1.2.3", "a none "},
    };
    for (const auto &[cmd, want] : rows) {
        config_reset();
        strcpy(ifs, "10.1.1.1");
        std::string got;
        if (cmd.rfind("XPT", 0) == 0)
            got = describe(line(cmd));
        else if (pelocfg_load_src(cmd.c_str()) == 0 && srcs_used == 1)
            got = describe(srcs[0]);
        EXPECT_NE(got.find(want), std::string::npos) << cmd << "\n" << got;
    }
    EXPECT_EQ(strlen(line("XPT src=5 mix=" + std::string(300, 'm')).mix), 64u);
}

TEST_F(ConfigEmpty, WarningsNameTheLineOrTheSource)
{
    load("SRC mix=a rtpa=5 lce=1\nSRC mix=a rtpa=7 pt=128\nXPT mix=a src=5 lce=1;a=5;r=100;T=0.5\nXPT mix=b src=6 lce=0;T=0.5\n"
         "XPT mix=a src=5 fmt=L24/44100/2\nXPT mix=b src=6;fmt=L24/48000/10\n");
    EXPECT_EQ(out, "'mix=a rtpa=5 lce=1' lce warning: limiter enabled without T=, a= and r= (all non-zero); its "
                   "output is silent.\n"
                   "'mix=a rtpa=7 pt=128' pt warning: Only supports payload types 0-127. Using default 101 (one "
                   "channel) or 96.\n"
                   "'XPT mix=a src=5 fmt=L24/44100/2' fmt warning: Only supports 48000kHz sample rate. Using default "
                   "48000kHz.\n"
                   "'6;fmt=L24/48000/10' fmt warning: Only supports streams with 1-8 channels. Using 2-channel default.\n");
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
        int running = 0;
        for (dlist *e = xpts.next; e != &xpts; e = e->next)
            running++;
        EXPECT_EQ(running, 3);
        EXPECT_TRUE(dlist_empty(&xpts_del) && dlist_empty(&xpts_new));
        EXPECT_EQ(find("spk", "5")->gain_dB, c.gain) << c.to;
        EXPECT_EQ(find("spk", "5")->fmt.nchan, 2) << c.to;
        for (const routing_call &r : routing_calls) { // adds carry what now runs
            const pelod_xpt *n = r.op == 'a' ? find(r.x.mix, r.x.src) : nullptr;
            EXPECT_TRUE(r.op != 'a' || (n && describe(*n) == describe(r.x))) << c.to;
        }
    }
    EXPECT_STREQ(routing_calls[0].x.src, "6"); // the old vox line is deleted
    EXPECT_EQ(vox_text(routing_calls[0].x.vox), "vox -48.00/1000/0");
}

} // namespace
