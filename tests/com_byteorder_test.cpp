#include <TavlenCommon/com_byteorder.h>

#include <cstring>
#include <functional>

#include "support.h"

namespace {

class ByteOrder : public ReportingTest {};

// The items sit at an odd address, and are converted into another place and in their own.
template <class T>
void expect_wire(const std::vector<T> &items, const std::string &wire_hex)
{
    const std::vector<uint8_t> wire = bytes(wire_hex);
    constexpr int32_t width = sizeof(T);
    const auto count = static_cast<int32_t>(items.size());
    uint8_t from[65];
    uint8_t to[65];
    memcpy(from + 1, items.data(), wire.size());
    bo_hton_array(to + 1, from + 1, width, count);
    EXPECT_EQ(memcmp(to + 1, wire.data(), wire.size()), 0) << wire_hex;
    bo_ntoh_array(to + 1, to + 1, width, count);
    EXPECT_EQ(memcmp(to + 1, items.data(), wire.size()), 0) << wire_hex;
    bo_hton_element(from + 1, from + 1, width);
    EXPECT_EQ(memcmp(from + 1, wire.data(), width), 0) << wire_hex;
    bo_ntoh_element(to, from + 1, width);
    EXPECT_EQ(memcmp(to, items.data(), width), 0) << wire_hex;
}

TEST_F(ByteOrder, WireIsBigEndian)
{
    expect_wire<uint8_t>({1, 2, 255}, "01 02 ff");
    expect_wire<int16_t>({0x1234, -2}, "12 34 ff fe");
    expect_wire<uint32_t>({0x12345678, 9}, "12 34 56 78 00 00 00 09");
    expect_wire<double>({1.0, -2.0}, "3f f0 00 00 00 00 00 00 c0 00 00 00 00 00 00 00");
}

TEST_F(ByteOrder, BadWidthsAreReportedAndWriteNothing)
{
    const auto elements = [](auto *convert) {
        return [convert](void *dst, const void *src, int32_t width, int32_t) {
            convert(dst, src, width);
        };
    };
    const struct {
        const char *function;
        std::function<void(void *, const void *, int32_t, int32_t)> convert;
        const char *other_words;
    } functions[] = {
        {"bo_hton_element", elements(bo_hton_element), "size"},
        {"bo_ntoh_element", elements(bo_ntoh_element), "src size"},
        {"bo_hton_array", bo_hton_array, "element size"},
        {"bo_ntoh_array", bo_ntoh_array, "element size"},
    };
    const uint8_t source[32] = {1, 2, 3};
    for (const auto &f : functions) {
        for (const int32_t width : {-1, 0, 3, 5, 6, 7, 9, 16}) {
            uint8_t destination[32] = {9, 9, 9};
            f.convert(destination, source, width, 1);
            EXPECT_EQ(destination[0], 9);
            EXPECT_REPORTS({f.function, std::string("ERROR: unhandled ") +
                                            (width > 8 ? "size" : f.other_words) + " (" +
                                            std::to_string(width) + " bytes)"});
        }
    }
    for (const int32_t count : {0, -1}) {
        for (const int32_t width : {1, 2, 4, 8}) {
            bo_hton_array(nullptr, nullptr, width, count);
            bo_ntoh_array(nullptr, nullptr, width, count);
        }
    }
    EXPECT_REPORTS();
}

} // namespace
