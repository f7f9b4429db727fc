#!/usr/bin/env bash
# metrics_test.sh FERROW
# `ferrow watch --metrics` scraped with curl while instances come and go and
# the session expires, against a real ZooKeeper server reached through a
# relay (socat) that the script stops for longer than the session lasts.
# Every scrape is checked by promtool. Every check that fails prints one
# line; the script exits 1 if any did.
set -uo pipefail
ferrow=$1
source "$(dirname "$0")/script_support.sh"
start_zookeeper

relay_port=$(free_port)
start_relay() {
  setsid socat "TCP-LISTEN:$relay_port,bind=127.0.0.1,reuseaddr,fork" "TCP:127.0.0.1:$port" 2>/dev/null &
  relay=$!
  pids+=("$relay")
  until_true bash -c "exec 3<>/dev/tcp/127.0.0.1/$relay_port" 2>/dev/null
}
start_relay

# Port 0: the tool takes a free one and names it.
"$ferrow" --zk "127.0.0.1:$relay_port" --session-timeout 4000 watch metered --metrics 127.0.0.1:0 \
  >"$dir/watch" 2>"$dir/watch.err" &
pids+=($!)
# served NAME: the address that the process writing $dir/NAME.err serves.
served() { until_true grep -q "serving metrics at" "$dir/$1.err" && sed -n 's/^ferrow: serving metrics at //p' "$dir/$1.err"; }
url=$(served watch)
check "the endpoint is named" "${url%:*}" "http://127.0.0.1"

# value SERIES [URL]: the sample of SERIES (name and labels, as printed) in
# a fresh scrape of URL (the watch's by default), which promtool must accept.
value() {
  curl -sf "${2:-$url}" >"$dir/scrape" || return 1
  promtool check metrics <"$dir/scrape" >"$dir/promtool" 2>&1 || { cat "$dir/promtool" >&2; return 1; }
  awk -v series="$1" '$1 == series { print $2 }' "$dir/scrape"
}
is() { [ "$(value "$1" "${3:-}")" = "$2" ]; }  # is SERIES VALUE [URL]
# expect WHAT SERIES VALUE [URL]: waits for SERIES to read VALUE.
expect() { until_true is "$2" "$3" "${4:-}" || check "$1" "$(value "$2" "${4:-}")" "$3"; }

s='{service="metered"}'
expect "empty service complete" "ferrow_watcher_view_complete$s" 1
expect "no instance" "ferrow_watcher_instances$s" 0
check "connected" "$(value 'ferrow_connection_connected{connection="1"}')" 1

register() { "$ferrow" --zk "$zk" register metered --host "$1" --port 1 >/dev/null 2>&1 & pids+=($!); }
register a; first=$!
register b
expect "two instances" "ferrow_watcher_instances$s" 2
check "added twice" "$(value 'ferrow_watcher_events_total{service="metered",event="added"}')" 2
kill -TERM "$first"
expect "one left" "ferrow_watcher_instances$s" 1
check "removed once" "$(value 'ferrow_watcher_events_total{service="metered",event="removed"}')" 1

# The relay stops for longer than the session: the server expires it, the
# tool learns of it once it reaches the server again and opens another.
session=$(value 'ferrow_connection_sessions_opened_total{connection="1"}')
check "one session" "$session" 1
id=$(grep -o 'session_id="0x[0-9a-f]*"' "$dir/scrape" | cut -d'"' -f2)
kill -9 -- "-$relay"
expect "disconnected" 'ferrow_connection_connected{connection="1"}' 0
# Stale from the loss of the connection, long before the expiry is known.
check "stale at once" "$(value "ferrow_watcher_view_complete$s")" 0
check "connecting" "$(value 'ferrow_connection_state{connection="1",state="connecting"}')" 1
check "disconnected for a while" "$(value 'ferrow_connection_disconnected_seconds{connection="1"}' | grep -c '^0$')" 0
# A dump that did not come proves nothing: the session must be missing from one.
expired() { four_letter dump >"$dir/dump" && grep -q "^SessionTracker dump" "$dir/dump" && ! grep -q "$id" "$dir/dump"; }
until_true expired || check "the server expired $id" "alive" "expired"
start_relay
expect "expiry counted" 'ferrow_connection_session_expiries_total{connection="1"}' 1
expect "a second session" 'ferrow_connection_sessions_opened_total{connection="1"}' 2
expect "complete again" "ferrow_watcher_view_complete$s" 1
expect "the instance read again" "ferrow_watcher_instances$s" 1
# The expiry reports the one instance removed, the fresh read adds it again.
check "removed by the expiry" "$(value 'ferrow_watcher_events_total{service="metered",event="removed"}')" 2
check "added by the fresh read" "$(value 'ferrow_watcher_events_total{service="metered",event="added"}')" 3
check "the service read again as a retry" "$(value "ferrow_watcher_read_retries_total$s" | grep -c '^[1-9]')" 1
check "another session id" "$(grep -c "$id" "$dir/scrape")" 0
# The stream a consumer applies: the one removal, the moment the view went
# stale, and no removal and no addition of the instance that stayed.
line "$dir/watch" 6 >/dev/null
check "the stream keeps its view through an expiry" "$(sed -n '4,$p' "$dir/watch" | cut -d' ' -f1-2 | tr '\n' '|')" \
  "removed $(grep '^added .* a:1 ' "$dir/watch" | cut -d' ' -f2)|stale|synced 1|"

# Idle connections held open never delay a scrape; the process's own
# figures count them.
hostport=${url#http://} idle=()
hostport=${hostport%/metrics}
for _ in $(seq 64); do exec {fd}<>"/dev/tcp/${hostport%:*}/${hostport##*:}" && idle+=("$fd"); done
check "a scrape beside 64 idle connections" "$(curl -s --max-time 1 -o /dev/null -w '%{http_code}' "$url")" 200
check "open descriptors counted" "$(value process_open_fds | awk '{ print ($1 >= 64) }')" 1
for fd in "${idle[@]}"; do exec {fd}>&-; done
check "the library's version" "$(value "ferrow_build_info{version=\"$("$ferrow" --version | cut -d' ' -f2)\"}")" 1
promtool check rules "$(dirname "$0")/../../docs/alerts.yml" >"$dir/rules" 2>&1 || check "docs/alerts.yml" "$(cat "$dir/rules")" ""

# register_far NAME HOST ARGS...: registers HOST:1 through the relay,
# serving metrics; sets $far to its process id.
register_far() {
  "$ferrow" --zk "127.0.0.1:$relay_port" --session-timeout 4000 register metered --host "$2" --port 1 \
    --metrics 127.0.0.1:0 "${@:3}" >"$dir/$1" 2>"$dir/$1.err" & far=$!
  pids+=("$far")
}
# register serves its own process's figures. Its instance counts as
# published only while it is sure: 0 as soon as the connection is lost,
# long before the server could expire the session, and 1 again once
# reconnected.
register_far reg c; reg=$far reg_url=$(served reg)
reg_id=$(line "$dir/reg" 1)
published='ferrow_registration_published{service="metered",id="'"$reg_id"'",address="c:1"}'
expect "register's instance published" "$published" 1 "$reg_url"
reg_session=$(grep -o 'session_id="0x[0-9a-f]*"' "$dir/scrape" | cut -d'"' -f2)
kill -9 -- "-$relay"
expect "unsure once cut off" "$published" 0 "$reg_url"
check "said before the session expired" "$(four_letter dump | grep -c "^$reg_session")" 1
start_relay
expect "published again once reconnected" "$published" 1 "$reg_url"
# Stopped while cut off, it says that its instance stays, and exits 3.
kill -9 -- "-$relay"
expect "unsure once cut off again" "$published" 0 "$reg_url"
kill -TERM "$reg"
exited "$reg"; check "register that could not withdraw" $? 3
check "what it could not withdraw" "$(sed 1d "$dir/reg.err")" \
  "ferrow: instance $reg_id of service 'metered' not withdrawn: connection loss; it leaves the registry when its session expires"

# --wait-for-zookeeper: started while ZooKeeper is out of reach, it serves
# its metrics, says it waits, and publishes once the relay is back.
register_far patient e --wait-for-zookeeper; patient=$far wait_url=$(served patient)
until_true grep -q "^ferrow: cannot connect to ZooKeeper at 127.0.0.1:$relay_port for [0-9]* s; still trying$" \
  "$dir/patient.err" || check "waiting said" "$(cat "$dir/patient.err")" "a line per attempt"
check "metrics served while waiting" "$(value 'ferrow_connection_connected{connection="1"}' "$wait_url")" 0
start_relay
wait_id=$(line "$dir/patient" 1)
expect "published once reachable" 'ferrow_registration_published{service="metered",id="'"$wait_id"'",address="e:1"}' 1 "$wait_url"
kill -TERM "$patient"
exited "$patient"; check "withdrawn" $? 0

check "other paths" "$(curl -s -o /dev/null -w '%{http_code}' "${url%/metrics}/other")" 404
fails 2 "ferrow: --metrics 'nowhere': no host and port (expected HOST:PORT, say 127.0.0.1:9464)" \
  "$ferrow" --zk "$zk" register metered --host c --port 1 --metrics nowhere

[ "$failures" = 0 ] || { echo "$failures checks failed; server log: $dir/server.log" >&2; exit 1; }
echo "all checks passed"
