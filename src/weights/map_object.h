#pragma once
// Type-erased values of weight records and model environments. A lookup that asks for another
// type than the stored one finds nothing, so a record of the wrong type reads as absent.
#include <map>
#include <memory>
#include <string>

#include "utils/sonel_exception.h"

namespace SONEL::CONTAINERS {

class MapObject {
public:
    virtual ~MapObject() = default;
};

template <typename T>
class Any : public MapObject {
public:
    explicit Any(T value) : value_(std::move(value)) {}
    T& get() { return value_; }
    const T& get() const { return value_; }

private:
    T value_;
};

using ObjectMap = std::map<std::string, std::shared_ptr<MapObject>>;

// Typed read of an entry; null when the key is absent or holds another type.
template <typename T>
const T* findValue(const ObjectMap& map, const std::string& key) {
    auto it = map.find(key);
    if (it == map.end()) return nullptr;
    auto* holder = dynamic_cast<const Any<T>*>(it->second.get());
    return holder ? &holder->get() : nullptr;
}

// The model environment: control-file entries as strings, keyed by name.
class AnyMap {
public:
    template <typename T>
    void set(const std::string& key, T value) {
        values_[key] = std::make_shared<Any<T>>(std::move(value));
    }
    template <typename T>
    const T* find(const std::string& key) const {
        return findValue<T>(values_, key);
    }
    template <typename T>
    const T& getReference(const std::string& key) const {
        const T* value = find<T>(key);
        if (!value)
            throw UTILS::SonelException("ERROR DATA With Key: " + key + " doesn't exists",
                                        "src/weights/any_map", __LINE__, "getReference");
        return *value;
    }
    bool contains(const std::string& key) const { return values_.count(key) != 0; }
    size_t size() const { return values_.size(); }
    const ObjectMap& entries() const { return values_; }

private:
    ObjectMap values_;
};

}  // namespace SONEL::CONTAINERS
