// Interoperability with RTP software written elsewhere, one row per way a
// user connects it: GStreamer and ffmpeg send into the daemon (ffmpeg with
// the playout delay its bursts need) and play the daemon's L24 and Opus
// streams, ffmpeg from the SDP file pelod-sdp writes; a foreign Opus
// encoder's stereo is down-mixed. Judged on the tone that comes out:
// level, pitch and length.
#include "e2e.h"

#include <gtest/gtest.h>
#include <ostream>
#include <unistd.h>

namespace {

const std::string sdp_bin = std::string(PELOD_TOOLS_DIR) + "/pelod-sdp";

std::string find_tool(const char *name)
{
    for (const char *dir : {"/usr/bin/", "/usr/local/bin/"})
        if (access((dir + std::string(name)).c_str(), X_OK) == 0)
            return dir + std::string(name);
    return "";
}

// In argv, @TOOL@ is the peer program, @OUT@ the file the receiver writes
// and @SDP@ the description pelod-sdp printed for the daemon's stream.
struct interop_case {
    const char *name;
    const char *tool; // the peer: gst-launch-1.0 or ffmpeg; null for the project's own tools
    const char *conf;
    std::vector<std::string> sender, receiver;
    double rms_dbfs;
};
void PrintTo(const interop_case &c, std::ostream *os) { *os << c.name; }

// The daemon's side of the rows: a tone in on 5004, its mix out on 6000.
const char *const conf_in = "XPT mix=m src=127.0.0.1:5004 fmt=L24/48000/1\nSRC mix=m rtpa=127.0.0.1:6000\n";
// ffmpeg's 1 ms datagrams come in bursts: the delay the probe asks for.
const char *const conf_in_burst = "XPT mix=m src=127.0.0.1:5004 fmt=L24/48000/1 pdly=1920\n"
                                  "SRC mix=m rtpa=127.0.0.1:6000\n";
// The receiver binds 6000 on the same host: the daemon sends from 7000.
const char *const conf_out_l24 = "XPT mix=m src=127.0.0.1:5004 fmt=L24/48000/1\nSRC mix=m rtpa=127.0.0.1:6000 ifa=:7000\n";
const char *const conf_out_opus = "XPT mix=m src=127.0.0.1:5004 fmt=L24/48000/1\n"
                                  "SRC mix=m rtpa=127.0.0.1:6000 ifa=:7000 fmt=opus/48000/1\n";

const std::vector<std::string> listen_out = {listen_bin, "-q", "-t", "3.5", "-f", "L24/1", "-w", "@OUT@",
                                             "127.0.0.1:6000"};
const std::vector<std::string> tone_in = {tone_bin, "-q", "-f", "1000", "-l", "-12", "-d", "2.5", "127.0.0.1:5004"};
const std::vector<std::string> gst_tone_in = {
    "@TOOL@", "-q", "audiotestsrc", "freq=1000", "volume=0.25", "samplesperbuffer=48", "is-live=true",
    "num-buffers=2500", "!", "audio/x-raw,rate=48000,channels=1", "!", "audioconvert", "!", "rtpL24pay",
    "min-ptime=1000000", "max-ptime=1000000", "!", "udpsink", "host=127.0.0.1", "port=5004"};
// 2.5 s of datagrams: 1 ms ones for L24, 10 ms ones for Opus.
std::vector<std::string> gst_out(const std::string &encoding, int buffers, std::vector<std::string> decode)
{
    std::vector<std::string> a = {"@TOOL@", "-q", "udpsrc", "port=6000", "num-buffers=" + std::to_string(buffers),
                                  "caps=application/x-rtp,media=audio,clock-rate=48000,encoding-name=" + encoding};
    for (const std::string &d : decode)
        a.insert(a.end(), {"!", d});
    a.insert(a.end(), {"!", "audioconvert", "!", "audio/x-raw,format=S16LE,rate=48000,channels=1", "!", "filesink",
                       "location=@OUT@"});
    return a;
}
const std::vector<std::string> ffmpeg_sdp_out = {
    "@TOOL@", "-hide_banner", "-loglevel", "error", "-protocol_whitelist", "file,udp,rtp", "-i", "@SDP@",
    "-t", "2.5", "-ac", "1", "-f", "s16le", "-c:a", "pcm_s16le", "-y", "@OUT@"};

const interop_case cases[] = {
    {"GstreamerL24In", "gst-launch-1.0", conf_in, gst_tone_in, listen_out, -15.05},
    {"GstreamerL24Out", "gst-launch-1.0", conf_out_l24, tone_in, gst_out("L24,channels=1", 2500, {"rtpL24depay"}),
     -15.05},
    {"GstreamerOpusOut", "gst-launch-1.0", conf_out_opus, tone_in,
     gst_out("OPUS", 250, {"rtpopusdepay", "opusdec"}), -15.05},
    {"FfmpegL24InWithTheProbedDelay", "ffmpeg", conf_in_burst,
     {"@TOOL@", "-hide_banner", "-loglevel", "error", "-re", "-f", "lavfi", "-i",
      "sine=frequency=1000:sample_rate=48000:duration=2.5", "-ac", "1", "-c:a", "pcm_s24be", "-f", "rtp",
      "-payload_type", "101", "rtp://127.0.0.1:5004?pkt_size=156"},
     listen_out, -21.07},
    {"FfmpegL24OutFromTheSdpFile", "ffmpeg", conf_out_l24, tone_in, ffmpeg_sdp_out, -15.05},
    {"FfmpegOpusOutFromTheSdpFile", "ffmpeg", conf_out_opus, tone_in, ffmpeg_sdp_out, -15.05},
    // the two channels are summed at -3 dB: 3 dB above either
    {"ForeignOpusStereoIsDownmixed", nullptr,
     "XPT mix=m src=127.0.0.1:5004 fmt=opus/48000/2\nSRC mix=m rtpa=127.0.0.1:6000\n",
     {tone_bin, "-q", "-F", "opus", "-c", "2", "-f", "1000", "-l", "-20", "-d", "2.5", "127.0.0.1:5004"}, listen_out,
     -20.0},
};

std::vector<std::string> fill(std::vector<std::string> argv, const std::string &tool, const std::string &out,
                              const std::string &sdp)
{
    for (std::string &a : argv)
        for (const auto &[key, value] : {std::pair<std::string, std::string>{"@TOOL@", tool}, {"@OUT@", out},
                                         {"@SDP@", sdp}})
            if (const size_t at = a.find(key); at != std::string::npos)
                a.replace(at, key.size(), value);
    return argv;
}

class E2eInterop : public ::testing::TestWithParam<interop_case> {};

TEST_P(E2eInterop, ToneComesThroughWhole)
{
    SKIP_WITHOUT_NETNS();
    const interop_case &c = GetParam();
    const std::string tool = c.tool ? find_tool(c.tool) : "";
    if (c.tool && tool.empty())
        GTEST_SKIP() << c.tool << " is missing: install ffmpeg, gstreamer1.0-tools, gstreamer1.0-plugins-base "
                        "and gstreamer1.0-plugins-good (make deps)";
    const daemon_conf conf(c.conf);
    const run_result sdp = run_prog({sdp_bin, "-p", "-", "-f", conf.path});
    ASSERT_EQ(sdp.status, 0) << sdp.err;
    const tmp_out sdp_file(".sdp"), out(c.receiver[0] == listen_bin ? ".wav" : ".raw");
    {
        FILE *f = fopen(sdp_file.path.c_str(), "w");
        ASSERT_TRUE(f);
        fputs(sdp.out.c_str(), f);
        fclose(f);
    }
    netns ns("pe2ei");
    ASSERT_TRUE(ns.ok());
    ns_pelod pelod(ns, c.conf);
    ASSERT_TRUE(pelod.up) << pelod.output();
    bg_proc receiver, sender;
    ASSERT_TRUE(receiver.start(ns.cmd(fill(c.receiver, tool, out.path, sdp_file.path))));
    usleep(300000);
    ASSERT_TRUE(sender.start(ns.cmd(fill(c.sender, tool, out.path, sdp_file.path))));
    EXPECT_EQ(sender.wait(8000), 0) << sender.err();
    EXPECT_EQ(receiver.wait(8000), 0) << receiver.out() << receiver.err();
    const tone_measure m = measure_tone(pcm_channel0(out.path)); // not moved by a busy machine's dropouts
    EXPECT_GT(m.samples, 48000u * 3 / 2); // of the 2.5 s sent
    EXPECT_NEAR(m.rms_dbfs, c.rms_dbfs, 0.5);
    EXPECT_NEAR(m.freq_hz, 1000.0, 1.0);
}

INSTANTIATE_TEST_SUITE_P(Peers, E2eInterop, ::testing::ValuesIn(cases),
                         [](const ::testing::TestParamInfo<interop_case> &i) { return std::string(i.param.name); });

} // namespace
