// Containers for the few-per-client collections of the lease table.
//
// A client nearly always holds one lease from one server. Giving each client
// a hash table or a tree costs an allocation and a bucket array per client;
// these keep the first element inside the owner and search linearly.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace Tavrin::Rt {

// A vector that holds its first element in place. The place doubles as the
// pointer to the spilled elements, so a client's two small maps each cost
// their element and eight bytes (and not sixteen): that keeps the client
// record in a smaller heap block.
template <class T>
class SmallVec {
 public:
   SmallVec() = default;
   SmallVec(const SmallVec&) = delete;
   SmallVec& operator=(const SmallVec&) = delete;
   ~SmallVec() {
      clear();
      if (spilled()) ::operator delete(heap());
   }

   size_t size() const { return size_; }
   bool empty() const { return size_ == 0; }
   T* begin() { return data(); }
   T* end() { return data() + size_; }
   const T* begin() const { return data(); }
   const T* end() const { return data() + size_; }
   T& operator[](size_t i) { return data()[i]; }
   const T& operator[](size_t i) const { return data()[i]; }

   T* insert(T* pos, T v) {
      size_t at = size_t(pos - data());
      if (size_ == capacity_) grow();
      T* d = data();
      new (d + size_) T(std::move(v));
      ++size_;
      std::rotate(d + at, d + size_ - 1, d + size_);
      return d + at;
   }
   void push_back(T v) { insert(end(), std::move(v)); }

   T* erase(T* pos) {
      T* d = data();
      std::move(pos + 1, d + size_, pos);
      d[--size_].~T();
      // Back to in-place storage once the spill is over, so that a client
      // that once had many leases does not keep the block forever.
      if (size_ <= 1 && spilled()) {
         const size_t at = size_t(pos - d);
         T* spill = d;
         if (size_ == 1) {
            new (local()) T(std::move(spill[0]));
            spill[0].~T();
         }
         ::operator delete(spill);
         capacity_ = 1;
         return local() + at;
      }
      return pos;
   }

   void clear() {
      T* d = data();
      for (size_t i = 0; i < size_; ++i) d[i].~T();
      size_ = 0;
   }

 private:
   // In place while the capacity is one; spilled blocks hold two or more.
   bool spilled() const { return capacity_ > 1; }
   T* local() { return std::launder(reinterpret_cast<T*>(place_)); }
   const T* local() const { return std::launder(reinterpret_cast<const T*>(place_)); }
   T* heap() const {
      T* p;
      std::memcpy(&p, place_, sizeof p);
      return p;
   }
   T* data() { return spilled() ? heap() : local(); }
   const T* data() const { return spilled() ? heap() : local(); }

   void grow() {
      uint32_t cap = capacity_ * 2;
      T* spill = static_cast<T*>(::operator new(sizeof(T) * cap));
      T* d = data();
      for (size_t i = 0; i < size_; ++i) {
         new (spill + i) T(std::move(d[i]));
         d[i].~T();
      }
      if (spilled()) ::operator delete(d);
      std::memcpy(place_, &spill, sizeof spill);
      capacity_ = cap;
   }

   // The first element, or once spilled the pointer to all of them.
   alignas(T) alignas(T*) unsigned char place_[std::max(sizeof(T), sizeof(T*))];
   uint32_t size_ = 0;
   uint32_t capacity_ = 1;
};

// A map kept in key order in a SmallVec, with the std::map interface the
// agent uses.
template <class K, class V>
class SmallMap {
 public:
   using key_type = K;
   using mapped_type = V;
   using value_type = std::pair<K, V>;
   using iterator = value_type*;
   using const_iterator = const value_type*;

   size_t size() const { return v_.size(); }
   bool empty() const { return v_.empty(); }
   iterator begin() { return v_.begin(); }
   iterator end() { return v_.end(); }
   const_iterator begin() const { return v_.begin(); }
   const_iterator end() const { return v_.end(); }

   iterator find(const K& k) {
      // Equality alone: cheaper than ordering, and the entry is nearly
      // always the first.
      auto it = v_.begin();
      while (it != v_.end() && !(it->first == k)) ++it;
      return it;
   }
   const_iterator find(const K& k) const { return const_cast<SmallMap*>(this)->find(k); }
   size_t count(const K& k) const { return find(k) != end() ? 1 : 0; }

   std::pair<iterator, bool> try_emplace(const K& k, V v) {
      auto it = lowerBound(k);
      if (it != end() && it->first == k) return {it, false};
      return {v_.insert(it, value_type(k, std::move(v))), true};
   }
   V& operator[](const K& k) { return try_emplace(k, V()).first->second; }

   size_t erase(const K& k) {
      auto it = find(k);
      if (it == end()) return 0;
      v_.erase(it);
      return 1;
   }
   iterator erase(iterator it) { return v_.erase(it); }

 private:
   iterator lowerBound(const K& k) {
      // Linear: there is one entry nearly always, a handful at most.
      auto it = v_.begin();
      while (it != v_.end() && it->first < k) ++it;
      return it;
   }

   SmallVec<value_type> v_;
};

// An unordered set in a SmallVec, with the std::unordered_set interface the
// agent uses.
template <class T>
class SmallSet {
 public:
   using value_type = T;
   using const_iterator = const T*;
   using iterator = const T*;

   size_t size() const { return v_.size(); }
   bool empty() const { return v_.empty(); }
   const T* begin() const { return v_.begin(); }
   const T* end() const { return v_.end(); }

   size_t count(const T& x) const { return std::find(v_.begin(), v_.end(), x) != v_.end(); }
   bool insert(const T& x) {
      if (count(x)) return false;
      v_.push_back(x);
      return true;
   }
   size_t erase(const T& x) {
      auto* it = std::find(v_.begin(), v_.end(), x);
      if (it == v_.end()) return 0;
      // Order does not matter: fill the hole with the last element.
      if (it != v_.end() - 1) std::swap(*it, *(v_.end() - 1));
      v_.erase(v_.end() - 1);
      return 1;
   }

 private:
   SmallVec<T> v_;
};

}  // namespace Tavrin::Rt
