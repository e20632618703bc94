#!/usr/bin/env bash
# Measures what the probe costs and how fast it answers, and prints Markdown
# tables:
#   - command port round trips (1, 8, 64 concurrent clients) side by side
#     with nginx serving a file of the same size with one worker: (a) the
#     probe with the errors-only log filter against nginx without access log,
#     with the probe's peak RSS; (b) the probe with the default log filter
#     against nginx with its access log;
#   - subscribers: processor time per second and RSS with 1,000 and 10,000
#     subscribed hosts (reply frequency 10 s, errors-only log filter, and
#     1,000 with the default one; a fake tool at 90 % idle: a busy server,
#     whose runs end in no speed estimate), the
#     round trip of the 100th and the 10,000th create, and the load packets
#     delivered while clients flood the probe with gets (10,000 hosts);
#   - sustained load: gets back to back for a minute with a fake measuring
#     tool restarted about once a second and 100 subscribed hosts: the rate in
#     the first and the last ten seconds, RSS at both ends, packets per second;
#   - idle footprint with a fast fake measuring tool and with real vmstat;
#   - connection floods: idle connections, a connection burst, clients that
#     close or reset before the reply; and, in a private network namespace
#     with an Ethernet-sized MTU, large replies to slow or vanishing clients;
#   - name look-ups (as root, in a network namespace of their own): the C
#     library's getaddrinfo_a against queries sent from the loop, alone and
#     after 24 look-ups that a silent name server never answers.
# Everything talks to 127.0.0.1 only; every run is bounded in time or count.
# `bash scripts/bench.sh stall` measures instead the longest wait of a get or
# an agent check over STALL_SECONDS (default 600) with the package's
# configuration and real vmstat.
# Takes about 12 minutes on 2 cores (plus the builds). LOAD_SECONDS,
# IDLE_SECONDS, FANOUT_SECONDS, FLOOD_SECONDS and SUSTAIN_SECONDS shorten
# or lengthen the runs. BENCH_ONLY=command runs the command port round trips
# alone (about two and a half minutes), for a change to the ports.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
probe=$root/build-bench-release/quelmloadprobe
qb=$root/build-bench-tools/quelmbench
cpus=$(nproc)
LOAD_SECONDS=${LOAD_SECONDS:-10}
IDLE_SECONDS=${IDLE_SECONDS:-20}
FANOUT_SECONDS=${FANOUT_SECONDS:-20}
FLOOD_SECONDS=${FLOOD_SECONDS:-15}
SUSTAIN_SECONDS=${SUSTAIN_SECONDS:-60}
BENCH_ONLY=${BENCH_ONLY:-}
# Errors only, to the structured log file; empty: the built-in default.
ERRORS_ONLY='*/*/*error:quelmloadprobe%%PID%%_error.csl'
probe_logfilter=""

pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
}

# value KEY LINE: the value of KEY=... in a quelmbench output line.
value() { tr ' ' '\n' <<<"$2" | sed -n "s/^$1=//p" | head -1; }

# Starts a probe in $work/NAME with the given tool and $probe_logfilter
# (empty: the default log filter); sets probe_pid,
# probe_port, probe_dir and probe_start_cpu (CPU seconds spent before the
# pid file: the speed estimate's busy loop, counted apart).
start_probe() {
  local name=$1 tool=$2
  probe_dir=$work/$name
  mkdir -p "$probe_dir/logs" "$probe_dir/run"
  probe_port=$("$qb" port)
  cat >"$probe_dir/quelmloadbalancing.properties" <<EOF
varosa.config.quelmloadbalancing.port=$probe_port
varosa.config.quelmloadbalancing.filter=vmstatFilter
varosa.config.quelmloadbalancing.probepath=$tool
varosa.config.quelmloadbalancing.logdirectory=$probe_dir/logs
varosa.config.quelmloadbalancing.piddirectory=$probe_dir/run
varosa.config.quelmloadbalancing.windowsize=3
varosa.config.quelmloadbalancing.samplerate=5
varosa.config.quelmloadbalancing.hostlifetime=86400
varosa.config.quelmloadbalancing.mincachesize=10
varosa.config.quelmloadbalancing.maxvirtualmemory=768
varosa.config.quelmloadbalancing.maxphysicalmemory=256
varosa.config.quelmloadbalancing.multiprocessorfactor=80
EOF
  [ -z "$probe_logfilter" ] ||
    echo "varosa.config.quelmloadbalancing.logfilter=$probe_logfilter" \
      >>"$probe_dir/quelmloadbalancing.properties"
  "$probe" "$probe_dir" "$cpus" 2>"$probe_dir/stderr.txt" &
  probe_pid=$!
  pids+=("$probe_pid")
  for _ in $(seq 1 600); do
    [ -f "$probe_dir/run/quelmloadprobe.pid" ] && break
    kill -0 "$probe_pid" 2>/dev/null || { echo "probe $name died at start-up" >&2; exit 1; }
    sleep 0.1
  done
  probe_start_cpu=$(awk -v hz="$(getconf CLK_TCK)" \
    '{ sub(/.*\) /, ""); printf "%.2f", ($12 + $13) / hz }' "/proc/$probe_pid/stat")
}

# Stops the probe with SIGTERM unless it has ended already; sets
# probe_status (92: stopped by SIGTERM, 94: ended by SIGPIPE).
stop_probe() {
  probe_status=0
  kill -TERM "$probe_pid" 2>/dev/null || true
  wait "$probe_pid" || probe_status=$?
}

rows=()
row() { rows+=("| $1 | $2 | $3 |"); }

load_row() {  # load_row LABEL LINE
  local extra=""
  [ -n "$(value server_cpu_pct "$2")" ] &&
    extra="; server CPU $(value server_cpu_pct "$2") %, peak RSS $(value server_hwm_kib "$2") KiB"
  [ -n "$(value log_bytes_per_s "$2")" ] && extra="$extra, log +$(value log_bytes_per_s "$2") B/s"
  row "$1" "$(value rps "$2") req/s" \
    "p50 $(value p50_ms "$2") ms, p99 $(value p99_ms "$2") ms, max $(value max_ms "$2") ms, \
$(value over_1s "$2") over 1 s; errors: refused $(value refused "$2"), reset $(value reset "$2"), \
eof $(value eof "$2"), timeouts $(value timeouts "$2")$extra"
}

flood_row() {  # flood_row LABEL LINE DETAILS
  row "$1" "alive $(value alive "$2"), served after $(value served_after "$2")" \
    "$3 descriptors back to $(value fds_after "$2") (before $(value fds_before "$2")) in \
$(value settle_s "$2") s; CPU afterwards $(value cpu_after_pct "$2") %; peak RSS $(value hwm_kib "$2") KiB"
}

# --- Large replies over an Ethernet-sized MTU (run inside `unshare -n`) --------
# On the host's loopback (MTU 65536) the send buffer takes even a 2.6 MB reply
# in one write; with MTU 1500 a 1,000-host get reply needs several writes.
in_netns() {
  work=$1
  trap cleanup EXIT
  ip link set lo up mtu 1500
  start_probe netns "/usr/bin/vmstat -n"
  "$qb" fanout --port "$probe_port" --pid "$probe_pid" --hosts 1000 --seconds 0 --warmup-ms 0 >/dev/null
  local line
  line=$("$qb" fetch --port "$probe_port")
  echo "| MTU 1500: get with 1,000 hosts, read to the end | $(value ms "$line") ms | \
$(value bytes "$line") bytes, complete $(value complete "$line"); the end of a reply that needed more \
than one write is seen only when the connection is closed |"
  line=$("$qb" fetch --port "$probe_port" --delay-ms 2000)
  echo "| MTU 1500: same, client starts reading after 2 s | $(value bytes "$line") bytes | \
complete $(value complete "$line"): a reply not drained within the circuit's one second is cut off |"
  line=$("$qb" early --port "$probe_port" --pid "$probe_pid" --count 20 --conns 1 --mode halfclose)
  stop_probe
  echo "| MTU 1500: 20 gets, client shuts down its sending side, then resets after the first \
reply bytes | alive $(value alive "$line"), exit status $probe_status | 92 = still running and stopped \
by SIGTERM here, 94 = ended by SIGPIPE (exit code 606) |"
}

# The balance case runs alone: bash scripts/bench.sh balance.
if [ "${1:-}" = "balance" ]; then
  exec bash scripts/bench-balance.sh
fi

if [ "${1:-}" = "--in-netns" ]; then
  in_netns "$2"
  exit 0
fi

# --- Stall: the longest wait of a get or an agent check -----------------------
# `bash scripts/bench.sh stall`: the probe on the package's configuration
# (speed recalculations in a child among it) with real vmstat and an agent
# check port, asked a get and an agent check in turn for STALL_SECONDS
# (default 600) from the first answered get. STALL_RECALC and STALL_CHILD
# (below) make the speed recalculations happen, in a child or in the loop.
stall() {
  echo "building (Release)..." >&2
  cmake -S . -B build-bench-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUELM_TESTS=OFF >/dev/null
  cmake --build build-bench-release --target quelmloadprobe -j "$cpus" >/dev/null
  cmake -S bench -B build-bench-tools -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build build-bench-tools -j "$cpus" >/dev/null
  work=$(mktemp -d /tmp/quelm-bench-XXXXXX)
  trap 'cleanup; rm -rf "$work"' EXIT
  mkdir -p "$work/logs" "$work/run"
  local port agent line props=$work/quelmloadbalancing.properties
  port=$("$qb" port)
  agent=$("$qb" port)
  grep -v -E '\.(port|logdirectory|piddirectory|statefile|agentcheckport|speedrecalcinterval|speedestimatechild|samplerate|windowsize)=' \
    build-bench-release/packaging/quelmloadbalancing.properties >"$props"
  {
    # STALL_RECALC=S: a speed recalculation every S seconds, with a fake tool
    # at 99 % idle instead of vmstat so that every run qualifies for one;
    # STALL_CHILD=0 makes them in the loop, as without the package's keys.
    echo "varosa.config.quelmloadbalancing.speedrecalcinterval=${STALL_RECALC:-3600}"
    echo "varosa.config.quelmloadbalancing.speedestimatechild=${STALL_CHILD:-1}"
    [ -n "${STALL_RECALC:-}" ] || grep -E '\.(samplerate|windowsize)=' \
      build-bench-release/packaging/quelmloadbalancing.properties
    if [ -n "${STALL_RECALC:-}" ]; then
      printf '#!/bin/sh\necho header; echo header; i=0\nwhile [ $i -le "$2" ]; do echo "0 0 0 1000000 2000 3 4 5 6 7 8 9 10 11 12 99"; i=$((i + 1)); sleep "$1"; done\n' \
        >"$work/idletool"
      chmod +x "$work/idletool"
      # Runs of 20 s: each ends in a recalculation once the interval is over.
      echo "varosa.config.quelmloadbalancing.probepath=$work/idletool"
      echo "varosa.config.quelmloadbalancing.samplerate=5"
      echo "varosa.config.quelmloadbalancing.windowsize=3"
    fi
    echo "varosa.config.quelmloadbalancing.port=$port"
    echo "varosa.config.quelmloadbalancing.logdirectory=$work/logs"
    echo "varosa.config.quelmloadbalancing.piddirectory=$work/run"
    echo "varosa.config.quelmloadbalancing.statefile=$work/state"
    echo "varosa.config.quelmloadbalancing.agentcheckport=$agent"
  } >>"$props"
  "$probe" "$work" "$cpus" 2>"$work/stderr.txt" &
  probe_pid=$!
  pids+=("$probe_pid")
  line=$("$qb" stall --port "$port" --agent-port "$agent" --seconds "${STALL_SECONDS:-600}") || true
  stop_probe
  local setup=", real vmstat"
  [ -z "${STALL_RECALC:-}" ] || setup=", fake tool at 99 % idle, samplerate=5, windowsize=3, \
speedrecalcinterval=$STALL_RECALC, speedestimatechild=${STALL_CHILD:-1}"
  echo "| Packaged configuration$setup: longest wait of a get or an agent check \
over $(value seconds "$line") s | get $(value max_get_ms "$line") ms, agent check \
$(value max_agent_ms "$line") ms | $(value gets "$line") gets and $(value checks "$line") checks \
one after another with 100 ms pauses, $(value over_100ms "$line") over 100 ms, \
$(value failed "$line") unanswered, the longest at $(value max_at_s "$line") s; \
$(cat "$work"/logs/*.log | grep -c 'speed estimate was recalculated' || true) speed recalculations |"
}

if [ "${1:-}" = "stall" ]; then
  stall
  exit 0
fi

bash scripts/deps.sh nginx
echo "building (Release)..." >&2
cmake -S . -B build-bench-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUELM_TESTS=OFF >/dev/null
cmake --build build-bench-release --target quelmloadprobe -j "$cpus" >/dev/null
cmake -S bench -B build-bench-tools -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-bench-tools -j "$cpus" >/dev/null

load_before=$(cut -d' ' -f1-3 /proc/loadavg)
work=$(mktemp -d /tmp/quelm-bench-XXXXXX)
chmod 755 "$work"
trap 'cleanup; rm -rf "$work"' EXIT

# --- 1. Command port round trips, probe and nginx side by side -------------
ngx=$work/nginx
mkdir -p "$ngx/www" "$ngx/tmp"
chmod -R a+rX "$ngx"
ngx_port=$("$qb" port)
# start_nginx on|off: one worker serving $ngx/www/get.xml, with or without
# its access log; sets ngx_pid and ngx_worker.
start_nginx() {
  local access="access_log off;"
  [ "$1" = on ] && access="access_log $ngx/access.log;"
  cat >"$ngx/nginx.conf" <<EOF
worker_processes 1;
daemon off;
pid $ngx/nginx.pid;
error_log $ngx/error.log;
events { worker_connections 4096; }
http {
  $access
  keepalive_timeout 0;
  client_body_temp_path $ngx/tmp;
  proxy_temp_path $ngx/tmp;
  fastcgi_temp_path $ngx/tmp;
  uwsgi_temp_path $ngx/tmp;
  scgi_temp_path $ngx/tmp;
  default_type text/xml;
  server {
    listen 127.0.0.1:$ngx_port;
    root $ngx/www;
    location / { try_files /get.xml =404; }
  }
}
EOF
  nginx -c "$ngx/nginx.conf" -p "$ngx" 2>"$ngx/stderr.txt" &
  ngx_pid=$!
  pids+=("$ngx_pid")
  for _ in $(seq 1 50); do
    "$qb" get --port "$ngx_port" --request $'GET / HTTP/1.0\r\n\r\n' >/dev/null && break
    sleep 0.1
  done
  ngx_worker=$(pgrep -P "$ngx_pid" | head -1 || true)
}
stop_nginx() {
  kill -QUIT "$ngx_pid"
  wait "$ngx_pid" 2>/dev/null || true
}

declare -A rt   # "probe|nginx a|b CLIENTS" -> quelmbench load line
probe_round_trips() {  # probe_round_trips CASE
  for c in 1 8 64; do
    rt["probe $1 $c"]=$("$qb" load --port "$probe_port" --conns "$c" --seconds "$LOAD_SECONDS" \
                         --pid "$probe_pid" --logdir "$probe_dir/logs")
  done
}
nginx_round_trips() {  # nginx_round_trips CASE
  for c in 1 8 64; do
    rt["nginx $1 $c"]=$("$qb" load --port "$ngx_port" --conns "$c" --seconds "$LOAD_SECONDS" \
                         --request $'GET /?get&znalbinfo HTTP/1.0\r\n\r\n' --pid "${ngx_worker:-0}")
  done
}

echo "command port round trips (${LOAD_SECONDS} s per run, 12 runs)..." >&2
probe_logfilter=$ERRORS_ONLY
start_probe load-errors "/usr/bin/vmstat -n"
get_doc=$("$qb" get --port "$probe_port")
printf '%s' "$get_doc" >"$ngx/www/get.xml"
chmod -R a+rX "$ngx"
probe_round_trips a
peak_a=$(value server_hwm_kib "${rt[probe a 64]}")
stop_probe
probe_logfilter=""
start_probe load-default "/usr/bin/vmstat -n"
probe_round_trips b
peak_b=$(value server_hwm_kib "${rt[probe b 64]}")
stop_probe
start_nginx off
nginx_round_trips a
stop_nginx
start_nginx on
nginx_round_trips b
stop_nginx

rt_rows=()
for k in a b; do
  for c in 1 8 64; do
    p=${rt[probe $k $c]}
    n=${rt[nginx $k $c]}
    rt_rows+=("| ($k) $c | $(value rps "$p") | $(value p50_ms "$p") / $(value p99_ms "$p") | \
$(value rps "$n") | $(value p50_ms "$n") / $(value p99_ms "$n") | \
$(awk -v a="$(value rps "$p")" -v b="$(value rps "$n")" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }') | \
$(value server_cpu_pct "$p") % / $(value server_cpu_pct "$n") % | \
$(($(value refused "$p") + $(value reset "$p") + $(value eof "$p") + $(value timeouts "$p"))) / \
$(($(value refused "$n") + $(value reset "$n") + $(value eof "$n") + $(value timeouts "$n"))) |")
  done
done
row "probe peak RSS during (a), errors-only log filter" "$peak_a KiB" \
  "during (b), default log filter: $peak_b KiB"

if [ "$BENCH_ONLY" != command ]; then

# Fake tools: vmstat-like output without column names, two header lines, then
# lines of 16 numbers. fake and fake_busy print a line every 0.2 s and end
# after a second, to be started again: fake reports 98 % idle, and above 94 %
# every run ends in a new speed estimate, a second of busy loop, so the
# sustained case uses fake_busy, at 90 % idle, which leaves the event loop to
# the clients. fake_steady follows its rate and count arguments as vmstat does
# at 90 % idle: a busy server, whose runs never end in a speed estimate, so
# the subscriber cases measure the packets and not the estimate.
fake=$work/faketool
fake_busy=$work/faketool-busy
fake_steady=$work/faketool-steady
for tool in "$fake:98" "$fake_busy:90"; do
  cat >"${tool%:*}" <<EOF
#!/bin/sh
echo 'procs memory swap io system cpu'
echo 'r b swpd free buff cache si so bi bo in cs us sy id wa'
for i in 1 2 3 4 5; do
  echo ' 0  0      0 812345  10000 200000    0    0     0     1   50   80  1  1 ${tool#*:}  0'
  sleep 0.2
done
EOF
  chmod 755 "${tool%:*}"
done
cat >"$fake_steady" <<'EOF'
#!/bin/sh
echo 'procs memory swap io system cpu'
echo 'r b swpd free buff cache si so bi bo in cs us sy id wa'
i=0
while [ "$i" -lt "${2:-4}" ]; do
  echo ' 0  0      0 812345  10000 200000    0    0     0     1   50   80  5  5 90  0'
  i=$((i + 1))
  [ "$i" -lt "${2:-4}" ] && sleep "${1:-5}"
done
EOF
chmod 755 "$fake_steady"

# --- 2. Subscribers ------------------------------------------------------------
# Errors-only log filter: the default one writes a line per packet sent (one
# row below measures that too). The tool is fake_steady: a busy server.
probe_logfilter=$ERRORS_ONLY
subscribers_row() {  # subscribers_row LABEL LINE
  row "$1" "$(value cpu_ms_per_s "$2") ms CPU per s" \
    "RSS $(value rss_kib "$2") KiB (peak $(value hwm_kib "$2") KiB); $(value pps "$2") packets/s of \
$(value expected_pps "$2") expected, $(value well_formed "$2") of $(value datagrams "$2") well formed; \
$(value created "$2") created in $(value create_s "$2") s; log +$(value log_bytes_per_s "$2") B/s"
}
echo "1,000 subscribers (${FANOUT_SECONDS} s after half a reply period)..." >&2
start_probe subs1000 "$fake_steady"
line=$("$qb" fanout --port "$probe_port" --pid "$probe_pid" --hosts 1000 \
       --seconds "$FANOUT_SECONDS" --logdir "$probe_dir/logs")
subscribers_row "1,000 subscribers, reply frequency 10 s, fake tool at 90 % idle, errors-only log filter" "$line"
big=$("$qb" get --port "$probe_port" | wc -c)
line=$("$qb" load --port "$probe_port" --conns 1 --seconds 5 --pid "$probe_pid" \
       --logdir "$probe_dir/logs")
load_row "get with 1,000 hosts ($big bytes), 1 client" "$line"
line=$("$qb" early --port "$probe_port" --pid "$probe_pid" --count 200 --conns 8 --mode fin)
stop_probe
flood_row "200 gets closed right after sending, 1,000-host reply" "$line" \
  "exit status $probe_status (92 = stopped by SIGTERM here, 94 = ended by SIGPIPE);"

echo "10,000 subscribers (creates, ${FANOUT_SECONDS} s quiet, ${FLOOD_SECONDS} s get flood)..." >&2
start_probe subs10000 "$fake_steady"
line=$("$qb" fanout --port "$probe_port" --pid "$probe_pid" --hosts 10000 \
       --seconds "$FANOUT_SECONDS" --logdir "$probe_dir/logs" \
       --flood-conns 8 --flood-seconds "$FLOOD_SECONDS")
stop_probe
subscribers_row "10,000 subscribers, reply frequency 10 s, fake tool at 90 % idle, errors-only log filter" "$line"
c100=$(value create_100_ms "$line")
clast=$(value create_last_ms "$line")
row "create round trip, 100th and 10,000th" "$c100 ms, $clast ms" \
  "10,000th / 100th = $(awk -v a="$clast" -v b="$c100" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }'); \
each the median of the 20 creates up to it, one after the other from 1 client"
row "load packets during a get flood, 10,000 subscribers, 8 clients" \
  "$(value flood_pps "$line") packets/s ($(value flood_delivered_pct "$line") % of expected)" \
  "gets $(value flood_rps "$line")/s, p50 $(value flood_p50_ms "$line") ms, \
p99 $(value flood_p99_ms "$line") ms; probe CPU $(value flood_cpu_pct "$line") %; alive $(value alive "$line")"
probe_logfilter=""
start_probe subs1000log "$fake_steady"
line=$("$qb" fanout --port "$probe_port" --pid "$probe_pid" --hosts 1000 \
       --seconds "$FANOUT_SECONDS" --logdir "$probe_dir/logs")
stop_probe
subscribers_row "1,000 subscribers as above, default log filter (a line a packet)" "$line"

# --- 3. Sustained load ---------------------------------------------------------
echo "sustained load (${SUSTAIN_SECONDS} s)..." >&2
# Errors-only log filter: the default one writes every get's whole reply to
# the log (gigabytes a minute at this rate), and the disk's write-back then
# sets the rate, not the probe.
probe_logfilter=$ERRORS_ONLY
start_probe sustain "$fake_busy"
probe_logfilter=""
line=$("$qb" sustain --port "$probe_port" --pid "$probe_pid" --conns 8 --hosts 100 \
       --seconds "$SUSTAIN_SECONDS")
stop_probe
row "sustained gets, 8 clients, ${SUSTAIN_SECONDS} s, fake tool at 90 % idle, 100 subscribers, errors-only log filter" \
  "$(value rps_first "$line") req/s first $(value edge_s "$line") s, $(value rps_last "$line") req/s last" \
  "RSS $(value rss_first_kib "$line") KiB after $(value edge_s "$line") s, $(value rss_last_kib "$line") KiB \
at the end (peak $(value hwm_kib "$line") KiB); $(value pps "$line") packets/s of $(value expected_pps "$line") \
expected; p50 $(value p50_ms "$line") ms, p99 $(value p99_ms "$line") ms; errors $(value errors "$line"); \
probe CPU $(value cpu_pct "$line") %"

# --- 4. Idle footprint ---------------------------------------------------------
echo "idle footprint (${IDLE_SECONDS} s each)..." >&2
probe_logfilter=""
footprint_row() {  # footprint_row LABEL LINE
  row "$1" "$(value cpu_ms_per_s "$2") ms CPU per s" \
    "$(value wakeups_per_s "$2") wake-ups/s (context switches); peak RSS $(value hwm_kib "$2") KiB; \
$(value fds "$2") descriptors; log +$(value log_bytes_per_s "$2") B/s; start-up (speed estimate, \
before the pid file) $probe_start_cpu s CPU, counted apart"
}
start_probe fake "$fake"
footprint_row "idle, fake tool at 98 % idle restarted every ~1 s (each run ends in a speed estimate)" \
  "$("$qb" footprint --pid "$probe_pid" --seconds "$IDLE_SECONDS" --logdir "$probe_dir/logs")"
stop_probe
start_probe vmstat "/usr/bin/vmstat -n"
footprint_row "idle, real vmstat, sample rate 5" \
  "$("$qb" footprint --pid "$probe_pid" --seconds "$IDLE_SECONDS" --logdir "$probe_dir/logs")"
stop_probe

# --- 5. Floods -------------------------------------------------------------------
echo "floods..." >&2
start_probe flood "/usr/bin/vmstat -n"
line=$("$qb" idle --port "$probe_port" --pid "$probe_pid" --count 1000 --batch 5)
flood_row "1,000 idle connections, opened 5 at a time" "$line" \
  "$(value probe_fds "$line") held by the probe after $(value open_s "$line") s; a get meanwhile: \
served $(value served_during "$line") in $(value get_during_ms "$line") ms; CPU while held \
$(value cpu_during_pct "$line") %;"
line=$("$qb" idle --port "$probe_port" --pid "$probe_pid" --count 1000 --wait-ms 20000)
flood_row "1,000 idle connections, opened at once" "$line" \
  "$(value connected "$line") connected on the client side, $(value probe_fds "$line") accepted by the \
probe within $(value open_s "$line") s (backlog 5: the others wait in SYN retries); a get meanwhile: \
served $(value served_during "$line") in $(value get_during_ms "$line") ms;"
line=$("$qb" burst --port "$probe_port" --pid "$probe_pid" --count 10000 --conns 1000)
flood_row "10,000 connections, 1,000 at a time" "$line" \
  "$(value ok "$line") answered in $(value seconds "$line") s, $(value over_1s "$line") of them after 1 s \
or more, p50 $(value p50_ms "$line") ms, max $(value max_ms "$line") ms; errors: refused \
$(value refused "$line"), reset $(value reset "$line"), eof $(value eof "$line"), timeouts \
$(value timeouts "$line");"
# Clients that do not wait for their replies outrun the probe's accepts;
# with a backlog of 5 they soon wait in SYN retries, so few suffice.
line=$("$qb" early --port "$probe_port" --pid "$probe_pid" --count 200 --conns 2 --mode rst)
flood_row "200 gets reset right after sending, small reply" "$line" "sent in $(value seconds "$line") s;"
line=$("$qb" early --port "$probe_port" --pid "$probe_pid" --count 200 --conns 2 --mode fin)
stop_probe
flood_row "200 gets closed right after sending, small reply" "$line" \
  "sent in $(value seconds "$line") s; exit status $probe_status;"

if command -v unshare >/dev/null && unshare -n true 2>/dev/null; then
  echo "large replies in a network namespace..." >&2
  mkdir -p "$work/ns"
  while IFS= read -r r; do rows+=("$r"); done < <(unshare -n bash "$root/scripts/bench.sh" --in-netns "$work/ns")
else
  row "MTU 1500 cases" "skipped" "needs unshare -n (root)"
fi

# --- 6. Name look-ups: the C library's thread pool against queries from the loop ----
echo "name look-ups..." >&2
while IFS= read -r line; do
  row "2,000 look-ups by $(value method "$line"), $(value silent_first "$line") silent first" \
    "$(value answered "$line") answered" \
    "$(value wall_s "$line") s, $(value cpu_us_per_lookup "$line") µs CPU each, slowest \
$(value slowest_ms "$line") ms, up to $(value peak_threads "$line") threads"
done < <("$root/build-bench-tools/quelmresolver" 2000 24 2>/dev/null || true)
fi  # BENCH_ONLY

# --- Table ---------------------------------------------------------------------------
model=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)
echo
echo "Machine: $cpus cores (nproc), ${model:-unknown CPU}; $(uname -sr)."
echo "Load average before: $load_before; after: $(cut -d' ' -f1-3 /proc/loadavg) (other work on the machine skews the rates)."
echo "Probe get document without hosts: ${#get_doc} bytes (nginx serves the same bytes)."
echo
echo "Command port round trips, 1 request per connection: (a) probe with the errors-only log filter,"
echo "nginx without access log; (b) probe with the default log filter, nginx with its access log."
echo
echo "| Case, clients | probe req/s | probe p50 / p99 ms | nginx req/s | nginx p50 / p99 ms | probe / nginx | server CPU probe / nginx | errors probe / nginx |"
echo "| --- | --- | --- | --- | --- | --- | --- | --- |"
printf '%s\n' "${rt_rows[@]}"
echo
echo "| Measurement | Result | Details |"
echo "| --- | --- | --- |"
printf '%s\n' "${rows[@]}"
