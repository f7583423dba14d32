// One datagram through the receive path into a flow. The first two bytes
// choose the flow (format, channels, channel select or down-mix, default
// payload map, Opus) and the arrival time; the rest is the datagram, handed
// over in a heap block of exactly its size so a read past it is caught.
// With PELOD_FUZZ_SEEDS=DIR set, writes valid datagrams there and exits.
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_recv.h"
#include "rtp/rtp_src.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <opus.h>
#include <string>
#include <vector>

namespace {
struct flow_kind {
    rtp_fmt fmt;
    int chn;
};
const flow_kind kinds[] = {
    {{RTP_FMT_PCM, 24, 48000, 1}, -1}, {{RTP_FMT_PCM, 24, 48000, 2}, -1}, {{RTP_FMT_PCM, 24, 48000, 2}, 1},
    {{RTP_FMT_PCM, 16, 48000, 1}, -1}, {{RTP_FMT_PCM, 16, 48000, 2}, 0},  {{RTP_FMT_PCM, 24, 48000, 8}, 5},
    {{RTP_FMT_PCM, 24, 48000, 0}, -1}, {{RTP_FMT_NDI, 24, 48000, 2}, -1}, {{RTP_FMT_OPUS, 16, 48000, 1}, -1},
    {{RTP_FMT_OPUS, 16, 48000, 2}, -1}, {{RTP_FMT_OPUS, 16, 48000, 2}, 1},
};
constexpr int KINDS = int(std::size(kinds));
rtp_dst &flow = rtp_dsts[7];
OpusDecoder *decoders[2];

// Seeds: one valid datagram per kind of flow (sequence 100, timestamp 4800).
void write_seeds(const char *dir)
{
    for (int k = 0; k < KINDS; k++) {
        const rtp_fmt &f = kinds[k].fmt;
        std::vector<uint8_t> d = {uint8_t(k), 7, 0x80, uint8_t(f.payload_format == RTP_FMT_OPUS ? 111 : f.nchan == 0 ? 98 : 101), 0, 100, 0, 0, 0x12, 0xC0, 1, 2, 3, 4};
        if (f.payload_format == RTP_FMT_OPUS) {
            OpusEncoder *enc = opus_encoder_create(48000, f.nchan, OPUS_APPLICATION_AUDIO, nullptr);
            std::vector<float> pcm(size_t(240 * f.nchan), 0.25f);
            uint8_t out[1500];
            d.insert(d.end(), out, out + std::max(opus_encode_float(enc, pcm.data(), 240, out, sizeof out), 0));
            opus_encoder_destroy(enc);
        } else {
            for (int i = 0; i < 48 * (f.bps / 8) * (f.nchan ? f.nchan : 1); i++)
                d.push_back(uint8_t(i * 37));
        }
        if (FILE *o = fopen((std::string(dir) + "/seed" + std::to_string(k)).c_str(), "wb")) {
            fwrite(d.data(), 1, d.size(), o);
            fclose(o);
        }
    }
    exit(0);
}
} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    if (const char *dir = getenv("PELOD_FUZZ_SEEDS"))
        write_seeds(dir);
    mix_inp_init();
    pdly_samples_min = 96;
    for (int c = 0; c < 2; c++)
        decoders[c] = opus_decoder_create(48000, c + 1, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const flow_kind &k = kinds[data[0] % KINDS];
    memset(&flow, 0, sizeof flow);
    flow.index = 7;
    flow.eaec_source = -1;
    flow.fmt = k.fmt;
    flow.channel_mode = k.chn;
    flow.pdly = data[1] & 1 ? 0 : 480;
    if (k.fmt.payload_format == RTP_FMT_OPUS) {
        flow.opus_dec = decoders[k.fmt.nchan - 1];
        opus_decoder_ctl(flow.opus_dec, OPUS_RESET_STATE);
    }
    flow.ep.dst = &flow;
    const size_t len = size - 2;
    uint8_t *packet = static_cast<uint8_t *>(malloc(len ? len : 1));
    memcpy(packet, data + 2, len);
    // twice: the first datagram teaches the flow, the next one (sequence
    // and timestamp moved on) locks it and plays
    const uint32_t now = uint32_t(data[1]) << 24, step = 48u * (1 + (data[1] >> 4));
    rtp_ep_recv_packet(&flow.ep, packet, int(len), now);
    if (len >= 8) {
        packet[3]++;
        const uint32_t ts = (uint32_t(packet[4]) << 24 | uint32_t(packet[5]) << 16 | uint32_t(packet[6]) << 8 | packet[7]) + step;
        for (int i = 0; i < 4; i++)
            packet[4 + i] = uint8_t(ts >> (24 - 8 * i));
    }
    rtp_ep_recv_packet(&flow.ep, packet, int(len), now + step);
    free(packet);
    return 0;
}
