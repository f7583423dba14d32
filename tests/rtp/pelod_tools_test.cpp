// The commissioning listener pelod-listen against a sender in the test over
// 127.0.0.1 (the tone sender is exercised by the end-to-end runs).
#include "support/emulation.h"
#include "support/proc.h"
#include "support/rtp_wire.h"

#include <cmath>
#include <gtest/gtest.h>
#include <map>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace {
using bytes = std::vector<uint8_t>;
const std::string listen_bin = std::string(PELOD_TOOLS_DIR) + "/pelod-listen";

// The listener's last line: "summary key=value ...".
std::map<std::string, std::string> summary_of(const std::string &out)
{
    std::map<std::string, std::string> m;
    const size_t at = out.find("summary ");
    std::istringstream line(at == std::string::npos ? "" : out.substr(at + 8, out.find('\n', at) - at - 8));
    for (std::string kv; line >> kv;)
        if (const size_t eq = kv.find('='); eq != std::string::npos)
            m[kv.substr(0, eq)] = kv.substr(eq + 1);
    return m;
}

bool listening(void *p) { return static_cast<bg_proc *>(p)->err().find("listening on") != std::string::npos; }

TEST(PelodListen, ReportsPacketsGapsLevelsDelayAndWritesTheTimelineToWav)
{
    SKIP_UNDER_EMULATION();
    const uint16_t port = udp_free_port();
    const std::string wav = tmp_file("", ".wav");
    bg_proc tool;
    ASSERT_TRUE(tool.start({listen_bin, "-q", "-n", "298", "-t", "5", "-f", "L24/48000/2", "-w", wav,
                            "127.0.0.1:" + std::to_string(port)}));
    ASSERT_TRUE(wait_until(2000, listening, &tool)) << tool.err();

    const int tx = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in to{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    const auto send = [&](const bytes &p) { sendto(tx, p.data(), p.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to); };
    std::vector<int32_t> frames; // 0.5 left, 0.25 right, 1 kHz
    for (int k = 0; k < 48; k++)
        for (double amp : {0.5, 0.25})
            frames.push_back(int32_t(std::lround(amp * 8388607.0 * std::sin(2 * M_PI * k / 48.0))));
    const bytes pl = pcm24(frames);
    const uint32_t base = media_clock_now() - 48; // each packet leaves 1 ms after its timestamp
    timespec next{};
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (uint16_t seq = 0; seq < 300; seq++) { // paced on the monotonic clock, as a real sender would
        next.tv_nsec += 1000000;
        next.tv_sec += next.tv_nsec / 1000000000;
        next.tv_nsec %= 1000000000;
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
        if (seq < 100 || seq >= 103) // 100..102 lost
            send(rtp_datagram(seq, base + 48u * seq, pl, 96, false, 0xABCD));
        if (seq == 60) {
            send(rtp_datagram(50, base + 48u * 50, pl, 96, false, 0xABCD)); // late duplicate
            send(rtp_datagram(61, base, pl, 96, false, 0x9999));            // another sender
        }
    }
    close(tx);
    ASSERT_EQ(tool.wait(3000), 0) << tool.err();
    auto s = summary_of(tool.out());
    EXPECT_EQ(s["packets"] + " " + s["lost"] + " " + s["gaps"] + " " + s["late"] + " " + s["foreign"] + " " + s["ssrc"] +
                  " " + s["format"] + " " + s["channels"] + " " + s["ptime"] + " " + s["first_seq"],
              "298 3 1 1 1 0x0000abcd L24 2 48 0");
    const auto level = [&s](const char *key, int channel) { // "peak_dbfs=-6.02,-12.04"
        const std::string &v = s[key];
        return std::stod(channel ? v.substr(v.find(',') + 1) : v);
    };
    EXPECT_NEAR(level("peak_dbfs", 0), -6.02, 0.01);
    EXPECT_NEAR(level("peak_dbfs", 1), -12.04, 0.01);
    EXPECT_NEAR(level("rms_dbfs", 0), -9.03, 0.01);
    const double delay = std::stod(s["delay_ms_avg"]);
    EXPECT_TRUE(delay > 0.9 && delay < 20.0) << delay; // loose: the machine may be busy

    // 300 packets of 48 frames: the lost three as silence, the duplicate left out
    EXPECT_EQ(s["wav_frames"], "14400");
    const std::string w = read_file(wav);
    unlink(wav.c_str());
    ASSERT_EQ(w.size(), 44u + 14400 * 6);
    EXPECT_EQ(w.substr(0, 4) + char('0' + w[22]) + std::to_string(w[34]), "RIFF224"); // 2 channels, 24 bits
    const uint8_t *d = reinterpret_cast<const uint8_t *>(w.data()) + 44;
    for (int i = 0; i < 3 * 96; i++) // packet 1, little-endian, bit for bit
        ASSERT_EQ(d[48 * 6 + i], pl[size_t(i - i % 3 + 2 - i % 3)]) << i;
    for (int i = 0; i < 3 * 48 * 6; i++)
        ASSERT_EQ(d[100 * 48 * 6 + i], 0) << i;
}

TEST(PelodToolsUsage, BadArgumentsAndSilence)
{
    SKIP_UNDER_EMULATION();
    const struct {
        std::vector<std::string> argv;
        int status;
        std::vector<const char *> says; // in stdout or stderr
    } cases[] = {
        {{listen_bin}, 1, {"pelod-listen: one ADDRESS[:PORT] expected"}},
        {{listen_bin, "-t", "1.2", "127.0.0.1:" + std::to_string(udp_free_port())}, 2, // nothing arrived
         {"t=1 pkts=0 lost=0", "summary packets=0 "}},
    };
    for (const auto &c : cases) {
        const run_result r = run_prog(c.argv);
        EXPECT_EQ(r.status, c.status) << c.argv.back();
        for (const char *text : c.says)
            EXPECT_NE((r.out + r.err).find(text), std::string::npos) << text << " in " << r.out << r.err;
    }
}
} // namespace
