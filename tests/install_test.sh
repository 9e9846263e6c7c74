#!/bin/sh
# Programs built against an installed tree that was moved, in C by pkg-config and in C++ by CMake, reach the collector
# of that tree. Usage: BUILD SOURCE
set -eu
build=$1 source=$2
work=$(mktemp -d)
trap 'kill $collector; rm -rf "$work"' EXIT
collector=
address=127.$(($$ / 65536 + 128)).$(($$ / 256 % 256)).$(($$ % 256))

cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/moved"
cd "$work"
"$work/moved/sbin/TavlenLogger" -a "$address" >output &
collector=$!

PKG_CONFIG_PATH=$work/moved/lib/pkgconfig
export PKG_CONFIG_PATH
# shellcheck disable=SC2046 # words are what they are
cc -std=c11 -Wall -Wextra -Werror "$source/examples/first_sender.c" -o sender_c \
    $(pkg-config --cflags --libs TavlenCommon) -Wl,-rpath,"$(pkg-config --variable=libdir TavlenCommon)"
cmake -S "$source/examples" -B cmake -DCMAKE_PREFIX_PATH="$work/moved" >/dev/null
cmake --build cmake --target first_sender_cpp >/dev/null

./sender_c "$address" && cmake/examples/first_sender_cpp "$address" >/dev/null
for i in 1 2 3 4 5 6 7 8 9 10; do
    [ "$(grep -c "^first_sender.*hello from C\(++\)\?, $address" output)" = 2 ] && exit 0
    sleep "0.$i"
done
cat output
exit 1
