#!/usr/bin/env bash
# One file from one client through a server to another client on loopback,
# against a plain relay of the same bytes in the same run. Runs on its own,
# never in the test suite:
#
#     bench/net_transfer.sh [MiB] [runs] [build folder]     (256 MiB, 5 runs, build/)
#
# Three ways, each run afresh every time, in turn:
#   relay         bench/net_relay.cpp: the sender reads the file, the relay
#                 writes it to its own file and forwards it, the receiver
#                 writes it; no protocol at all
#   roomcrate     roomcrate-server with two test clients, both logged in:
#                 Bob waits for the file, Alice shares it, the server stores
#                 it and sends it on to Bob as it arrives; in the clear
#   roomcrate+TLS the same on TLS (a certificate made by net_relay certs)
# The time runs from the sender's start to the end of the later of sender
# and receiver (Bob's login before it is not counted); cmp checks each copy
# afterwards. CPU time (user + system) and peak memory (maximum resident
# set) are GNU time's, of each process over its whole life. Each figure is
# the median of the runs. A sync before each run starts it with the disk
# quiet; nothing waits for the disk after, as nothing in the compared
# programs does.
set -euo pipefail
mib="${1:-256}"
runs="${2:-5}"
build="$(cd "${3:-build}" && pwd)"
relay_bin="$build/bench/net_relay"
server_bin="$build/server/roomcrate-server"
client_bin="$build/client/roomcrate-testclient"
work="$(mktemp -d)"
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT
cd "$work"

head -c "$((mib * 1048576))" /dev/urandom > big.bin
"$relay_bin" certs .
echo 'the secret of alice' > alice.secret
echo 'the secret of bob' > bob.secret

now() { date +%s.%N; }
wait_for() { for _ in $(seq 400); do eval "$1" && return 0; sleep 0.025; done; echo "timed out: $1" >&2; exit 1; }
# "cpu-seconds peak-KiB" of a process that ran under GNU time -o NAME.time.
figures() { awk '{ printf "%.2f %d", $2 + $3, $4 }' "$1.time"; }
timed() { local name="$1"; shift; /usr/bin/time -f "%e %U %S %M" -o "$name.time" "$@"; }

# Each prints: seconds, then cpu and peak of sender, middle, receiver.
run_relay() {
    rm -f relay.port store.bin copy.bin
    timed middle "$relay_bin" relay relay.port store.bin & local middle=$!
    wait_for '[ -s relay.port ]'
    local port; port=$(cat relay.port)
    timed receiver "$relay_bin" receive "$port" copy.bin & local receiver=$!
    sleep 0.2
    local start; start=$(now)
    timed sender "$relay_bin" send "$port" big.bin
    wait "$receiver"
    local end; end=$(now)
    wait "$middle"
    cmp -s big.bin copy.bin || { echo "relay: the copy differs" >&2; exit 1; }
    echo "$(echo "$end - $start" | bc) $(figures sender) $(figures middle) $(figures receiver)"
}

run_roomcrate() {
    local tls="$1"
    rm -rf srv alice bob copy.bin && mkdir srv
    {
        printf '[server]\nnumber = 1\nport = 0\nport_file = "server.port"\nhome = "home"\n'
        [ "$tls" = 1 ] && printf 'certificate = "%s/bench.pem"\nprivate_key = "%s/bench.key"\n' "$work" "$work"
        printf '\n[[conference]]\nid = 100\nfile_ids = [1, 1000]\n'
        printf '\n[[conference.user]]\nnumber = 10001\nname = "alice"\n'
        printf '\n[[conference.user]]\nnumber = 10002\nname = "bob"\n'
    } > srv/server.toml
    "$server_bin" passwd --config srv/server.toml alice < alice.secret > /dev/null
    "$server_bin" passwd --config srv/server.toml bob < bob.secret > /dev/null
    (cd srv && exec /usr/bin/time -f "%e %U %S %M" -o ../middle.time "$server_bin" server.toml > server.out 2> server.err) &
    local middle=$!
    wait_for '[ -s srv/server.port ]'
    local address; address="127.0.0.1:$(cat srv/server.port)"
    local -a options=(--server "$address" --conference 100 --timeout 600)
    [ "$tls" = 1 ] && options+=(--trust "$work/bench-ca.pem")
    timed receiver "$client_bin" "${options[@]}" --user 10002 --name bob --secret-file bob.secret --home bob \
        get big.bin copy.bin > bob.out 2> bob.err & local receiver=$!
    wait_for 'grep -q "bob (10002) is in conference" srv/server.err'
    local start; start=$(now)
    timed sender "$client_bin" "${options[@]}" --user 10001 --name alice --secret-file alice.secret --home alice \
        share big.bin > alice.out 2> alice.err
    wait "$receiver"
    local end; end=$(now)
    # The server is GNU time's child; SIGTERM is its clean stop.
    kill -TERM "$(pgrep -P "$middle")"
    wait "$middle" || true
    cmp -s big.bin copy.bin || { echo "roomcrate: the copy differs" >&2; exit 1; }
    echo "$(echo "$end - $start" | bc) $(figures sender) $(figures middle) $(figures receiver)"
}

for way in relay roomcrate roomcrate+TLS; do
    : > "$way.runs"
    for _ in $(seq "$runs"); do
        sync
        case "$way" in
            relay) run_relay >> "$way.runs" ;;
            roomcrate) run_roomcrate 0 >> "$way.runs" ;;
            roomcrate+TLS) run_roomcrate 1 >> "$way.runs" ;;
        esac
    done
done

# The median of each column.
medians() {
    local file="$1" n; n=$(wc -l < "$file")
    for col in 1 2 3 4 5 6 7; do
        sort -g -k"$col","$col" "$file" | awk -v c="$col" -v m="$(( (n + 1) / 2 ))" 'NR == m { printf "%s ", $c }'
    done
}
read -r relay_s _ <<< "$(medians relay.runs)"
printf '%d MiB on loopback, median of %d runs; CPU is user + system, peak is the maximum resident set\n' "$mib" "$runs"
printf '%-14s %9s %8s %7s  %-22s %-22s %-22s\n' "" "MiB/s" "s" "relay%" "sender cpu s / peak" \
    "relay|server cpu/peak" "receiver cpu / peak"
for way in relay roomcrate roomcrate+TLS; do
    read -r s c1 m1 c2 m2 c3 m3 <<< "$(medians "$way.runs")"
    printf '%-14s %9.1f %8.2f %6.0f%%  %7.2f s %7.1f MiB    %7.2f s %7.1f MiB    %7.2f s %7.1f MiB\n' "$way" \
        "$(echo "$mib / $s" | bc -l)" "$s" "$(echo "100 * $relay_s / $s" | bc -l)" \
        "$c1" "$(echo "$m1 / 1024" | bc -l)" "$c2" "$(echo "$m2 / 1024" | bc -l)" "$c3" "$(echo "$m3 / 1024" | bc -l)"
done
