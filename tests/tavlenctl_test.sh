#!/usr/bin/env bash
# tavlenctl as its users meet it: what it prints and how it ends. Usage: TAVLENCTL COLLECTOR PROTOCOL_DOCUMENT
set -euo pipefail
tool=$1 collector=$2 document=$3 work=$(mktemp -d) failures=0
# Of this process's own, as other tests run at the same time.
address=127.$(($$ >> 16 & 127 | 128)).$(($$ >> 8 & 255)).$(($$ % 254 + 1)) port=$((20000 + $$ % 10000))
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT && cd "$work"

ctl() { timeout 20 "$tool" "$@"; }
# same NAME ACTUAL: compares with standard input. status COMMAND...: prints both streams, then the exit status.
same() { diff -u --label "$1: expected" --label actual - <(printf '%s\n' "$2") || failures=$((failures + 1)); }
status() { if "$@" 2>&1; then echo 'status 0'; else echo "status $?"; fi; }
# soon FILE TEXT: waits until the file holds the text.
soon() {
    for ((i = 0; i < 200; i++)); do grep -qF "$2" "$1" 2>/dev/null && return; sleep 0.05; done
    same "'$2'" "$(cat "$1")" </dev/null
}
bytes() { printf '%b' "$(fold -w 2 <<<"$1" | sed 's/^/\\x/' | tr -d '\n')"; }

# --- dump: every datagram of the document says what the line above it says, as text and in a capture of raw IP.
said=$(sed -n 's/^    \([0-9]*: .*=.*\)/\1/p' "$document")
[[ $(wc -l <<<"$said") -gt 50 ]]; same 'document' "$(ctl dump --brief "$document")" <<<"$said"
packets=$(sed -n 's/^    [0-9]*: .*/;/p; s/^    \([0-9a-f ]*\)$/\1/p' "$document" | tr -d ' \n' | tr ';' '\n' | sed 1d)
same 'names and labels of the catalogue, one in other words' "$(ctl dump "$document" >told; sed -nE 's/^\| ([0-9]+) \| .clpacket_(create_)?(\w+).*/  \1 \3/p' "$document" | grep -vxFf told
    sed -nE 's/^ +([0-9]+) ([a-z][a-z -]*): (string|u?int32)( .*)?$/\1 \3 \2/p' told | sort -u | while read -r field; do
        grep -q "\b$field\b" "$document" || echo "$field"; done)" <<<'1 int32 version'
little() { printf %08x "$1" | sed 's/\(..\)\(..\)\(..\)\(..\)/\4\3\2\1/'; }
frame() {
    local size=$((${#2} / 2 + 20)) # $1: flags and place, $2: payload
    bytes "$(little 5)$(little 6)$(little $size)$(little $size)4500$(printf %04x $size)0000${1}401100007f0000017f000002$2"
}
bytes d4c3b2a1020004000000000000000000ffff000065000000 >capture
while read -r packet; do
    udp=9c406c6f$(printf %04x $((${#packet} / 2 + 8)))0000 # every other one travels in fragments, the last first
    if ((${#packet} % 4)); then frame 0000 "$udp$packet"; else frame 0001 "$packet" && frame 2000 "$udp"; fi
done <<<"$packets" >>capture
same 'capture' "$(ctl dump --brief capture; ctl dump -bp 40000 -c 1 capture; status ctl dump --port 1 - <capture)" < <(
    printf '%s\n' "$said" "${said%%$'\n'*}" 'tavlenctl dump: no datagrams of port 1 in the capture' 'status 0')
# As od, hexdump -C and xxd write them, with lines that repeat.
long=0000001d00010100000001000310000000300000000000000000$(printf '%080d' 0) && bytes "$long" >binary
{ od -Ax -tx1 binary && od -Ax -tx1z binary | sed 's/^[0-9a-f]/00&/; s/  >\(.*\)<$/  |\1|/'; } >forms
fold -w 32 <<<"$long" | sed 's/..../ &/g; s/$/  dead beef/' | awk '{ printf "%08x:%s\n", 16 * (NR - 1), $0 }' >>forms
same 'forms of hex' "$(ctl dump --brief - < <(cat forms - <<<"$long") | uniq -c)" <<<"      4 29: 3:16='$(printf '^@%.0s' {1..48})'"
{ sed -n '/^    21:/,/^$/p' "$document" && echo 00000063000109ff; } >packets
same 'trees' "$(TZ=UTC ctl dump --count 1 capture | head -n 1; status ctl dump packets)" <<'TREES'
packet 1, 1970-01-01 00:00:05.000006, 127.0.0.1:40000 > 127.0.0.2:27759, 56 bytes
packet 1, 48 bytes
  21 db_changed
    1: int32 = 1
    2 count: int32 = 1
    3: array of structures, 1
      3: structure, 1
        5 identifier: string (2 bytes) = 'ab'
packet 2, 8 bytes
  99 (not in the catalogue), malformed
  note: mtb_binary_deserialize: ERROR: size was not enough to fully parse binary buffer
    00 00 00 63 00 01 09 ff
status 1
TREES
same 'odd packets' "$(printf '%s\n\n' 0000001d0001010000000200030c000000021b27 0000001d000302ff08 00 \
    0000001d00010100000009000102f9000104fff9000105fff9000106fffffff9000108fffffffffffffff9000109fffffffffffffff900010ac0e0000000010bc01c00000000000000011100000001fff9 | status ctl dump -b)" <<'ODD'
29: 3:12='^[\'' (the root holds 1 elements of 2 announced)
29: 3:2=-1 (the body is no root structure) (1 bytes behind the root are not looked at)
0: malformed (1 bytes are no packet)
29: 1:2=-7 1:4=-7 1:5=65529 1:6=-7 1:8=-7 1:9=18446744073709551609 1:10=-7 1:11=-7 1:17=[-7]
status 1
ODD

# --- send and drops: with a collector, and with nobody.
collect() { (ulimit -f 100000 && exec timeout 60 "$collector" --listenaddr "$address" -p "$port" "$@" >>collected) & }
send() { status ctl send -a "$address" -p "$@"; }
collect -c none && soon collected started && printf -v zeros %04500d 7
same 'send' "$(
    send "$port" -n sh "two  words" $'\e[1m' && send "$port" -n raw --raw -- -x
    printf 'one\n\nze\0ro\n%s' "$zeros" | send "$port" -n in
    send "$port" --count 500 --rate 5000 | sed -E 's/, (0\.(09|[1-9])|[1-9]).*/, 0.1/'
)" <<<$'status 0\nstatus 0\ntavlenctl send: zero bytes are sent as ^@\nstatus 0\nsent 500, failed 0, 0.1\nstatus 0'
soon collected 'test record 500'
same 'sent' "$(sed -nE '/^(sh|in|raw): /s/[0-9]{10}:/TIME:/p; /^raw/p; s/.*send: (test)/\1/p' collected | tr -s 0)" < <(
    printf '%s\n' 'sh: TIME:tavlenctl:0: send: two  words '$'\e[1m' 'raw: -x'
    { printf 'in: TIME:tavlenctl:0: send: %s\n' one '' ze^@ro 0 07 && printf 'test record %d\n' {1..500}; } | tr -s 0)
same 'to nobody' "$(send $((port + 1)) x; seq 3 | send $((port + 1)); send $((port + 1)) -c 20 x | cut -d, -f1,2)" < <(
    for result in '' '' $'sent 0, failed 20\n'; do
        printf 'tavlenctl send: record 1 to %s port %d: Connection refused' "$address" $((port + 1))
        printf ', nobody listens\n%bstatus 1\n' "$result"
    done)
same 'zeros' "$(head -c 1000000 /dev/zero | send "$port" -n zeros; ctl dump -b -c 1 < <(exec 2>&- && printf '%s\n\n' "$long" && exec sleep 25) | cut -c 1-6)" \
    <<<$'tavlenctl send: zero bytes are sent as ^@\nstatus 0\n29: 3:'
same 'drops' "$(ctl drops "$port" | grep -F "$address" | sed -E 's/ +/ /g; s/[0-9]+ T/N T/; s/[0-9]+$/N/'
    status ctl drops $((port + 1)))" < <(
    printf '%s\n' "$address:$port 0 0 N TavlenLogger/N" "tavlenctl drops: no UDP socket on port $((port + 1))" 'status 1')

# --- check: what it says of a setting is what the collector does; each warning by itself.
printf '%s\n' "listenaddr	= $address # here" DefaultLogDest=8 'defaultlogdest = 1' 'LogFileName = none' >conf
kill %1 && { wait %1 2>/dev/null || true; } && collect -l "$address" -c conf -p 1
same 'check' "$(status ctl check conf -- -p "$port" -l "$address" -c conf -p 1 -h)" < <(
    printf '%-16s = %-24s  %s\n' ListenAddr "$address" conf:1 ListenPort "$port" 'option -p' LogFileName "$address" \
        'option -l' DefaultLogDest '8 (file)' conf:2 RemoteLoggerAddr dont_use_localhost default RemoteLoggerPort 27759 default
    printf '%s: warning: %s\n' 'option -p' 'has been given before, the first counts' 'option -h' 'has no value and is ignored' \
        conf:3 'DefaultLogDest is given again, line 2 counts'
    echo 'status 1'; soon "$address" started)
warnings() { printf '%b\n' "$(sed "s/;/\\\\n/g; s/ZEROS/${zeros:0:2046}/" <<<"$1")" >one && status ctl check one | sed '/ = /d; s/^one:\([0-9]*\): warning: /\1 /' | paste -sd ';'; }
while IFS='|' read -r lines expected; do same "$lines" "$(warnings "$lines")" <<<"$expected"; done <<'CASES'
 # = 1;;\r; LISTENPORT\t= 1|status 0
ListenAdr = 1;no;\t=;far off = 1;logfile=1|1 unknown key 'ListenAdr', ListenAddr is meant?;2 no '=' in this line, it is passed over;3 no key in front of the '=';4 unknown key 'far off';5 unknown key 'logfile', LogFileName is meant?;status 1
LogFileName = "a#b";DefaultLogDest=8|1 the value ends at the '#', which starts a comment anywhere;1 quotation marks become part of the value '"a';status 1
LogFileName =;\0|1 LogFileName has an empty value;2 a zero byte ends what is read of this line;1 LogFileName has no effect: DefaultLogDest does not hold 8;status 1
#ZEROSListenPort=7|1 a line above 2047 bytes is read in pieces;status 1
ListenPort=65536;RemoteLoggerPort=-1|1 '65536' is no number from 0 to 65535 and no name of a UDP service;2 '-1' is no number from 0 to 65535 and no name of a UDP service;2 RemoteLoggerPort has no effect: DefaultLogDest does not hold 16;status 1
DefaultLogDest=0x8;LogFileName=f|1 '0x8' is read as the number 0;1 the destination mask 0 writes nowhere;2 LogFileName has no effect: DefaultLogDest does not hold 8;status 1
DefaultLogDest=-1|1 the destination mask -1 is outside 0 to 31, 1 (standard output) stays in use;status 1
DefaultLogDest=4294967297|1 '4294967297' is read as the number 1;status 1
DefaultLogDest=8;LogFileName=none/log|2 this user cannot write to the file 'none/log': No such file or directory;status 1
DefaultLogDest=16|1 16 is a further collector, but RemoteLoggerAddr is not set;status 1
DefaultLogDest=16;RemoteLoggerAddr=127.0.0.9|2 the further collector is this one: its lines would go round for ever;status 1
DefaultLogDest=16;ListenAddr=::1;RemoteLoggerAddr=0:0::1|3 the further collector is this one: its lines would go round for ever;status 1
DefaultLogDest=16;ListenAddr=127.0.0.1;RemoteLoggerAddr=127.0.0.9|status 0
DefaultLogDest=16;ListenPort=1;RemoteLoggerAddr=127.0.0.9|status 0
CASES

# --- view.
log() { printf '%b' "$1" >>log; }
log '1700000000:main.cpp:1: main: on\nme: 1700000001:a.c:2: f: \e]0;x\a\x9b\xc2\x85 \xc3\xa9 \xe2\x80\xae\xe0\x80\xaf\xed\xa0\x80\xff\n'
log 'logger: you: 1700000001:b.c:3: g: x: y\nme: 1700000002 is no time\nno name\n'
same 'view' "$(ctl view --no-follow --utc --color=always log)" < <(
    printf '%b' '2023-11-14 22:13:20Z main.cpp:1: main: on\n\e[32mme: \e[0m2023-11-14 22:13:21Z a.c:2: f: ^[]0;x^G'
    printf '%s\n' '\x9b\xc2\x85 é \u202e\xe0\x80\xaf\xed\xa0\x80\xff'
    printf '%b\n' '\e[31mlogger: you: \e[0m2023-11-14 22:13:21Z b.c:3: g: x: y\n\e[32mme: \e[0m1700000002 is no time\nno name')
same 'parts' "$(ctl view -n 1 - <log; ctl view --no-follow -n 1 log; TZ=UTC-1 ctl view -n+3 - <log | head -n 1)" \
    <<<$'no name\nno name\nlogger: you: 2023-11-14 23:13:21 b.c:3: g: x: y'
timeout 60 "$tool" view -n 1 log >viewed 2>&1 &
soon viewed 'no name' && log "$(printf 'b: %04092d' 0)c: behind a cut one\n" && soon viewed 'c: '
: >log && soon viewed truncated && log 'd: \n' && soon viewed 'd: '
mv log log.1 && echo 'e: late' >>log.1 && echo 'f: new' >log && soon viewed 'f: '
same 'followed' "$(tr -s 0 <viewed)" < <(printf '%s\n' 'no name' 'b: 0' 'c: behind a cut one' \
    'tavlenctl view: log: the file has been truncated' 'd: ' 'e: late' 'tavlenctl view: log: a new file' 'f: new')

# --- all of it: wrong usage, a full disk, a reader that has gone.
same 'usage' "$(for words in '' none 'send -p 0' check 'check none' 'check one -- 1 2' 'view -n x' 'dump a b' 'dump binary' 'drops x' \
    'drops --watch=0' 'view --none'; do read -ra words <<<"$words" && ctl "${words[@]}" &>/dev/null || printf '%d' $?; done)" <<<222222222222
same 'output' "$( (ctl --version >/dev/full) 2>&1 || echo $?; { seq 1000000 | ctl view - 2>&1 || true; } | head -n 1)" \
    <<<$'tavlenctl: standard output: No space left on device\n1\n1'
[[ $failures -eq 0 ]]
