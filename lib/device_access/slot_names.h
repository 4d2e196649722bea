/*
 * The slots of the chassis: their numbers, kinds and short names ("RP1", "SW2", "PM3"), by chassis
 * stack type.
 *
 * The type in force is one value for the whole process, without a lock: select it at start-up,
 * before other threads look slots up. No call touches errno.
 */
#ifndef DEVICE_ACCESS_SLOT_NAMES_H
#define DEVICE_ACCESS_SLOT_NAMES_H

#include <device_access/device_access_api.h>

DEVICE_ACCESS_BEGIN_DECLS

typedef enum _chassis_t DEVICE_ACCESS_INT_ENUM {
    ChassisType_1st_Stack = 0, /* 6 slots */
    ChassisType_2nd_Stack = 1  /* 12 slots; in force until another type is set */
} chassis_t;

enum {
    SLOT_INFO_NONE = 0,
    SLOT_INFO_LC = 1, /* line card */
    SLOT_INFO_RP = 2, /* route processor */
    SLOT_INFO_SW = 3, /* switch card */
    SLOT_INFO_OTHER = 4,
    SLOT_INFO_MAX = 5
};

typedef struct SLOT_INFO_tag {
    int slotN;         /* slot number; -1 in the row that stands for "not found" */
    int slotType;      /* one of SLOT_INFO_* */
    char slot_name[8]; /* NUL-terminated */
} SLOT_INFO;

/* Select the chassis type of the lookups below. A value that is none of them changes nothing. */
DEVICE_ACCESS_API void SetChassisType(chassis_t chassis);

/* The chassis type in force. */
DEVICE_ACCESS_API chassis_t GetChassisType(void);

/*
 * Look a slot up by its whole name, ignoring case, or by its number.
 *
 * Return the row of the chassis type in force, never NULL: what is not found, a NULL name
 * included, gives the row {-1, SLOT_INFO_NONE, "Err"}. Rows are constant and live for the process.
 */
DEVICE_ACCESS_API const SLOT_INFO *GetSlotByName(const char *pName);
DEVICE_ACCESS_API const SLOT_INFO *GetSlotById(int id);

DEVICE_ACCESS_END_DECLS

#endif
