#include <TavlenCommon/com_byteorder.h>

#include <cstring>

#include "support.h"

using ByteOrder = ReportingTest;

// To an odd address, and there back again: two items, one, one by itself, and none.
static void expect_wire(const auto &items, const std::string &wire)
{
    constexpr size_t width = sizeof items[0];
    uint8_t place[1 + 4 * width];
    const auto convert = [&place](auto array, auto element, const uint8_t *from) {
        array(place + 1, from, width, 2), array(place + 1 + 2 * width, from + 2 * width, width, 1);
        element(place + 1 + 3 * width, from + 3 * width, width), array(nullptr, nullptr, width, -1);
    };
    convert(bo_hton_array, bo_hton_element, reinterpret_cast<const uint8_t *>(items.data()));
    EXPECT_EQ(std::vector<uint8_t>(place + 1, place + sizeof place), bytes(wire));
    convert(bo_ntoh_array, bo_ntoh_element, place + 1);
    EXPECT_EQ(memcmp(place + 1, items.data(), 4 * width), 0) << wire;
}

TEST_F(ByteOrder, WireIsBigEndianAndOtherWidthsAreReported)
{
    expect_wire(std::vector<uint8_t>{1, 2, 255, 7}, "01 02 ff 07");
    expect_wire(std::vector<int16_t>{0x1234, -2, 3, 4}, "12 34 ff fe 00 03 00 04");
    expect_wire(std::vector<float>{1, -2, 0, 2}, "3f 80 00 00 c0 00 00 00 00 00 00 00 40 00 00 00");
    const std::string large = " 7e 37 e4 3c 88 00 75 9c"; // 1e300
    expect_wire(std::vector{1e300, 0., 1e300, 1e300}, large + " 00 00 00 00 00 00 00 00" + large + large);
    for (const int32_t width : {-1, 0, 3, 5, 6, 7, 9, 16}) {
        const std::string size = "size (" + std::to_string(width) + " bytes)";
        const std::string array_words = "array: ERROR: unhandled " + ((width > 8 ? "" : "element ") + size);
        bo_hton_element(nullptr, nullptr, width);
        bo_ntoh_element(nullptr, nullptr, width);
        bo_hton_array(nullptr, nullptr, width, 1);
        bo_ntoh_array(nullptr, nullptr, width, 1);
        EXPECT_REPORTS("bo_hton_element: ERROR: unhandled " + size,
                       "bo_ntoh_element: ERROR: unhandled " + ((width > 8 ? "" : "src ") + size),
                       "bo_hton_" + array_words, "bo_ntoh_" + array_words);
    }
}
