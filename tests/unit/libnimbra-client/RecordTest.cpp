#include <gtest/gtest.h>

#include <span>
#include <string>

#include <nimbra-client/CommandSchema.h>
#include <nimbra-client/Record.h>

namespace nimbra::client {

namespace {

TEST(ClientRecord, FindsItsKeysWhenValuesHoldSeparators)
{
    const Record door(FindCommandSchema("GetDoorInfo")->Header,
                      "DoorNo=7&Name=In & Out=1&Status=9&Status=1");
    EXPECT_EQ(door.Number("DoorNo"), 7);
    EXPECT_EQ(door.Text("Name"), "In & Out=1&Status=9");
    EXPECT_EQ(door.Number("Status"), 1);
    const Record video(FindCommandSchema("GetLiveVideoInfo")->Header,
                       R"(Name=x&Type=2&Url="rtsp://a:b@c:1/chID=1&streamType=main")");
    EXPECT_EQ(video.Text("Url"), "rtsp://a:b@c:1/chID=1&streamType=main");
}

TEST(ClientRecord, HasEmptyTextForMissingField)
{
    const std::span<const Field> door = FindCommandSchema("GetDoorInfo")->Header;
    EXPECT_EQ(Record(door, "DoorNo=7&Name=x").Text("Status"), "");
    EXPECT_EQ(Record(door, "DoorNo=7&Name=x").Text("Nothing"), "");
    EXPECT_EQ(Record(door, "").Text("DoorNo"), "");
}

} // namespace

} // namespace nimbra::client
