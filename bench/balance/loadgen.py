#!/usr/bin/env python3
"""Open-loop load for the balance benchmark: requests at a fixed rate,
each sent at its intended time whatever became of the earlier ones, its
latency measured from that intended time (so a stalled backend cannot hide
its queue). A hog command runs from HOG_START for HOG_SECONDS. Prints one
line of key=value figures:
  share_before/during/after  backend 1's share of answered requests (%)
  p50/p99/max                latency in ms of requests sent while the hog ran
  p99_all, p99_before        latency p99 of the whole run, before the hog
  errors, errors_before      requests that failed or took over the timeout
  down_after / back_after    seconds from the hog's start (end) until backend
                             1's share over a 2 s window fell below half its
                             share before (came back to 3/4 of it); - : never

usage: loadgen.py PORT RATE SECONDS HOG_START HOG_SECONDS HOG_CMD...
"""
import asyncio
import statistics
import subprocess
import sys
import time

TIMEOUT = 10.0


async def one(port, results, index, intended):
    backend = None
    try:
        reader, writer = await asyncio.wait_for(asyncio.open_connection("127.0.0.1", port), TIMEOUT)
        writer.write(b"GET / HTTP/1.0\r\nHost: bench\r\n\r\n")
        data = await asyncio.wait_for(reader.read(), TIMEOUT - (time.monotonic() - intended))
        writer.close()
        if data.startswith(b"HTTP/1.0 200") or data.startswith(b"HTTP/1.1 200"):
            for line in data.split(b"\r\n"):
                if line.lower().startswith(b"x-backend:"):
                    backend = line.split(b":", 1)[1].strip().decode()
    except (OSError, asyncio.TimeoutError, ValueError):
        pass
    results[index] = (intended, time.monotonic() - intended, backend)


def pct(values, p):
    if not values:
        return float("nan")
    values = sorted(values)
    return values[min(len(values) - 1, int(p / 100.0 * len(values)))]


def share(rows, start, end):
    answered = [b for t, _, b in rows if start <= t < end and b is not None]
    return 100.0 * sum(1 for b in answered if b == "1") / len(answered) if answered else float("nan")


async def main():
    port, rate, seconds = int(sys.argv[1]), float(sys.argv[2]), float(sys.argv[3])
    hog_start, hog_seconds, hog_cmd = float(sys.argv[4]), float(sys.argv[5]), sys.argv[6:]
    total = int(rate * seconds)
    results = [None] * total
    tasks = []
    hog = None
    t0 = time.monotonic()
    for i in range(total):
        intended = t0 + i / rate
        now = time.monotonic()
        if hog is None and now - t0 >= hog_start:
            hog = subprocess.Popen(hog_cmd)
        if hog is not None and hog.returncode is None and now - t0 >= hog_start + hog_seconds:
            hog.kill()
            hog.wait()
        if intended > now:
            await asyncio.sleep(intended - now)
        tasks.append(asyncio.ensure_future(one(port, results, i, intended)))
    if hog is not None and hog.poll() is None:
        hog.kill()
        hog.wait()
    await asyncio.gather(*tasks)

    rows = [(t - t0, latency, b) for t, latency, b in results]
    hog_end = hog_start + hog_seconds
    before = share(rows, 5, hog_start)
    during = share(rows, hog_start + 3, hog_end)
    after = share(rows, hog_end + 10, seconds)
    during_lat = [l for t, l, b in rows if hog_start <= t < hog_end and b is not None]
    all_lat = [l for t, l, b in rows if b is not None]
    errors = sum(1 for _, _, b in rows if b is None)
    errors_before = sum(1 for t, _, b in rows if b is None and t < hog_start)
    before_lat = [l for t, l, b in rows if t < hog_start and b is not None]

    def first(start, end, test):
        t = start
        while t + 2 <= end:
            s = share(rows, t, t + 2)
            if s == s and test(s):
                return "%d" % round(t - start)
            t += 1
        return "-"

    down = first(hog_start, hog_end, lambda s: s < before / 2)
    back = first(hog_end, seconds, lambda s: s >= before * 0.75)
    print("share_before=%.1f share_during=%.1f share_after=%.1f p50=%.0f p99=%.0f max=%.0f "
          "p99_all=%.0f p99_before=%.0f errors=%d errors_before=%d requests=%d down_after=%s back_after=%s" % (
              before, during, after, 1000 * pct(during_lat, 50), 1000 * pct(during_lat, 99),
              1000 * max(during_lat, default=float("nan")), 1000 * pct(all_lat, 99), 1000 * pct(before_lat, 99), errors, errors_before, total,
              down, back))


if __name__ == "__main__":
    asyncio.run(main())
