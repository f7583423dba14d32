// pelod-listen: receives one RTP stream (L24, L16 or Opus; unicast, any-source
// or SSM multicast) and reports once a second what arrives:
// packets, sequence gaps, the level of each channel and how far the stream's
// RTP timestamps lie behind the media clock. Optionally writes the audio to
// a WAV file. Ends after a duration or a packet count, or on Ctrl-C, with a
// one-line summary that scripts and tests read. As a jitter probe, it also
// runs every datagram through the daemon's own receive path and says which
// playout delay (pdly) would have placed them all in time.
#include "daemon/mix.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_recv.h"
#include "addr_port.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <getopt.h>
#include <netinet/in.h>
#include <opus/opus.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <algorithm>
#include <unistd.h>
#include <memory>
#include <vector>

namespace {

constexpr int RATE = 48000;
constexpr int MAX_CH = 8;
constexpr int WAV_GAP_MAX = RATE; // silence filled in for a gap, at most 1 s

enum class codec : int { automatic, l24, l16, opus };

struct options {
    in_addr_t addr = INADDR_NONE;
    uint16_t port = 5004;
    in_addr_t source = 0;
    in_addr_t iface = INADDR_ANY;
    codec kind = codec::automatic;
    int channels = 0; // 0: by payload type / packet
    const char *phc = nullptr;
    const char *wav = nullptr;
    double duration_s = 0;
    long count = 0;
    bool quiet = false;
    bool per_packet = false;
    bool probe = false;
};

void usage(const char *prog)
{
    printf("Usage: %s [options] ADDRESS[:PORT]\n"
           "\n"
           "Receives one RTP stream and reports once a second: packets, sequence gaps,\n"
           "the level of each channel (dBFS) and the delay of the stream's RTP\n"
           "timestamps behind the media clock.\n"
           "\n"
           "ADDRESS  a multicast group to join, a channel number of the audio network\n"
           "         (5 is 239.192.0.5, -5 is 239.193.0.5), or a local unicast address\n"
           "         (0.0.0.0: any). PORT defaults to 5004.\n"
           "\n"
           "Options:\n"
           "  -f, --format=FMT     L24, L16 or opus, optionally /RATE/CHANNELS or /CHANNELS\n"
           "                       (L24/48000/2, opus/1). Default: by payload type\n"
           "                       (96..118 as the daemon maps them; 144-byte payloads\n"
           "                       are mono L24)\n"
           "  -s, --source=ADDR    take the stream only from ADDR (an SSM\n"
           "                       membership for a multicast group)\n"
           "  -i, --interface=ADDR interface address for the multicast membership\n"
           "  -p, --phc-dev=DEV    media clock from a PTP hardware clock (/dev/ptp0);\n"
           "                       default, or \"-\": the system's TAI clock\n"
           "  -w, --wav=FILE       write the audio to FILE (WAV; 16-bit for L16 and\n"
           "                       Opus, 24-bit for L24; gaps are filled with silence)\n"
           "  -t, --duration=SEC   stop after SEC seconds (fractions allowed)\n"
           "  -n, --count=N        stop after N packets of the stream\n"
           "  -q, --quiet          no per-second lines, only the summary\n"
           "  -v, --packets        one line per packet\n"
           "  -j, --jitter         jitter probe: at exit, the spread of arrivals against\n"
           "                       the RTP timestamps and the smallest pdly (samples) that\n"
           "                       would have placed 100 %% and 99.9 %% of the datagrams in\n"
           "                       time in the daemon (use with -t, e.g. -t 30)\n"
           "  -h, --help           this text\n"
           "\n"
           "The first SSRC heard is the stream; packets of other SSRCs (and, with -s\n"
           "on a unicast address, from other senders) are counted as foreign and\n"
           "ignored. Packet times (ptime) are in samples at 48 kHz.\n"
           "\n"
           "Per-second line:\n"
           "  t=3 pkts=1000 lost=0 gaps=0 late=0 ptime=48 L24/2 pt=96\n"
           "      level=-6.0/-9.0,-6.0/-9.0 dBFS delay=1.52 ms (1.40..1.70)\n"
           "  (level: peak/rms per channel; delay: mean (min..max) of media clock at\n"
           "  arrival minus RTP timestamp)\n"
           "At exit, one line of key=value pairs beginning with \"summary\":\n"
           "  packets lost gaps late foreign bad ssrc pt format channels ptime\n"
           "  first_seq first_ts from peak_dbfs rms_dbfs delay_ms_min delay_ms_avg\n"
           "  delay_ms_max wav_frames\n"
           "With -j, before it, one line beginning with \"jitter\":\n"
           "  datagrams spread_ms p99_ms p999_ms relocks pdly_auto late_auto pdly_100\n"
           "  pdly_999 suggest (spread: largest minus smallest arrival-minus-timestamp;\n"
           "  late_auto: datagrams the automatic delay would have counted LATE; suggest:\n"
           "  pdly_100 rounded up to whole milliseconds plus the daemon's 2 ms\n"
           "  allowance for its own wake-up jitter)\n"
           "\n"
           "Exit status: 0 when the stream was received, 2 when nothing arrived,\n"
           "1 on a usage or set-up error.\n",
           prog);
}

bool parse_ipv4(const char *s, in_addr_t *a)
{
    in_addr x{};
    if (inet_pton(AF_INET, s, &x) != 1)
        return false;
    *a = x.s_addr;
    return true;
}

bool parse_format(const char *s, options *o)
{
    char name[16] = "";
    int a = 0, b = 0;
    const int n = sscanf(s, "%15[^/]/%d/%d", name, &a, &b);
    if (strcasecmp(name, "L24") == 0)
        o->kind = codec::l24;
    else if (strcasecmp(name, "L16") == 0)
        o->kind = codec::l16;
    else if (strcasecmp(name, "opus") == 0)
        o->kind = codec::opus;
    else
        return false;
    if (n == 3 && a != RATE) {
        fprintf(stderr, "pelod-listen: only %d Hz streams are supported\n", RATE);
        return false;
    }
    o->channels = n == 3 ? b : n == 2 ? a : 0;
    return o->channels >= 0 && o->channels <= MAX_CH;
}

int parse_options(int argc, char **argv, options *o)
{
    static const option longopts[] = {
        {"format", required_argument, nullptr, 'f'}, {"source", required_argument, nullptr, 's'},
        {"interface", required_argument, nullptr, 'i'}, {"phc-dev", required_argument, nullptr, 'p'},
        {"wav", required_argument, nullptr, 'w'}, {"duration", required_argument, nullptr, 't'},
        {"count", required_argument, nullptr, 'n'}, {"quiet", no_argument, nullptr, 'q'},
        {"packets", no_argument, nullptr, 'v'}, {"jitter", no_argument, nullptr, 'j'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    for (int c; (c = getopt_long(argc, argv, "f:s:i:p:w:t:n:qvjh", longopts, nullptr)) != -1;) {
        bool ok = true;
        switch (c) {
        case 'f': ok = parse_format(optarg, o); break;
        case 's': ok = parse_ipv4(optarg, &o->source); break;
        case 'i': ok = parse_ipv4(optarg, &o->iface); break;
        case 'p': o->phc = optarg[0] == '-' ? nullptr : optarg; break;
        case 'w': o->wav = optarg; break;
        case 't': o->duration_s = atof(optarg); ok = o->duration_s > 0; break;
        case 'n': o->count = atol(optarg); ok = o->count > 0; break;
        case 'q': o->quiet = true; break;
        case 'v': o->per_packet = true; break;
        case 'j': o->probe = true; break;
        case 'h': usage(argv[0]); return 0;
        default: ok = false; break;
        }
        if (!ok) {
            fprintf(stderr, "pelod-listen: bad value for -%c: %s (see --help)\n", c, optarg ? optarg : "");
            return 1;
        }
    }
    if (optind != argc - 1 || !parse_addr_port(argv[optind], &o->addr, &o->port, true)) {
        fprintf(stderr, "pelod-listen: one ADDRESS[:PORT] expected (see --help)\n");
        return 1;
    }
    return -1;
}

bool is_mcast(in_addr_t a) { return (ntohl(a) >> 28) == 0xE; }

int open_socket(const options &o)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        perror("pelod-listen: socket");
        return -1;
    }
    const int one = 1, zero = 0;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(o.port);
    sa.sin_addr.s_addr = o.addr; // a group address here takes only that group's datagrams
    if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) < 0) {
        perror("pelod-listen: bind");
        close(fd);
        return -1;
    }
    if (!is_mcast(o.addr))
        return fd;
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_ALL, &zero, sizeof zero);
    int r;
    if (o.source) {
        ip_mreq_source m{};
        m.imr_multiaddr.s_addr = o.addr;
        m.imr_interface.s_addr = o.iface;
        m.imr_sourceaddr.s_addr = o.source;
        r = setsockopt(fd, IPPROTO_IP, IP_ADD_SOURCE_MEMBERSHIP, &m, sizeof m);
    } else {
        ip_mreq m{};
        m.imr_multiaddr.s_addr = o.addr;
        m.imr_interface.s_addr = o.iface;
        r = setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m);
    }
    if (r < 0) {
        perror("pelod-listen: multicast membership");
        close(fd);
        return -1;
    }
    return fd;
}

// 48 kHz sample count of a clock reading, modulo 2^32, as the daemon counts.
uint32_t media_samples(const timespec &t)
{
    return uint32_t(uint64_t(t.tv_sec) * RATE + uint64_t(t.tv_nsec) * 3 / 62500);
}

double mono_seconds()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

struct rtp_view {
    uint8_t pt;
    uint16_t seq;
    uint32_t ts, ssrc;
    const uint8_t *payload;
    int len;
};

bool rtp_parse(const uint8_t *b, int n, rtp_view *v)
{
    if (n < 12 || (b[0] >> 6) != 2)
        return false;
    int off = 12 + 4 * (b[0] & 0x0F);
    if (b[0] & 0x10) { // header extension
        if (n < off + 4)
            return false;
        off += 4 + 4 * (b[off + 2] << 8 | b[off + 3]);
    }
    int end = n;
    if (b[0] & 0x20) // padding
        end -= b[n - 1];
    if (end < off)
        return false;
    v->pt = b[1] & 0x7F;
    v->seq = uint16_t(b[2] << 8 | b[3]);
    v->ts = uint32_t(b[4]) << 24 | uint32_t(b[5]) << 16 | uint32_t(b[6]) << 8 | b[7];
    v->ssrc = uint32_t(b[8]) << 24 | uint32_t(b[9]) << 16 | uint32_t(b[10]) << 8 | b[11];
    v->payload = b + off;
    v->len = end - off;
    return true;
}

// Level and delay figures over one period (a second, or the whole run).
struct period {
    long packets = 0, lost = 0, gaps = 0, late = 0;
    double peak[MAX_CH] = {}, sumsq[MAX_CH] = {};
    long frames = 0;
    double dmin = 1e300, dmax = -1e300, dsum = 0;
    long dn = 0;
    void add_delay(double ms)
    {
        dmin = ms < dmin ? ms : dmin;
        dmax = ms > dmax ? ms : dmax;
        dsum += ms;
        dn++;
    }
};

double dbfs(double x) { return x > 0 ? 20.0 * std::log10(x) : -INFINITY; }

struct wav_out {
    FILE *f = nullptr;
    int bits = 0, channels = 0;
    long frames = 0;
};

void wav_put_header(wav_out &w)
{
    const uint32_t block = uint32_t(w.channels * w.bits / 8);
    const uint32_t data = uint32_t(w.frames) * block;
    uint8_t h[44];
    auto le32 = [&](int at, uint32_t v) {
        for (int i = 0; i < 4; i++)
            h[at + i] = uint8_t(v >> (8 * i));
    };
    auto le16 = [&](int at, uint32_t v) {
        h[at] = uint8_t(v);
        h[at + 1] = uint8_t(v >> 8);
    };
    memcpy(h, "RIFF", 4);
    le32(4, 36 + data);
    memcpy(h + 8, "WAVEfmt ", 8);
    le32(16, 16);
    le16(20, 1); // PCM
    le16(22, uint32_t(w.channels));
    le32(24, RATE);
    le32(28, RATE * block);
    le16(32, block);
    le16(34, uint32_t(w.bits));
    memcpy(h + 36, "data", 4);
    le32(40, data);
    fseek(w.f, 0, SEEK_SET);
    fwrite(h, 1, sizeof h, w.f);
    fseek(w.f, 0, SEEK_END);
}

void wav_write(wav_out &w, const int32_t *x, long frames)
{
    std::vector<uint8_t> b(size_t(frames * w.channels * (w.bits / 8)));
    uint8_t *o = b.data();
    for (long i = 0; i < frames * w.channels; i++)
        for (int k = 0; k < w.bits / 8; k++)
            *o++ = uint8_t(uint32_t(x[i]) >> (8 * k));
    fwrite(b.data(), 1, b.size(), w.f);
    w.frames += frames;
}

// The jitter probe: a flow of the daemon's receive path that writes no
// samples, fed with each datagram at the media time of the block in which
// the daemon's receive step would take it in. After each placed datagram,
// the timing lock tells the least pdly that would not have made it late:
// pos = ts - synt + pdly must not lie before the local clock.
struct jitter_probe {
    std::vector<int32_t> need;    // samples, per placed datagram
    std::vector<int32_t> arrival; // media clock minus RTP timestamp, samples
    int32_t step = 0;

    jitter_probe()
    {
        mix_inp_init();
        rtp_dst &d = rtp_dsts[0];
        d = rtp_dst{};
        d.ep.dst = &d;
        d.fmt.payload_format = RTP_FMT_PCM; // Opus too: only the timing matters here
        d.channel_mode = MIX_INP_MAX;       // a channel no stream has: nothing is written
        d.pdly = 1;
        pdly_samples_min = (opt_sysjitter_ns / 1000000) * MIX_BLOCK; // as the daemon with its default jitter
    }
    void packet(const uint8_t *b, int n, uint32_t now)
    {
        rtp_dst &d = rtp_dsts[0];
        const uint32_t local = now - now % MIX_BLOCK;
        d.vox_sample = NAN; // the level tap overwrites it only for a placed datagram
        rtp_ep_recv_packet(&d.ep, b, n, local);
        if (!std::isnan(d.vox_sample) && n >= RTP_HDR_LEN) {
            const uint32_t ts = uint32_t(b[4]) << 24 | uint32_t(b[5]) << 16 | uint32_t(b[6]) << 8 | b[7];
            need.push_back(int32_t(local - (ts - d.ep.synt)));
            arrival.push_back(int32_t(now - ts));
            step = d.ep.ptime_samples;
        }
    }
    static double ms(double samples) { return samples / (RATE / 1000.0); }
    void report() const
    {
        if (need.empty()) {
            printf("jitter datagrams=0\n");
            return;
        }
        std::vector<int32_t> a = arrival, nd = need;
        std::sort(a.begin(), a.end());
        std::sort(nd.begin(), nd.end());
        const auto at = [](const std::vector<int32_t> &v, double q) {
            return v[std::min(v.size() - 1, size_t(std::ceil(q * double(v.size()))) - (q > 0 ? 1 : 0))];
        };
        const int32_t auto_pdly = std::max(pdly_auto(step), int(pdly_samples_min));
        const long late_auto = std::count_if(need.begin(), need.end(), [&](int32_t x) { return x > auto_pdly; });
        const int32_t all = std::max(nd.back(), 1), most = std::max(at(nd, 0.999), 1);
        // whole milliseconds, plus the daemon's allowance for its own wake-up jitter
        const int32_t suggest = (all + MIX_BLOCK - 1) / MIX_BLOCK * MIX_BLOCK + pdly_samples_min;
        printf("jitter datagrams=%zu spread_ms=%.2f p99_ms=%.2f p999_ms=%.2f relocks=%lld pdly_auto=%d "
               "late_auto=%ld pdly_100=%d pdly_999=%d suggest=%d\n",
               need.size(), ms(a.back() - a.front()), ms(at(a, 0.99) - a.front()), ms(at(a, 0.999) - a.front()),
               static_cast<long long>(rtp_dsts[0].ep.rx_reset), auto_pdly, late_auto, all, most, suggest);
        fprintf(stderr, "pelod-listen: for this stream: XPT ... pdly=%d (%.1f ms; 99.9 %% of datagrams: pdly=%d)\n",
                suggest, ms(suggest), most);
    }
};

volatile sig_atomic_t stop_flag;
void on_stop(int) { stop_flag = 1; }

struct listener {
    options o;
    clockid_t clk = CLOCK_TAI;
    OpusDecoder *dec = nullptr;
    int dec_channels = 0;
    bool locked = false;
    uint32_t ssrc = 0;
    uint16_t next_seq = 0;
    uint32_t next_ts = 0;
    bool ts_known = false;
    uint16_t first_seq = 0;
    uint32_t first_ts = 0, last_ts = 0;
    int ptime = 0, channels = 0, pt = -1;
    codec kind = codec::automatic;
    long foreign = 0, bad = 0;
    sockaddr_in from{};
    period sec, all;
    wav_out wav;
    std::vector<float> pcm = std::vector<float>(5760 * MAX_CH);  // levels: full scale 1.0
    std::vector<int32_t> raw = std::vector<int32_t>(5760 * MAX_CH); // WAV: 24-bit for L24, else 16-bit
    jitter_probe *probe = nullptr;

    codec kind_of(const rtp_view &v) const
    {
        if (o.kind != codec::automatic)
            return o.kind;
        const vantrel_rtpmap_entry *e = vantrel_rtpmap_default_get(v.len, v.pt);
        return e && e->bits_per_sample == 16 ? codec::l16 : codec::l24;
    }
    int channels_of(const rtp_view &v, codec k) const
    {
        if (o.channels > 0)
            return o.channels;
        if (k == codec::opus) {
            const int n = opus_packet_get_nb_channels(v.payload);
            return n == 1 || n == 2 ? n : 0;
        }
        const vantrel_rtpmap_entry *e = vantrel_rtpmap_default_get(v.len, v.pt);
        return e && e->channels > 0 && e->channels <= MAX_CH ? e->channels : 2;
    }
    // Decodes into pcm and raw (interleaved); frames or -1.
    int decode(const rtp_view &v, codec k, int nch)
    {
        if (k == codec::opus) {
            if (!dec || dec_channels != nch) {
                if (dec)
                    opus_decoder_destroy(dec);
                int err = 0;
                dec = opus_decoder_create(RATE, nch, &err);
                dec_channels = nch;
                if (!dec)
                    return -1;
            }
            const int n = opus_decode_float(dec, v.payload, v.len, pcm.data(), 5760, 0);
            for (int i = 0; i < n * nch; i++) {
                const float x = pcm[size_t(i)];
                raw[size_t(i)] = int32_t(std::lrint((x > 1.0f ? 1.0f : x < -1.0f ? -1.0f : x) * 32767.0f));
            }
            return n;
        }
        const int bytes = k == codec::l16 ? 2 : 3;
        if (v.len % (bytes * nch) != 0)
            return -1;
        const int frames = v.len / (bytes * nch);
        if (frames * nch > int(pcm.size()))
            return -1;
        const uint8_t *p = v.payload;
        for (int i = 0; i < frames * nch; i++, p += bytes) {
            const int32_t x = bytes == 2 ? int16_t(p[0] << 8 | p[1])
                                         : int32_t(uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8) >> 8;
            raw[size_t(i)] = x;
            pcm[size_t(i)] = float(x) / (bytes == 2 ? 32767.0f : 8388607.0f);
        }
        return frames;
    }
    void levels(int frames, int nch)
    {
        for (int f = 0; f < frames; f++)
            for (int c = 0; c < nch; c++) {
                const double x = std::fabs(double(pcm[size_t(f * nch + c)]));
                for (period *p : {&sec, &all}) {
                    p->peak[c] = x > p->peak[c] ? x : p->peak[c];
                    p->sumsq[c] += x * x;
                }
            }
        sec.frames += frames;
        all.frames += frames;
    }
    void to_wav(const rtp_view &v, int frames, int nch, bool in_order)
    {
        if (!wav.f || !in_order)
            return;
        if (wav.channels == 0) {
            wav.channels = nch;
            wav.bits = kind == codec::l24 ? 24 : 16;
        }
        if (nch != wav.channels)
            return;
        if (ts_known) {
            const int32_t gap = int32_t(v.ts - next_ts);
            if (gap > 0 && gap <= WAV_GAP_MAX) {
                std::vector<int32_t> silence(size_t(gap * nch), 0);
                wav_write(wav, silence.data(), gap);
            }
        }
        wav_write(wav, raw.data(), frames);
    }
    void packet(const uint8_t *b, int n, const sockaddr_in &src, uint32_t now_samples)
    {
        rtp_view v{};
        if (!rtp_parse(b, n, &v)) {
            bad++;
            return;
        }
        if ((o.source && !is_mcast(o.addr) && src.sin_addr.s_addr != o.source) || (locked && v.ssrc != ssrc)) {
            foreign++;
            return;
        }
        bool in_order = true;
        if (!locked) {
            locked = true;
            ssrc = v.ssrc;
            from = src;
            first_seq = v.seq;
            first_ts = v.ts;
        } else {
            const int d = int16_t(uint16_t(v.seq - next_seq));
            if (d > 0) {
                sec.gaps++, all.gaps++;
                sec.lost += d, all.lost += d;
            } else if (d < 0) {
                sec.late++, all.late++;
                in_order = false;
            }
        }
        if (in_order) {
            if (ts_known && v.seq == next_seq)
                ptime = int(v.ts - last_ts);
            next_seq = uint16_t(v.seq + 1);
            last_ts = v.ts;
        }
        sec.packets++, all.packets++;
        pt = v.pt;
        if (probe)
            probe->packet(b, n, now_samples);
        const double delay_ms = double(int32_t(now_samples - v.ts)) / (RATE / 1000.0);
        sec.add_delay(delay_ms);
        all.add_delay(delay_ms);

        const codec k = kind_of(v);
        const int nch = v.len > 0 ? channels_of(v, k) : 0;
        const int frames = nch > 0 ? decode(v, k, nch) : -1;
        if (o.per_packet)
            printf("pkt seq=%u ts=%u pt=%u len=%d frames=%d delay=%.3fms\n", v.seq, v.ts, v.pt, n, frames, delay_ms);
        if (frames < 0) {
            bad++;
            if (in_order) {
                next_ts = v.ts + uint32_t(ptime);
                ts_known = true;
            }
            return;
        }
        kind = k;
        channels = nch;
        levels(frames, nch);
        to_wav(v, frames, nch, in_order);
        if (in_order) {
            next_ts = v.ts + uint32_t(frames);
            ts_known = true;
        }
    }

    const char *kind_name() const
    {
        return kind == codec::l24 ? "L24" : kind == codec::l16 ? "L16" : kind == codec::opus ? "opus" : "-";
    }
    void levels_text(const period &p, char *out, size_t len, bool rms) const
    {
        size_t at = 0;
        out[0] = '\0';
        for (int c = 0; c < channels && at < len; c++) {
            const double v = rms ? (p.frames ? std::sqrt(p.sumsq[c] / double(p.frames)) : 0) : p.peak[c];
            at += size_t(snprintf(out + at, len - at, "%s%.2f", c ? "," : "", dbfs(v)));
        }
    }
    void report_second(int t)
    {
        if (!o.quiet && sec.packets == 0) {
            printf("t=%d pkts=0 lost=0 gaps=0 late=0 (no packets)\n", t);
        } else if (!o.quiet) {
            printf("t=%d pkts=%ld lost=%ld gaps=%ld late=%ld ptime=%d %s/%d pt=%d level=", t, sec.packets, sec.lost,
                   sec.gaps, sec.late, ptime, kind_name(), channels, pt);
            for (int c = 0; c < channels; c++) {
                const double rms = sec.frames ? std::sqrt(sec.sumsq[c] / double(sec.frames)) : 0;
                printf("%s%.1f/%.1f", c ? "," : "", dbfs(sec.peak[c]), dbfs(rms));
            }
            printf(" dBFS delay=%.2f ms (%.2f..%.2f)\n", sec.dsum / double(sec.dn), sec.dmin, sec.dmax);
        }
        sec = period{};
    }
    void summary() const
    {
        char peak[128], rms[128], ip[INET_ADDRSTRLEN] = "-";
        levels_text(all, peak, sizeof peak, false);
        levels_text(all, rms, sizeof rms, true);
        if (locked)
            inet_ntop(AF_INET, &from.sin_addr, ip, sizeof ip);
        printf("summary packets=%ld lost=%ld gaps=%ld late=%ld foreign=%ld bad=%ld ssrc=0x%08x pt=%d format=%s "
               "channels=%d ptime=%d first_seq=%u first_ts=%u from=%s:%u peak_dbfs=%s rms_dbfs=%s "
               "delay_ms_min=%.3f delay_ms_avg=%.3f delay_ms_max=%.3f wav_frames=%ld\n",
               all.packets, all.lost, all.gaps, all.late, foreign, bad, ssrc, pt, kind_name(), channels, ptime,
               first_seq, first_ts, ip, unsigned(ntohs(from.sin_port)), peak[0] ? peak : "-", rms[0] ? rms : "-",
               all.dn ? all.dmin : 0.0, all.dn ? all.dsum / double(all.dn) : 0.0, all.dn ? all.dmax : 0.0,
               wav.frames);
    }
};

int run(listener &l, int fd)
{
    const double t0 = mono_seconds();
    int second = 0;
    std::vector<uint8_t> buf(65536);
    while (!stop_flag) {
        const double now = mono_seconds() - t0;
        if (l.o.duration_s > 0 && now >= l.o.duration_s)
            break;
        if (now >= second + 1) {
            l.report_second(++second);
            fflush(stdout);
            continue;
        }
        double until = second + 1 - now;
        if (l.o.duration_s > 0 && l.o.duration_s - now < until)
            until = l.o.duration_s - now;
        pollfd p{fd, POLLIN, 0};
        const int r = poll(&p, 1, int(until * 1000) + 1);
        if (r < 0 && errno != EINTR) {
            perror("pelod-listen: poll");
            return 1;
        }
        if (r <= 0)
            continue;
        sockaddr_in src{};
        socklen_t sl = sizeof src;
        const ssize_t n = recvfrom(fd, buf.data(), buf.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&src), &sl);
        if (n < 0)
            continue;
        timespec ts{};
        clock_gettime(l.clk, &ts);
        l.packet(buf.data(), int(n), src, media_samples(ts));
        if (l.o.count > 0 && l.all.packets >= l.o.count)
            break;
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    listener l;
    if (const int r = parse_options(argc, argv, &l.o); r >= 0)
        return r;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    int phc_fd = -1;
    if (l.o.phc) {
        phc_fd = open(l.o.phc, O_RDONLY);
        if (phc_fd < 0) {
            perror("pelod-listen: open(PHC)");
            return 1;
        }
        l.clk = clockid_t((~unsigned(phc_fd) << 3) | 3);
    }
    const int fd = open_socket(l.o);
    if (fd < 0)
        return 1;
    if (l.o.wav) {
        l.wav.f = fopen(l.o.wav, "wb");
        if (!l.wav.f) {
            perror("pelod-listen: fopen(wav)");
            return 1;
        }
        uint8_t zero[44] = {};
        fwrite(zero, 1, sizeof zero, l.wav.f);
    }
    struct sigaction sa{};
    sa.sa_handler = on_stop;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    char ip[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &l.o.addr, ip, sizeof ip);
    fprintf(stderr, "pelod-listen: listening on %s:%u, clock %s\n", ip, unsigned(l.o.port), l.o.phc ? l.o.phc : "TAI");
    std::unique_ptr<jitter_probe> probe(l.o.probe ? new jitter_probe : nullptr);
    l.probe = probe.get();
    const int r = run(l, fd);
    if (probe)
        probe->report();
    l.summary();
    if (l.wav.f) {
        if (l.wav.channels == 0) { // nothing arrived: an empty but valid file
            l.wav.channels = 1;
            l.wav.bits = 16;
        }
        wav_put_header(l.wav);
        fclose(l.wav.f);
    }
    if (l.dec)
        opus_decoder_destroy(l.dec);
    close(fd);
    if (phc_fd >= 0)
        close(phc_fd);
    if (r != 0)
        return r;
    return l.all.packets > 0 ? 0 : 2;
}
