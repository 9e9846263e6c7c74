/* Puts IP packets together that travelled in fragments: a long record on a network does. */
#ifndef TAVLEN_TOOLS_FRAGMENTS_H
#define TAVLEN_TOOLS_FRAGMENTS_H

#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ip_packet.h"

namespace ctl {

class Fragments {
public:
    /// The whole payload, when this was the last fragment of it that was missing.
    std::optional<std::vector<uint8_t>> take(const IpPayload &fragment);

    /// Fragments that have not become part of anything.
    [[nodiscard]] size_t left_over() const { return left_over_; }

private:
    struct Unfinished {
        std::string key;
        std::map<size_t, std::vector<uint8_t>> parts; ///< by their places
        size_t kept = 0;                              ///< bytes in the parts, bounded
        size_t size = 0;                              ///< of the whole; 0: not known yet
    };

    Unfinished &find(const IpPayload &fragment);
    static void keep(Unfinished &packet, const IpPayload &fragment);

    /// The oldest first; bounded, as the rest of some will never come.
    std::list<Unfinished> unfinished_;
    size_t left_over_ = 0;
};

} // namespace ctl

#endif
