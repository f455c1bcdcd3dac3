// Packing TLVs into VXLAN messages (8196 bytes and 255 TLVs at most) and
// walking the messages efhost passes back.
#include <gtest/gtest.h>

#include "tlv_message.h"

namespace {

using namespace vxlanctl;

uint16_t len_of(const Message &m) { return static_cast<uint16_t>(m[1] | m[2] << 8); }

TEST(VxlanctlPackingTest, OneTlvMessageHasVersionLengthCountAndTlv)
{
    std::string error;
    const auto messages = pack_messages({Tlv{8, {0xE8, 0x03, 0, 0, 1}}}, error);
    ASSERT_TRUE(messages.has_value()) << error;
    ASSERT_EQ(messages->size(), 1u);
    EXPECT_EQ((*messages)[0], (Message{1, 13, 0, 1, 8, 0, 5, 0, 0xE8, 0x03, 0, 0, 1}));
}

TEST(VxlanctlPackingTest, TwoHundredFiftySixTlvsMakeMessagesOf255AndOne)
{
    std::vector<Tlv> tlvs(256, Tlv{1, {}});
    std::string error;
    const auto messages = pack_messages(tlvs, error);
    ASSERT_TRUE(messages.has_value()) << error;
    ASSERT_EQ(messages->size(), 2u);
    EXPECT_EQ((*messages)[0][0], 1);
    EXPECT_EQ(len_of((*messages)[0]), 4 + 255 * 4);
    EXPECT_EQ((*messages)[0].size(), 4u + 255 * 4);
    EXPECT_EQ((*messages)[0][3], 255);
    EXPECT_EQ((*messages)[1], (Message{1, 8, 0, 1, 1, 0, 0, 0}));
}

TEST(VxlanctlPackingTest, ValueOf8188BytesFillsAMessageExactly)
{
    std::string error;
    const auto messages = pack_messages({Tlv{9, std::vector<uint8_t>(8188, 0xAA)}}, error);
    ASSERT_TRUE(messages.has_value()) << error;
    ASSERT_EQ(messages->size(), 1u);
    EXPECT_EQ(len_of((*messages)[0]), 8196);
    EXPECT_EQ((*messages)[0].size(), 8196u);
}

TEST(VxlanctlPackingTest, ValueOf8189BytesCannotBeSent)
{
    std::string error;
    const auto messages = pack_messages({Tlv{1, {}}, Tlv{9, std::vector<uint8_t>(8189, 0)}}, error);
    EXPECT_FALSE(messages.has_value());
    EXPECT_EQ(error, "TLV SET_VLAN (type 9) has 8189 value bytes; a message holds at most 8188");
}

TEST(VxlanctlPackingTest, ATlvThatOverflowsTheLengthStartsANewMessage)
{
    std::string error;
    const auto messages =
        pack_messages({Tlv{9, std::vector<uint8_t>(5000, 1)}, Tlv{9, std::vector<uint8_t>(3184, 2)},
                       Tlv{9, std::vector<uint8_t>(1, 3)}},
                      error);
    ASSERT_TRUE(messages.has_value()) << error;
    ASSERT_EQ(messages->size(), 2u);
    EXPECT_EQ(len_of((*messages)[0]), 4 + 5004 + 3188);  // exactly 8196
    EXPECT_EQ((*messages)[0][3], 2);
    EXPECT_EQ(len_of((*messages)[1]), 4 + 5);
    EXPECT_EQ((*messages)[1][3], 1);
}

TEST(VxlanctlPackingTest, NoTlvsMakeNoMessages)
{
    std::string error;
    EXPECT_EQ(pack_messages({}, error)->size(), 0u);
}

TEST(VxlanctlPackingTest, UnpackWalksTheTlvsOfAMessage)
{
    std::string error;
    const auto tlvs = unpack_message({1, 13, 0, 2, 68, 0, 0, 0, 0, 0, 1, 0, 7}, error);
    ASSERT_TRUE(tlvs.has_value()) << error;
    EXPECT_EQ(*tlvs, (std::vector<Tlv>{Tlv{68, {}}, Tlv{0, {7}}}));
}

TEST(VxlanctlPackingTest, UnpackRefusesShortMismatchedAndMiscountedMessages)
{
    std::string error;
    EXPECT_FALSE(unpack_message({1, 4, 0}, error));
    EXPECT_EQ(error, "message of 3 bytes is shorter than its header");
    EXPECT_FALSE(unpack_message({1, 9, 0, 1, 68, 0, 0, 0}, error));
    EXPECT_EQ(error, "message says 9 bytes but carries 8");
    EXPECT_FALSE(unpack_message({1, 8, 0, 2, 68, 0, 0, 0}, error));
    EXPECT_EQ(error, "message TLVs do not add up to its length 8 and count 2");
    EXPECT_FALSE(unpack_message({1, 8, 0, 1, 68, 0, 1, 0}, error));
    EXPECT_EQ(error, "message TLVs do not add up to its length 8 and count 1");
}

}  // namespace
