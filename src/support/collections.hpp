#pragma once
// Mapping helpers over arrays and dictionaries. The callback's own result type carries "absent": a
// std::optional, a null JSON value or a null pointer is kept in the result, so the output always has
// one element per input element.
#include <boost/json.hpp>

#include <concepts>
#include <cstddef>
#include <ranges>
#include <type_traits>
#include <utility>
#include <vector>

namespace qnbrl {

namespace detail {

template <class E>
decltype(auto) entryKey(const E& e) {
  if constexpr (std::is_same_v<E, boost::json::key_value_pair>) {
    return e.key();
  } else {
    return (e.first);
  }
}

template <class E>
decltype(auto) entryValue(const E& e) {
  if constexpr (std::is_same_v<E, boost::json::key_value_pair>) {
    return (e.value());
  } else {
    return (e.second);
  }
}

}  // namespace detail

// A dictionary: std::map, std::unordered_map or a JSON object.
template <class D>
concept Dictionary = std::same_as<std::remove_cvref_t<D>, boost::json::object> || requires {
  typename std::remove_cvref_t<D>::mapped_type;
};

// Calls fn(key, value) once for every entry, in the dictionary's enumeration order.
template <Dictionary D, class F>
void qn_each(const D& dict, F&& fn) {
  for (const auto& entry : dict) fn(detail::entryKey(entry), detail::entryValue(entry));
}

// Calls fn(element, index, stop) for each element in order and collects the results; setting the
// bool `stop` to true ends the walk after the current element.
template <std::ranges::input_range A, class F>
requires(!Dictionary<A>) auto qn_map(const A& array, F&& fn) {
  using R = std::invoke_result_t<F&, std::ranges::range_reference_t<const A>, std::size_t, bool&>;
  std::vector<R> out;
  std::size_t index = 0;
  bool stop = false;
  for (const auto& element : array) {
    out.push_back(fn(element, index++, stop));
    if (stop) break;
  }
  return out;
}

// Calls fn(key, value) for every entry through qn_each and collects the results in enumeration order.
template <Dictionary D, class F>
auto qn_map(const D& dict, F&& fn) {
  using Entry = std::ranges::range_reference_t<const D>;
  using R = std::invoke_result_t<F&, decltype(detail::entryKey(std::declval<Entry>())),
                                 decltype(detail::entryValue(std::declval<Entry>()))>;
  std::vector<R> out;
  qn_each(dict, [&](const auto& key, const auto& value) { out.push_back(fn(key, value)); });
  return out;
}

}  // namespace qnbrl
