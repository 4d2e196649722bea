// What devaccess makes of a whole machine and all its logs.
#include "support/tool.h"

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
devaccess collect /var/tmp/m.tar -> 1 | | there is such a file; name another; save and collect also
python3 -c "$HOLD" devaccess collect /var/tmp/m.tar --force -> 0 | another program has it open | 1 files could not be read; manifest.json in
eval "$TREE"; jq -r '.left_out[].path' t/manifest.json; test -e t/dev/nvlog-pod -> 1 | /dev/nvlog-pod\n
)");
    expect_documented();
}

TEST(devaccess_logs, merges_filters_and_prints_logs_as_people_and_programs_read_them)
{
    ::setenv("TZ", "Europe/Berlin", 1);
    ::setenv("DEVACCESS_CHASSIS", "n20", 1);
    expect("chassis-sim -- devaccess ", R"(
podlog show ALSW2 --all -> 0 | 0        2023-11-14T22:13:40Z  INFO: memory test
podlog show ALSW2 --all --json |jq -c '[.history, (.entries|map(.history))]' -> 0 | [null,[0,0,1,1,1]]\n
podlog show SW1 --format csv --json -> 2 | | csv is no JSON
podlog show SW1 --all --follow -> 2 | | --all is neither for one HISTORY nor
podlog show SW1 --since 2023-11-15T22:13:41 --local -> 0 | 2023-11-15T23:13:40+01:00
podlog timeline --format csv |sed -n '1p;$p' -> 0 | time,time_raw,log,source,history,message\n2023-11-15T22:13:42Z,1700086422,pod,PM8,1,INFO: PM8 passed\n
podlog timeline --json |jq -c '.entries|[length, (map(.time_raw)|.==sort), (.[0]|.source)]' -> 0 | [90,true,"RPSW1"]\n
podlog timeline --post --format jsonl |jq -r .log |sort |uniq -c |xargs -> 0 | 90 pod 10 post\n
podlog timeline --post --json |jq -c '.entries|map(.time_raw)|.==sort' -> 0 | true\n
podlog timeline --since @1700086420 --until '2023-11-15 22:13:40' |grep -c Z -> 0 | 18\n
podlog timeline --since 2023-11-15T23:13:42+01:00 |grep -c Z -> 0 | 18\n
podlog timeline --since '2023-11-15 23:13:42' --local |grep -c +01:00 -> 0 | 18\n
podlog timeline --until 2023-11-14 --format csv -> 0
podlog timeline --since 3d -> 0 | no entries\n
podlog timeline --since 2023-11-15 --until yesterday |grep -c Z -> 0 | 54\n
podlog timeline --until 9999-12-31 |grep -c Z -> 0 | 90\n
podlog timeline --since 2023-02-29 -> 2 | | '2023-02-29' is no time
podlog timeline --since 12 -> 2 | | '12' is no time; write 2026-11-24,
podlog timeline --color always |grep lane.2 -> 0 | [31mERROR: fabric link  FAIL  lane 2: no lock[0m
podlog status --color=always -> 0 | ALSW2  3      [31mFailed[0m  0x
podlog check SW1 --color=never -> 0 | yes
postlog show --json |jq -c '[.block, .history, (.entries|map(.block)|unique)]' -> 0 | [null,null,["error","event","test"]]\n
postlog show test --all --format csv |cut -d, -f1,2,5 -> 0 | block,history,message\ntest,0,DRAM march: pass\n
postlog show --all --since 2023-11-15 --until now --format csv |grep x4 -> 0 | ,"PCIe link: slot SW2 trained to x1, expected x4"\n
)");
    expect(
        "timeout 2 chassis-sim -- devaccess podlog ",
        "show ALSW2 --follow --since 2023-11-15T22:13:42 --format csv -> 124 | "
        "card,history,time,time_raw,message\\nALSW2,1,2023-11-15T22:13:42Z,1700086422,INFO: ALSW2 failed\\n");
    start_chassis();
    expect("devaccess podlog ", R"(
timeline -> 0 | no entries
timeline --nvram /none -> 1 | No such file or directory | 'devaccess podlog check --nvram /none' tells
prepare && devaccess podlog add SW1 -- 'a "quoted", one' && truncate -s 99 /var/pod/pod_sw2.hex -> 0
timeline --json -> 1 | "problems":[{"log":"pod","problem":"16285 bytes of 16384 are missing","source":"SW2"}] | 1 of them are damaged
timeline --format csv -> 1 | ,pod,SW1,0,"a ""quoted"", one"\n | 'devaccess podlog check
)");
    expect_documented();
}

TEST(devaccess_logs, gives_monitoring_what_its_checkers_accept)
{
    start_chassis();
    expect("", R"(
devaccess podlog prepare && devaccess podlog status ALSW1 failed && devaccess podlog faults set SW1 -> 0
devaccess podlog add SW1 x && truncate -s 99 /var/pod/pod_sw2.hex -> 0
cd /var/tmp && devaccess metrics --out m.prom && devaccess metrics |cmp - m.prom && ls m.prom* -> 0 | m.prom\n
! command -v promtool || promtool check metrics </var/tmp/m.prom -> 0 | *
python3 -c 'from prometheus_client.openmetrics import parser; import sys; print(len(list(parser.text_string_to_metric_families(sys.stdin.read()))))' </var/tmp/m.prom -> 0 | 17\n
devaccess metrics --json -> 0 | {"labels":{"table":"n20","version":"0.
devaccess metrics --json |jq -c '.metrics|map(select(.labels.port))|map(.value)' -> 0 | [1,2500000000,4
)");
    for (const char *line :
         {"pod_status{card=\"ALSW1\",status=\"Failed\"} 1", "pod_fault_injected{card=\"SW1\"} 1",
          "pod_storage_good{card=\"SW2\"} 0", "pod_entries{card=\"SW1\"} 1", "post_errors 1",
          "post_storage_good{block=\"test\"} 1", "pcie_link_width_lanes{port=\"0000:00:1c.0\"} 4"})
        EXPECT_NE(read_file("/var/tmp/m.prom").find(std::string("\ndevaccess_") + line + "\n"),
                  std::string::npos)
            << line;
    expect_documented();
}

} // namespace
