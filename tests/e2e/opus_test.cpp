// Opus from a foreign encoder through the daemon's decoder (the daemon's own
// Opus stream is decoded in the interoperability test). The tone must come
// out at its pitch and level.
#include "e2e.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

struct opus_case {
    const char *name;
    std::vector<std::string> tone; // pelod-tone options; it sends to 127.0.0.1:5004
    const char *conf;              // the daemon sends the result to 127.0.0.1:6000
    const char *listen_fmt;        // how the listener takes it
    double rms_dbfs, freq_hz;
};

const opus_case opus_cases[] = {
    // the two channels are summed at -3 dB: 3 dB above either
    {"ForeignStereoIsDownmixed",
     {"-F", "opus", "-c", "2", "-f", "1000", "-l", "-20"},
     "XPT mix=b src=127.0.0.1:5004 fmt=opus/48000/2\nSRC mix=b rtpa=127.0.0.1:6000\n", "L24/1", -20.0, 1000.0},
};

void PrintTo(const opus_case &c, std::ostream *os) { *os << c.name; }

class E2eOpus : public ::testing::TestWithParam<opus_case> {};

TEST_P(E2eOpus, ToneComesOutAtItsPitchAndLevel)
{
    SKIP_WITHOUT_NETNS();
    const opus_case &c = GetParam();
    netns ns("pe2eo");
    ASSERT_TRUE(ns.ok());
    ns_pelod pelod(ns, c.conf);
    ASSERT_TRUE(pelod.up) << pelod.output();
    const tmp_out wav(".wav");
    bg_proc listener, tone;
    ASSERT_TRUE(
        listener.start(ns.cmd({listen_bin, "-q", "-t", "1.5", "-f", c.listen_fmt, "-w", wav.path, "127.0.0.1:6000"})));
    ASSERT_TRUE(wait_for(2000, [&] { return listener.err().find("listening on") != std::string::npos; })) << listener.err();
    std::vector<std::string> args = {tone_bin, "-q", "-d", "1.2"};
    args.insert(args.end(), c.tone.begin(), c.tone.end());
    args.push_back("127.0.0.1:5004");
    ASSERT_TRUE(tone.start(ns.cmd(args)));
    EXPECT_EQ(tone.wait(4000), 0) << tone.err();
    EXPECT_EQ(listener.wait(4000), 0) << listener.out() << listener.err();

    const tone_measure m = measure_tone(pcm_channel0(wav.path));
    EXPECT_GT(m.samples, 24000u) << listener.out();
    EXPECT_NEAR(m.rms_dbfs, c.rms_dbfs, 0.5);
    EXPECT_NEAR(m.freq_hz, c.freq_hz, 1.0);
}

INSTANTIATE_TEST_SUITE_P(Paths, E2eOpus, ::testing::ValuesIn(opus_cases),
                         [](const auto &i) { return std::string(i.param.name); });

} // namespace
