#pragma once
#include "replica/remote/Health.h"
namespace kestrowan::replica::remote { using Reach = Health; }
