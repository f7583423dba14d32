// Features through the built daemon in a network namespace of the test's
// own: the report file, the voice-activity notifications, the sound card
// (alsa-lib with "hw" redefined as a file plugin) and the limiter of
// outgoing streams. The test sends and receives RTP itself.
#include "audio/alsa.h"
#include "e2e.h"
#include "support/alsa_file.h"

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <sstream>
#include <unistd.h>

namespace {
using texts = std::vector<std::string>;
using samples = std::vector<int32_t>;

// Playout delay of the test's streams: a packet of the busy machine's
// sender may come this late and still play in place (whole blocks).
const std::string SLACK = "960";

// One period of a 1 kHz tone: one block, so every block of it is the same.
samples tone(double amp)
{
    samples b;
    for (int k = 0; k < 48; k++)
        b.push_back(int32_t(std::lround(amp * FULL24 * std::sin(2 * M_PI * k / 48.0))));
    return b;
}

// Every datagram waiting on fd now, or within wait_ms for the first one.
texts take(int fd, int wait_ms = 0)
{
    texts got;
    pollfd p{fd, POLLIN, 0};
    char buf[2048];
    if (poll(&p, 1, wait_ms) > 0)
        for (ssize_t n; (n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) >= 0;)
            got.emplace_back(buf, size_t(n));
    return got;
}

// 1: every value is want(i) within tol; 0: all are zero; -1: neither.
template <class W> int tone_or_silence(const samples &got, W want, double tol)
{
    bool silent = true, tone = true;
    for (size_t i = 0; i < got.size(); i++) {
        silent = silent && got[i] == 0;
        tone = tone && std::fabs(got[i] - want(i)) <= tol;
    }
    return tone ? 1 : silent ? 0 : -1;
}

// Columns of one flow row of the report, by the names in the header line.
std::map<std::string, std::string> flow_row(const std::string &report, const std::string &index)
{
    std::istringstream in(report);
    std::vector<std::string> names;
    std::map<std::string, std::string> row;
    for (std::string line; std::getline(in, line) && line.rfind("# Outputs", 0) != 0;) {
        std::istringstream words(line);
        if (line.rfind("## R ", 0) == 0 && names.empty())
            for (std::string w; words >> w;)
                names.push_back(w);
        else if (!names.empty() && line.rfind(index + " ", 0) == 0)
            for (size_t i = 0; i < names.size() && words >> row[names[i]]; i++) {
            }
    }
    return row;
}

// One daemon per case in a namespace of its own: the test's ports are
// fixed, the input streams come from 127.0.0.1:5000.
class E2eFeatures : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_NETNS();
        ns = std::make_unique<netns>("pe2ef");
        ASSERT_TRUE(ns->ok());
        net = udp_socket(*ns, "127.0.0.1", 5000);
        ASSERT_GE(net, 0);
    }
    void TearDown() override
    {
        if (daemon && daemon->pid > 0) {
            EXPECT_EQ(daemon->stop(), 0) << daemon->output();
        }
        close(net);
    }
    void start(const std::string &conf, const std::vector<std::string> &options = {})
    {
        daemon = std::make_unique<ns_pelod>(*ns, conf, options);
        report = daemon->path.substr(0, daemon->path.rfind('.')) + ".stat";
        ASSERT_TRUE(daemon->up) << daemon->output();
    }
    // Sends packets number first..last-1 of 1-ms mono streams, paced:
    // each input port gets its samples every millisecond; each() runs after.
    template <class F>
    void stream(int first, int last, const std::vector<std::pair<uint16_t, samples>> &inputs, F each)
    {
        paced_1ms(last - first, [&](int k, uint32_t) {
            const int n = first + k;
            for (const auto &[port, v] : inputs)
                rtp_send(net, "127.0.0.1", port, 96, uint16_t(n), 48u * uint32_t(n), 0x5E11D00D, pcm24(v));
            each();
        });
    }
    std::unique_ptr<netns> ns;
    std::unique_ptr<alsa_file_card> card; // outlives the daemon
    std::unique_ptr<ns_pelod> daemon;
    int net = -1; // the test's peer: sends the streams in
    std::string report;
};

TEST_F(E2eFeatures, ReportCountsWhatTheSenderCausedAndUsr1ZeroesIt)
{
    start("XPT mix=m src=127.0.0.1:5004 fmt=L24/48000/1\n");
    const samples quiet(48, 1000);
    const auto send = [&](int seq) { rtp_send(net, "127.0.0.1", 5004, 96, uint16_t(seq), 48u * seq, 1, pcm24(quiet)); };
    paced_1ms(20, [&](int seq, uint32_t) {
        if (seq < 10 || seq > 12) // a gap of three
            send(seq);
    });
    send(19); // a repeat
    // the first packet only teaches sequence and time, and so does the repeat
    const std::map<std::string, std::string> want = {{"PKTS", "18"}, {"GOOD", "15"}, {"DROP", "3"},
                                                     {"DUPL", "1"},  {"SEQE", "2"},  {"SRST", "1"}};
    std::map<std::string, std::string> row;
    EXPECT_TRUE(wait_for(3000, [&] { return (row = flow_row(read_file(report), "00"))["PKTS"] == "18"; }))
        << read_file(report);
    for (const auto &[column, value] : want)
        EXPECT_EQ(row[column], value) << column;
    EXPECT_GE(atol(row["SYNC"].c_str()), 1) << "the stream was locked";
    EXPECT_EQ(row["Channel"], "127.0.0.1:5004");

    daemon->signal(SIGUSR1);
    const auto zeroed = [&] {
        row = flow_row(read_file(report), "00");
        for (const char *c : {"SYNC", "PKTS", "SRST", "SEQE", "DROP", "DUPL", "LATE", "GOOD"})
            if (row[c] != "0")
                return false;
        return true;
    };
    EXPECT_TRUE(wait_for(3000, zeroed)) << read_file(report);
}

TEST_F(E2eFeatures, TalkerStartAndEndAreAnnouncedAndHupRepeatsTheList)
{
    const int notes = udp_socket(*ns, "127.0.0.1", 6100);
    start("XPT mix=m src=127.0.0.1:5004 fmt=L24/48000/1 vox=1;t=-20;h=0.4\n", {"--vox-notify-port=6100"});
    const texts talking = {R"({"vox":["127.0.0.1:5004"]})"};
    texts got;
    const auto listen = [&] {
        for (std::string &t : take(notes))
            got.push_back(std::move(t));
    };
    const samples loud(48, int32_t(0.5 * FULL24)); // the first sample of a packet counts
    stream(0, 200, {{5004, loud}}, listen);
    EXPECT_EQ(got, talking) << "start of talk";
    got.clear();
    daemon->signal(SIGHUP);
    stream(200, 500, {{5004, loud}}, listen);
    EXPECT_EQ(got, talking) << "the reload announces the current list once";
    const auto silent = std::chrono::steady_clock::now();
    EXPECT_EQ(take(notes, 2000), texts{R"({"vox":[]})"}) << "end of talk";
    EXPECT_GE(std::chrono::steady_clock::now() - silent, std::chrono::milliseconds(390))
        << "held for 0.4 s after the last loud packet";
    close(notes);
}

TEST_F(E2eFeatures, PlaysAMixRoutedToTheCardIntoThePlaybackFile)
{
    card = std::make_unique<alsa_file_card>(std::string(384, '\0'));
    start("XPT mix=spk src=127.0.0.1:5004 fmt=L24/48000/1 pdly=" + SLACK + "\n"
          "SRC mix=spk:spk rtpa=alsa:0 gainv=0;-6\n");
    const samples in = tone(0.5);
    stream(0, 300, {{5004, in}}, [] {});
    // blocks of 96 interleaved 24-bit words, left at 0 dB and right at -6 dB
    const std::string raw = read_file(card->play_path);
    int played = 0;
    for (size_t at = 0; at + 384 <= raw.size(); at += 384) {
        samples w(96);
        memcpy(w.data(), raw.data() + at, 384);
        for (int32_t &v : w)
            v = int32_t(uint32_t(v) << 8) >> 8;
        const int r = tone_or_silence(w, [&](size_t i) { return in[i / 2] * (i % 2 ? std::pow(10.0, -0.3) : 1.0); }, 2);
        ASSERT_GE(r, 0) << "nothing but silence and the tone, block " << at / 384;
        played += r;
    }
    EXPECT_GE(played, 200);
}

} // namespace
