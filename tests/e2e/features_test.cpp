// Features through the built daemon on 127.0.0.1: the report file, the
// voice-activity notifications, the sound card (alsa-lib with "hw"
// redefined as a file plugin) and the limiter of outgoing streams. The test
// sends and receives RTP itself.
#include "audio/CG_LimCom_interface.h"
#include "audio/alsa.h"
#include "config/pelocfg.h"
#include "daemon/mix.h"
#include "e2e.h"
#include "support/alsa_file.h"
#include "support/emulation.h"

#include <array>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <new>
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

std::string lo(uint16_t port) { return "127.0.0.1:" + std::to_string(port); }

// A UDP socket on 127.0.0.1 at a port the kernel hands out.
struct udp_sock {
    sockaddr_in addr{};
    int fd = udp_loopback(&addr);
    uint16_t port = ntohs(addr.sin_port);
    ~udp_sock() { close(fd); }
    udp_sock() = default;
    udp_sock(const udp_sock &) = delete;
    // Every datagram waiting now, or within wait_ms for the first one.
    texts take(int wait_ms = 0) const
    {
        texts got;
        pollfd p{fd, POLLIN, 0};
        char buf[2048];
        if (poll(&p, 1, wait_ms) > 0)
            for (ssize_t n; (n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) >= 0;)
                got.emplace_back(buf, size_t(n));
        return got;
    }
};

// Distinct ports that were free a moment ago, for the daemon to bind.
std::vector<uint16_t> free_ports(size_t n)
{
    std::vector<udp_sock> held(n);
    std::vector<uint16_t> ports;
    for (const udp_sock &s : held)
        ports.push_back(s.port);
    return ports;
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

// One daemon per case, with its own configuration, report and pid file.
class RunningDaemon : public ::testing::Test {
protected:
    void SetUp() override { SKIP_UNDER_EMULATION(); }
    void TearDown() override
    {
        if (daemon && daemon->pid > 0) {
            daemon->signal(SIGTERM);
            EXPECT_EQ(daemon->wait(3000), 0) << daemon->err();
        }
    }
    void start(const std::string &conf_text, const std::vector<std::string> &options = {})
    {
        daemon = std::make_unique<pelod_proc>(conf_text);
        report = daemon->path.substr(0, daemon->path.rfind('.')) + ".stat";
        ASSERT_TRUE(daemon->start_up(options)) << daemon->err();
    }
    // Sends packets number first..last-1 of 1-ms mono streams, paced:
    // each input port gets its samples every millisecond; each() runs after.
    template <class F>
    void stream(int first, int last, const std::vector<std::pair<uint16_t, samples>> &inputs, F each)
    {
        paced_1ms(last - first, [&](int k, uint32_t) {
            const int n = first + k;
            for (const auto &[port, v] : inputs)
                rtp_send(net.fd, "127.0.0.1", port, 96, uint16_t(n), 48u * uint32_t(n), 0x5E11D00D, pcm24(v));
            each();
        });
    }
    std::unique_ptr<alsa_file_card> card; // before the daemon: it outlives it
    std::unique_ptr<pelod_proc> daemon;
    udp_sock net; // the test's peer: sends the streams in, receives what comes out
    std::string report;
};

TEST_F(RunningDaemon, ReportCountsWhatTheSenderCausedAndUsr1ZeroesIt)
{
    const uint16_t port = free_ports(1)[0];
    start("XPT mix=m src=" + lo(port) + " fmt=L24/48000/1\n");
    const samples quiet(48, 1000);
    const auto send = [&](int seq) { rtp_send(net.fd, "127.0.0.1", port, 96, uint16_t(seq), 48u * seq, 1, pcm24(quiet)); };
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
    EXPECT_EQ(row["Channel"], lo(port));

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

TEST_F(RunningDaemon, TalkerStartAndEndAreAnnouncedAndHupRepeatsTheList)
{
    const udp_sock notes;
    const uint16_t port = free_ports(1)[0];
    const std::string name = lo(port);
    start("XPT mix=m src=" + name + " fmt=L24/48000/1 vox=1;t=-20;h=0.4\n",
          {"--vox-notify-port=" + std::to_string(notes.port)});
    const texts talking = {R"({"vox":[")" + name + R"("]})"};
    texts got;
    const auto listen = [&] {
        for (std::string &t : notes.take())
            got.push_back(std::move(t));
    };
    const samples loud(48, int32_t(0.5 * FULL24)); // the first sample of a packet counts
    stream(0, 200, {{port, loud}}, listen);
    EXPECT_EQ(got, talking) << "start of talk";
    got.clear();
    daemon->signal(SIGHUP);
    stream(200, 500, {{port, loud}}, listen);
    EXPECT_EQ(got, talking) << "the reload announces the current list once";
    const auto silent = std::chrono::steady_clock::now();
    EXPECT_EQ(notes.take(2000), texts{R"({"vox":[]})"}) << "end of talk";
    EXPECT_GE(std::chrono::steady_clock::now() - silent, std::chrono::milliseconds(390))
        << "held for 0.4 s after the last loud packet";
}

// Blocks of the played file (96 interleaved words) that hold the tone with
// the channel gains, within the conversions' rounding; -1 when a block is
// neither that nor silence.
int tone_blocks(const std::string &raw, const samples &t, double gain_l, double gain_r)
{
    int found = 0;
    for (size_t at = 0; at + 384 <= raw.size(); at += 384) {
        std::array<int32_t, 96> w;
        memcpy(w.data(), raw.data() + at, 384);
        bool silent = true, tone = true;
        for (size_t i = 0; i < 96; i++) {
            const double want = t[i / 2] * (i % 2 ? gain_r : gain_l);
            silent = silent && w[i] == 0;
            tone = tone && std::fabs((int32_t(uint32_t(w[i]) << 8) >> 8) - want) <= 2;
        }
        if (!silent && !tone)
            return -1;
        found += tone;
    }
    return found;
}

TEST_F(RunningDaemon, PlaysAMixRoutedToTheCardIntoThePlaybackFile)
{
    card = std::make_unique<alsa_file_card>(std::string(384, '\0'));
    const uint16_t port = free_ports(1)[0];
    start("XPT mix=spk src=" + lo(port) + " fmt=L24/48000/1 pdly=" + SLACK + "\n"
          "SRC mix=spk:spk rtpa=alsa:0 gainv=0;-6\n");
    const samples in = tone(0.5);
    stream(0, 300, {{port, in}}, [] {});
    const int played = tone_blocks(read_file(card->play_path), in, 1.0, std::pow(10.0, -0.3));
    EXPECT_GE(played, 200) << "nothing but silence and the tone, left at 0 dB and right at -6 dB";
}

TEST_F(RunningDaemon, SendsTheCapturedLeftChannelInAStream)
{
    const samples left = tone(0.5);
    // 24 bits in 32-bit words, as the card delivers them. The daemon reads
    // the file at eight blocks a millisecond: this lasts about a second.
    samples words;
    for (int b = 0; b < ALSA_LOOP_MAX * 1000; b++)
        for (int32_t v : left)
            words.insert(words.end(), {int32_t(uint32_t(v) & 0xFFFFFF), 0x123456});
    card = std::make_unique<alsa_file_card>(std::string(reinterpret_cast<const char *>(words.data()), words.size() * 4));
    const udp_sock out;
    start("XPT mix=mic src=alsa:0\nSRC mix=mic rtpa=" + lo(out.port) + " ifa=" + lo(free_ports(1)[0]) +
          " fmt=L24/48000/1\n");
    int packets = 0, tone_packets = 0;
    wait_for(2000, [&] {
        std::vector<rtp_pkt> pkts;
        rtp_drain(out.fd, pkts);
        for (const rtp_pkt &pkt : pkts) {
            const samples got = l24_channel(pkt.payload, 1, 0);
            bool silent = got.size() == 48, tone = got.size() == 48;
            for (size_t k = 0; k < got.size() && k < 48; k++) {
                silent = silent && got[k] == 0;
                tone = tone && std::abs(got[k] - left[k]) <= 1;
            }
            EXPECT_TRUE(silent || tone) << "packet " << packets;
            packets++;
            tone_packets += tone;
        }
        return tone_packets >= 100;
    });
    EXPECT_GE(tone_packets, 100);
}

// Steady output of the one-channel model for a constant input x: the
// envelope settles at x/T, the gain at 1/(1 + R max(x/T - 1, 0.0001)), and
// the output carries the model's fixed drive 0.25/T.
double steady_1ch(double x, double T, double R) { return x * 0.25 / T / (1 + R * std::max(x / T - 1, 1e-4)); }

// The stereo model's output after it has run long on the same block pair:
// the reference for the daemon's stream in steady state.
std::array<float, 96> settled_2ch(const char *lce, const std::array<std::vector<float>, 2> &mixes)
{
    limcom_params p{};
    pelocfg_limcom(&p, lce);
    auto *l = new (std::nothrow) LimCom_Instance{};
    CG_limcom_init_instance(l, &p, 2);
    for (int n = 0; n < 2000; n++) {
        std::copy_n(mixes[size_t(p.ch0 & 1)].begin(), 48, l->inputBuffer);
        std::copy_n(mixes[size_t(p.ch1 & 1)].begin(), 48, l->inputBuffer + 48);
        CG_limcom_process(l);
    }
    std::array<float, 96> out;
    std::copy_n(l->outputBuffer, 96, out.begin());
    delete l;
    return out;
}

TEST_F(RunningDaemon, LimitedStreamsSendTheSteadyLevelOfTheModel)
{
    struct row {
        const char *lce; // empty: no limiter
        bool stereo;     // mono: a constant 0.5; stereo: a tone at 0.5 and -6 dB below
        double T, R;
    };
    const row rows[] = {
        {"", false, 0, 0},
        {"1;a=1;r=10;T=1;R=4", false, 1, 4},     // below the threshold: the drive only
        {"1;a=1;r=10;T=0.25;R=4", false, 0.25, 4}, // twice the threshold
        {"1;a=1;r=1;T=0.1;R=2", true, 0, 0},
        {"1;i=10;a=1;r=1;T=0.1;R=2", true, 0, 0}, // channels swapped
    };
    const std::vector<uint16_t> ports = free_ports(2 + std::size(rows));
    std::vector<udp_sock> outs(std::size(rows));
    const std::string in = " fmt=L24/48000/1 pdly=" + SLACK;
    std::string conf = "XPT mix=dc src=" + lo(ports[0]) + in + "\nXPT mix=a src=" + lo(ports[1]) + in +
                       "\nXPT mix=b src=" + lo(ports[1]) + in + " gain=-6\n";
    for (size_t i = 0; i < std::size(rows); i++)
        conf += std::string("SRC mix=") + (rows[i].stereo ? "a:b" : "dc") + " rtpa=" + lo(outs[i].port) +
                " ifa=" + lo(ports[2 + i]) + (rows[i].stereo ? " fmt=L24/48000/2" : " fmt=L24/48000/1") +
                (*rows[i].lce ? std::string(" lce=") + rows[i].lce : "") + "\n";
    start(conf);
    const samples dc(48, int32_t(0.5 * FULL24)), t = tone(0.5);
    std::vector<std::vector<rtp_pkt>> got(std::size(rows)); // while the input still flows
    stream(0, 600, {{ports[0], dc}, {ports[1], t}}, [&] {
        for (size_t i = 0; i < std::size(rows); i++)
            rtp_drain(outs[i].fd, got[i]);
    });

    const double x = dc[0] / FULL24;
    std::array<std::vector<float>, 2> mixes;
    for (int32_t v : t) {
        mixes[0].push_back(float(v) * int24_to_float);
        mixes[1].push_back(mixes[0].back() * dB2lin(-6.0f));
    }
    for (size_t i = 0; i < std::size(rows); i++) {
        const row &r = rows[i];
        ASSERT_FALSE(got[i].empty()) << r.lce;
        const samples last = l24_channel(got[i].back().payload, 1, 0);
        ASSERT_EQ(last.size(), r.stereo ? 96u : 48u) << r.lce;
        if (!r.stereo) {
            const double want = *r.lce ? steady_1ch(x, r.T, r.R) : x;
            for (int32_t v : last)
                ASSERT_NEAR(v / FULL24, want, 1e-6) << r.lce;
            continue;
        }
        const std::array<float, 96> want = settled_2ch(r.lce, mixes);
        for (size_t k = 0; k < 48; k++)
            for (size_t c = 0; c < 2; c++)
                ASSERT_NEAR(last[2 * k + c] / FULL24, want[48 * c + k], 1e-4) << r.lce << " " << k << " " << c;
    }
}
} // namespace
