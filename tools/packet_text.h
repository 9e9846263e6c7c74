/* A packet from its bytes, decoded by the library, as a text for people. */
#ifndef TAVLEN_TOOLS_PACKET_TEXT_H
#define TAVLEN_TOOLS_PACKET_TEXT_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <TavlenCommon/map_to_buffer.h>

namespace ctl {

/// Empties and frees a structure.
struct DestroyStructure {
    void operator()(mtb_struct *structr) const;
};

/// A datagram's type code and body. Expects that the library's reports are kept.
class DecodedPacket {
public:
    explicit DecodedPacket(std::vector<uint8_t> datagram);

    /// It does not decode: the notes say why.
    [[nodiscard]] bool is_malformed() const { return is_malformed_; }

    /// One line in the notation of docs/protocol.md: "29: 1:6=1 2:12='me' 3:12='x'". What is odd
    /// stands behind it in parentheses.
    [[nodiscard]] std::string brief() const;

    /// A line for each element and each note, every line indented and with a line feed.
    [[nodiscard]] std::string tree() const;

private:
    void decode();
    void note_oddities(int32_t bytes_left);

    std::vector<uint8_t> bytes_;
    std::unique_ptr<mtb_struct, DestroyStructure> root_;
    bool is_malformed_ = false;
    std::vector<std::string> notes_;
    uint32_t type_ = 0;
};

} // namespace ctl

#endif
