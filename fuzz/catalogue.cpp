// Any bytes as a message: what its extractor gives is as long as told, the caller's to free, and given every time.
#include "../tests/extractors.h"
#include "fuzz.h"

/// A datagram. The last byte of its type chooses the extractor; those before it make the type a wrong one.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr size_t fixed_part = 64, most_growth = 4;
    [[maybe_unused]] static const bool log_is_open = open_log();
    const auto found = size > type_size ? extractors.find(data[type_size - 1]) : extractors.end();
    if (found == extractors.end()) {
        return -1;
    }
    const auto &[type, extractor] = *found;
    const Packet p = received(bytes_of(data, size));
    const std::string answer = extractor(p.get());
    HOLDS(answer.size() <= fixed_part + most_growth * size);
    const bool checks_type = type != 21 && type != 45 && type != 51 && type != 56;
    const bool is_refused = answer == "null" || (answer[0] >= '1' && answer[0] <= '4') || answer[0] == '-';
    HOLDS(p->type == type || !checks_type || is_refused);
    (void)clpacket_reset_error_state(p.get());
    HOLDS(extractor(p.get()) == answer);
    if (clpacket_deserialize(p.get()) == 0) { // as if it had just been built
        free(p->buffer);
        p->buffer = nullptr;
        (void)clpacket_reset_error_state(p.get());
        HOLDS(extractor(p.get()) == answer);
    }
    return 0;
}
