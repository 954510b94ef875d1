// Internals of UserDefaults shared with its tests and its fuzz target: the
// bounded reading of a settings file's text and the nesting depth of a value.
//
// Threads: pure functions; any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace zdr::detail {

/// Parses the text of a settings file. True with `out` set when it is a JSON
/// object within the size and nesting bounds of UserDefaults; otherwise false
/// with `why` saying what is wrong ("is not valid JSON", ...). Never recurses
/// on the input's nesting, so any text is safe to give it.
bool parseDefaultsText(std::string_view text, nlohmann::json& out, std::string& why);

/// How deeply `value` nests: 0 for a scalar, 1 for an array or object of
/// scalars, and so on. Iterative, so a deep value cannot overflow the stack.
std::size_t jsonNestingDepth(const nlohmann::json& value);

}  // namespace zdr::detail
