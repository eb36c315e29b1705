// Open-addressing hash tables for the agent's large indexes.
//
// A million leases in node-based maps cost an allocation per entry and a
// chain of dependent cache misses per lookup. These tables keep their
// entries in one array (linear probing, at most three quarters full,
// backward-shift deletion so there are no tombstones) and mark a free slot
// by a null Ptr, so an entry costs its own bytes and a lookup usually one
// miss.
//
// Unlike node-based maps, an insert may move every entry and an erase may
// move its neighbours: never hold an iterator or reference across either.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "rt/Ptr.h"

namespace Tavrin::Rt {

// gcc 12 drops a __builtin_prefetch that sits behind any branch (as every
// lookup's does: the key's hash depends on its family), so on x86 the
// instruction is written out.
inline void prefetchRead(const void* p) {
#if defined(__x86_64__) || defined(__i386__)
   asm volatile("prefetcht0 %0" : : "m"(*static_cast<const char*>(p)));
#else
   __builtin_prefetch(p);
#endif
}

// The table proper. Traits says what a slot holds:
//   Slot                            default-constructed = free
//   Key                             what the table is searched by
//   static bool used(const Slot&)
//   static decltype(auto) key(const Slot&)
//   static size_t hash(const Key&)
template <class Traits>
class FlatTable {
 public:
   using Slot = typename Traits::Slot;
   using Key = typename Traits::Key;

   FlatTable() = default;
   FlatTable(const FlatTable&) = delete;
   FlatTable& operator=(const FlatTable&) = delete;
   FlatTable(FlatTable&& o) noexcept { swap(o); }
   FlatTable& operator=(FlatTable&& o) noexcept {
      FlatTable(std::move(o)).swap(*this);
      return *this;
   }

   size_t size() const { return size_; }
   bool empty() const { return size_ == 0; }
   size_t capacity() const { return capacity_; }

   Slot* findSlot(const Key& k) const {
      if (size_ == 0) return nullptr;
      for (size_t i = home(k);; i = (i + 1) & (capacity_ - 1)) {
         Slot& s = slots_[i];
         if (!Traits::used(s)) return nullptr;
         if (Traits::key(s) == k) return &s;
      }
   }

   // Starts the load of k's first slot, for a caller about to look up a
   // batch of keys: the misses of the batch then overlap.
   void prefetch(const Key& k) const {
      if (capacity_) prefetchRead(&slots_[home(k)]);
   }

   // The slot for k, free if k is absent (fill it before any other change).
   Slot& slotFor(const Key& k) {
      if ((size_ + 1) * 4 > capacity_ * 3) rehash(capacity_ ? capacity_ * 2 : kMinCapacity);
      for (size_t i = home(k);; i = (i + 1) & (capacity_ - 1)) {
         Slot& s = slots_[i];
         if (!Traits::used(s) || Traits::key(s) == k) return s;
      }
   }
   // Counts a slot returned free by slotFor once it is filled.
   void filled() { ++size_; }

   void erase(Slot* s) {
      // Released only once the table is whole again: its destructor may
      // run code that reads the table.
      [[maybe_unused]] Slot gone = std::move(*s);
      *s = Slot();
      size_t i = size_t(s - slots_.get());
      const size_t mask = capacity_ - 1;
      // Pull back every later entry of the run that may live in the gap, so
      // that no probe ever stops early at it.
      for (size_t j = (i + 1) & mask; Traits::used(slots_[j]); j = (j + 1) & mask) {
         size_t h = home(Traits::key(slots_[j]));
         if (((j - h) & mask) >= ((j - i) & mask)) {
            slots_[i] = std::move(slots_[j]);
            i = j;
         }
      }
      slots_[i] = Slot();
      --size_;
   }

   size_t eraseKey(const Key& k) {
      Slot* s = findSlot(k);
      if (!s) return 0;
      erase(s);
      return 1;
   }

   void reserve(size_t n) {
      size_t cap = kMinCapacity;
      while (cap * 3 < n * 4) cap *= 2;
      if (cap > capacity_) rehash(cap);
   }

   void clear() {
      FlatTable gone;
      swap(gone);
   }

   void swap(FlatTable& o) noexcept {
      std::swap(slots_, o.slots_);
      std::swap(capacity_, o.capacity_);
      std::swap(size_, o.size_);
      std::swap(shift_, o.shift_);
   }

   Slot* slots() const { return slots_.get(); }

   template <class S>
   class Iterator {
    public:
      using iterator_category = std::forward_iterator_tag;
      using difference_type = std::ptrdiff_t;
      using value_type = S;
      using pointer = S*;
      using reference = S&;

      Iterator() = default;
      Iterator(S* p, S* end) : p_(p), end_(end) { skip(); }
      template <class O, class = std::enable_if_t<std::is_convertible_v<O*, S*>>>
      Iterator(const Iterator<O>& o) : p_(o.p_), end_(o.end_) {}  // NOLINT: to const

      S& operator*() const { return *p_; }
      S* operator->() const { return p_; }
      Iterator& operator++() {
         ++p_;
         skip();
         return *this;
      }
      Iterator operator++(int) {
         Iterator r = *this;
         ++*this;
         return r;
      }
      bool operator==(const Iterator& o) const { return p_ == o.p_; }

    private:
      template <class>
      friend class Iterator;
      void skip() {
         while (p_ != end_ && !Traits::used(*p_)) ++p_;
      }
      S* p_ = nullptr;
      S* end_ = nullptr;
   };

   Iterator<Slot> begin() { return {slots_.get(), slots_.get() + capacity_}; }
   Iterator<Slot> end() { return {slots_.get() + capacity_, slots_.get() + capacity_}; }
   Iterator<const Slot> begin() const { return {slots_.get(), slots_.get() + capacity_}; }
   Iterator<const Slot> end() const {
      return {slots_.get() + capacity_, slots_.get() + capacity_};
   }
   Iterator<Slot> at(Slot* s) { return {s, slots_.get() + capacity_}; }
   Iterator<const Slot> at(const Slot* s) const { return {s, slots_.get() + capacity_}; }

 private:
   static constexpr size_t kMinCapacity = 8;

   // Fibonacci hashing spreads even identity hashes (pointers, counters)
   // over the whole table.
   size_t home(const Key& k) const {
      return size_t((uint64_t(Traits::hash(k)) * 0x9e3779b97f4a7c15ULL) >> shift_);
   }

   void rehash(size_t cap) {
      std::unique_ptr<Slot[]> old = std::move(slots_);
      size_t oldCap = capacity_;
      slots_ = std::make_unique<Slot[]>(cap);
      capacity_ = cap;
      shift_ = 64;
      for (size_t c = cap; c > 1; c >>= 1) --shift_;
      for (size_t i = 0; i < oldCap; ++i) {
         if (!Traits::used(old[i])) continue;
         size_t j = home(Traits::key(old[i]));
         while (Traits::used(slots_[j])) j = (j + 1) & (capacity_ - 1);
         slots_[j] = std::move(old[i]);
      }
   }

   std::unique_ptr<Slot[]> slots_;
   size_t capacity_ = 0;
   size_t size_ = 0;
   unsigned shift_ = 64;
};

// Iterates It and yields proj(element): how the keyed tables present their
// records as (key, value) pairs without storing pairs. A projection may
// carry state (a table to look the value up in); an empty one costs nothing.
template <class It, class Proj>
class ProjectingIterator {
 public:
   using iterator_category = std::forward_iterator_tag;
   using difference_type = std::ptrdiff_t;
   using value_type = decltype(std::declval<const Proj&>()(*std::declval<It>()));
   using reference = value_type;

   ProjectingIterator() = default;
   explicit ProjectingIterator(It it, Proj proj = Proj()) : it_(it), proj_(proj) {}
   value_type operator*() const { return proj_(*it_); }
   ProjectingIterator& operator++() {
      ++it_;
      return *this;
   }
   bool operator==(const ProjectingIterator& o) const { return it_ == o.it_; }

 private:
   It it_{};
   [[no_unique_address]] Proj proj_{};
};

template <class K, class T, class Hash>
struct FlatMapTraits {
   using Slot = std::pair<K, Ptr<T>>;
   using Key = K;
   static bool used(const Slot& s) { return bool(s.second); }
   static const K& key(const Slot& s) { return s.first; }
   static size_t hash(const K& k) { return Hash()(k); }
};

// A map from a key to a Ptr, with the interface of std::unordered_map the
// agent uses. A null Ptr marks a free slot, so a null value is never stored:
// assigning one erases the key.
template <class K, class T, class Hash = std::hash<K>>
class FlatMap {
   using Table = FlatTable<FlatMapTraits<K, T, Hash>>;

 public:
   using key_type = K;
   using mapped_type = Ptr<T>;
   using value_type = std::pair<K, Ptr<T>>;
   using iterator = typename Table::template Iterator<value_type>;
   using const_iterator = typename Table::template Iterator<const value_type>;

   size_t size() const { return t_.size(); }
   bool empty() const { return t_.empty(); }
   void reserve(size_t n) { t_.reserve(n); }
   void clear() { t_.clear(); }

   iterator begin() { return t_.begin(); }
   iterator end() { return t_.end(); }
   const_iterator begin() const { return t_.begin(); }
   const_iterator end() const { return t_.end(); }

   iterator find(const K& k) {
      auto* s = t_.findSlot(k);
      return s ? t_.at(s) : end();
   }
   const_iterator find(const K& k) const {
      auto* s = t_.findSlot(k);
      return s ? t_.at(s) : end();
   }
   size_t count(const K& k) const { return t_.findSlot(k) ? 1 : 0; }

   // The value under k without touching its reference count; null if absent.
   T* get(const K& k) const {
      auto* s = t_.findSlot(k);
      return s ? s->second.get() : nullptr;
   }

   std::pair<iterator, bool> try_emplace(const K& k, Ptr<T> v) {
      auto& s = t_.slotFor(k);
      if (s.second) return {t_.at(&s), false};
      if (!v) return {end(), false};
      s.first = k;
      s.second = std::move(v);
      t_.filled();
      return {t_.at(&s), true};
   }
   std::pair<iterator, bool> emplace(const K& k, Ptr<T> v) { return try_emplace(k, std::move(v)); }

   // Inserts or replaces; a null v erases.
   void assign(const K& k, Ptr<T> v) {
      if (!v) {
         erase(k);
         return;
      }
      auto& s = t_.slotFor(k);
      if (!s.second) {
         s.first = k;
         t_.filled();
      }
      s.second = std::move(v);
   }

   size_t erase(const K& k) { return t_.eraseKey(k); }

 private:
   Table t_;
};

template <class T>
struct FlatPtrSetTraits {
   using Slot = Ptr<T>;
   using Key = const T*;
   static bool used(const Slot& s) { return bool(s); }
   static const T* key(const Slot& s) { return s.get(); }
   static size_t hash(const T* p) { return std::hash<const void*>()(p); }
};

// A set of Ptrs by identity, with the interface of std::unordered_set.
template <class T>
class FlatPtrSet {
   using Table = FlatTable<FlatPtrSetTraits<T>>;

 public:
   using value_type = Ptr<T>;
   using const_iterator = typename Table::template Iterator<const Ptr<T>>;
   using iterator = const_iterator;

   size_t size() const { return t_.size(); }
   bool empty() const { return t_.empty(); }
   void reserve(size_t n) { t_.reserve(n); }
   void clear() { t_.clear(); }
   const_iterator begin() const { return t_.begin(); }
   const_iterator end() const { return t_.end(); }

   size_t count(const Ptr<T>& p) const { return t_.findSlot(p.get()) ? 1 : 0; }
   bool insert(const Ptr<T>& p) {
      if (!p) return false;
      auto& s = t_.slotFor(p.get());
      if (s) return false;
      s = p;
      t_.filled();
      return true;
   }
   size_t erase(const Ptr<T>& p) { return t_.eraseKey(p.get()); }

 private:
   Table t_;
};

template <class T, class KeyOf, class Hash>
struct FlatKeyedTraits {
   using Slot = Ptr<T>;
   using Key = std::decay_t<decltype(KeyOf()(std::declval<const T&>()))>;
   static bool used(const Slot& s) { return bool(s); }
   static decltype(auto) key(const Slot& s) { return KeyOf()(*s); }
   static size_t hash(const Key& k) { return Hash()(k); }
};

// A map whose key is part of its value: stores only the Ptr, and reads the
// key through it. Iterating yields (key, value) pairs of references, so it
// reads like a map: `for (const auto& [key, value] : m)`.
template <class T, class KeyOf, class Hash = std::hash<
                                    std::decay_t<decltype(KeyOf()(std::declval<const T&>()))>>>
class FlatKeyedMap {
   using Traits = FlatKeyedTraits<T, KeyOf, Hash>;
   using Table = FlatTable<Traits>;

 public:
   using key_type = typename Traits::Key;
   using mapped_type = Ptr<T>;

   struct AsPair {
      std::pair<const key_type&, const Ptr<T>&> operator()(const Ptr<T>& p) const {
         return {KeyOf()(*p), p};
      }
   };
   using const_iterator =
       ProjectingIterator<typename Table::template Iterator<const Ptr<T>>, AsPair>;
   using iterator = const_iterator;

   size_t size() const { return t_.size(); }
   bool empty() const { return t_.empty(); }
   void reserve(size_t n) { t_.reserve(n); }
   void clear() { t_.clear(); }
   const_iterator begin() const { return const_iterator(t_.begin()); }
   const_iterator end() const { return const_iterator(t_.end()); }

   size_t count(const key_type& k) const { return t_.findSlot(k) ? 1 : 0; }
   T* get(const key_type& k) const {
      auto* s = t_.findSlot(k);
      return s ? s->get() : nullptr;
   }
   // Inserts v under its own key unless that key is present; returns the
   // value held under the key afterwards.
   const Ptr<T>& insert(Ptr<T> v) {
      auto& s = t_.slotFor(KeyOf()(*v));
      if (!s) {
         s = std::move(v);
         t_.filled();
      }
      return s;
   }
   size_t erase(const key_type& k) { return t_.eraseKey(k); }

 private:
   Table t_;
};

}  // namespace Tavrin::Rt

namespace Tavrin::Rt {

// A map whose values are plain records holding their own key, for the
// tables with one wide record per lease. The records sit densely in one
// vector and the hash index holds 32-bit positions into it, so a million
// records cost their own bytes plus about eight, where a table of records
// at most three quarters full costs up to twice their size. Erasing moves
// the last record into the hole: the order of iteration is not kept.
template <class V, class KeyOf,
          class Hash = std::hash<std::decay_t<decltype(KeyOf()(std::declval<const V&>()))>>>
class DenseKeyedMap {
 public:
   using key_type = std::decay_t<decltype(KeyOf()(std::declval<const V&>()))>;
   using mapped_type = V;

   struct AsPair {
      std::pair<const key_type&, const V&> operator()(const V& v) const { return {KeyOf()(v), v}; }
   };
   using const_iterator = ProjectingIterator<const V*, AsPair>;
   using iterator = const_iterator;

   size_t size() const { return values_.size(); }
   bool empty() const { return values_.empty(); }
   const_iterator begin() const { return const_iterator(values_.data()); }
   const_iterator end() const { return const_iterator(values_.data() + values_.size()); }

   void reserve(size_t n) {
      values_.reserve(n);
      size_t cap = kMinCapacity;
      while (cap * 3 < n * 4) cap *= 2;
      if (cap > capacity_) rehash(cap);
   }
   void clear() {
      values_.clear();
      index_.reset();
      capacity_ = 0;
      shift_ = 64;
   }

   const V* get(const key_type& k) const {
      if (values_.empty()) return nullptr;
      uint32_t* s = findSlot(k);
      return s ? &values_[*s - 1] : nullptr;
   }

   // Inserts or replaces v under its own key; true when anything changed.
   bool assign(const V& v) {
      const key_type& k = KeyOf()(v);
      if (uint32_t* s = values_.empty() ? nullptr : findSlot(k)) {
         V& held = values_[*s - 1];
         if (held == v) return false;
         held = v;
         return true;
      }
      if ((values_.size() + 1) * 4 > capacity_ * 3) rehash(capacity_ ? capacity_ * 2 : kMinCapacity);
      values_.push_back(v);
      size_t i = home(KeyOf()(values_.back()));
      while (index_[i]) i = (i + 1) & (capacity_ - 1);
      index_[i] = uint32_t(values_.size());
      return true;
   }

   size_t erase(const key_type& key) {
      if (values_.empty()) return 0;
      uint32_t* s = findSlot(key);
      if (!s) return 0;
      const uint32_t pos = *s;
      // Fill the hole with the last record, so the records stay dense.
      if (pos != values_.size()) {
         uint32_t* last = findSlot(KeyOf()(values_.back()));
         values_[pos - 1] = std::move(values_.back());
         *last = pos;
      }
      values_.pop_back();
      eraseSlot(size_t(s - index_.get()));
      return 1;
   }

 private:
   static constexpr size_t kMinCapacity = 8;

   size_t home(const key_type& k) const {
      return size_t((uint64_t(Hash()(k)) * 0x9e3779b97f4a7c15ULL) >> shift_);
   }
   uint32_t* findSlot(const key_type& k) const {
      for (size_t i = home(k);; i = (i + 1) & (capacity_ - 1)) {
         uint32_t& s = index_[i];
         if (!s) return nullptr;
         if (KeyOf()(values_[s - 1]) == k) return &s;
      }
   }
   void eraseSlot(size_t i) {
      const size_t mask = capacity_ - 1;
      for (size_t j = (i + 1) & mask; index_[j]; j = (j + 1) & mask) {
         size_t h = home(KeyOf()(values_[index_[j] - 1]));
         if (((j - h) & mask) >= ((j - i) & mask)) {
            index_[i] = index_[j];
            i = j;
         }
      }
      index_[i] = 0;
   }
   void rehash(size_t cap) {
      index_ = std::make_unique<uint32_t[]>(cap);
      capacity_ = cap;
      shift_ = 64;
      for (size_t c = cap; c > 1; c >>= 1) --shift_;
      for (size_t v = 0; v < values_.size(); ++v) {
         size_t i = home(KeyOf()(values_[v]));
         while (index_[i]) i = (i + 1) & (capacity_ - 1);
         index_[i] = uint32_t(v + 1);
      }
   }

   std::vector<V> values_;
   std::unique_ptr<uint32_t[]> index_;  // position + 1 in values_; 0 is free
   size_t capacity_ = 0;
   unsigned shift_ = 64;
};

}  // namespace Tavrin::Rt
