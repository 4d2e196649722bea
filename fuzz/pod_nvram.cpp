// The POD log in NVRAM, whose node is a plain file here.
#include "fuzz/pod_storage.h"
#include "sim/program/private_root.h"

namespace
{

char path[] = "/dev/nvlog-pod";

void fill(const std::string &image)
{
    fuzz::set_contents(path, image);
}

const fuzz::pod_storage storage = {
    POD_LOG_CALLS(nvram, nullptr), path, 0x1FE2C365, true, 48, 16384, 10, 1300, fill};

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    chassis_sim::enter_private_root();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::use_pod_storage(storage, {reinterpret_cast<const char *>(data), size});
    return 0;
}
