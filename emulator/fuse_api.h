// libfuse's low-level interface, in the version the emulator is written for.
#pragma once

#define FUSE_USE_VERSION 35
#include <fuse_lowlevel.h>  // IWYU pragma: export
