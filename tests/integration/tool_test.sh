#!/usr/bin/env bash
# tool_test.sh FERROW WATCH_SERVICE PUBLISH_INSTANCE CALL_SERVICE
# The `ferrow` tool and the README's three examples, run as a user runs them,
# against a real ZooKeeper server that this script starts on a free loopback
# port and kills by its process id on exit. Every check that fails prints
# one line; the script exits 1 if any did.
set -uo pipefail
ferrow=$1 watch_service=$2 publish_instance=$3 call_service=$4
source "$(dirname "$0")/script_support.sh"
start_zookeeper

# Watch (the empty service's view is complete first), then register,
# update, list, get and unregister one instance.
"$ferrow" --zk "$zk" watch tool --json >"$dir/watch" 2>"$dir/watch.err" & watch=$!
pids+=("$watch")
check "watch synced" "$(line "$dir/watch" 1)" '{"event":"synced","service":"tool","instances":0}'
"$ferrow" --zk "$zk" register tool --host 10.0.0.1 --port 8080 --zone eu-1 --meta env=prod --compress >"$dir/reg" 2>"$dir/reg.err" & reg=$!
pids+=("$reg")
id=$(line "$dir/reg" 1)
added=$(line "$dir/watch" 2)
stamp=$(grep -o '"registered_at_ms":"[0-9]*"' <<<"$added")
# The weight is printed as clients choose by it: 1 when the publisher set none.
record='{"host":"10.0.0.1","port":8080,"protocol":"","version":"","zone":"eu-1","metadata":{"env":"prod"},'$stamp',"weight":1}'
check "watch added" "$added" '{"event":"added","service":"tool","id":"'"$id"'","instance":'"$record"'}'
run "$ferrow" --zk "$zk" update tool "$id" --weight 77 --meta added=yes --remove-meta env >/dev/null; check "update" $? 0
record=${record/'"metadata":{"env":"prod"}'/'"metadata":{"added":"yes"}'}
record=${record/'"weight":1'/'"weight":77'}
check "watch modified" "$(line "$dir/watch" 3)" '{"event":"modified","service":"tool","id":"'"$id"'","instance":'"$record"'}'
check "get" "$(run "$ferrow" --zk "$zk" get tool "$id" --json)" '{"id":"'"$id"'","instance":'"$record"'}'
check "list" "$(run "$ferrow" --zk "$zk" list tool --json)" '[{"id":"'"$id"'","instance":'"$record"'}]'
check "services" "$(run "$ferrow" --zk "$zk" services --json)" '[{"service":"tool","instances":1,"unreadable":0}]'
check "pick" "$(run "$ferrow" --zk "$zk" pick tool --zone eu-2 --count 2 --json)" \
  "$(printf '{"id":"%s","instance":%s}\n' "$id" "$record" "$id" "$record")"
kill -TERM "$reg"
exited "$reg"; check "register ends on SIGTERM" $? 0
check "watch removed" "$(line "$dir/watch" 4)" '{"event":"removed","service":"tool","id":"'"$id"'"}'
out=$(run "$ferrow" --zk "$zk" pick tool 2>"$dir/err")
check "pick from an empty service" "$?|$out|$(cat "$dir/err")" "1||ferrow: no instance of service 'tool' is available: it has no instance"
kill -INT "$watch"
exited "$watch"; check "watch ends on SIGINT" $? 0

# Each failure: its exit code and one line on standard error, nothing on standard output.
"$ferrow" --zk "$zk" register tool --host h --port 1 >"$dir/taken" 2>/dev/null & taken=$!
pids+=("$taken")
taken_id=$(line "$dir/taken" 1) missing=0b5a2e8c-1d7f-4c3a-9e2b-5f6a7b8c9d0e unreachable=127.0.0.1:$(free_port)
fails 1 "ferrow: cannot connect to ZooKeeper at $unreachable within 500 ms" \
  env FERROW_ZK="$unreachable" "$ferrow" --session-timeout 500 list any
fails 1 "ferrow: service 'nothing' does not exist" "$ferrow" --zk "$zk" list nothing
fails 1 "ferrow: the chroot '/absent' of connect string '$zk/absent' does not exist" "$ferrow" --zk "$zk/absent" watch tool
fails 1 "ferrow: cannot start a session with 'nowhere.invalid:2181': no server name in it resolves to an address" \
  "$ferrow" --zk nowhere.invalid:2181 list tool
fails 1 "ferrow: invalid connect string 'garbage'" "$ferrow" --zk garbage list tool
fails 1 "ferrow: instance $missing of service 'tool' does not exist" "$ferrow" --zk "$zk" get tool "$missing"
fails 1 "ferrow: instance $taken_id of service 'tool' is already registered" \
  "$ferrow" --zk "$zk" register tool --host h --port 1 --id "$taken_id"
fails 2 "'not-a-uuid' is not a UUID" "$ferrow" --zk "$zk" get tool not-a-uuid
fails 2 "ferrow: unknown command 'bogus' (see ferrow --help)" "$ferrow" --zk "$zk" bogus tool
fails 2 "ferrow: --zk: the connect string is empty" "$ferrow" --zk '' list tool
for strategy in fastest 1; do
  fails 2 "'$strategy' is none of round-robin, random, weighted, sticky, least-request and by-key" \
    "$ferrow" --zk "$zk" pick tool --strategy "$strategy"
done
fails 2 "'novalue' is not KEY=VALUE" "$ferrow" --zk "$zk" register tool --host h --port 1 --meta novalue

# Access control: the operator (credentials in a file of its own) protects a
# service for alice (hashed here, given in a file that is trimmed and may
# hold comments); a stranger's register and another publisher's update are
# refused with the node and permission named, while anyone may read.
printf 'op:secret\n' >"$dir/op"
fails 2 "may be read or written by others than its owner" "$ferrow" --zk "$zk" --auth-file "$dir/op" acl tool
chmod 600 "$dir/op"
printf '# publishers\n\n  alice:pw-a\r\n' >"$dir/publishers"
printf 'alice:pw-a\ndigest:bob:short\n' >"$dir/bad-publishers"
fails 2 "ferrow: $dir/bad-publishers:2: the HASH of digest:USER:HASH must be 28 characters" \
  "$ferrow" --zk "$zk" --auth-file "$dir/op" protect guarded --publishers-file "$dir/bad-publishers"
# A file's line that cannot be meant is named, never read as an identity.
printf '\357\273\277alice:pw-a\n' >"$dir/bom-publishers"
printf 'alice:pw-a\nbob:\n' >"$dir/empty-publishers"
printf 'alice:pw-a\nbob:p\0w\n' >"$dir/nul-publishers"
printf 'alice:pw-a\n\357\273\277bob:pw-b\n' >"$dir/bom2-publishers"
for bad in "bom-publishers:1: starts with a UTF-8 byte-order mark" "empty-publishers:2: credentials give an empty password" \
           "nul-publishers:2: holds a NUL byte" "bom2-publishers:2: starts with a UTF-8 byte-order mark"; do
  fails 2 "ferrow: $dir/$bad" "$ferrow" --zk "$zk" --auth-file "$dir/op" protect guarded --publishers-file "$dir/${bad%%:*}"
done
fails 2 "ferrow: FERROW_AUTH excludes --auth-file" env FERROW_AUTH=op:secret "$ferrow" --zk "$zk" --auth-file "$dir/op" acl tool
fails 2 "ferrow: FERROW_AUTH: credentials give an empty password" env FERROW_AUTH=op: "$ferrow" --zk "$zk" acl tool
# Every password of an option given several values leaves the process list
# (here while the tool waits for an unreachable ensemble).
"$ferrow" --zk "$unreachable" --session-timeout 20000 --auth-file "$dir/op" protect guarded \
  --publisher alice:pw-a bob:pw-b >/dev/null 2>"$dir/two" & two=$!
pids+=("$two")
line "$dir/two" 1 >/dev/null
check "--publisher hidden, every value" "$(tr '\0' ' ' <"/proc/$two/cmdline")" \
  "$ferrow --zk $unreachable --session-timeout 20000 --auth-file $dir/op protect guarded --publisher alice:x bob:x       "
kill "$two"
fails 2 "ferrow: protect needs the operator's credentials" "$ferrow" --zk "$zk" protect guarded --publisher alice:pw-a
fails 1 "ferrow: service 'tool' is protected, but these instances are not safe: $taken_id (it grants world:anyone read,write,create,delete,admin); --lock-instances locks or removes them" \
  "$ferrow" --zk "$zk" --auth-file "$dir/op" protect tool --publishers-file "$dir/publishers"
check "protect" "$(run "$ferrow" --zk "$zk" --auth-file "$dir/op" protect guarded --publishers-file "$dir/publishers" |
  sed -E 's|:[A-Za-z0-9+/]{27}=|:HASH|' | tr '\n' ,)" \
  "world:anyone read,digest:op:HASH read,write,create,delete,admin,digest:alice:HASH create,delete,"
FERROW_AUTH=alice:pw-a "$ferrow" --zk "$zk" register guarded --host a --port 1 >"$dir/alice" 2>&1 & alice=$!
pids+=("$alice")
alice_id=$(line "$dir/alice" 1)
check "acl as anyone" "$(run "$ferrow" --zk "$zk" acl guarded | tr '\n' ,)" \
  "world:anyone read,digest:op:x read,write,create,delete,admin,digest:alice:x create,delete,"
check "acl as anyone, JSON" "$(run "$ferrow" --zk "$zk" acl guarded --json | cut -c1-60)" \
  '[{"scheme":"world","id":"anyone","perms":["read"]},{"scheme"'
# Under systemd, credentials handed to the unit (LoadCredential=ferrow-auth:FILE).
mkdir "$dir/creds" && cp "$dir/op" "$dir/creds/ferrow-auth"
check "credentials of the unit" "$(run env CREDENTIALS_DIRECTORY="$dir/creds" "$ferrow" --zk "$zk" acl guarded |
  sed -E 's|:[A-Za-z0-9+/]{27}=|:HASH|' | head -2 | tr '\n' ,)" "world:anyone read,digest:op:HASH read,write,create,delete,admin,"
check "list a protected service" "$(run "$ferrow" --zk "$zk" list guarded | cut -d' ' -f1-2)" "$alice_id a:1"
check "an instance's acl" "$(run "$ferrow" --zk "$zk" acl guarded "$alice_id" | tr '\n' ,)" \
  "world:anyone read,digest:alice:x read,write,create,delete,admin,"
# A publisher may add a node nobody else can read: list skips it, naming it.
hostile=5d1f9c3e-7a2b-4c8d-9e0f-1a2b3c4d5e6f
printf 'addauth digest alice:pw-a\ncreate /srv2/guarded/%s x auth::cdrwa\nquit\n' "$hostile" |
  run /usr/share/zookeeper/bin/zkCli.sh -server "$zk" >/dev/null 2>&1
check "list skips what it cannot read" "$(run "$ferrow" --zk "$zk" list guarded 2>"$dir/err" | cut -d' ' -f1-2)|$(cat "$dir/err")" \
  "$alice_id a:1|ferrow: warning: instance $hostile of service 'guarded' skipped: not authenticated"
# An upper-case twin of alice's id is no instance, and a service node
# nobody else may read is skipped with a warning: services goes on.
printf 'addauth digest alice:pw-a\ncreate /srv2/guarded/%s x\ncreate /srv2/sealed x auth::cdrwa\nquit\n' \
  "$(echo "$alice_id" | tr a-f A-F)" | run /usr/share/zookeeper/bin/zkCli.sh -server "$zk" >/dev/null 2>&1
check "services counts it apart" "$(run "$ferrow" --zk "$zk" services 2>"$dir/err" | grep '^guarded ')|$(cat "$dir/err")" \
  "guarded 1 (1 unreadable)|ferrow: warning: service 'sealed' skipped: not authenticated"
# watch names it in one log record and goes on: it reports the next instance.
"$ferrow" --zk "$zk" watch guarded >"$dir/guarded" 2>"$dir/guarded.err" & guarded=$!
pids+=("$guarded")
check "watch skips what it cannot read" "$(line "$dir/guarded" 2)" "synced 1 instances"
fails 1 "ferrow: permission denied: create on /srv2/guarded (the service accepts its listed publishers only; see --auth)" \
  "$ferrow" --zk "$zk" register guarded --host h --port 1
fails 1 "ferrow: permission denied: write on /srv2/guarded/$alice_id (only the instance's publisher may change its record)" \
  env FERROW_AUTH=bob:pw-b "$ferrow" --zk "$zk" update guarded "$alice_id" --weight 0
fails 1 "ferrow: permission denied: admin on /srv2/guarded (its access list does not let these credentials change it; see ferrow acl guarded)" \
  env FERROW_AUTH=mallory:x "$ferrow" --zk "$zk" protect guarded --publisher digest:mallory:AAAAAAAAAAAAAAAAAAAAAAAAAAA=
# --auth warns, and leaves the process list once read.
"$ferrow" --zk "$zk" --auth alice:pw-a register guarded --host b --port 2 >/dev/null 2>"$dir/hidden" & hidden=$!
pids+=("$hidden")
check "--auth warns" "$(line "$dir/hidden" 1)" \
  "ferrow: warning: --auth showed the password in the process list; use --auth-file or FERROW_AUTH"
check "--auth hidden, its length too" "$(tr '\0' ' ' <"/proc/$hidden/cmdline")" \
  "$ferrow --zk $zk --auth alice:x register guarded --host b --port 2    "
check "watch goes on past what it cannot read" "$(line "$dir/guarded" 3 | cut -d' ' -f1,3)" "added b:2"
kill -TERM "$guarded"  # first: the registration's end would change the list again
exited "$guarded"; check "watch ends on SIGTERM" $? 0
kill -TERM "$hidden"
# Named again each time the list of instances changes, as the watcher reads
# every instance it does not know yet.
check "watch names what it cannot read" "$(grep -c "Error watching instance /srv2/guarded/$hostile" "$dir/guarded.err")" 2

# The README's examples: watch_service prints what publish_instance does.
mkfifo "$dir/stdin"
"$watch_service" "$zk" example 3 60 >"$dir/example" 2>/dev/null & example=$!
pids+=("$example")
check "watch_service starts" "$(line "$dir/example" 1)" "watching example"
"$publish_instance" "$zk" example 10.1.2.3 8443 <"$dir/stdin" >"$dir/published" 2>"$dir/published.err" & publish=$!
pids+=("$publish")
exec 4>"$dir/stdin"
id=$(line "$dir/published" 1)
check "watch_service added" "$(line "$dir/example" 2)" "added $id 10.1.2.3:8443"
echo fail=yes >&4
check "watch_service modified" "$(line "$dir/example" 3)" "modified $id 10.1.2.3:8443"
exec 4>&-
exited "$publish"; check "publish_instance ends with its input" $? 0
check "a library program is quiet by default" "$(cat "$dir/published.err")" ""
check "watch_service removed" "$(line "$dir/example" 4)" "removed $id"
exited "$example"; check "watch_service ends after three events" $? 0

# call_service, with the defaults, stops choosing the one of two instances
# whose calls keep failing once it failed three times in a row, and goes on
# with the other.
"$ferrow" --zk "$zk" register calls --host 10.1.2.3 --port 80 --meta fail=yes >"$dir/failing" 2>&1 & failing=$!
"$ferrow" --zk "$zk" register calls --host 10.1.2.4 --port 80 >"$dir/healthy" 2>&1 & healthy=$!
pids+=("$failing" "$healthy")
line "$dir/failing" 1 >/dev/null
line "$dir/healthy" 1 >/dev/null
calls=$(run "$call_service" "$zk" calls 10 | tail -n 4 | cut -d' ' -f3- | sort | uniq -c | tr -s ' ')
check "call_service skips the failing instance" "$calls" " 4 10.1.2.4:80"
kill -TERM "$failing" "$healthy"
exited "$failing"; exited "$healthy"

# Last, as it closes the root to every other check: the operator protects
# it, and only alice and the operator add services from then on. A
# password given on the command line is warned of, as --auth's is.
# The service alice sealed above is out of the operator's reach: named.
check "protect the root" "$(run "$ferrow" --zk "$zk" --auth-file "$dir/op" protect-root --creator alice:pw-a 2>"$dir/err" |
  sed -E 's|:[A-Za-z0-9+/]{27}=|:HASH|' | tr '\n' ,)|$(tr '\n' , <"$dir/err")" \
  "world:anyone read,digest:op:HASH read,write,create,delete,admin,digest:alice:HASH create,|ferrow: warning: --creator showed the password in the process list; use digest:USER:HASH,ferrow: /srv2 is protected, but the operator cannot administer services 'sealed': only their creators or the server's super user can protect or remove them,"
fails 1 "ferrow: permission denied: create on /srv2 (only the operator and the creators listed on the root may add services)" \
  "$ferrow" --zk "$zk" register newsvc --host h --port 1

[ "$failures" = 0 ] || { echo "$failures checks failed; server log: $dir/server.log" >&2; exit 1; }
echo "all checks passed"
