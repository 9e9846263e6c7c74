#include "fragments.h"

#include <algorithm>

namespace ctl {

namespace {

constexpr size_t most_unfinished = 64;
constexpr size_t most_bytes = 65535; ///< of a whole payload

/// The bytes of the parts, if they follow each other without a gap up to `size`.
std::optional<std::vector<uint8_t>> join(const std::map<size_t, std::vector<uint8_t>> &parts,
                                         size_t size)
{
    std::vector<uint8_t> whole;
    for (const auto &[place, part] : parts) {
        if (place != whole.size()) {
            return std::nullopt;
        }
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole.size() == size ? std::optional(whole) : std::nullopt;
}

} // namespace

Fragments::Unfinished &Fragments::find(const IpPayload &fragment)
{
    const std::string key =
        fragment.source + fragment.destination + fragment.id + static_cast<char>(fragment.protocol);
    const auto found = std::find_if(unfinished_.begin(), unfinished_.end(),
                                    [&key](const Unfinished &one) { return one.key == key; });
    if (found != unfinished_.end()) {
        return *found;
    }
    if (unfinished_.size() == most_unfinished) {
        unfinished_.pop_front();
    }
    return unfinished_.emplace_back(Unfinished{key, {}, 0, 0});
}

/// A newer part takes the place of an older one, which an earlier packet of the same number left.
void Fragments::keep(Unfinished &packet, const IpPayload &fragment)
{
    std::vector<uint8_t> &part = packet.parts[fragment.place];
    packet.kept += fragment.bytes.size() - part.size();
    part.assign(fragment.bytes.data(), fragment.bytes.data() + fragment.bytes.size());
    if (packet.kept > most_bytes) { // they overlap, as no sender's do
        packet.parts.clear();
        packet.kept = 0;
    }
}

std::optional<std::vector<uint8_t>> Fragments::take(const IpPayload &fragment)
{
    ++left_over_;
    const size_t end = fragment.place + fragment.bytes.size();
    if (fragment.missing > 0 || fragment.bytes.size() == 0 || end > most_bytes) {
        return std::nullopt;
    }
    Unfinished &packet = find(fragment);
    keep(packet, fragment);
    packet.size = fragment.has_more ? packet.size : end;
    const bool may_be_whole = packet.size > 0 && packet.kept == packet.size;
    auto whole = may_be_whole ? join(packet.parts, packet.size) : std::nullopt;
    if (whole) {
        left_over_ -= packet.parts.size();
        unfinished_.remove_if([&packet](const Unfinished &one) { return &one == &packet; });
    }
    return whole;
}

} // namespace ctl
