// pelod-sdp: describes the outgoing streams of a configuration file as SDP
// session descriptions, so that other RTP receivers can play them: one
// description per stream, or one stream's alone. With --announce they are
// sent as SAP announcements until the tool is stopped, and withdrawn then.
// The file is read by the daemon's own loader functions, so what is
// described is what the daemon sends.
#include "config/pelocfg.h"
#include "rtp/rtp_src.h"
#include "addr_port.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int OPUS_FRAME_BYTES_GUESS = 160; // only matters past 1440 bytes a packet
constexpr int MCAST_TTL = 64;              // the daemon's multicast TTL
constexpr uint16_t SAP_PORT = 9875;

struct options {
    const char *conf = "/etc/pelod.conf";
    const char *phc = "/dev/ptp0"; // null: the system's TAI clock
    const char *gmid = nullptr;    // PTP grandmaster "XX-..-XX[:domain]"
    const char *only = nullptr;    // one stream: its number or destination
    bool announce = false;
    in_addr_t sap_addr = 0;        // 0: the default group (239.255.255.255)
    uint16_t sap_port = SAP_PORT;
    in_addr_t sap_if = INADDR_ANY;
    double interval_s = 30.0;
    long count = 0;                // announcement rounds, 0: until stopped
};

void usage(const char *prog)
{
    printf("Usage: %s [options]\n"
           "\n"
           "Prints an SDP session description for each outgoing stream (SRC line) of a\n"
           "pelod configuration file, for receivers that play RTP from an SDP file.\n"
           "Streams to the sound card (alsa:) are left out.\n"
           "\n"
           "Options:\n"
           "  -f, --file=FILE       configuration file (default /etc/pelod.conf)\n"
           "  -s, --stream=N|ADDR   only stream N (1 = first SRC line that is sent) or the\n"
           "                        stream to ADDR[:PORT]; the output is then one file\n"
           "  -p, --phc-dev=DEV     the daemon's clock: a PTP hardware clock (default\n"
           "                        /dev/ptp0) or \"-\" for the system's TAI clock; decides\n"
           "                        the ts-refclk line\n"
           "  -g, --gmid=ID[:DOM]   PTP grandmaster identity (and domain, default 0) for\n"
           "                        ts-refclk, e.g. 00-1D-C1-FF-FE-12-34-56:0\n"
           "  -a, --announce        send the descriptions as SAP announcements (one per\n"
           "                        stream) every interval until stopped, then withdraw them\n"
           "  -A, --sap=ADDR[:PORT] SAP group (default 239.255.255.255:9875)\n"
           "  -i, --interface=ADDR  interface for the announcements\n"
           "  -I, --interval=SEC    seconds between announcements (default 30)\n"
           "  -n, --count=N         stop after N rounds of announcements\n"
           "  -h, --help            this text\n"
           "\n"
           "Exit status: 0, 1 on a usage error or when no stream is left to describe.\n",
           prog);
}

int parse_options(int argc, char **argv, options *o)
{
    static const option longopts[] = {
        {"file", required_argument, nullptr, 'f'},     {"stream", required_argument, nullptr, 's'},
        {"phc-dev", required_argument, nullptr, 'p'},  {"gmid", required_argument, nullptr, 'g'},
        {"announce", no_argument, nullptr, 'a'},       {"sap", required_argument, nullptr, 'A'},
        {"interface", required_argument, nullptr, 'i'}, {"interval", required_argument, nullptr, 'I'},
        {"count", required_argument, nullptr, 'n'},    {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    for (int c; (c = getopt_long(argc, argv, "f:s:p:g:aA:i:I:n:h", longopts, nullptr)) != -1;) {
        bool ok = true;
        uint16_t unused = 0;
        switch (c) {
        case 'f': o->conf = optarg; break;
        case 's': o->only = optarg; break;
        case 'p': o->phc = strcmp(optarg, "-") == 0 ? nullptr : optarg; break;
        case 'g': o->gmid = optarg; break;
        case 'a': o->announce = true; break;
        case 'A': ok = parse_addr_port(optarg, &o->sap_addr, &o->sap_port, false); break;
        case 'i': ok = parse_addr_port(optarg, &o->sap_if, &unused, false); break;
        case 'I': o->interval_s = atof(optarg); ok = o->interval_s > 0; break;
        case 'n': o->count = atol(optarg); ok = o->count > 0; break;
        case 'h': usage(argv[0]); return 0;
        default: ok = false; break;
        }
        if (!ok) {
            fprintf(stderr, "pelod-sdp: bad value for -%c: %s (see --help)\n", c, optarg ? optarg : "");
            return 1;
        }
    }
    if (optind != argc) {
        fprintf(stderr, "pelod-sdp: unexpected argument %s (see --help)\n", argv[optind]);
        return 1;
    }
    return -1;
}

// The GLB and SRC lines of the file, through the loader's line functions;
// its messages go to standard error, away from the descriptions.
bool read_sources(const char *path)
{
    std::unique_ptr<FILE, int (*)(FILE *)> f(fopen(path, "r"), fclose);
    if (!f) {
        fprintf(stderr, "pelod-sdp: %s: %s\n", path, strerror(errno));
        return false;
    }
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    srcs_used = 0;
    ifs[0] = '\0';
    char line[CFG_LINE_LEN];
    while (fgets(line, sizeof line, f.get())) {
        if (line[0] == '#')
            continue;
        line[strcspn(line, "\r\n")] = '\0';
        if (strncasecmp(line, "GLB ", 4) == 0)
            pelocfg_load_glb(line);
        else if (strncasecmp(line, "SRC ", 4) == 0)
            pelocfg_load_src(line);
    }
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    return true;
}

struct stream {
    const src *p;
    int number; // 1-based among the streams sent
    std::string sdp;
    uint16_t hash; // SAP message identifier
};

std::string ip(in_addr_t a)
{
    char b[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &a, b, sizeof b);
    return b;
}

bool is_mcast(in_addr_t a) { return (ntohl(a) >> 28) == 0xE; }
bool is_ssm_range(in_addr_t a) { return (ntohl(a) >> 24) == 232; }

uint32_t fnv1a(const std::string &s)
{
    uint32_t h = 2166136261u;
    for (const char c : s)
        h = (h ^ uint8_t(c)) * 16777619u;
    return h;
}

std::string refclk_line(const options &o)
{
    if (!o.phc)
        return "a=ts-refclk:local\r\n";
    if (!o.gmid)
        return "a=ts-refclk:ptp=IEEE1588-2008:traceable\r\n";
    std::string g = o.gmid;
    if (g.find(':') == std::string::npos)
        g += ":0";
    return "a=ts-refclk:ptp=IEEE1588-2008:" + g + "\r\n";
}

// Packet time in milliseconds as SDP writes it ("1", "0.5", "4").
std::string ms_text(int samples)
{
    char b[32];
    snprintf(b, sizeof b, "%g", samples / 48.0);
    return b;
}

std::string describe(const src &p, const options &o, uint32_t version)
{
    const in_addr_t dst = p.ep.sa_dst.sin_addr.s_addr;
    const in_addr_t bind = p.ep.sa_bind.sin_addr.s_addr;
    const int port = ntohs(p.ep.sa_dst.sin_port);
    const int nchn = rtp_src_mix_channels(p.mix);
    const bool opus = p.fmt.payload_format == RTP_FMT_OPUS;
    const int pt = rtp_src_pt(p.rtp_pt, nchn);
    const int ptime = rtp_src_packet_samples(p.fmt.payload_format, nchn, p.rtp_ptime_samples, OPUS_FRAME_BYTES_GUESS);
    const uint32_t session = fnv1a(std::string(p.rtpa) + "|" + p.mix) & 0x7FFFFFFF;
    const std::string origin = bind != INADDR_ANY ? ip(bind) : is_mcast(dst) ? "0.0.0.0" : ip(dst);

    std::string s = "v=0\r\n";
    s += "o=- " + std::to_string(session) + " " + std::to_string(version) + " IN IP4 " + origin + "\r\n";
    s += std::string("s=pelod ") + p.mix + "\r\n";
    s += "c=IN IP4 " + ip(dst) + (is_mcast(dst) ? "/" + std::to_string(MCAST_TTL) : "") + "\r\n";
    s += "t=0 0\r\n";
    s += "a=recvonly\r\n";
    s += "m=audio " + std::to_string(port) + " RTP/AVP " + std::to_string(pt) + "\r\n";
    in_addr_t ssm = p.ep.ssm_src;
    if (!ssm && is_ssm_range(dst) && bind != INADDR_ANY)
        ssm = bind;
    if (ssm && is_mcast(dst))
        s += "a=source-filter: incl IN IP4 " + ip(dst) + " " + ip(ssm) + "\r\n";
    else if (is_ssm_range(dst))
        fprintf(stderr, "pelod-sdp: %s: SSM group but no source address: give the SRC line ifa= (or GLB ifs=)\n",
                p.rtpa);
    if (opus) {
        s += "a=rtpmap:" + std::to_string(pt) + " opus/48000/2\r\n";
        std::string fmtp = "a=fmtp:" + std::to_string(pt) + " sprop-stereo=" + (nchn == 1 ? "0" : "1");
        if (p.bitrate > 0)
            fmtp += "; maxaveragebitrate=" + std::to_string(p.bitrate);
        if (p.cbr)
            fmtp += "; cbr=1";
        s += fmtp + "\r\n";
    } else {
        s += "a=rtpmap:" + std::to_string(pt) + " L24/48000/" + std::to_string(nchn) + "\r\n";
    }
    s += "a=ptime:" + ms_text(ptime) + "\r\n";
    s += refclk_line(o);
    s += "a=mediaclk:direct=0\r\n";
    return s;
}

// The streams the daemon would send, in file order.
std::vector<stream> streams_of(const options &o)
{
    std::vector<stream> out;
    for (int i = 0, n = 0; i < srcs_used; i++) {
        const src &p = srcs[i];
        if (p.ep.sa_dst.sin_family != AF_INET || p.ep.sa_dst.sin_addr.s_addr == 0)
            continue; // sound card, or no valid address
        stream s{&p, ++n, describe(p, o, 1), 0};
        s.hash = uint16_t(fnv1a(s.sdp) % 65535 + 1);
        out.push_back(s);
    }
    return out;
}

bool selected(const stream &s, const char *only)
{
    char *end = nullptr;
    const long n = strtol(only, &end, 10);
    if (*end == '\0')
        return n == s.number;
    in_addr_t a = 0;
    uint16_t port = 0;
    if (!parse_addr_port(only, &a, &port, false))
        return false;
    const sockaddr_in &d = s.p->ep.sa_dst;
    return d.sin_addr.s_addr == a && (port == 0 || ntohs(d.sin_port) == port);
}

volatile sig_atomic_t stop_flag;
void on_stop(int) { stop_flag = 1; }

// One SAP packet: version 1, IPv4 origin, no authentication, the
// message identifier hash, the origin, the payload type, the description.
std::string sap_packet(const stream &s, bool deletion)
{
    const in_addr_t origin = s.p->ep.sa_bind.sin_addr.s_addr; // network order
    std::string b(8, '\0');
    b[0] = char(0x20 | (deletion ? 0x04 : 0));
    b[2] = char(s.hash >> 8);
    b[3] = char(s.hash & 0xFF);
    memcpy(&b[4], &origin, 4);
    b += "application/sdp";
    b += '\0';
    return b + s.sdp;
}

int announce(const options &o, const std::vector<stream> &list)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        perror("pelod-sdp: socket");
        return 1;
    }
    const unsigned char ttl = MCAST_TTL, loop = 1;
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl);
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop);
    in_addr mif{};
    mif.s_addr = o.sap_if;
    if (o.sap_if != INADDR_ANY && setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &mif, sizeof mif) < 0)
        perror("pelod-sdp: setsockopt(IP_MULTICAST_IF)");
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(o.sap_port);
    to.sin_addr.s_addr = o.sap_addr ? o.sap_addr : htonl(0xEFFFFFFFu);

    struct sigaction sa{};
    sa.sa_handler = on_stop;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    fprintf(stderr, "pelod-sdp: announcing %zu stream(s) to %s:%u every %g s\n", list.size(),
            ip(to.sin_addr.s_addr).c_str(), unsigned(o.sap_port), o.interval_s);
    const auto send_all = [&](bool deletion) {
        for (const stream &s : list) {
            const std::string b = sap_packet(s, deletion);
            if (sendto(fd, b.data(), b.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) < 0)
                perror("pelod-sdp: sendto");
        }
    };
    for (long round = 0; !stop_flag && (o.count == 0 || round < o.count); round++) {
        send_all(false);
        if (o.count && round + 1 == o.count)
            break;
        // sleep in short steps so that a stop is seen at once
        for (double t = 0; t < o.interval_s && !stop_flag; t += 0.1)
            usleep(100000);
    }
    send_all(true);
    close(fd);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    options o;
    if (const int r = parse_options(argc, argv, &o); r >= 0)
        return r;
    if (!read_sources(o.conf))
        return 1;
    std::vector<stream> list = streams_of(o);
    if (o.only) {
        std::vector<stream> one;
        for (const stream &s : list)
            if (selected(s, o.only))
                one.push_back(s);
        list = one;
    }
    if (list.empty()) {
        fprintf(stderr, "pelod-sdp: %s: no outgoing stream%s%s\n", o.conf, o.only ? " matches " : "",
                o.only ? o.only : "");
        return 1;
    }
    if (o.announce)
        return announce(o, list);
    for (size_t i = 0; i < list.size(); i++)
        printf("%s%s", i ? "\r\n" : "", list[i].sdp.c_str());
    return 0;
}
