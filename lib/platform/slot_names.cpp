// The slots of each chassis type, found by name or number.
#include <device_access/slot_names.h>

#include <iterator>

#include <strings.h>

namespace
{

// The small chassis keeps the large one's numbers for its line card, route processor and switch
// card; the numbers 5 to 7 are assigned anew.
constexpr SLOT_INFO Slots_TC_1_stack[] = {
    {0, SLOT_INFO_LC, "1"},      {2, SLOT_INFO_RP, "RP1"},    {4, SLOT_INFO_SW, "SW1"},
    {5, SLOT_INFO_OTHER, "FT1"}, {6, SLOT_INFO_OTHER, "PM1"}, {7, SLOT_INFO_OTHER, "PM2"},
};

constexpr SLOT_INFO Slots_TC_2_stack[] = {
    {0, SLOT_INFO_LC, "1"},      {1, SLOT_INFO_LC, "2"},       {2, SLOT_INFO_RP, "RP1"},
    {3, SLOT_INFO_RP, "RP2"},    {4, SLOT_INFO_SW, "SW1"},     {5, SLOT_INFO_SW, "SW2"},
    {6, SLOT_INFO_OTHER, "FT1"}, {7, SLOT_INFO_OTHER, "FT2"},  {8, SLOT_INFO_OTHER, "PM1"},
    {9, SLOT_INFO_OTHER, "PM2"}, {10, SLOT_INFO_OTHER, "PM3"}, {11, SLOT_INFO_OTHER, "PM4"},
};

constexpr SLOT_INFO SlotNone = {-1, SLOT_INFO_NONE, "Err"};

struct slot_table {
    chassis_t chassis;
    unsigned int num_slot;
    const SLOT_INFO *slot_ptr;
};

slot_table table_in_use = {ChassisType_2nd_Stack, std::size(Slots_TC_2_stack), Slots_TC_2_stack};

template <typename Matches>
const SLOT_INFO *first_slot(Matches matches)
{
    for (unsigned int i = 0; i < table_in_use.num_slot; ++i)
        if (matches(table_in_use.slot_ptr[i]))
            return &table_in_use.slot_ptr[i];
    return &SlotNone;
}

} // namespace

void SetChassisType(chassis_t chassis)
{
    if (chassis == ChassisType_1st_Stack)
        table_in_use = {chassis, std::size(Slots_TC_1_stack), Slots_TC_1_stack};
    else if (chassis == ChassisType_2nd_Stack)
        table_in_use = {chassis, std::size(Slots_TC_2_stack), Slots_TC_2_stack};
}

chassis_t GetChassisType(void)
{
    return table_in_use.chassis;
}

const SLOT_INFO *GetSlotByName(const char *pName)
{
    return first_slot([pName](const SLOT_INFO &slot) {
        return pName && ::strcasecmp(slot.slot_name, pName) == 0;
    });
}

const SLOT_INFO *GetSlotById(int id)
{
    return first_slot([id](const SLOT_INFO &slot) { return slot.slotN == id; });
}
