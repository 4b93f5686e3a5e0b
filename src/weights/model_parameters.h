#pragma once
// The one rule every model uses to read a tunable parameter: the environment (control file) wins
// over the weight file, which wins over the built-in default; a value out of range falls back to
// the default with the parameter's warning.
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

#include "weights/model.h"

namespace SONEL::WEIGHTS {

namespace detail {

inline bool fromEnvironment(const std::string& text, float& out) {
    out = static_cast<float>(std::strtod(text.c_str(), nullptr));  // no number reads as 0
    return true;
}
inline bool fromEnvironment(const std::string& text, bool& out) {
    out = text == "TRUE";
    return true;
}
inline bool fromEnvironment(const std::string& text, uint64_t& out) {
    out = std::strtoull(text.c_str(), nullptr, 10);
    return true;
}

inline bool fromWeight(const Weight& weight, const std::string& key, float& out) {
    if (const float* v = weight.find<float>(key)) return out = *v, true;
    return false;
}
inline bool fromWeight(const Weight& weight, const std::string& key, bool& out) {
    if (const std::string* v = weight.find<std::string>(key)) return out = *v == "t", true;
    return false;
}
inline bool fromWeight(const Weight& weight, const std::string& key, uint64_t& out) {
    if (const unsigned* v = weight.find<unsigned>(key)) return out = *v, true;
    return false;
}

}  // namespace detail

// Looks up `baseKey` (e.g. "SONEL_SMOOT_COEF_v0_0_5") in the environment, then
// "CONTROL_" + baseKey in the weight, then takes `defaultValue`. T is float, bool or uint64_t.
template <typename T, typename InRange>
T lookupParameter(const ModelPair& model, const std::string& baseKey, T defaultValue,
                  InRange inRange, const char* warning) {
    T value = defaultValue;
    if (const std::string* text = model.second.find<std::string>(baseKey)) {
        detail::fromEnvironment(*text, value);
    } else if (model.first) {
        detail::fromWeight(*model.first, "CONTROL_" + baseKey, value);
    }
    if (!inRange(value)) {
        if (warning) std::cout << warning << std::endl;
        value = defaultValue;
    }
    return value;
}

template <typename T>
T lookupParameter(const ModelPair& model, const std::string& baseKey, T defaultValue) {
    return lookupParameter(model, baseKey, defaultValue, [](T) { return true; }, nullptr);
}

}  // namespace SONEL::WEIGHTS
