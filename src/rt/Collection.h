// Small helpers for entity setters: they report whether a value changed so
// that the caller notifies only on a real change.
#pragma once

#include <utility>

namespace Tavrin::Rt {

// field = value; true when it changed.
template <class T, class U>
bool assignIfChanged(T& field, U&& value) {
   if (field == value) return false;
   field = std::forward<U>(value);
   return true;
}

// map[key] = value; true when the member was added or changed.
template <class M, class K, class V>
bool mapAssign(M& map, const K& key, V&& value) {
   auto [it, inserted] = map.try_emplace(key, value);
   if (inserted) return true;
   if (it->second == value) return false;
   it->second = std::forward<V>(value);
   return true;
}

// The member under key, or a default-constructed value (an empty Ptr).
template <class M, class K>
typename M::mapped_type mapFind(const M& map, const K& key) {
   auto it = map.find(key);
   return it == map.end() ? typename M::mapped_type() : it->second;
}

}  // namespace Tavrin::Rt

#include <stdexcept>

namespace Tavrin::Rt {

// Re-creating a keyed child with a different constructor value.
class NameInUseError : public std::logic_error {
 public:
   using std::logic_error::logic_error;
};

}  // namespace Tavrin::Rt
