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
    follow("devaccess/collect.txt");
    expect_documented();
}

TEST(devaccess_logs, merges_filters_and_prints_logs_as_people_and_programs_read_them)
{
    ::setenv("TZ", "Europe/Berlin", 1);
    ::setenv("DEVACCESS_CHASSIS", "n20", 1);
    follow("devaccess/timeline.txt");
    follow("devaccess/timeline_follow.txt");
    start_chassis();
    follow("devaccess/timeline_of_damage.txt");
    follow("devaccess/postlog_damage.txt");
    follow("devaccess/timeline_since_last.txt");
    expect_documented();
}

TEST(devaccess_logs, gives_monitoring_what_its_checkers_accept)
{
    start_chassis();
    follow("devaccess/metrics.txt");
    for (const char *line :
         {"pod_status{card=\"ALSW1\",status=\"Failed\"} 1", "pod_fault_injected{card=\"SW1\"} 1",
          "pod_storage_good{card=\"SW2\"} 0", "pod_entries{card=\"SW1\"} 1", "post_errors 1",
          "post_storage_good{block=\"test\"} 1",
          "post_storage_state{block=\"test\",state=\"good\"} 1",
          "pcie_link_width_lanes{port=\"0000:00:1c.0\"} 4"})
        EXPECT_NE(read_file("/var/tmp/m.prom").find(std::string("\ndevaccess_") + line + "\n"),
                  std::string::npos)
            << line;
    expect_documented();
}

TEST(devaccess_fleet, judges_and_compares_the_machines_of_archives)
{
    char directory[] = "/tmp/fleet.XXXXXX";
    ::setenv("FLEET", ::mkdtemp(directory), 1);
    ::setenv("MACHINES", SOURCE "/tests/machines", 1);
    follow("devaccess/fleet.txt");
    if (::getuid() == 0) // who can be somebody else
        follow("devaccess/fleet_without_rights.txt");
    run("rm -r $FLEET");
    start_chassis();
    expect_documented();
}

} // namespace
