// Rounds of one case of codec_cases.h: bench/instructions counts what a round takes.
//
// Usage: codec_call MESSAGE/DIRECTION/CODEC COUNT; without arguments, tells the cases.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "codec_cases.h"

namespace {

constexpr long most_rounds = 1'000'000;

} // namespace

int main(int argc, char **argv)
{
    const long count = argc == 3 ? strtol(argv[2], nullptr, 10) : 0;
    for (const CodecCase &codec : codec_cases()) {
        if (argc == 1) {
            puts(codec.name);
        } else if (count > 0 && count <= most_rounds && strcmp(codec.name, argv[1]) == 0) {
            for (long i = 0; i < count; ++i) {
                codec.round();
            }
            return EXIT_SUCCESS;
        }
    }
    if (argc != 1) {
        fprintf(stderr, "Usage: codec_call [MESSAGE/DIRECTION/CODEC COUNT]\n");
    }
    return argc == 1 ? EXIT_SUCCESS : 2;
}
