#!/usr/bin/env bash
# The balance case of the benchmark (bash scripts/bench.sh balance): does the
# probe's agent check make balancing better?
#   Three HTTP backends on 127.0.0.1 (bench/balance/backend.py, CPU_MS of
#   processor time a request), each in its own cgroup v1 limited to QUOTA of
#   a processor, each with a probe inside the same cgroup answering HAProxy's
#   agent check; HAProxy round-robin over the three; an open-loop load of
#   RATE requests a second (about 60 % of the backends' capacity) for
#   SECONDS; after HOG_START seconds a processor hog joins backend 1's cgroup
#   for HOG_SECONDS. Three runs: (a) static equal weights, no agent check;
#   (b) agent check, load from vmstat (loadsource=tool); (c) agent check,
#   load from the cgroup (loadsource=cgroup). Prints a Markdown table.
# Needs root, a writable cgroup v1 hierarchy (cpu, cpuacct, memory), haproxy
# and python3. Takes about six minutes. PROBE names a probe binary to use
# instead of building one.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
RATE=${RATE:-72}
SECONDS_RUN=${SECONDS_RUN:-110}
HOG_START=${HOG_START:-20}
HOG_SECONDS=${HOG_SECONDS:-60}
QUOTA_US=${QUOTA_US:-40000}
CPU_MS=${CPU_MS:-10}
cg=/sys/fs/cgroup

for c in cpu cpuacct memory; do
  if ! [ -w "$cg/$c" ]; then
    echo "balance: skipped, needs a writable cgroup v1 hierarchy at $cg/$c (root)" >&2
    exit 0
  fi
done
command -v haproxy >/dev/null || bash scripts/deps.sh haproxy
probe=${PROBE:-}
if [ -z "$probe" ]; then
  echo "building (Release)..." >&2
  cmake -S . -B build-bench-release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUELM_TESTS=OFF >/dev/null
  cmake --build build-bench-release --target quelmloadprobe -j "$(nproc)" >/dev/null
  probe=$root/build-bench-release/quelmloadprobe
fi

work=$(mktemp -d /tmp/quelm-balance-XXXXXX)
tag=quelmbal$$
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  # A cgroup can only go once its last process has.
  for n in 1 2 3 driver; do
    for c in cpu cpuacct memory; do
      [ -d "$cg/$c/$tag$n" ] || continue
      for i in $(seq 50); do rmdir "$cg/$c/$tag$n" 2>/dev/null && break; sleep 0.1; done
    done
  done
  rm -rf "$work"
}
trap cleanup EXIT
trap "exit 1" INT TERM

# The backends, and separately the driver (HAProxy and the load), each in a
# cgroup of its own.
for n in 1 2 3 driver; do
  for c in cpu cpuacct memory; do mkdir -p "$cg/$c/$tag$n"; done
done
for n in 1 2 3; do echo "$QUOTA_US" >"$cg/cpu/$tag$n/cpu.cfs_quota_us"; done
# A large share for each: on a machine busy with other work the quota, not
# that work, must be what limits a backend, as on a server of its own.
for n in 1 2 3 driver; do echo "${SHARES:-8192}" >"$cg/cpu/$tag$n/cpu.shares"; done
# in_cgroup NAME CMD...: becomes CMD inside cgroup NAME; call it with & or
# in a command substitution.
in_cgroup() {
  local name=$1
  shift
  # exec: the caller's $! (or its command substitution) is the command itself.
  exec bash -c 'for c in cpu cpuacct memory; do echo $$ > "$1/$c/$2/cgroup.procs"; done; shift 2; exec "$@"' \
    _ "$cg" "$tag$name" "$@"
}
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

# Fresh backends for every run: an overloaded one would otherwise carry its
# queue into the next run.
web_pids=()
start_backends() {
  for n in 1 2 3; do
    web_port[$n]=$(free_port)
    in_cgroup "$n" python3 "$root/bench/balance/backend.py" "${web_port[$n]}" "$n" "$CPU_MS" &
    web_pids+=($!)
    pids+=($!)
  done
}
stop_backends() {
  for p in "${web_pids[@]}"; do kill "$p" 2>/dev/null || true; done
  for p in "${web_pids[@]}"; do wait "$p" 2>/dev/null || true; done
  web_pids=()
}

# start_probes SOURCE [KEY=VALUE...]: one probe in each backend's cgroup.
probe_pids=()
start_probes() {
  local source=$1
  shift
  for n in 1 2 3; do
    local dir=$work/probe$n
    rm -rf "$dir"
    mkdir -p "$dir/logs"
    agent_port[$n]=$(free_port)
    {
      echo "varosa.config.quelmloadbalancing.port=$(free_port)"
      echo "varosa.config.quelmloadbalancing.samplerate=5"
      echo "varosa.config.quelmloadbalancing.windowsize=3"
      echo "varosa.config.quelmloadbalancing.logdirectory=$dir/logs"
      echo "varosa.config.quelmloadbalancing.piddirectory=$dir"
      echo "varosa.config.quelmloadbalancing.logfilter=*/*/*error:quelmloadprobe_error.csl"
      echo "varosa.config.quelmloadbalancing.speedrecalcinterval=3600"
      echo "varosa.config.quelmloadbalancing.agentcheckport=${agent_port[$n]}"
      echo "varosa.config.quelmloadbalancing.loadsource=$source"
      for kv in "$@"; do echo "varosa.config.quelmloadbalancing.$kv"; done
    } >"$dir/quelmloadbalancing.properties"
    in_cgroup "$n" "$probe" "$dir" &
    probe_pids+=($!)
    pids+=($!)
  done
  # Ready once every agent check answers with a figure.
  for n in 1 2 3; do
    for i in $(seq 240); do
      line=$(python3 -c 'import socket,sys; print(socket.create_connection(("127.0.0.1",int(sys.argv[1])),2).recv(64).decode().strip())' "${agent_port[$n]}" 2>/dev/null || true)
      [ -n "$line" ] && break
      sleep 0.5
    done
  done
}
stop_probes() {
  for p in "${probe_pids[@]}"; do kill "$p" 2>/dev/null || true; done
  for p in "${probe_pids[@]}"; do wait "$p" 2>/dev/null || true; done
  probe_pids=()
}

# run LABEL AGENT(0|1): HAProxy over the three, then the load; one table row.
rows=()
run() {
  local label=$1 agent=$2
  local label_short=${label:1:1}
  local lb_port
  lb_port=$(free_port)
  start_backends
  {
    echo "global"
    echo "  maxconn 4096"
    echo "  stats socket $work/admin.sock level admin"
    echo "defaults"
    echo "  mode http"
    echo "  timeout connect 5s"
    echo "  timeout client 30s"
    echo "  timeout server 30s"
    echo "frontend fe"
    echo "  bind 127.0.0.1:$lb_port"
    echo "  default_backend be"
    echo "backend be"
    echo "  balance roundrobin"
    for n in 1 2 3; do
      if [ "$agent" = 1 ]; then
        echo "  server web$n 127.0.0.1:${web_port[$n]} weight 100 agent-check agent-port ${agent_port[$n]} agent-inter 1s"
      else
        echo "  server web$n 127.0.0.1:${web_port[$n]} weight 100"
      fi
    done
  } >"$work/haproxy.cfg"
  in_cgroup driver haproxy -db -f "$work/haproxy.cfg" &
  local lb=$!
  pids+=($lb)
  sleep 3  # the first agent checks
  # The weights HAProxy applied, once a second, for TRACE=1.
  local tracer=""
  if [ "${TRACE:-0}" = 1 ]; then
    (while sleep 1; do
       echo "$(date +%s) $(echo 'show servers state be' | socat -t 2 - UNIX-CONNECT:$work/admin.sock |
         awk '$4 ~ /^web/ { printf "%s=%s/%s ", $4, $7, $8 }') $(cat $cg/cpuacct/${tag}1/cpuacct.usage) $(wc -l <$cg/cpu/${tag}1/cgroup.procs)"
     done >"/tmp/quelm-balance-trace-$label_short.txt") &
    tracer=$!
  fi
  local line
  line=$(in_cgroup driver python3 "$root/bench/balance/loadgen.py" "$lb_port" "$RATE" "$SECONDS_RUN" \
    "$HOG_START" "$HOG_SECONDS" \
    bash -c "for c in cpu cpuacct memory; do echo \$\$ > $cg/\$c/${tag}1/cgroup.procs; done; exec python3 -c 'while True: pass'")
  kill "$lb" 2>/dev/null || true
  wait "$lb" 2>/dev/null || true
  [ -n "$tracer" ] && kill "$tracer" 2>/dev/null
  stop_backends
  echo "$label: $line" >&2
  v() { tr ' ' '\n' <<<"$line" | sed -n "s/^$1=//p"; }
  rows+=("| $label | $(v share_before) / $(v share_during) / $(v share_after) | $(v p50) / $(v p99) / $(v max) | $(v p99_all) | $(v errors) of $(v requests) | $(v down_after) / $(v back_after) |")
}

RUNS=${RUNS:-a b c}
if [[ $RUNS == *a* ]]; then
  echo "balance: (a) static weights..." >&2
  run "(a) static equal weights" 0
fi
if [[ $RUNS == *b* ]]; then
  echo "balance: (b) agent check, loadsource=tool..." >&2
  start_probes tool
  run "(b) agent check, loadsource=tool" 1
  stop_probes
fi
C_KEYS=${C_KEYS:-agentcheckmaxrise=20}
if [[ $RUNS == *c* ]]; then
  echo "balance: (c) agent check, loadsource=cgroup ($C_KEYS)..." >&2
  # shellcheck disable=SC2086
  start_probes cgroup $C_KEYS
  run "(c) agent check, loadsource=cgroup" 1
  stop_probes
fi

echo
echo "Machine: $(nproc) cores; load average at the end: $(cut -d' ' -f1-3 /proc/loadavg) (other work on the machine skews latencies)."
echo "Three backends, each ${CPU_MS} ms of processor time a request in a cgroup limited to $((QUOTA_US / 1000)) % of a processor;"
echo "$RATE requests/s open-loop for $SECONDS_RUN s; a hog joins backend 1's cgroup from ${HOG_START} s to $((HOG_START + HOG_SECONDS)) s."
echo "HAProxy round-robin, agent-inter 1s. (c): loadsource=cgroup $C_KEYS."
echo
echo "| Run | backend 1 share % before / during / after | p50 / p99 / max ms during the hog | p99 ms whole run | errors | share down / back s after hog start / end |"
echo "| --- | --- | --- | --- | --- | --- |"
printf '%s\n' "${rows[@]}"
