#pragma once

#include "replica/model/Boxed.h"

namespace kestrowan::replica {

using model::Boxed;

}  // namespace kestrowan::replica
