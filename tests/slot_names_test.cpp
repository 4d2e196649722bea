#include <device_access/slot_names.h>

#include <gtest/gtest.h>

#include <string>

namespace
{

std::string text(const SLOT_INFO *slot)
{
    return std::to_string(slot->slotN) + "/" + std::to_string(slot->slotType) + "/" +
           slot->slot_name;
}

// Every number from below the lowest to above the highest.
std::string all_slots()
{
    std::string rows;
    for (int id = -1; id < 14; ++id)
        if (GetSlotById(id)->slotN != -1)
            rows += text(GetSlotById(id)) + " ";
    return rows;
}

TEST(slot_names, the_large_chassis_is_the_default_and_other_values_select_nothing)
{
    const std::string large = "0/1/1 1/1/2 2/2/RP1 3/2/RP2 4/3/SW1 5/3/SW2 6/4/FT1 7/4/FT2 "
                              "8/4/PM1 9/4/PM2 10/4/PM3 11/4/PM4 ";
    const std::string small = "0/1/1 2/2/RP1 4/3/SW1 5/4/FT1 6/4/PM1 7/4/PM2 ";
    EXPECT_EQ(GetChassisType(), ChassisType_2nd_Stack);
    EXPECT_EQ(all_slots(), large);
    SetChassisType(ChassisType_1st_Stack);
    EXPECT_EQ(GetChassisType(), ChassisType_1st_Stack);
    EXPECT_EQ(all_slots(), small);
    for (int value : {2, 5, -1}) {
        SetChassisType(static_cast<chassis_t>(value));
        EXPECT_EQ(GetChassisType(), ChassisType_1st_Stack);
        EXPECT_EQ(all_slots(), small);
    }
    SetChassisType(ChassisType_2nd_Stack);
    EXPECT_EQ(all_slots(), large);
}

TEST(slot_names, names_match_whole_and_in_any_case)
{
    EXPECT_EQ(text(GetSlotByName("pm4")), "11/4/PM4");
    EXPECT_EQ(text(GetSlotByName("1")), "0/1/1");
    for (const char *unknown : {"RP", "RP11", "", "RPSW1", "ALSW1", "PEM1", "Err"})
        EXPECT_EQ(text(GetSlotByName(unknown)), "-1/0/Err") << unknown;
    EXPECT_EQ(text(GetSlotByName(nullptr)), "-1/0/Err");
    SetChassisType(ChassisType_1st_Stack);
    EXPECT_EQ(text(GetSlotByName("Sw1")), "4/3/SW1");
    EXPECT_EQ(text(GetSlotByName("PM4")), "-1/0/Err");
}

} // namespace
