#!/usr/bin/python3
"""CPU time of the systems under test during a shared-harness run, from the
scheduler's nanosecond counters (/proc/PID/task/*/schedstat) instead of the
harness's 10 ms ticks.

Run it beside the harness (same machine, any namespace):
    bench/floor/cpu_sample.py --out /tmp/cpu.json &   ...harness...   ; kill %1
then `bench/floor/cpu_sample.py --report /tmp/cpu.json`.
Every 0.5 s it sums the counters of every process named in --names (all
threads); a process's parent with the same name joins its group (the
daemon's real-time context is a process of its own). Per group it reports
the CPU share of one core between start + --from and start + --to seconds
(default 5.5 and 14.5: inside the harness's 10 s window, which opens 1.5 s
settle + 0.5 s + 3 s warm-up after the start).
"""
import argparse, json, os, signal, sys, time

CLK = os.sysconf('SC_CLK_TCK')


def boot_time():
    return time.time() - float(open('/proc/uptime').read().split()[0])


def snapshot(names):
    out = {}
    for d in os.listdir('/proc'):
        if not d.isdigit():
            continue
        try:
            st = open(f'/proc/{d}/stat').read()
            comm = st[st.index('(') + 1:st.rindex(')')]
            if comm not in names:
                continue
            f = st[st.rindex(')') + 2:].split()
            ns = 0
            for t in os.listdir(f'/proc/{d}/task'):
                ns += int(open(f'/proc/{d}/task/{t}/schedstat').read().split()[0])
            out[int(d)] = (comm, int(f[1]), int(f[19]) / CLK, ns)
        except (OSError, ValueError):
            continue
    return out


def sample(a):
    names, bt, rows, stop = set(a.names.split(',')), boot_time(), [], []
    signal.signal(signal.SIGTERM, lambda *_: stop.append(1))
    signal.signal(signal.SIGINT, lambda *_: stop.append(1))
    while not stop:
        rows.append([time.time(), {str(k): v for k, v in snapshot(names).items()}])
        time.sleep(0.5)
    json.dump({'boot': bt, 'rows': rows}, open(a.out, 'w'))


def report(a):
    d = json.load(open(a.report))
    bt, rows = d['boot'], d['rows']
    procs = {}
    for t, snap in rows:
        for pid, (comm, ppid, start, ns) in snap.items():
            procs.setdefault(pid, {'comm': comm, 'ppid': str(ppid), 'start': bt + start, 'pts': []})['pts'].append((t, ns))
    groups = {}
    for pid, p in procs.items():
        root = pid
        while procs.get(procs[root]['ppid'], {}).get('comm') == p['comm']:
            root = procs[root]['ppid']
        groups.setdefault(root, []).append(pid)

    def at(pts, t):  # counter at time t, interpolated
        for (t0, v0), (t1, v1) in zip(pts, pts[1:]):
            if t0 <= t <= t1:
                return v0 + (v1 - v0) * (t - t0) / (t1 - t0)
        return None

    for root in sorted(groups, key=lambda r: procs[r]['start']):
        s = procs[root]['start']
        t0, t1 = s + a.start, s + a.end
        vals = [(at(procs[p]['pts'], t0), at(procs[p]['pts'], t1)) for p in groups[root]]
        if any(v0 is None or v1 is None for v0, v1 in vals):
            continue
        each = [(v1 - v0) / 1e9 / (t1 - t0) * 100 for v0, v1 in vals]
        split = ' (' + ' + '.join(f'{c:.2f}' for c in each) + ')' if len(each) > 1 else ''
        print(f"{time.strftime('%H:%M:%S', time.gmtime(s))} {procs[root]['comm']:16s} {len(groups[root])} proc(s) "
              f"{sum(each):6.2f} % of a core{split}")


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument('--names', default='pelod,rx_floor,gst-launch-1.0')
    ap.add_argument('--out', help='sample into this file until SIGINT/SIGTERM')
    ap.add_argument('--report', help='report from this file')
    ap.add_argument('--from', dest='start', type=float, default=5.5)
    ap.add_argument('--to', dest='end', type=float, default=14.5)
    a = ap.parse_args()
    if a.report:
        report(a)
    elif a.out:
        sample(a)
    else:
        ap.error('give --out or --report')


if __name__ == '__main__':
    main()
