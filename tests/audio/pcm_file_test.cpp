// The sound-card module on the real library, with "hw" redefined through
// ALSA_CONFIG_PATH as a file plugin over the null device: playback goes to
// a file, capture comes from a file, and the device never fills or drains.
#include "audio/alsa.h"
#include "support/emulation.h"
#include "support/proc.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {
using block = std::array<int32_t, 96>;
constexpr int INFILE_BLOCKS = 40;

// Raw capture word n of block b: 24 bits, bit 23 set on odd values.
int32_t raw_word(int b, int i) { return (b << 12 | i) | (i % 2 ? 0x800000 : 0); }
int32_t extended(int32_t w) { return w & 0x800000 ? int32_t(uint32_t(w) | 0xFF000000u) : w; }

long file_size(const std::string &path)
{
    struct stat st{};
    return stat(path.c_str(), &st) == 0 ? long(st.st_size) : -1;
}

class AlsaFilePlugin : public ::testing::Test { // state: "hw" is the file plugin
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/pelodalsaXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        play_path = dir + "/play.raw";
        cap_path = dir + "/capture.raw";
        conf_path = dir + "/hw.conf";
        std::vector<int32_t> words;
        for (int b = 0; b < INFILE_BLOCKS; b++)
            for (int i = 0; i < 96; i++)
                words.push_back(raw_word(b, i));
        write_file(cap_path, words.data(), words.size() * 4);
        const std::string conf = R"(
pcm.!hw {
    @args [ CARD DEV SUBDEV ]
    @args.CARD { type string default "0" }
    @args.DEV { type integer default 0 }
    @args.SUBDEV { type integer default -1 }
    type asym
    playback.pcm { type file slave.pcm "null" format "raw" file ")" + play_path + R"(" }
    capture.pcm { type file slave.pcm "null" format "raw" file "/dev/null" infile ")" + cap_path + R"(" }
}
)";
        write_file(conf_path, conf.data(), conf.size());
        setenv("ALSA_CONFIG_PATH", ("/usr/share/alsa/alsa.conf:" + conf_path).c_str(), 1);
        alsa_ply_rewrite = alsa_cap_reread = alsa_loop_cut = 0;
        alsa_cap_samples = 0;
    }
    void TearDown() override
    {
        alsa_close();
        unsetenv("ALSA_CONFIG_PATH");
        for (const std::string &p : {play_path, cap_path, conf_path})
            unlink(p.c_str());
        rmdir(dir.c_str());
    }
    static void write_file(const std::string &path, const void *data, size_t n)
    {
        FILE *f = fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        ASSERT_EQ(fwrite(data, 1, n, f), n);
        fclose(f);
    }
    std::string dir, play_path, cap_path, conf_path;
};

TEST_F(AlsaFilePlugin, PlayedBlocksLandInTheFileInOrder)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int opened = alsa_open();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    ASSERT_EQ(opened, 0);
    std::array<block, 3> blocks{};
    for (int n = 0; n < 3; n++) {
        for (int i = 0; i < 96; i++)
            blocks[size_t(n)][size_t(i)] = (n + 1) * 100000 - i * 997 * (i % 2 ? 1 : -1);
        block b = blocks[size_t(n)];
        EXPECT_EQ(alsa_play48(b.data()), 48);
    }
    alsa_close(); // flushes the plugin's file
    const std::string raw = read_file(play_path);
    ASSERT_EQ(raw.size() % sizeof(block), 0u);
    const size_t count = raw.size() / sizeof(block);
    // the device consumes at once: each block is repeated up to the bound
    EXPECT_EQ(count, 3 + alsa_ply_rewrite);
    EXPECT_EQ(alsa_loop_cut, 3u);
    size_t seen = 0;
    for (size_t k = 0; k < count; k++) {
        block b;
        memcpy(b.data(), raw.data() + k * sizeof(block), sizeof(block));
        while (seen < 3 && b != blocks[seen])
            seen++;
        ASSERT_LT(seen, 3u) << "block " << k << " was never played, or out of order";
    }
    EXPECT_EQ(seen, 2u);
}

TEST_F(AlsaFilePlugin, CapturedBlocksComeFromTheInfileSignExtended)
{
    testing::internal::CaptureStdout();
    ASSERT_EQ(alsa_open(), 0);
    testing::internal::GetCapturedStdout();
    int next = 0; // infile block the next read takes
    for (int call = 0; call < 2; call++) {
        block b{};
        const unsigned long before = alsa_cap_reread;
        EXPECT_EQ(alsa_rec48(b.data()), 48);
        next += 1 + int(alsa_cap_reread - before);
        for (int i = 0; i < 96; i++)
            ASSERT_EQ(b[size_t(i)], extended(raw_word(next - 1, i))) << call << " " << i;
    }
    EXPECT_EQ(next, 2 * ALSA_LOOP_MAX); // the device never drains: cut at the bound
    EXPECT_EQ(alsa_loop_cut, 2u);
    EXPECT_EQ(alsa_cap_samples, 48u * unsigned(next));
}

bool file_grows(void *arg)
{
    const auto *path = static_cast<const std::string *>(arg);
    const long a = file_size(*path);
    usleep(100000);
    return a > 0 && file_size(*path) > a;
}

TEST_F(AlsaFilePlugin, DaemonKeepsCyclingAndStopsPromptly)
{
    SKIP_UNDER_EMULATION();
    const std::string conf = tmp_file("# no routes\n");
    bg_proc p;
    ASSERT_TRUE(p.start({PELOD_BIN, "-p", "-", "-f", conf}));
    EXPECT_TRUE(wait_until(3000, file_grows, &play_path)) << p.err();
    EXPECT_TRUE(file_grows(&play_path)); // still playing a moment later
    p.signal(SIGTERM);
    EXPECT_EQ(p.wait(2000), 0); // killed, and -1, after two seconds
    EXPECT_EQ(p.err().find("Cannot open"), std::string::npos) << p.err();
    EXPECT_NE(p.err().find("DSP exited with status 0"), std::string::npos) << p.err();
    // played silence: no route reaches the card
    const std::string raw = read_file(play_path);
    EXPECT_EQ(raw.find_first_not_of('\0'), std::string::npos);
    unlink(conf.c_str());
    unlink(("/tmp/" + conf.substr(5, conf.size() - 10) + ".stat").c_str()); // the report
}

// A card that cannot be opened: one message, and the daemon runs on.
TEST_F(AlsaFilePlugin, DaemonRunsWithoutACard)
{
    SKIP_UNDER_EMULATION();
    const std::string broken = "pcm.!hw { @args [ CARD DEV SUBDEV ] @args.CARD { type string } "
                               "@args.DEV { type integer } @args.SUBDEV { type integer } "
                               "type plug slave.pcm \"pelod_no_such_device\" }\n";
    write_file(conf_path, broken.data(), broken.size());
    const std::string conf = tmp_file("# no routes\n");
    bg_proc p;
    ASSERT_TRUE(p.start({PELOD_BIN, "-p", "-", "-f", conf}));
    usleep(300000);
    p.signal(SIGTERM);
    EXPECT_EQ(p.wait(2000), 0);
    const std::string err = p.err();
    const size_t at = err.find("Cannot open playback device hw:0,0 (");
    EXPECT_NE(at, std::string::npos) << err;
    EXPECT_EQ(err.find("Cannot open", at + 1), std::string::npos) << err;
    EXPECT_NE(err.find("DSP exited with status 0"), std::string::npos) << err;
    unlink(conf.c_str());
    unlink(("/tmp/" + conf.substr(5, conf.size() - 10) + ".stat").c_str());
}
} // namespace
