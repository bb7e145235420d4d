#ifndef KEST_RECORD_PROTO_SIMULATOR_RECORD_DATA_INTERNAL_H_
#define KEST_RECORD_PROTO_SIMULATOR_RECORD_DATA_INTERNAL_H_

#include <kest/record/proto_simulator/record_data.h>

#include <string_view>
#include <typeinfo>

namespace kest_tf {

/// `node` as a T, null if it is null or of another class. Equal to dynamic_cast; the exact class, the usual case, is
/// seen without a search of the class tree.
template <typename T>
T* As(Data* node) {
    if (node == nullptr) return nullptr;
    const Data& base = *node;
    return typeid(base) == typeid(T) ? static_cast<T*>(node) : dynamic_cast<T*>(node);
}

/// The first child of `node` called `name` if it is of class T, otherwise null.
template <typename T>
T* FindChild(const Data& node, std::string_view name) {
    for (const auto& child : node.children) {
        if (child.first == name) return As<T>(child.second);
    }
    return nullptr;
}

}  // namespace kest_tf

#endif  // KEST_RECORD_PROTO_SIMULATOR_RECORD_DATA_INTERNAL_H_
