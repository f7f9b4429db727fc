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
url=$(until_true grep -q "serving metrics at" "$dir/watch.err" && sed -n 's/^ferrow: serving metrics at //p' "$dir/watch.err")
check "the endpoint is named" "${url%:*}" "http://127.0.0.1"

# value SERIES: the sample of SERIES (name and labels, as printed) in a
# fresh scrape, which promtool must accept.
value() {
  curl -sf "$url" >"$dir/scrape" || return 1
  promtool check metrics <"$dir/scrape" >"$dir/promtool" 2>&1 || { cat "$dir/promtool" >&2; return 1; }
  awk -v series="$1" '$1 == series { print $2 }' "$dir/scrape"
}
is() { [ "$(value "$1")" = "$2" ]; }  # is SERIES VALUE
# expect WHAT SERIES VALUE: waits for SERIES to read VALUE.
expect() { until_true is "$2" "$3" || check "$1" "$(value "$2")" "$3"; }

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

# register serves its own process's figures: its instance, published.
"$ferrow" --zk "$zk" register metered --host c --port 1 --metrics 127.0.0.1:0 >"$dir/reg" 2>"$dir/reg.err" &
pids+=($!)
reg_id=$(line "$dir/reg" 1)
reg_url=$(until_true grep -q "serving metrics at" "$dir/reg.err" && sed -n 's/^ferrow: serving metrics at //p' "$dir/reg.err")
check "register's instance published" \
  "$(curl -sf "$reg_url" | awk -v s='ferrow_registration_published{service="metered",id="'"$reg_id"'"}' '$1 == s { print $2 }')" 1

check "other paths" "$(curl -s -o /dev/null -w '%{http_code}' "${url%/metrics}/other")" 404
fails 2 "ferrow: --metrics 'nowhere': no host and port (expected HOST:PORT, say 127.0.0.1:9464)" \
  "$ferrow" --zk "$zk" register metered --host c --port 1 --metrics nowhere

[ "$failures" = 0 ] || { echo "$failures checks failed; server log: $dir/server.log" >&2; exit 1; }
echo "all checks passed"
