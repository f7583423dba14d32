// The listener tool, fed by a sender in the test over 127.0.0.1.
#include "support/emulation.h"
#include "support/proc.h"

#include <arpa/inet.h>
#include <cmath>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <unistd.h>
#include <vector>

namespace {

const std::string listen_bin = std::string(PELOD_TOOLS_DIR) + "/pelod-listen";

uint16_t free_udp_port()
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t l = sizeof a;
    bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &l);
    close(fd);
    return ntohs(a.sin_port);
}

uint32_t media_now()
{
    timespec t{};
    clock_gettime(CLOCK_TAI, &t);
    return uint32_t(uint64_t(t.tv_sec) * 48000 + uint64_t(t.tv_nsec) * 3 / 62500);
}

struct rtp_sender {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in dst{};
    timespec next{};
    explicit rtp_sender(uint16_t port)
    {
        dst.sin_family = AF_INET;
        dst.sin_port = htons(port);
        dst.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        clock_gettime(CLOCK_MONOTONIC, &next);
    }
    ~rtp_sender() { close(fd); }
    void send(uint8_t pt, uint16_t seq, uint32_t ts, uint32_t ssrc, const std::vector<uint8_t> &payload)
    {
        std::vector<uint8_t> p = {0x80, pt, uint8_t(seq >> 8), uint8_t(seq)};
        for (uint32_t w : {ts, ssrc})
            for (int sh = 24; sh >= 0; sh -= 8)
                p.push_back(uint8_t(w >> sh));
        p.insert(p.end(), payload.begin(), payload.end());
        sendto(fd, p.data(), p.size(), 0, reinterpret_cast<sockaddr *>(&dst), sizeof dst);
    }
    // Paces the stream on the monotonic clock, as a real sender would.
    void wait_ns(long ns)
    {
        next.tv_sec += (next.tv_nsec + ns) / 1000000000;
        next.tv_nsec = (next.tv_nsec + ns) % 1000000000;
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
    }
};

int32_t sine24(double amp, int n) { return int32_t(std::lround(amp * 8388607.0 * std::sin(2 * M_PI * n / 48.0))); }

void put24(std::vector<uint8_t> &b, int32_t v)
{
    b.push_back(uint8_t(uint32_t(v) >> 16));
    b.push_back(uint8_t(uint32_t(v) >> 8));
    b.push_back(uint8_t(v));
}

std::map<std::string, std::string> summary_of(const std::string &out)
{
    std::map<std::string, std::string> m;
    const size_t at = out.find("summary ");
    if (at == std::string::npos)
        return m;
    std::istringstream line(out.substr(at + 8, out.find('\n', at) - at - 8));
    for (std::string kv; line >> kv;)
        if (const size_t eq = kv.find('='); eq != std::string::npos)
            m[kv.substr(0, eq)] = kv.substr(eq + 1);
    return m;
}

std::vector<double> numbers(const std::string &list)
{
    std::vector<double> v;
    std::istringstream s(list);
    for (std::string x; std::getline(s, x, ',');)
        v.push_back(std::stod(x));
    return v;
}

bool listening(void *p) { return static_cast<bg_proc *>(p)->err().find("listening on") != std::string::npos; }

class PelodListen : public ::testing::Test {
protected:
    void SetUp() override
    {
        SKIP_UNDER_EMULATION();
        if (access(listen_bin.c_str(), X_OK) != 0)
            FAIL() << "build the pelod-listen target first: " << listen_bin;
        port = free_udp_port();
    }
    void start(std::vector<std::string> args)
    {
        args.insert(args.begin(), listen_bin);
        args.push_back("127.0.0.1:" + std::to_string(port));
        ASSERT_TRUE(tool.start(args));
        ASSERT_TRUE(wait_until(2000, listening, &tool)) << tool.err();
    }
    uint16_t port = 0;
    bg_proc tool;
};

TEST_F(PelodListen, ReportsPacketsGapsLevelsDelayAndWritesTheTimelineToWav)
{
    const std::string wav = tmp_file("", ".wav");
    start({"-q", "-n", "298", "-t", "5", "-f", "L24/48000/2", "-w", wav});
    rtp_sender tx(port);
    const uint32_t base = media_now() - 48; // each packet leaves 1 ms after its timestamp
    std::vector<uint8_t> kept;
    for (int seq = 0; seq < 300; seq++) {
        tx.wait_ns(1000000);
        std::vector<uint8_t> pl;
        for (int k = 0; k < 48; k++) {
            put24(pl, sine24(0.5, k));
            put24(pl, sine24(0.25, k));
        }
        if (seq == 1)
            kept = pl;
        if (seq >= 100 && seq < 103)
            continue; // lost
        tx.send(96, uint16_t(seq), base + 48u * uint32_t(seq), 0xABCD, pl);
        if (seq == 60) {
            tx.send(96, 50, base + 48u * 50, 0xABCD, pl); // late duplicate
            tx.send(96, 61, base, 0x9999, pl);           // another sender
        }
    }
    ASSERT_EQ(tool.wait(3000), 0) << tool.err();
    const auto s = summary_of(tool.out());
    EXPECT_EQ(s.at("packets"), "298");
    EXPECT_EQ(s.at("lost"), "3");
    EXPECT_EQ(s.at("gaps"), "1");
    EXPECT_EQ(s.at("late"), "1");
    EXPECT_EQ(s.at("foreign"), "1");
    EXPECT_EQ(s.at("ssrc"), "0x0000abcd");
    EXPECT_EQ(s.at("format"), "L24");
    EXPECT_EQ(s.at("channels"), "2");
    EXPECT_EQ(s.at("ptime"), "48");
    EXPECT_EQ(s.at("first_seq"), "0");
    const std::vector<double> peak = numbers(s.at("peak_dbfs")), rms = numbers(s.at("rms_dbfs"));
    ASSERT_EQ(peak.size(), 2u);
    EXPECT_NEAR(peak[0], -6.02, 0.01);
    EXPECT_NEAR(peak[1], -12.04, 0.01);
    EXPECT_NEAR(rms[0], -9.03, 0.01);
    const double delay = std::stod(s.at("delay_ms_avg"));
    EXPECT_GT(delay, 0.9);
    EXPECT_LT(delay, 20.0); // loose: the machine may be busy

    // 300 packets of 48 frames: the lost three as silence, the duplicate left out
    EXPECT_EQ(s.at("wav_frames"), "14400");
    const std::string w = read_file(wav);
    unlink(wav.c_str());
    ASSERT_EQ(w.size(), 44u + 14400 * 6);
    EXPECT_EQ(w.substr(0, 4), "RIFF");
    EXPECT_EQ(w[22], 2);  // channels
    EXPECT_EQ(w[34], 24); // bits
    const uint8_t *d = reinterpret_cast<const uint8_t *>(w.data()) + 44;
    for (int i = 0; i < 96; i++) // packet 1, little-endian, bit for bit
        for (int b = 0; b < 3; b++)
            EXPECT_EQ(d[48 * 6 + 3 * i + b], kept[size_t(3 * i + 2 - b)]) << i;
    for (int i = 0; i < 3 * 48 * 6; i++)
        ASSERT_EQ(d[100 * 48 * 6 + i], 0) << i;
}

TEST(PelodListenUsage, HelpAndBadArguments)
{
    SKIP_UNDER_EMULATION();
    run_result r = run_prog({listen_bin, "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Usage:"), std::string::npos);
    EXPECT_NE(r.out.find("--wav=FILE"), std::string::npos);
    r = run_prog({listen_bin});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("ADDRESS[:PORT] expected"), std::string::npos);
    r = run_prog({listen_bin, "-f", "L20", "127.0.0.1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("bad value for -f"), std::string::npos);
    r = run_prog({listen_bin, "-f", "L24/44100/2", "127.0.0.1"});
    EXPECT_EQ(r.status, 1);
    r = run_prog({listen_bin, "127.0.0.1:99999"});
    EXPECT_EQ(r.status, 1);
    r = run_prog({listen_bin, "-t", "1.2", "127.0.0.1:" + std::to_string(free_udp_port())});
    EXPECT_EQ(r.status, 2); // nothing arrived
    EXPECT_NE(r.out.find("t=1 pkts=0 lost=0"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("summary packets=0 "), std::string::npos) << r.out;
}

} // namespace
