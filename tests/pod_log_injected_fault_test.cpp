// This program answers the library's own question for an injected fault in its place, as the mask
// will one day.
#include "support/captured_output.h"

#include <device_access/pod_log_nvram.h>

#include <gtest/gtest.h>

static int answer;

int podlog_nvram_is_faultinject(int, int, int *faultinjected)
{
    *faultinjected = answer;
    return answer < 0 ? -1 : 1;
}

TEST(pod_log_injected_fault, is_a_failed_status)
{
    test_support::captured_output output;
    answer = 1;
    EXPECT_EQ(podlog_nvram_get_pod_status(1, 22), POD_STATUS_FAILED);
    EXPECT_EQ(output.take_stdout(), "nvram 1: POD failure is injected for 22\n");
    answer = -1;
    EXPECT_EQ(podlog_nvram_get_pod_status(1, 22), POD_STATUS_INVALID);
    EXPECT_EQ(output.take_stdout() + output.take_stderr(), "");
}
