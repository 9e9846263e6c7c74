#include <TavlenCommon/com_byteorder.h>

#include <cstring>

#include "support.h"

using ByteOrder = ReportingTest;

// Two items go as an array, the last one alone: to an odd address, and there back again.
static void expect_wire(const auto &items, const std::string &wire)
{
    constexpr size_t width = sizeof items[0];
    uint8_t place[1 + 3 * width];
    bo_hton_array(place + 1, &items[0], width, 2);
    bo_hton_element(place + 1 + 2 * width, &items[2], width);
    EXPECT_EQ(std::vector<uint8_t>(place + 1, place + sizeof place), bytes(wire));
    bo_ntoh_array(place + 1, place + 1, width, 2);
    bo_ntoh_element(place + 1 + 2 * width, place + 1 + 2 * width, width);
    EXPECT_EQ(memcmp(place + 1, &items[0], 3 * width), 0) << wire;
    bo_hton_array(nullptr, nullptr, width, -1);
    bo_ntoh_array(nullptr, nullptr, width, -1);
}

TEST_F(ByteOrder, WireIsBigEndianAndOtherWidthsAreReported)
{
    expect_wire(std::vector<uint8_t>{1, 2, 255}, "01 02 ff");
    expect_wire(std::vector<int16_t>{0x1234, -2, 3}, "12 34 ff fe 00 03");
    expect_wire(std::vector<float>{1, -2, 0}, "3f 80 00 00 c0 00 00 00 00 00 00 00");
    expect_wire(std::vector{1e300, -2., 0.}, "7e 37 e4 3c 88 00 75 9c c0 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
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
