// Features through the built daemon in a network namespace of the test's
// own, all in one run: the report file, the voice-activity notifications,
// a reload that changes nothing, and the sound card (alsa-lib with "hw"
// redefined as a file plugin). The test sends and receives RTP itself.
#include "e2e.h"
#include "support/alsa_file.h"

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <poll.h>
#include <sstream>
#include <unistd.h>

namespace {
using texts = std::vector<std::string>;

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

TEST(E2eFeatures, ReportVoxReloadAndSoundCardInOneRun)
{
    SKIP_WITHOUT_NETNS();
    const netns ns("pe2ef");
    ASSERT_TRUE(ns.ok());
    const int net = udp_socket(ns, "127.0.0.1", 5000), notes = udp_socket(ns, "127.0.0.1", 6100);
    ASSERT_GE(net, 0);
    const alsa_file_card card(std::string(384, '\0')); // outlives the daemon
    // a playout delay that a late packet of a busy machine still meets
    ns_pelod daemon(ns, "XPT mix=spk src=127.0.0.1:5004 fmt=L24/48000/1 pdly=960 vox=1;t=-20;h=0.4\n"
                        "SRC mix=spk:spk rtpa=alsa:0 gainv=0;-6\n", {"--vox-notify-port=6100"});
    ASSERT_TRUE(daemon.up) << daemon.output();
    const std::string report = daemon.path.substr(0, daemon.path.rfind('.')) + ".stat";

    // one period of 1 kHz per block; the first sample of a packet is loud
    std::vector<int32_t> in;
    for (int k = 0; k < 48; k++)
        in.push_back(int32_t(std::lround(0.5 * FULL24 * std::cos(2 * M_PI * k / 48.0))));
    const auto send = [&](int seq) { rtp_send(net, "127.0.0.1", 5004, 96, uint16_t(seq), 48u * seq, 1, pcm24(in)); };
    texts got;
    paced_1ms(400, [&](int seq, uint32_t) {
        if (seq < 10 || seq > 12) // a gap of three
            send(seq);
        if (seq == 200)
            daemon.signal(SIGHUP); // the same file: nothing is re-created, the list is announced again
        for (std::string &t : take(notes))
            got.push_back(std::move(t));
    });
    send(399); // a repeat
    const texts talking = {R"({"vox":["127.0.0.1:5004"]})"};
    EXPECT_EQ(got, (texts{talking[0], talking[0]})) << "start of talk, then the reload's announcement";
    const auto silent = std::chrono::steady_clock::now();
    EXPECT_EQ(take(notes, 2000), texts{R"({"vox":[]})"}) << "end of talk";
    EXPECT_GE(std::chrono::steady_clock::now() - silent, std::chrono::milliseconds(390))
        << "held for 0.4 s after the last loud packet";

    // the first packet only teaches sequence and time, and so does the repeat
    const std::map<std::string, std::string> want = {{"PKTS", "398"}, {"GOOD", "395"}, {"DROP", "3"},
                                                     {"DUPL", "1"},   {"SEQE", "2"},   {"SRST", "1"}};
    std::map<std::string, std::string> row;
    EXPECT_TRUE(wait_for(3000, [&] { return (row = flow_row(read_file(report), "00"))["PKTS"] == "398"; }))
        << read_file(report);
    for (const auto &[column, value] : want)
        EXPECT_EQ(row[column], value) << column;
    EXPECT_GE(atol(row["SYNC"].c_str()), 1) << "the stream was locked";
    EXPECT_EQ(row["Channel"], "127.0.0.1:5004");
    daemon.signal(SIGUSR1);
    const auto zeroed = [&] {
        row = flow_row(read_file(report), "00");
        for (const char *c : {"SYNC", "PKTS", "SRST", "SEQE", "DROP", "DUPL", "LATE", "GOOD"})
            if (row[c] != "0")
                return false;
        return true;
    };
    EXPECT_TRUE(wait_for(3000, zeroed)) << read_file(report);
    EXPECT_EQ(daemon.stop(), 0) << daemon.output();

    // blocks of 96 interleaved 24-bit words, left at 0 dB and right at -6 dB: the tone or silence
    const std::string raw = read_file(card.play_path);
    int played = 0;
    for (size_t at = 0; at + 384 <= raw.size(); at += 384) {
        int32_t w[96];
        memcpy(w, raw.data() + at, 384);
        bool silent = true, tone = true;
        for (int i = 0; i < 96; i++) {
            const int32_t v = int32_t(uint32_t(w[i]) << 8) >> 8;
            silent = silent && v == 0;
            tone = tone && std::fabs(v - in[size_t(i / 2)] * (i % 2 ? std::pow(10.0, -0.3) : 1.0)) <= 2;
        }
        ASSERT_TRUE(silent || tone) << "block " << at / 384;
        played += tone;
    }
    EXPECT_GE(played, 250);
    close(net);
    close(notes);
}

} // namespace
