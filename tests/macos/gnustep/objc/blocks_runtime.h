#pragma once

// GNUstep's headers ask for this name as soon as blocks are on.
#include <Block.h>
