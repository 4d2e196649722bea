// POD status words and fault injection, by instance and by slot.
#include <device_access/pod_log.h>

#include <device_access/pod_log_nvram.h>
#include <device_access/slot_names.h>

#include "lib/base/errors.h"
#include "lib/base/print.h"
#include "lib/podlog/registry.h"

using namespace device_access;

namespace
{

constexpr uint32_t status_unknown = 0x80000000;

// Calls a status function of the backend with the NVRAM that holds the instance's word.
template <typename Result, typename... Arguments>
Result with_status_word(const char *func, Result (*call)(int, int, Arguments...), int inst_id,
                        Arguments... arguments)
{
    int nvram_id;
    int mapped_index;
    if (podlog_get_podstatus_inst_info(inst_id, &nvram_id, &mapped_index) != 1)
        return static_cast<Result>(invalid_instance(func, inst_id));
    return call(nvram_id, inst_id, arguments...);
}

// The NVRAM that holds a slot's word, opened while the object lives.
class slot_nvram
{
public:
    enum class step { slot, mapping, opening, done };

    explicit slot_nvram(uint8_t slot_id) : slot_(GetSlotById(slot_id)->slotN)
    {
        int mapped_index;
        if (slot_ == -1)
            return;
        failed_ = step::mapping;
        if (podlog_get_podstatus_inst_info(slot_id, &id_, &mapped_index) != 1)
            return;
        failed_ = nvram_ring(id_).init(false) == -1 ? step::opening : step::done;
    }
    ~slot_nvram()
    {
        if (failed_ == step::done)
            nvram_ring(id_).close();
    }
    slot_nvram(const slot_nvram &) = delete;
    slot_nvram &operator=(const slot_nvram &) = delete;

    step failed() const { return failed_; } // the step that failed; done if none has
    int slot() const { return slot_; }      // its number, or -1
    int id() const { return id_; }

private:
    step failed_ = step::slot;
    int slot_;
    int id_ = -1;
};

} // namespace

int podlog_invalidate_pod_status(int inst_id)
{
    return with_status_word(__func__, podlog_nvram_invalidate_pod_status, inst_id);
}

uint32_t podlog_get_pod_status(int inst_id)
{
    return with_status_word(__func__, podlog_nvram_get_pod_status, inst_id);
}

int podlog_set_pod_status(int inst_id, int pod_status)
{
    return with_status_word(__func__, podlog_nvram_set_pod_status, inst_id, pod_status);
}

int podlog_get_faultinject_pos(int inst_id)
{
    const auto position = [](int nvram_id, int) {
        return podlog_nvram_get_faultinject_pos(nvram_id);
    };
    return with_status_word(__func__, +position, inst_id);
}

int podlog_is_faultinject(int inst_id, int *faultinjected)
{
    return with_status_word(__func__, podlog_nvram_is_faultinject, inst_id, faultinjected);
}

int podlog_faultinject_pod_status(int inst_id, int clr)
{
    return with_status_word(__func__, podlog_nvram_faultinject_pod_status, inst_id, clr);
}

int podlog_clr_all_faultinject(int inst_id)
{
    pod_storage_type_t type;
    int nvram_id;
    if (podlog_get_pod_primary_storage_info(inst_id, &type, &nvram_id) != 1)
        return invalid_instance(__func__, inst_id);
    if (type != PODSTORAGE_NVRAM)
        return REFUSE(print_error, -1, "ERROR: %s: not suppored for instance %d!\n", __func__,
                      inst_id);
    return podlog_nvram_clr_all_faultinject(nvram_id);
}

uint32_t podlog_get_pod_status_cc(uint8_t slotId)
{
    const slot_nvram nvram(slotId);
    switch (nvram.failed()) {
    case slot_nvram::step::slot:
        return REFUSE(print_error, status_unknown, "ERROR: %s: invalid slot id %d!\n", __func__,
                      nvram.slot());
    case slot_nvram::step::mapping:
        return REFUSE(print_error, status_unknown,
                      "ERROR: %s: slot %d not matched for pod status!\n", __func__, nvram.slot());
    case slot_nvram::step::opening:
        return REFUSE(print_error, status_unknown,
                      "ERROR: %s: cannot open POD Status stroage NVRAM %d!\n", __func__,
                      nvram.id());
    case slot_nvram::step::done:
        break;
    }
    return podlog_nvram_get_pod_status(nvram.id(), slotId);
}

int podlog_is_faultinject_cc(uint8_t slotId, int *faultinjected)
{
    if (!faultinjected)
        return -1;
    *faultinjected = 0;
    const slot_nvram nvram(slotId);
    if (nvram.failed() == slot_nvram::step::mapping)
        return invalid_instance(__func__, nvram.slot());
    if (nvram.failed() != slot_nvram::step::done)
        return -1;
    if (podlog_nvram_is_faultinject(nvram.id(), slotId, faultinjected) != -1)
        return 1;
    return REFUSE(print_error, -1, "ERROR: Fail to read fault inject for slot Id %d!\n", slotId);
}
