#!/usr/bin/env bash
# The manual pages are sound, the same wherever they are made, one for each exported function, and leave out nothing
# that a header declares or tells; the guide's samples are those of examples/. Usage: SOURCE BUILD LIBRARY VERSION
set -euo pipefail
pages=$2/man library=$3 version=$4 work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$1" && cmake --build "$2" --target man && cp -rt "$work" TavlenCommon docs packaging || exit
TZ=Asia/Tokyo "$work/packaging/man/generate" "$work" "$work/pages" "$version"
{
    diff -r "$pages" "$work/pages" || true
    nm -D --defined-only "$library" | awk '$2 == "T" { print $3 } END { print "LPRINTF" }' | sed 's/@.*//' | sort |
        diff - <(cd "$pages" && grep '^\.so' man3/* | sed 's|man3/\(.*\).3:.so|\1|' | while read -r name page; do
            grep -q "fB$name\\\\fP(" "$page" && echo "$name"; done | sort) || true
    grep -L '^\.so' "$pages"/man?/* | while read -r page; do {
        man --warnings -E UTF-8 -l -Tutf8 -Z "$page" >/dev/null; mandoc -T lint -W warning "$page"
        lexgrog "$page" >/dev/null || echo "$page: no name"
    } 2>&1; done | grep -v 'WARNING: missing date' || true
    for page in "$pages"/man3/tavlen_*; do
        MANWIDTH=80 LC_ALL=C.UTF-8 man -l "$page" | perl -0777 -e '
            my ($header, $page, $comment) = (<>, <STDIN>, qr{/\*+<?(.*?)\*/}s);
            sub plain { lc(join " ", split " ", shift) =~ s/\( /(/gr =~ s/\b(\w+)\.h\b/tavlen_$1(3)/gr }
            sub find { my $in = plain(shift); for (@_) { s/[.]$//; print "lost: $_\n" if index($in, $_) < 0 } }
            my @told = map { s/^ \* ?(Conventions$)?|`|-{9,}|docs.protocol.md//gmr } $header =~ /$comment/g;
            find $page =~ s{/\*|\*/|tavlen-wire\(7\)}{}gr, map { split /(?<=[.:;]) /, plain $_ } @told;
            my $code = $header =~ s/$comment|^#(\\\n|.)*|TAVLEN_API|__attribute__.*\)\)|extern "C"//gmr;
            find $page =~ s/$comment//gr, map { plain $_ } split /[;{}]|,\n {4}(?=\S)/, $code;' \
            "TavlenCommon/$(basename "${page##*tavlen_}" .3).h"
    done
    sed -n '/^\x60\{3\}c\(pp\)\?$/,/^\x60\{3\}$/{/^\x60/!p}' docs/library.md | grep -vxFf <(cat examples/*.c*) || true
} | if grep .; then exit 1; fi
