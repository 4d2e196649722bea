// The simulated chassis: a private root with the tree that the library expects, and the real
// kernel behind it. A test builds one at the start of its process; chassis-sim builds one and runs
// a command inside.
#pragma once

#include "sim/device_server.h"
#include "sim/hotswap.h"
#include "sim/nvram.h"
#include "sim/pci.h"
#include "sim/post_log.h"
#include "sim/private_root.h"
#include "sim/support.h"
#include "sim/uio.h"
