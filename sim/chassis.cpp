#include "sim/chassis.h"
