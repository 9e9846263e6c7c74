// One message of the catalogue, once built, encoded and extracted: bench/growth counts the
// instructions of each step.
//
// Usage: catalogue_growth MESSAGE COUNT
#include <cstdio>
#include <cstdlib>

#include "catalogue.h"

// The steps: functions of their own, to be found by name.
extern "C" {

[[gnu::noinline]] clpacket *growth_build(const CatalogueMessage &message)
{
    return message.build();
}

/// Destroys the packet that was built, too.
[[gnu::noinline]] void growth_encode(clpacket *built, WireMessage *wire)
{
    *wire = encode_packet(built);
}

/// What is left of a received packet after that, too.
[[gnu::noinline]] bool growth_extract(const CatalogueMessage &message, const WireMessage &wire)
{
    clpacket *received = receive_packet(wire);
    const bool whole = message.extract(received);
    clpacket_destroy(received);
    return whole;
}
}

int main(int argc, char **argv)
{
    const size_t count = argc == 3 ? strtoul(argv[2], nullptr, 10) : 0;
    const auto message = count > 0 ? make_catalogue_message(argv[1], count) : nullptr;
    if (message == nullptr) {
        fprintf(stderr, "Usage: catalogue_growth servers|entries|table|blobs COUNT\n");
        return 2;
    }
    clpacket *built = growth_build(*message);
    if (built == nullptr) {
        fprintf(stderr, "catalogue_growth: not built\n");
        return EXIT_FAILURE;
    }
    WireMessage wire{};
    growth_encode(built, &wire);
    if (!growth_extract(*message, wire)) {
        fprintf(stderr, "catalogue_growth: not extracted\n");
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
