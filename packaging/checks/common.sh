# shellcheck shell=bash
# What the checks share. Each is called with the build folder, and says why when it skips (77).
set -euo pipefail

checks=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck disable=SC2034 # by the checks
packaging=${checks%/*}
build=$(cd "$1" && pwd)
export PATH="$build/bin:$PATH:/usr/sbin:/sbin"

skip() {
    printf 'skipped: %s\n' "$*"
    exit 77
}

fail() {
    printf 'failed: %s\n' "$*" >&2
    exit 1
}

need() {
    local tool
    for tool in "$@"; do
        command -v "$tool" >/dev/null || skip "$tool is missing"
    done
}

# eventually COMMAND...: within 30 seconds it succeeds.
eventually() {
    local end=$((SECONDS + 30))
    until "$@"; do
        [[ $SECONDS -lt $end ]] || fail "not within 30 seconds: $*"
        sleep 0.05
    done
}

# private_machine: starts the check again with mounts, a network and processes of its own. All of
# them go with it, so that it may use the paths, the port and the names that the samples name.
private_machine() {
    if [[ ${TAVLEN_PRIVATE:-} != 1 ]]; then
        unshare -mnpi true 2>/dev/null || skip "this machine refuses namespaces"
        TAVLEN_PRIVATE=1 exec unshare -mnpi --fork --kill-child --mount-proc --propagation private \
            bash "$0" "$build"
    fi
    ip link set lo up
    ulimit -f 100000
    work=$(mktemp -d)
    mount -t tmpfs none "$work"
    trap 'umount -l "$work" && rmdir "$work"' EXIT
}

# cover FILE COMMAND...: the command's output takes the place of the file, here alone.
cover() {
    local file=$1 copy
    shift
    copy=$(mktemp -p "$work")
    "$@" >"$copy"
    chmod 644 "$copy"
    mount --bind "$copy" "$file"
}

# private_dev [LINK]: a /dev of our own. /dev/log is what the check makes of it, or a link.
private_dev() {
    local device link=${1:-}
    mkdir "$work/dev"
    for device in null zero urandom; do
        touch "$work/dev/$device" && mount --bind "/dev/$device" "$work/dev/$device"
    done
    ln -s /proc/self/fd "$work/dev/fd"
    [[ -z $link ]] || ln -s "$link" "$work/dev/log"
    mount --rbind "$work/dev" /dev
}

readonly port=27759

# udp COLUMN: of the collector's socket, in /proc/net/udp; nothing while there is none.
udp() {
    awk -v port="$(printf ':%04X' "$port")" -v column="$1" '$2 ~ port "$" { print $column }' \
        /proc/net/udp
}
is_listening() { [[ -n $(udp 2) ]]; }
is_free() { ! is_listening; }
is_drained() { [[ $(udp 5) == *:00000000 ]]; }
dropped() { udp 13; }

# send_records FIRST LAST [ADDRESS]: numbered log events, a line of 120 bytes each, in windows that
# the socket holds.
send_records() {
    local i address=${3:-127.0.0.1} lead filler
    lead='\0\0\0\35\0\1\1\0\0\0\3\0\1\6\0\0\0\1\0\2\14\0\0\0\6sender\0\3\14\0\0\0\170'
    filler=$(printf '%096d' 0)
    exec {socket}>"/dev/udp/$address/$port"
    for ((i = $1; i <= $2; ++i)); do
        # shellcheck disable=SC2059 # the format holds zero bytes, which no argument can
        printf "${lead}record %08d of many %s" "$i" "$filler" >&"$socket"
        ((i % 200 != 0)) || eventually is_drained
    done
    exec {socket}>&-
    eventually is_drained
}

# numbers: of the records in standard input.
numbers() { sed -n 's/.*sender: record 0*\([0-9]\+\) of many 0*$/\1/p'; }

# expect_all FIRST LAST WHERE: standard input holds each of these records once, in order.
expect_all() {
    numbers | cmp - <(seq "$1" "$2") || fail "$3: not every record arrived once and in order"
}
