// Intrusive reference counting: the ownership model of every entity and
// state machine. A Ptr<const T> grants read access only, which is how the
// root hands read-only inputs to the machines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

namespace Tavrin::Rt {

// Base of every reference-counted object. The count is plain (the agent has
// one thread); it is mutable so that a Ptr<const T> can share ownership.
class RefCounted {
 public:
   RefCounted() = default;
   RefCounted(const RefCounted&) = delete;
   RefCounted& operator=(const RefCounted&) = delete;

   uint32_t references() const { return refs_; }
   void newRef() const { ++refs_; }
   void delRef() const {
      if (--refs_ == 0) delete this;
   }

 protected:
   virtual ~RefCounted() = default;

 private:
   mutable uint32_t refs_ = 0;
};

template <class T>
class Ptr {
 public:
   using element_type = T;

   constexpr Ptr() = default;
   constexpr Ptr(std::nullptr_t) {}  // NOLINT: null converts implicitly, as for pointers
   explicit Ptr(T* p) : p_(p) {
      if (p_) p_->newRef();
   }
   Ptr(const Ptr& o) : Ptr(o.p_) {}
   Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
   template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(const Ptr<U>& o) : Ptr(o.get()) {}  // NOLINT: derived-to-base and to-const convert
   template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}  // NOLINT
   ~Ptr() {
      if (p_) p_->delRef();
   }

   Ptr& operator=(Ptr o) noexcept {
      std::swap(p_, o.p_);
      return *this;
   }

   T* get() const { return p_; }
   T* operator->() const { return p_; }
   T& operator*() const { return *p_; }
   explicit operator bool() const { return p_ != nullptr; }
   bool operator!() const { return p_ == nullptr; }

   // Gives up ownership without dropping the reference; for conversions.
   T* release() { return std::exchange(p_, nullptr); }

   template <class U>
   bool operator==(const Ptr<U>& o) const {
      return p_ == o.get();
   }
   bool operator==(std::nullptr_t) const { return p_ == nullptr; }
   template <class U>
   auto operator<=>(const Ptr<U>& o) const {
      return std::less<const void*>()(p_, o.get()) ? std::strong_ordering::less
             : p_ == o.get()                       ? std::strong_ordering::equal
                                                   : std::strong_ordering::greater;
   }

 private:
   T* p_ = nullptr;
};

// Allocates a T and returns the first owning Ptr to it.
template <class T, class... Args>
Ptr<T> makePtr(Args&&... args) {
   return Ptr<T>(new T(std::forward<Args>(args)...));
}

// Downcast that yields an empty Ptr when the object is of another type.
template <class T, class U>
Ptr<T> ptrCast(const Ptr<U>& p) {
   return Ptr<T>(dynamic_cast<T*>(p.get()));
}

// Drops constness: only for owners that were handed a writable input and
// stored it behind a read-only interface. Use sparingly.
template <class T>
Ptr<T> ptrConstCast(const Ptr<const T>& p) {
   return Ptr<T>(const_cast<T*>(p.get()));
}

}  // namespace Tavrin::Rt

template <class T>
struct std::hash<Tavrin::Rt::Ptr<T>> {
   size_t operator()(const Tavrin::Rt::Ptr<T>& p) const {
      return std::hash<const void*>()(static_cast<const void*>(p.get()));
   }
};
