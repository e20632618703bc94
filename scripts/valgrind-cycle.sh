#!/usr/bin/env bash
# Runs the probe under valgrind memcheck through one start, serve, stop cycle
# and fails on any memory error or definite leak.
set -euo pipefail
probe=${1:-build/quelmloadprobe}
dir=$(mktemp -d /tmp/quelm-valgrind-XXXXXX)
trap 'rm -rf "$dir"' EXIT
port=$((20000 + RANDOM % 30000))
cat > "$dir/quelmloadbalancing.properties" <<PROPS
varosa.config.quelmloadbalancing.port=$port
varosa.config.quelmloadbalancing.logdirectory=$dir
varosa.config.quelmloadbalancing.piddirectory=$dir
varosa.config.quelmloadbalancing.samplerate=5
varosa.config.quelmloadbalancing.windowsize=3
PROPS

valgrind --quiet --leak-check=full --errors-for-leak-kinds=definite --error-exitcode=99 \
  --log-file="$dir/valgrind.txt" "$probe" "$dir" &
vg=$!
for _ in $(seq 1 600); do
  [ -f "$dir/quelmloadprobe.pid" ] && break
  sleep 0.1
done
[ -f "$dir/quelmloadprobe.pid" ] || { echo "probe did not start under valgrind"; cat "$dir/valgrind.txt"; exit 1; }

request() { printf '%s' "$1" | timeout 10 socat -t 2 - "TCP:127.0.0.1:$port"; echo; }
request 'GET /?get&znalbinfo HTTP/1.0'
request '<znalbreq type="create"><host>127.0.0.1</host><port>9</port><samplerate>5000</samplerate><windowsize>3</windowsize><replyfreq>10000</replyfreq><percentchange>10</percentchange><stat>cpu</stat><stat>vmem</stat><id>1</id><version>1.0</version></znalbreq>'
request '<znalbreq type="kill"><id>1</id><version>1.0</version></znalbreq>'
request 'GET /'
sleep 2  # let the circuits' deferred deletion run

kill -TERM "$vg"
status=0
wait "$vg" || status=$?
cat "$dir/valgrind.txt"
if [ "$status" -ne 92 ]; then
  echo "valgrind cycle: probe exit status $status (expected 92; 99 means memcheck errors)"
  exit 1
fi
echo "valgrind cycle: clean (exit status 92, no memory errors, no definite leaks)"
