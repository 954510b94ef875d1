// Dictionary: the string-keyed bag of values that notifications and errors
// carry (user info), with typed look-up helpers.
//
// Thread safety: a value type; guard shared instances yourself.
#pragma once

#include <any>
#include <map>
#include <optional>
#include <string>

namespace zdr {

using Dictionary = std::map<std::string, std::any>;

/// The value under `key` if present and of type T, else nullptr.
template <class T>
const T* dictionaryValue(const Dictionary& d, const std::string& key) {
    auto it = d.find(key);
    if (it == d.end()) return nullptr;
    return std::any_cast<T>(&it->second);
}

/// The value under `key` if present and of type T.
template <class T>
std::optional<T> dictionaryGet(const Dictionary& d, const std::string& key) {
    if (const T* v = dictionaryValue<T>(d, key)) return *v;
    return std::nullopt;
}

}  // namespace zdr
