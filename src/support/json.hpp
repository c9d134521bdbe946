#pragma once
// JSON text and the conversion between model objects and dictionaries. Model classes list their own
// fields once, in a FieldTable, instead of relying on run-time reflection.
#include <boost/json.hpp>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qnbrl {

// Compact JSON text of an array or an object, keys in the container's own order. Any other kind of
// value gives the empty string. nullopt when the value cannot be written as JSON text: a number that
// is not finite, or a string that is not valid UTF-8.
std::optional<std::string> jsonString(const boost::json::value& value);
std::optional<std::string> jsonString(const boost::json::object& object);
std::optional<std::string> jsonString(const boost::json::array& array);

// The integer a loosely typed reader takes from a value a server sent: a number with its fraction
// dropped, a boolean as 0 or 1, a text's leading decimal integer (after white space, with an optional
// sign). Values past the 64-bit range saturate at its bounds, so no large number reads as a small
// one. nullopt for anything else.
std::optional<std::int64_t> looseInteger(const boost::json::value& value);

// Dictionary key of a declared instance-variable name: exactly one leading character is dropped,
// whatever it is ("_channelId" gives "channelId", "name" gives "ame").
inline std::string_view keyOfField(std::string_view ivar) {
  return ivar.empty() ? ivar : ivar.substr(1);
}

// One declared field of T. `get` yields nullopt when the field holds no value (the key is then not
// entered); `set` receives nullptr when the dictionary has no value for the key.
template <class T>
struct Field {
  std::string ivar;
  std::function<std::optional<boost::json::value>(const T&)> get;
  std::function<void(T&, const boost::json::value*)> set;
};

// A field stored in a data member, converted with Boost.JSON's value_from / try_value_to. A member
// whose JSON form is null (an empty std::optional) counts as absent. A missing or unconvertible
// dictionary value resets the member to its default (an empty optional, zero, the empty string).
template <class T, class M>
Field<T> field(std::string ivar, M T::*member) {
  return Field<T>{std::move(ivar),
                  [member](const T& obj) -> std::optional<boost::json::value> {
                    boost::json::value v = boost::json::value_from(obj.*member);
                    if (v.is_null()) return std::nullopt;
                    return v;
                  },
                  [member](T& obj, const boost::json::value* v) {
                    if (v) {
                      if (auto converted = boost::json::try_value_to<M>(*v)) {
                        obj.*member = std::move(*converted);
                        return;
                      }
                    }
                    obj.*member = M{};
                  }};
}

// The fields that T itself declares (not its base classes), in declaration order.
template <class T>
class FieldTable {
 public:
  FieldTable(std::initializer_list<Field<T>> fields) : fields_(fields) {}

  // One entry per field that holds a value, keyed by keyOfField(ivar), in declaration order.
  boost::json::object jsonObject(const T& obj) const {
    boost::json::object out;
    for (const auto& f : fields_) {
      if (auto v = f.get(obj)) out[keyOfField(f.ivar)] = std::move(*v);
    }
    return out;
  }

  // Sets every declared field from the dictionary's value for its key; keys that match no field are
  // never looked at.
  void initWithDict(T& obj, const boost::json::object& dict) const {
    for (const auto& f : fields_) f.set(obj, dict.if_contains(keyOfField(f.ivar)));
  }

  // A default-constructed T with its fields set from the dictionary.
  T initWithDict(const boost::json::object& dict) const {
    T obj{};
    initWithDict(obj, dict);
    return obj;
  }

 private:
  std::vector<Field<T>> fields_;
};

}  // namespace qnbrl
