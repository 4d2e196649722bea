// Opens a POD log: by what its index and headers say it is taken as it is, formatted, brought back
// or refused.
#include "lib/podlog/recovery.h"
#include "lib/podlog/ring.h"

namespace device_access
{

int pod_log_ring::init(bool rdonly)
{
    if (!storage_->open(id_, rdonly))
        return -1;
    shape_ = storage_->shape(id_);
    const int result = check(rdonly);
    if (result != 1)
        close();
    return result;
}

int pod_log_ring::check(bool rdonly)
{
    pod_index index;
    if (!load(index)) {
        storage_->report(id_, pod_fault::index_not_read, 0);
        return -1;
    }
    switch (storage_->judge(index, rdonly)) {
    case pod_opening::accept:
        return 1;
    case pod_opening::check:
        return pod_log_recovery(*this).accept(verify_all_hdr(index));
    case pod_opening::guess:
        return pod_log_recovery(*this).guess(index, verify_all_hdr(index));
    case pod_opening::format:
        reset();
        return 1;
    case pod_opening::refuse:
        break;
    }
    return -1;
}

} // namespace device_access
