#include "daemon/cyclesim.h"

#include "daemon/mix.h"
#include "daemon/mixrun.h"
#include "daemon/pelod.h"
#include "routing/xpt.h"
#include "rtp/rtp_recv.h"
#include "rtp/rtp_sk.h"
#include "rtp/rtp_src.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

namespace {

constexpr int64_t MS = 1000000;     // ns
constexpr int64_t START_NS = 20 * MS; // the senders' first block
constexpr time_t BASE_SEC = 89478;    // RTP time wraps about 0.5 s into a run
constexpr int SAMPLE_CODES = 1 << 22; // a sample's value names its index
constexpr int DGRAM = RTP_HDR_LEN + 3 * MIX_BLOCK;

timespec at(int64_t ns) { return {BASE_SEC + time_t(ns / 1000000000), long(ns % 1000000000)}; }

struct sender {
    std::vector<int64_t> arrival; // per packet, never decreasing
    int64_t next = 0;             // first packet not yet taken in
};

// One mono L24 datagram of packet k: samples 48k..48k+47 of the stream.
void make_datagram(uint8_t *p, int k, uint32_t ts)
{
    p[0] = 0x80;
    p[1] = 96;
    p[2] = uint8_t(k >> 8);
    p[3] = uint8_t(k);
    for (int b = 0; b < 4; b++)
        p[4 + b] = uint8_t(ts >> (24 - 8 * b));
    memset(p + 8, 0x5A, 4);
    for (int j = 0; j < MIX_BLOCK; j++) {
        const int v = 1 + (MIX_BLOCK * k + j) % SAMPLE_CODES;
        uint8_t *s = p + RTP_HDR_LEN + 3 * j;
        s[0] = uint8_t(v >> 16);
        s[1] = uint8_t(v >> 8);
        s[2] = uint8_t(v);
    }
}

} // namespace

sim_result cycle_sim_run(const sim_scenario &sc)
{
    sim_result r{};
    const int n = std::clamp(sc.streams, 1, RTP_DST_MAX);
    static rtp_sk socks[RTP_DST_MAX];
    mix_inp_init();
    memset(mix_inp_storage, 0, sizeof mix_inp_storage);
    memset(mix_out, 0, sizeof mix_out);
    mix_init();
    rtp_srcs = nullptr;
    pdly_samples_min = 96;
    for (int i = 0; i < RTP_DST_MAX; i++)
        dst_init(&rtp_dsts[i], i);
    for (int i = 0; i < n; i++) {
        rtp_sk &sk = socks[i];
        memset(&sk, 0, sizeof sk);
        sk.fd = 1000 + i; // never read: only its parity counts
        for (dlist &b : sk.rtp_sk_ep_list_ip_dst_hash)
            dlist_init(&b);
        rtp_dst &d = rtp_dsts[i];
        d.fmt = rtp_fmt{RTP_FMT_PCM, 24, 48000, 1};
        d.channel_mode = 0;
        d.ep.sa_dst.sin_family = AF_INET;
        d.ep.sa_dst.sin_port = htons(uint16_t(6000 + i));
        d.ep.sa_dst.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        d.ep.dst = &d;
        d.ep.sk = &sk;
        dlist_add_head(rtp_sk_ep_list(&sk, d.ep.sa_dst.sin_addr.s_addr), &d.ep.rtp_sk_ep_list);
    }

    // The senders' script, drawn up front.
    std::mt19937 rng(sc.seed);
    auto draw = [&](int64_t lo_ns, int64_t hi_ns) {
        return hi_ns > lo_ns ? lo_ns + int64_t(rng() % uint64_t(hi_ns - lo_ns + 1)) : lo_ns;
    };
    const int64_t end_ns = int64_t(sc.ms) * MS;
    const int packets = sc.ms + 40 - int(START_NS / MS); // a little past the end
    const uint32_t ts0 = mix_rtp_ts(at(START_NS));
    const int64_t sstall_from = int64_t(sc.sender_stall_at_ms) * MS;
    const int64_t sstall_to = sstall_from + int64_t(sc.sender_stall_ms) * MS;
    std::vector<sender> snd(size_t(n), sender{});
    for (int i = 0; i < n; i++) {
        int64_t last = 0;
        for (int k = 0; k < packets; k++) {
            int64_t t = START_NS + (k + 1) * MS;
            if (i == 0)
                t -= int64_t(k + 1) * MS * sc.ppm / 1000000;
            t += int64_t(sc.delay_us) * 1000 + int64_t(i) * sc.spread_us * 1000 / n;
            t += draw(0, int64_t(sc.jitter_us) * 1000);
            if (sc.sender_stall_ms && t >= sstall_from && t < sstall_to)
                t = sstall_to;
            last = std::max(last, t);
            snd[size_t(i)].arrival.push_back(last);
        }
    }

    // What was played: per stream, how often each sample index.
    const size_t samples = size_t(packets) * MIX_BLOCK;
    std::vector<uint8_t> played(size_t(n) * samples, 0);
    const bool altered = sc.ppm != 0 || sc.step_samples != 0; // stream 0 keeps no common time line
    const int64_t stall_from = std::min(sc.stall_ms || sc.drain_stall_ms ? int64_t(sc.stall_at_ms) * MS : INT64_MAX,
                                        sc.sender_stall_ms ? sstall_from : INT64_MAX);
    const int64_t stall_to = std::max(sc.stall_ms || sc.drain_stall_ms ? int64_t(sc.stall_at_ms + sc.stall_ms + sc.drain_stall_ms) * MS : 0,
                                      sc.sender_stall_ms ? sstall_to : 0);
    int64_t last_bad = -1; // media time of the end of the last broken block after a stall
    r.delay_min = INT32_MAX;
    r.delay_max = INT32_MIN;

    // The cycle, as mix_run drives it.
    int64_t now = 300000;
    int64_t ts_prev = now + 2 * MS - now % MS;
    int64_t due = ts_prev;
    bool stalled = false, drain_stalled = false;
    int64_t busy_until = 0; // a stall inside the last wake-up ended here
    int32_t buf[2 * MIX_BLOCK];
    uint8_t dgram[DGRAM];
    while (due < end_ns) {
        int64_t late = draw(int64_t(sc.wake_late_min_us) * 1000, int64_t(sc.wake_late_max_us) * 1000);
        if (sc.stall_ms && !stalled && due >= int64_t(sc.stall_at_ms) * MS) {
            late = int64_t(sc.stall_ms) * MS;
            stalled = true;
        }
        now = std::max(due + late, busy_until);
        due = now + MS - now % MS;
        int64_t drain_stall = 0;
        if (sc.drain_stall_ms && !drain_stalled && now >= int64_t(sc.stall_at_ms) * MS) {
            drain_stall = int64_t(sc.drain_stall_ms) * MS;
            drain_stalled = true;
            busy_until = now + drain_stall;
        }
        const timespec prev = at(ts_prev);
        const wake_plan p = mix_wake_plan(prev, at(now), 2 * MS);
        if (p.resync) {
            r.resyncs++;
            mix_ring_skip(mix_rtp_ts(prev), mix_rtp_ts(p.ts_next));
            ts_prev = now - now % MS;
            continue;
        }
        const rtp_rx_time rx{p.rtp_ts, p.rtp_ts + uint32_t(MIX_BLOCK * p.blocks)};
        r.wakeups++;
        for (int i = 0; i < n; i++) {
            if (!rtp_sk_read_due(&socks[i], rx))
                continue;
            r.reads++;
            sender &s = snd[size_t(i)];
            const int64_t drained_at = now + (i >= n / 2 ? drain_stall : 0);
            for (int got = 0; got < RTP_RECV_BATCH && s.next < packets && s.arrival[size_t(s.next)] <= drained_at;
                 got++) {
                const int k = int(s.next++);
                uint32_t ts = ts0 + uint32_t(sc.ts_offset) + uint32_t(MIX_BLOCK * k);
                if (i == 0 && sc.step_samples && START_NS + k * MS >= int64_t(sc.step_at_ms) * MS)
                    ts += uint32_t(sc.step_samples);
                make_datagram(dgram, k, ts);
                rtp_sk_deliver(&socks[i], htonl(INADDR_LOOPBACK), INADDR_LOOPBACK, dgram, DGRAM, rx);
                if (s.arrival[size_t(k)] + 10 * MS < end_ns && k > 0)
                    r.datagrams++;
            }
        }
        uint32_t rtp_ts = p.rtp_ts;
        for (int b = 0; b < p.blocks; b++, rtp_ts += MIX_BLOCK) {
            bool bad = false;
            for (int k = 0; k < MIX_BLOCK; k++) {
                int32_t lo = INT32_MAX, hi = INT32_MIN;
                for (int i = 0; i < n; i++) {
                    const float v = *mix_slot(rtp_ts + uint32_t(k), i);
                    if (v == 0.0f) {
                        bad = true;
                        continue;
                    }
                    const int code = int(std::lround(double(v) * 8388607.0)) - 1;
                    const int32_t delay = int32_t(rtp_ts + uint32_t(k) - ts0 - uint32_t(code));
                    if (code >= 0 && size_t(code) < samples) { // codes repeat after 87 s, far past a run
                        uint8_t &c = played[size_t(i) * samples + size_t(code)];
                        if (c)
                            r.repeated++;
                        c = uint8_t(std::min(c + 1, 255));
                    }
                    r.delay_min = std::min(r.delay_min, delay);
                    r.delay_max = std::max(r.delay_max, delay);
                    if (!(altered && i == 0)) {
                        lo = std::min(lo, delay);
                        hi = std::max(hi, delay);
                    }
                }
                if (hi >= lo) {
                    r.skew = std::max(r.skew, hi - lo);
                    bad |= hi != lo;
                }
            }
            const int64_t block_end = ts_prev + int64_t(b + 1) * MS;
            if (bad && block_end > stall_from)
                last_bad = block_end;
            mix_block(rtp_ts, buf);
        }
        ts_prev = int64_t(p.ts_next.tv_sec - BASE_SEC) * 1000000000 + p.ts_next.tv_nsec;
    }

    for (int i = 0; i < n; i++) {
        const rtp_ep &e = rtp_dsts[i].ep;
        r.late += e.rx_late;
        r.relocks += std::max<int64_t>(e.rx_reset - 1, 0);
        const sender &s = snd[size_t(i)];
        for (int k = 1; k < packets && s.arrival[size_t(k)] + 10 * MS < end_ns; k++)
            for (int j = 0; j < MIX_BLOCK; j++)
                r.lost += played[size_t(i) * samples + size_t(MIX_BLOCK * k + j)] == 0;
        dlist_del(&rtp_dsts[i].ep.rtp_sk_ep_list);
        dst_init(&rtp_dsts[i], i);
    }
    if (stall_from == INT64_MAX)
        r.recover_ms = 0;
    else if (last_bad >= end_ns - 2 * MS)
        r.recover_ms = -1;
    else
        r.recover_ms = int32_t(std::max<int64_t>(last_bad - stall_to, 0) / MS);
    if (r.delay_min > r.delay_max)
        r.delay_min = r.delay_max = 0;
    return r;
}
