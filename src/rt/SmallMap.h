// Containers for the few-per-client collections of the lease table.
//
// A client nearly always holds one lease from one server. Giving each client
// a hash table or a tree costs an allocation and a bucket array per client;
// these keep the first element inside the owner and search linearly.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

namespace Tavrin::Rt {

// A vector that holds its first element in place.
template <class T>
class SmallVec {
 public:
   SmallVec() = default;
   SmallVec(const SmallVec&) = delete;
   SmallVec& operator=(const SmallVec&) = delete;
   ~SmallVec() {
      clear();
      if (data_ != local()) ::operator delete(data_);
   }

   size_t size() const { return size_; }
   bool empty() const { return size_ == 0; }
   T* begin() { return data_; }
   T* end() { return data_ + size_; }
   const T* begin() const { return data_; }
   const T* end() const { return data_ + size_; }
   T& operator[](size_t i) { return data_[i]; }
   const T& operator[](size_t i) const { return data_[i]; }

   T* insert(T* pos, T v) {
      size_t at = size_t(pos - data_);
      if (size_ == capacity_) grow();
      new (data_ + size_) T(std::move(v));
      ++size_;
      std::rotate(data_ + at, data_ + size_ - 1, data_ + size_);
      return data_ + at;
   }
   void push_back(T v) { insert(end(), std::move(v)); }

   T* erase(T* pos) {
      std::move(pos + 1, end(), pos);
      data_[--size_].~T();
      // Back to in-place storage once the spill is over, so that a client
      // that once had many leases does not keep the block forever.
      if (size_ <= 1 && data_ != local()) {
         const size_t at = size_t(pos - data_);
         T* heap = data_;
         data_ = local();
         if (size_ == 1) {
            new (data_) T(std::move(heap[0]));
            heap[0].~T();
         }
         ::operator delete(heap);
         capacity_ = 1;
         return data_ + at;
      }
      return pos;
   }

   void clear() {
      for (size_t i = 0; i < size_; ++i) data_[i].~T();
      size_ = 0;
   }

 private:
   T* local() { return reinterpret_cast<T*>(&local_); }

   void grow() {
      uint32_t cap = capacity_ * 2;
      T* heap = static_cast<T*>(::operator new(sizeof(T) * cap));
      for (size_t i = 0; i < size_; ++i) {
         new (heap + i) T(std::move(data_[i]));
         data_[i].~T();
      }
      if (data_ != local()) ::operator delete(data_);
      data_ = heap;
      capacity_ = cap;
   }

   alignas(T) unsigned char local_[sizeof(T)];
   T* data_ = local();
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
