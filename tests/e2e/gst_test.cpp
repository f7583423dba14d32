// Interoperability with RTP software written elsewhere: GStreamer sends
// 1 ms L24 into the daemon and takes the daemon's L24 and Opus streams
// apart with its own depayloaders and decoder.
#include "e2e.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

std::string gst_launch()
{
    for (const char *p : {"/usr/bin/gst-launch-1.0", "/usr/local/bin/gst-launch-1.0"})
        if (access(p, X_OK) == 0)
            return p;
    return "";
}

// udpsrc for one stream, the decoding elements, then 16-bit mono into file.
std::vector<std::string> gst_receiver(const std::string &bin, int port, const std::string &encoding, int buffers,
                                      const std::vector<std::string> &decode, const std::string &file)
{
    std::vector<std::string> a = {bin, "-q", "udpsrc", "port=" + std::to_string(port),
                                  "num-buffers=" + std::to_string(buffers),
                                  "caps=application/x-rtp,media=audio,clock-rate=48000,encoding-name=" + encoding};
    for (const std::string &d : decode)
        a.insert(a.end(), {"!", d});
    a.insert(a.end(), {"!", "audioconvert", "!", "audio/x-raw,format=S16LE,rate=48000,channels=1", "!", "filesink",
                       "location=" + file});
    return a;
}

TEST(E2eGst, GstreamerSendsIntoTheDaemonAndDecodesItsL24AndOpus)
{
    SKIP_WITHOUT_NETNS();
    const std::string gst = gst_launch();
    if (gst.empty())
        GTEST_SKIP() << "gst-launch-1.0 is missing: install gstreamer1.0-tools, gstreamer1.0-plugins-base and "
                        "gstreamer1.0-plugins-good (make deps)";
    netns ns("pe2eg");
    ASSERT_TRUE(ns.ok());
    ns_pelod pelod(ns, "XPT mix=g src=127.0.0.1:5004 fmt=L24/48000/1 pdly=480\nSRC mix=g rtpa=127.0.0.1:6000\n"
                       "SRC mix=g rtpa=127.0.0.1:6002\nSRC mix=g rtpa=127.0.0.1:6004 fmt=opus/48000/1\n");
    ASSERT_TRUE(pelod.up) << pelod.output();

    struct output {
        const char *name;
        tmp_out file;
        bg_proc proc;
    } outs[] = {
        {"daemon from GStreamer, heard by pelod-listen", tmp_out(".wav"), {}},
        {"daemon L24 through rtpL24depay", tmp_out(".raw"), {}},
        {"daemon Opus through rtpopusdepay", tmp_out(".raw"), {}},
    };
    const std::vector<std::string> argv[] = {
        {listen_bin, "-q", "-t", "2.5", "-f", "L24/1", "-w", outs[0].file.path, "127.0.0.1:6000"},
        gst_receiver(gst, 6002, "L24,channels=1", 2500, {"rtpL24depay"}, outs[1].file.path),
        gst_receiver(gst, 6004, "OPUS", 250, {"rtpopusdepay", "opusdec"}, outs[2].file.path)};
    for (size_t i = 0; i < std::size(outs); i++)
        ASSERT_TRUE(outs[i].proc.start(ns.cmd(argv[i])));
    usleep(300000);
    bg_proc sender; // a 1 kHz tone at -12 dBFS in 1 ms packets
    ASSERT_TRUE(sender.start(ns.cmd({gst, "-q", "audiotestsrc", "freq=1000", "volume=0.25", "samplesperbuffer=48",
                                     "is-live=true", "num-buffers=1500", "!", "audio/x-raw,rate=48000,channels=1", "!",
                                     "audioconvert", "!", "rtpL24pay", "min-ptime=1000000", "max-ptime=1000000", "!",
                                     "udpsink", "host=127.0.0.1", "port=5004"})));
    EXPECT_EQ(sender.wait(8000), 0) << sender.err();
    for (output &o : outs) {
        SCOPED_TRACE(o.name);
        EXPECT_EQ(o.proc.wait(8000), 0) << o.proc.out() << o.proc.err();
        const tone_measure m = measure_tone(pcm_channel0(o.file.path));
        EXPECT_GT(m.samples, 24000u);
        EXPECT_NEAR(m.rms_dbfs, -15.05, 0.5);
        EXPECT_NEAR(m.freq_hz, 1000.0, 1.0);
    }
}

} // namespace
