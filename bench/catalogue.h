/* Messages of the catalogue at sizes of choice, from the builder's arguments to what an extractor
 * gives. */
#ifndef TAVLEN_BENCH_CATALOGUE_H
#define TAVLEN_BENCH_CATALOGUE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include <TavlenCommon/buffer_packet.h>

/// The arguments of one message, ready before anything is measured.
class CatalogueMessage {
public:
    CatalogueMessage() = default;
    virtual ~CatalogueMessage() = default;
    CatalogueMessage(const CatalogueMessage &) = delete;
    CatalogueMessage &operator=(const CatalogueMessage &) = delete;

    /// The builder's packet, which the caller destroys; null when it fails.
    virtual clpacket *build() const = 0;

    /// Reads the message from a packet and frees what the extractor gives; false unless all of it
    /// is there.
    virtual bool extract(clpacket *p) const = 0;
};

/// A message of `count` items, at least 1: "servers", "entries" (with two pairs each), "table" (its
/// cells, a multiple of 10) or "blobs". Null for any other name.
std::unique_ptr<CatalogueMessage> make_catalogue_message(std::string_view name, size_t count);

/// A message as it travels.
struct WireMessage {
    uint32_t type;
    std::vector<uint8_t> bytes;
};

/// Serializes a packet and destroys it.
WireMessage encode_packet(clpacket *p);

/// A packet that has its type and bytes and nothing else, as one does that was received.
clpacket *receive_packet(const WireMessage &message);

#endif
