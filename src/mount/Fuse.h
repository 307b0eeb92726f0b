#pragma once

/// libfuse's low-level interface, in the one version that this folder is written to.
#ifndef FUSE_USE_VERSION
#define FUSE_USE_VERSION 312
#endif
#include <fuse_lowlevel.h>
