// Cost of the sound-card steps of one block: rendering the loudspeaker
// source, the microphone into the ring, and one play/capture pair on a
// device that never fills or drains (the loops run to their bound).
#include "audio/alsa.h"
#include "daemon/mix.h"
#include "daemon/mixrun.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_src.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <unistd.h>

static void BM_RenderAlsaSrcStereo(benchmark::State &state)
{
    auto s = std::make_unique<rtp_src>();
    s->ep.sa_dst.sin_family = alsa_src_family;
    s->mix[0] = 1;
    s->mix[1] = 2;
    s->nchn = 2;
    s->gainv[0] = 0.7f;
    s->gainv[1] = 0.9f;
    for (int i = 0; i < 96 * MIX_OUT_MAX; i++)
        mix_out[i] = float(i % 200) * 0.004f - 0.4f;
    std::array<int32_t, 96> buf{};
    for (auto _ : state) {
        mix_render_alsa_src(s.get(), buf.data());
        benchmark::DoNotOptimize(buf[0]);
    }
    state.SetLabel("ns per block");
}
BENCHMARK(BM_RenderAlsaSrcStereo);

static void BM_MicToRingTwoFlows(benchmark::State &state)
{
    mix_inp_init();
    for (int i = 0; i < RTP_DST_MAX; i++)
        dst_init(&rtp_dsts[i], i);
    for (int i : {3, 9}) {
        rtp_dsts[i].ep.sa_dst.sin_family = alsa_src_family;
        rtp_dsts[i].pdly = 48;
    }
    rtp_dsts[9].fmt.nchan = 1; // the 96-value copy
    std::array<int32_t, 96> buf{};
    for (int k = 0; k < 96; k++)
        buf[size_t(k)] = k * 4099 - 200000;
    uint32_t ts = 0;
    for (auto _ : state) {
        mix_mic_to_ring(buf.data(), ts);
        ts += MIX_BLOCK;
        benchmark::DoNotOptimize(mix_inp[0]);
    }
    state.SetLabel("48 + 96 samples, ns per block");
}
BENCHMARK(BM_MicToRingTwoFlows);

static void BM_PlayRecInstantDevice(benchmark::State &state)
{
    char conf[] = "/tmp/pelodbenchXXXXXX";
    const int fd = mkstemp(conf);
    const char text[] = R"(pcm.!hw {
    @args [ CARD DEV SUBDEV ]
    @args.CARD { type string default "0" }
    @args.DEV { type integer default 0 }
    @args.SUBDEV { type integer default -1 }
    type asym
    playback.pcm { type file slave.pcm "null" format "raw" file "/dev/null" }
    capture.pcm { type file slave.pcm "null" format "raw" file "/dev/null" infile "/dev/zero" }
}
)";
    if (fd < 0 || write(fd, text, sizeof text - 1) != ssize_t(sizeof text - 1)) {
        state.SkipWithError("cannot write the device configuration");
        return;
    }
    close(fd);
    setenv("ALSA_CONFIG_PATH", (std::string("/usr/share/alsa/alsa.conf:") + conf).c_str(), 1);
    if (alsa_open() != 0) {
        state.SkipWithError("alsa_open failed");
        unlink(conf);
        return;
    }
    std::array<int32_t, 96> buf{};
    for (auto _ : state) {
        alsa_play48(buf.data());
        alsa_rec48(buf.data());
        benchmark::DoNotOptimize(buf[0]);
    }
    alsa_close();
    unlink(conf);
    state.SetLabel("8 writes + 8 reads, ns per block");
}
BENCHMARK(BM_PlayRecInstantDevice);

BENCHMARK_MAIN();
