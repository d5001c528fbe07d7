#!/usr/bin/env bash
# One file shared and downloaded over the network host on loopback: a real
# roomcrate-server and two test clients, Alice uploading the file whole and
# then Bob downloading it. Says how long each half took, at what rate, and
# the peak memory (VmHWM) of each of the three processes; cmp checks the
# copy. Runs on its own, never in the test suite:
#     bench/net_transfer.sh [MiB] [build folder]     (256 MiB and build/ by default)
set -euo pipefail
mib="${1:-256}"
build="$(cd "${2:-build}" && pwd)"
work="$(mktemp -d)"
trap 'kill "$server_pid" 2>/dev/null || true; rm -rf "$work"' EXIT
cd "$work"
cat > server.toml <<TOML
[server]
number = 1
port = 0
port_file = "server.port"
home = "home"

[[conference]]
id = 100
file_ids = [1, 1000]

[[conference.user]]
number = 10001
name = "alice"

[[conference.user]]
number = 10002
name = "bob"
TOML
head -c "$((mib * 1048576))" /dev/urandom > big.bin
"$build/server/roomcrate-server" server.toml > server.out 2> server.err &
server_pid=$!
for _ in $(seq 100); do [ -s server.port ] && break; sleep 0.05; done
address="127.0.0.1:$(cat server.port)"

# GNU time's "Maximum resident set size" is the peak of the whole run.
run_client() {
    local name="$1" user="$2"; shift 2
    local start end
    start=$(date +%s.%N)
    /usr/bin/time -f "%M" -o "$name.rss" "$build/client/roomcrate-testclient" --server "$address" \
        --conference 100 --user "$user" --home "$name" --timeout 600 "$@" > "$name.out" 2> "$name.err"
    end=$(date +%s.%N)
    echo "$end - $start" | bc
}
upload=$(run_client alice 10001 share big.bin)
download=$(run_client bob 10002 get big.bin copy.bin)
server_kib=$(awk '/VmHWM/ {print $2}' "/proc/$server_pid/status")
cmp -s big.bin copy.bin && same=identical || same=DIFFERENT
kill -TERM "$server_pid"; wait "$server_pid" || true

printf '%d MiB over loopback, the copy %s\n' "$mib" "$same"
printf '  upload   (alice -> server): %6.2f s, %7.1f MiB/s\n' "$upload" "$(echo "$mib / $upload" | bc -l)"
printf '  download (server -> bob):   %6.2f s, %7.1f MiB/s\n' "$download" "$(echo "$mib / $download" | bc -l)"
printf '  peak memory: server %d KiB, alice %d KiB, bob %d KiB\n' "$server_kib" "$(cat alice.rss)" "$(cat bob.rss)"
