// pelod-tone: sends a test tone or an audio file as one RTP stream (L24,
// L16 or Opus, mono or stereo) to a unicast or multicast address, paced
// by the media clock that the daemon uses, with RTP timestamps taken from
// that clock. For commissioning, and the peer of the integration tests.

#include "addr_port.h"

#include <arpa/inet.h>
#include <algorithm>
#include <cerrno>
#include <cstdarg>
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
#include <opus.h>
#include <strings.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int RATE = 48000;
constexpr int HDR = 12;
constexpr int PAYLOAD_MAX = 1500 - HDR;
constexpr uint16_t DEFAULT_PORT = 5004;

enum class tone_fmt : int32_t { l24, l16, opus };

struct tone_opts {
    in_addr_t dst = INADDR_NONE; // network order
    uint16_t port = DEFAULT_PORT;
    in_addr_t ifa = INADDR_ANY;
    int ttl = 64; // the daemon's own multicast TTL and TOS
    int tos = 0x88;
    tone_fmt fmt = tone_fmt::l24;
    int channels = 1;
    int ptime_ms = 0; // 0: 1 ms for PCM, 10 ms for Opus
    double freq[2] = {1000.0, 0.0};
    double level_dbfs = -20.0;
    const char *input = nullptr;
    bool loop = false;
    int pt = -1;
    uint32_t ssrc = 0;
    bool ssrc_given = false;
    double duration_s = 0.0;
    long count = 0;
    const char *phc_dev = nullptr;
    int bitrate = 0;
    bool quiet = false;
};

volatile sig_atomic_t stop;
void on_stop(int) { stop = 1; }

void usage(const char *prog)
{
    printf("Usage: %s [options] DESTINATION\n"
           "Sends a sine tone (or an audio file) as an RTP stream, timed by the media clock.\n"
           "\n"
           "DESTINATION   a.b.c.d[:port] (unicast or multicast), or a channel number N of the\n"
           "              audio network (239.192.N/256.N%%256; -N: 239.193...). Port default 5004.\n"
           "\n"
           "What to send:\n"
           "  -f, --freq=HZ[,HZ]   tone frequency; a second value for the right channel (1000)\n"
           "  -l, --level=DBFS     tone level in dBFS, 0 = full scale (-20)\n"
           "  -i, --input=FILE     send FILE instead of a tone: a WAV file (PCM 16/24/32-bit or\n"
           "                       float, 48000 Hz), or raw signed 16-bit little-endian samples\n"
           "                       at 48000 Hz with the stream's channel count\n"
           "      --loop           repeat the file (otherwise it stops at its end)\n"
           "\n"
           "Stream format:\n"
           "  -F, --format=FMT     L24, L16 or Opus (L24)\n"
           "  -c, --channels=N     1 or 2 (1)\n"
           "  -t, --ptime=MS       packet time in ms: 1 for PCM, 10 for Opus (5/10/20/40/60)\n"
           "  -P, --pt=N           payload type (101 mono, 96 stereo; L16: 111 mono, 112 stereo)\n"
           "  -s, --ssrc=N         SSRC (random)\n"
           "  -b, --bitrate=BPS    Opus bit rate (encoder default)\n"
           "\n"
           "Network and clock:\n"
           "  -I, --interface=ADDR local address to send from; the multicast interface\n"
           "  -T, --ttl=N          multicast TTL (64)\n"
           "  -p, --phc-dev=DEV    media clock from a PTP hardware clock, e.g. /dev/ptp0\n"
           "                       (default, or '-': the system TAI clock, as the daemon)\n"
           "\n"
           "When to stop (otherwise at Ctrl-C or at the end of the file):\n"
           "  -d, --duration=S     after S seconds\n"
           "  -n, --count=N        after N packets\n"
           "  -q, --quiet          no start and end lines\n"
           "  -h, --help           this text\n"
           "\n"
           "Example: %s -f 440 -l -12 -c 2 239.192.0.5:5004\n",
           prog, prog);
}

[[noreturn, gnu::format(printf, 1, 2)]] void fail(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fprintf(stderr, "pelod-tone: ");
    vfprintf(stderr, fmt, ap);
    fprintf(stderr, " (see --help)\n");
    va_end(ap);
    exit(1);
}

long parse_long(const char *s, const char *what, long lo, long hi)
{
    char *end;
    errno = 0;
    const long v = strtol(s, &end, 0);
    if (end == s || *end || errno || v < lo || v > hi)
        fail(what, s);
    return v;
}

double parse_double(const char *s, const char *what)
{
    char *end;
    const double v = strtod(s, &end);
    if (end == s || (*end && *end != ',') || !std::isfinite(v))
        fail(what, s);
    return v;
}

tone_opts parse_args(int argc, char **argv)
{
    static const option longopts[] = {
        {"freq", required_argument, nullptr, 'f'},     {"level", required_argument, nullptr, 'l'},
        {"input", required_argument, nullptr, 'i'},    {"loop", no_argument, nullptr, 'L'},
        {"format", required_argument, nullptr, 'F'},   {"channels", required_argument, nullptr, 'c'},
        {"ptime", required_argument, nullptr, 't'},    {"pt", required_argument, nullptr, 'P'},
        {"ssrc", required_argument, nullptr, 's'},     {"bitrate", required_argument, nullptr, 'b'},
        {"interface", required_argument, nullptr, 'I'}, {"ttl", required_argument, nullptr, 'T'},
        {"phc-dev", required_argument, nullptr, 'p'},  {"duration", required_argument, nullptr, 'd'},
        {"count", required_argument, nullptr, 'n'},    {"quiet", no_argument, nullptr, 'q'},
        {"help", no_argument, nullptr, 'h'},           {nullptr, 0, nullptr, 0},
    };
    tone_opts o;
    int c;
    while ((c = getopt_long(argc, argv, "f:l:i:F:c:t:P:s:b:I:T:p:d:n:qh", longopts, nullptr)) != -1) {
        switch (c) {
        case 'f': {
            o.freq[0] = parse_double(optarg, "bad frequency '%s'");
            const char *comma = strchr(optarg, ',');
            o.freq[1] = comma ? parse_double(comma + 1, "bad frequency '%s'") : 0.0;
            if (o.freq[0] <= 0 || o.freq[0] >= RATE / 2 || o.freq[1] < 0 || o.freq[1] >= RATE / 2)
                fail("frequency '%s' outside 0..24000 Hz", optarg);
            break;
        }
        case 'l':
            o.level_dbfs = parse_double(optarg, "bad level '%s'");
            if (o.level_dbfs > 0)
                fail("level '%s' above full scale", optarg);
            break;
        case 'i': o.input = optarg; break;
        case 'L': o.loop = true; break;
        case 'F':
            if (!strcasecmp(optarg, "L24"))
                o.fmt = tone_fmt::l24;
            else if (!strcasecmp(optarg, "L16"))
                o.fmt = tone_fmt::l16;
            else if (!strcasecmp(optarg, "Opus"))
                o.fmt = tone_fmt::opus;
            else
                fail("unknown format '%s': L24, L16 or Opus", optarg);
            break;
        case 'c': o.channels = int(parse_long(optarg, "channels '%s': 1 or 2", 1, 2)); break;
        case 't': o.ptime_ms = int(parse_long(optarg, "bad packet time '%s'", 1, 60)); break;
        case 'P': o.pt = int(parse_long(optarg, "payload type '%s' outside 0..127", 0, 127)); break;
        case 's':
            o.ssrc = uint32_t(parse_long(optarg, "bad SSRC '%s'", 0, 0xFFFFFFFFL));
            o.ssrc_given = true;
            break;
        case 'b': o.bitrate = int(parse_long(optarg, "bad bit rate '%s'", 500, 512000)); break;
        case 'I':
            if (inet_pton(AF_INET, optarg, &o.ifa) != 1)
                fail("bad interface address '%s'", optarg);
            break;
        case 'T': o.ttl = int(parse_long(optarg, "TTL '%s' outside 1..255", 1, 255)); break;
        case 'p': o.phc_dev = strcmp(optarg, "-") ? optarg : nullptr; break;
        case 'd':
            o.duration_s = parse_double(optarg, "bad duration '%s'");
            if (o.duration_s <= 0)
                fail("bad duration '%s'", optarg);
            break;
        case 'n': o.count = parse_long(optarg, "bad packet count '%s'", 1, 0x7FFFFFFFL); break;
        case 'q': o.quiet = true; break;
        case 'h': usage(argv[0]); exit(0);
        default: fprintf(stderr, "see %s --help\n", argv[0]); exit(1);
        }
    }
    if (optind != argc - 1)
        fail("one DESTINATION expected");
    if (!parse_addr_port(argv[optind], &o.dst, &o.port, true))
        fail("bad destination '%s'", argv[optind]);
    if (o.ptime_ms == 0)
        o.ptime_ms = o.fmt == tone_fmt::opus ? 10 : 1;
    if (o.fmt == tone_fmt::opus && o.ptime_ms != 5 && o.ptime_ms != 10 && o.ptime_ms != 20 &&
        o.ptime_ms != 40 && o.ptime_ms != 60)
        fail("Opus needs a packet time of 5, 10, 20, 40 or 60 ms, not %d", o.ptime_ms);
    const int bytes = o.fmt == tone_fmt::l16 ? 2 : 3;
    if (o.fmt != tone_fmt::opus && o.ptime_ms * RATE / 1000 * o.channels * bytes > PAYLOAD_MAX)
        fail("%d ms of this format do not fit in one datagram", o.ptime_ms);
    if (o.pt < 0)
        o.pt = o.fmt == tone_fmt::l16 ? (o.channels == 1 ? 111 : 112) : (o.channels == 1 ? 101 : 96);
    if (!o.ssrc_given && getrandom(&o.ssrc, sizeof o.ssrc, 0) != sizeof o.ssrc)
        o.ssrc = uint32_t(getpid()) * 2654435761u;
    return o;
}

// Samples to send, as floats in -1..1: a tone, or a file read into memory.
struct audio_src {
    double amp = 0.0;
    double freq[2] = {};
    int64_t n = 0; // frames produced so far
    std::vector<float> file;
    int file_ch = 0;
    size_t pos = 0; // next frame of the file
    bool loop = false;

    // Fills `frames` frames of `ch` channels; false once the file has ended
    // (what is left of the packet is silence).
    bool next(float *out, int frames, int ch)
    {
        bool more = true;
        for (int k = 0; k < frames; k++, n++) {
            for (int j = 0; j < ch; j++) {
                if (file_ch == 0) {
                    const double f = freq[j] > 0 ? freq[j] : freq[0];
                    out[k * ch + j] = float(amp * sin(2.0 * M_PI * f * double(n) / RATE));
                } else if (pos < file.size() / size_t(file_ch)) {
                    out[k * ch + j] = file[pos * size_t(file_ch) + size_t(j < file_ch ? j : file_ch - 1)];
                } else {
                    out[k * ch + j] = 0.0f;
                    more = false;
                }
            }
            if (file_ch && ++pos >= file.size() / size_t(file_ch) && loop)
                pos = 0;
        }
        return more && (file_ch == 0 || loop || pos < file.size() / size_t(file_ch));
    }
};

uint32_t le32(const uint8_t *p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }
uint16_t le16(const uint8_t *p) { return uint16_t(p[0] | p[1] << 8); }

// WAV (PCM 16/24/32-bit, 32-bit float) or raw s16le; 48 kHz only.
void load_file(audio_src *a, const char *path, int channels)
{
    FILE *f = fopen(path, "rb");
    if (!f) {
        fprintf(stderr, "pelod-tone: %s: %s\n", path, strerror(errno));
        exit(1);
    }
    std::vector<uint8_t> d;
    uint8_t buf[65536];
    for (size_t r; (r = fread(buf, 1, sizeof buf, f)) > 0;)
        d.insert(d.end(), buf, buf + r);
    fclose(f);

    const uint8_t *data = d.data();
    size_t size = d.size();
    int fmt_tag = 1, bits = 16, ch = channels;
    if (size >= 12 && !memcmp(data, "RIFF", 4) && !memcmp(data + 8, "WAVE", 4)) {
        const uint8_t *pcm = nullptr;
        uint32_t rate = 0;
        for (size_t off = 12; off + 8 <= d.size();) {
            const uint32_t len = le32(&d[off + 4]);
            const uint8_t *c = &d[off + 8];
            const size_t avail = d.size() - off - 8;
            if (memcmp(&d[off], "data", 4) && len > avail)
                break; // a chunk longer than the file: nothing sensible follows
            if (!memcmp(&d[off], "fmt ", 4) && len >= 16 && avail >= 16) {
                fmt_tag = le16(c);
                ch = le16(c + 2);
                rate = le32(c + 4);
                bits = le16(c + 14);
                if (fmt_tag == 0xFFFE && len >= 26 && avail >= 26)
                    fmt_tag = le16(c + 24); // extensible: the sub-format's tag
            } else if (!memcmp(&d[off], "data", 4)) {
                pcm = c;
                size = len < avail ? len : avail;
                break;
            }
            off += 8 + size_t(len) + (len & 1);
        }
        if (!pcm || rate != RATE || ch < 1 || ch > 8 ||
            !((fmt_tag == 1 && (bits == 16 || bits == 24 || bits == 32)) || (fmt_tag == 3 && bits == 32))) {
            fprintf(stderr, "pelod-tone: %s: need a 48000 Hz WAV file of PCM 16/24/32-bit or float samples\n",
                    path);
            exit(1);
        }
        data = pcm;
    }
    const int bps = bits / 8;
    const size_t samples = size / size_t(bps) / size_t(ch) * size_t(ch);
    a->file.resize(samples);
    for (size_t i = 0; i < samples; i++) {
        const uint8_t *p = data + i * size_t(bps);
        float v;
        if (fmt_tag == 3)
            memcpy(&v, p, 4);
        else if (bits == 16)
            v = float(int16_t(le16(p))) / 32768.0f;
        else if (bits == 24)
            v = float(int32_t(uint32_t(p[0]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 24) >> 8) / 8388608.0f;
        else
            v = float(double(int32_t(le32(p))) / 2147483648.0);
        a->file[i] = v;
    }
    a->file_ch = ch;
    if (samples == 0) {
        fprintf(stderr, "pelod-tone: %s: no samples\n", path);
        exit(1);
    }
}

// Full scale is 2^(n-1), so a 16-bit file goes out as L24 unchanged.
int32_t pcm_int(float x, int bits)
{
    const double full = bits == 16 ? 32768.0 : 8388608.0;
    const double v = std::nearbyint(double(x) * full);
    return int32_t(v >= full ? full - 1 : v < -full ? -full : v);
}

// The dynamic clock id of an open PTP hardware clock device.
clockid_t open_clock(const char *phc_dev)
{
    if (!phc_dev)
        return CLOCK_TAI;
    const int fd = open(phc_dev, O_RDWR);
    if (fd < 0) {
        fprintf(stderr, "pelod-tone: %s: %s\n", phc_dev, strerror(errno));
        exit(1);
    }
    return clockid_t((~unsigned(fd) << 3) | 3);
}

int64_t clock_ns(clockid_t clk)
{
    timespec ts{};
    clock_gettime(clk, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Media time: 48 kHz samples of the clock, modulo 2^32 (as the daemon).
uint32_t media_samples(int64_t ns)
{
    return uint32_t(uint64_t(ns / 1000000000) * RATE + uint64_t(ns % 1000000000) * 3 / 62500);
}

int open_socket(const tone_opts &o)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        perror("pelod-tone: socket");
        exit(1);
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = o.ifa;
    if (o.ifa != INADDR_ANY && bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local) < 0) {
        perror("pelod-tone: bind to the interface address");
        exit(1);
    }
    const unsigned char tos = uint8_t(o.tos), ttl = uint8_t(o.ttl), loop = 1;
    if (setsockopt(fd, IPPROTO_IP, IP_TOS, &tos, 1) < 0)
        perror("pelod-tone: setsockopt(IP_TOS)");
    if (IN_MULTICAST(ntohl(o.dst))) {
        if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, 1) < 0)
            perror("pelod-tone: setsockopt(IP_MULTICAST_TTL)");
        if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, 1) < 0)
            perror("pelod-tone: setsockopt(IP_MULTICAST_LOOP)");
        in_addr ifa{o.ifa};
        if (o.ifa != INADDR_ANY && setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &ifa, sizeof ifa) < 0)
            perror("pelod-tone: setsockopt(IP_MULTICAST_IF)");
    }
    return fd;
}

void put_be32(uint8_t *p, uint32_t v)
{
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}

// Payload of one packet from `frames` interleaved frames; its length, or
// -1 when the encoder failed.
int encode(const tone_opts &o, OpusEncoder *enc, const float *pcm, int frames, uint8_t *out)
{
    if (o.fmt == tone_fmt::opus)
        return opus_encode_float(enc, pcm, frames, out, PAYLOAD_MAX);
    const int bits = o.fmt == tone_fmt::l16 ? 16 : 24;
    uint8_t *p = out;
    for (int i = 0; i < frames * o.channels; i++) {
        const int32_t v = pcm_int(pcm[i], bits);
        if (bits == 24)
            *p++ = uint8_t(v >> 16);
        *p++ = uint8_t(v >> 8);
        *p++ = uint8_t(v);
    }
    return int(p - out);
}

} // namespace

int main(int argc, char **argv)
{
    const tone_opts o = parse_args(argc, argv);
    audio_src audio;
    audio.amp = pow(10.0, o.level_dbfs / 20.0);
    audio.freq[0] = o.freq[0];
    audio.freq[1] = o.freq[1];
    audio.loop = o.loop;
    if (o.input)
        load_file(&audio, o.input, o.channels);

    OpusEncoder *enc = nullptr;
    if (o.fmt == tone_fmt::opus) {
        int err = 0;
        enc = opus_encoder_create(RATE, o.channels, OPUS_APPLICATION_AUDIO, &err);
        if (!enc) {
            fprintf(stderr, "pelod-tone: opus_encoder_create: %s\n", opus_strerror(err));
            return 1;
        }
        if (o.bitrate)
            opus_encoder_ctl(enc, OPUS_SET_BITRATE(o.bitrate));
    }
    const clockid_t clk = open_clock(o.phc_dev);
    const int fd = open_socket(o);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(o.port);
    to.sin_addr.s_addr = o.dst;

    signal(SIGINT, on_stop);
    signal(SIGTERM, on_stop);

    const int frames = o.ptime_ms * RATE / 1000;
    const int64_t ptime_ns = int64_t(o.ptime_ms) * 1000000;
    long count = o.count;
    if (o.duration_s > 0) {
        const long by_time = long(std::ceil(o.duration_s * 1000.0 / o.ptime_ms));
        count = count ? std::min(count, by_time) : by_time;
    }
    static const char *const fmt_names[] = {"L24", "L16", "Opus"};
    char dst_text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &o.dst, dst_text, sizeof dst_text);
    if (!o.quiet) {
        if (o.input)
            fprintf(stderr, "pelod-tone: sending %s", o.input);
        else if (o.channels == 2 && o.freq[1] > 0)
            fprintf(stderr, "pelod-tone: sending %g/%g Hz at %.1f dBFS", o.freq[0], o.freq[1], o.level_dbfs);
        else
            fprintf(stderr, "pelod-tone: sending %g Hz at %.1f dBFS", o.freq[0], o.level_dbfs);
        fprintf(stderr, " as %s/48000/%d, %d ms packets, PT %d, SSRC 0x%08x, to %s:%u, clock %s\n",
                fmt_names[int(o.fmt)], o.channels, o.ptime_ms, o.pt, o.ssrc, dst_text, o.port,
                o.phc_dev ? o.phc_dev : "TAI");
    }

    // Packets go out in the middle of a media-clock millisecond, so that the
    // receivers' whole-millisecond wake-ups never race them. Each carries
    // the samples of the packet time before its sending instant.
    const int64_t t0 = (clock_ns(clk) / 1000000 + 2) * 1000000 + 500000;
    std::vector<float> pcm(size_t(frames) * size_t(o.channels));
    uint8_t pkt[HDR + PAYLOAD_MAX];
    uint16_t seq = uint16_t(o.ssrc >> 7); // an arbitrary start, as RTP asks
    long sent = 0, errors = 0;
    bool more = true;
    for (long k = 0; more && !stop && (count == 0 || k < count); k++) {
        const int64_t due = t0 + k * ptime_ns;
        const int64_t wait = due - clock_ns(clk);
        if (wait > 0) {
            // the sleep runs on the monotonic clock; every packet re-reads the
            // media clock, so the pace follows it without accumulating error
            const timespec rel{time_t(wait / 1000000000), long(wait % 1000000000)};
            clock_nanosleep(CLOCK_MONOTONIC, 0, &rel, nullptr);
        }
        more = audio.next(pcm.data(), frames, o.channels);
        const int len = encode(o, enc, pcm.data(), frames, pkt + HDR);
        if (len < 0) {
            fprintf(stderr, "pelod-tone: opus_encode_float: %s\n", opus_strerror(len));
            break;
        }
        pkt[0] = 0x80;
        pkt[1] = uint8_t(o.pt);
        pkt[2] = uint8_t(seq >> 8);
        pkt[3] = uint8_t(seq);
        put_be32(pkt + 4, media_samples(due) - uint32_t(frames));
        put_be32(pkt + 8, o.ssrc);
        seq++;
        if (sendto(fd, pkt, size_t(HDR + len), 0, reinterpret_cast<sockaddr *>(&to), sizeof to) == HDR + len)
            sent++;
        else if (errors++ == 0)
            perror("pelod-tone: sendto");
    }
    if (!o.quiet)
        fprintf(stderr, "pelod-tone: %ld packets sent, %ld failed\n", sent, errors);
    if (enc)
        opus_encoder_destroy(enc);
    close(fd);
    return errors && !sent ? 1 : 0;
}
