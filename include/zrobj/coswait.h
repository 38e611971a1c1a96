// The vocabulary of waits and kernel objects (time-outs, wait results, change-notification filter
// bits, security attributes, find data); it lives in zrtypes.h, which the platform layer shares.
#pragma once

#include "zrobj/zrtypes.h"
