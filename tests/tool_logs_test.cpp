// What devaccess makes of a whole machine and all its logs.
#include "support/tool.h"

#include "sim/chassis.h"

#include <gtest/gtest.h>

namespace
{

using namespace tool;

TEST(devaccess_logs, records_a_machine_and_writes_nothing_to_it)
{
    start_chassis();
    ::setenv("TREE", "cd /var/tmp && rm -rf t && mkdir t && tar xf m.tar -C t", 1);
    ::setenv("HOLD",
             "import os, subprocess, sys; os.open('/dev/nvlog-pod', os.O_RDWR | os.O_EXCL); "
             "sys.exit(subprocess.call(sys.argv[1:]))",
             1);
    expect("", R"(
devaccess podlog prepare && cat /dev/nvlog-pod >/var/tmp/nvlog-pod -> 0
devaccess collect /var/tmp/m.tar --json -> 0 | {"file":"/var/tmp/m.tar","format":1,"functions":9,"left_out":[],"logs":21,"nodes":1}
eval "$TREE"; jq -c '[.chassis,.rp2,.left_out]' t/manifest.json -> 0 | ["n20",false,[]]\n
cd /var/tmp/t; for f in sys/bus/pci/devices/*/config var/pod/*; do cmp $f /$f || exit; done -> 0
cd /var/tmp/t; cat sys/class/uio/uio0/maps/map0/size sys/class/zmt_nvram/nvram3/name -> 0 | 0x1000\nnvlog-pod\n
cd /var/tmp; for f in t/dev/nvlog-diag-error t/dev/nvlog-pod nvlog-pod; do cat /dev/${f##*/} |cmp - $f || exit; done -> 0
tar tf /var/tmp/m.tar |grep -c 'resource[0-9]\|rom$\|vpd$\|remove$\|inventory\|flash' -> 1 | 0\n
devaccess collect /var/tmp/m.tar -> 1 | | there is such a file; name another, or give --force
python3 -c "$HOLD" devaccess collect /var/tmp/m.tar --force -> 0 | another program has it open | 1 files could not be read; manifest.json in
eval "$TREE"; jq -r '.left_out[].path' t/manifest.json; test -e t/dev/nvlog-pod -> 1 | /dev/nvlog-pod\n
)");
    expect_documented();
}

} // namespace
