#pragma once
// A registered model: the decoded weight file and its environment (control-file entries).
// Shared between the registry and every session built from it.
#include <memory>
#include <utility>

#include "weights/map_object.h"
#include "weights/weight.h"

namespace SONEL::WEIGHTS {

using ModelPair = std::pair<std::shared_ptr<Weight>, CONTAINERS::AnyMap>;
using ModelPtr = std::shared_ptr<ModelPair>;

}  // namespace SONEL::WEIGHTS
