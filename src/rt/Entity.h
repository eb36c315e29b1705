// Entities and their notifiees: the reactor contract every state machine is
// written against.
//
// An entity keeps an intrusive list of subscribers (notifiees). A setter that
// changes a value calls every subscriber before it returns: delivery is
// synchronous and nested. A subscriber may unsubscribe itself or others, or
// destroy their owners, from inside a handler; the delivery loop is told
// (through the cursor stack below) and never touches a removed notifiee.
// Subscribers are called in subscription order.
#pragma once

#include "rt/Ptr.h"

namespace Tavrin::Rt {

class EntityBase;

// Intrusive list node of one subscription.
class NotifieeLink {
 public:
   NotifieeLink() = default;
   NotifieeLink(const NotifieeLink&) = delete;
   NotifieeLink& operator=(const NotifieeLink&) = delete;

 protected:
   ~NotifieeLink() = default;

 private:
   friend class EntityBase;
   NotifieeLink* next_ = nullptr;
   NotifieeLink* prev_ = nullptr;
};

class EntityBase : public RefCounted {
 public:
   void addNotifiee(NotifieeLink* n) const;
   void delNotifiee(NotifieeLink* n) const;
   bool hasNotifiees() const { return head_ != nullptr; }

 protected:
   // Calls f(N&) for every subscriber; N is the entity's Notifiee type.
   template <class N, class F>
   void notify(F&& f) const {
      NotifieeLink* n = head_;
      if (!n) return;
      Delivery d;
      while (n) {
         d.cursor.next = n->next_;
         f(static_cast<N&>(*n));
         n = d.cursor.next;
      }
   }

 private:
   struct Cursor {
      NotifieeLink* next = nullptr;
      Cursor* outer = nullptr;
   };
   // Registers a cursor for the duration of one delivery, so that removals
   // during the delivery can move it past the removed node.
   struct Delivery {
      Cursor cursor;
      Delivery();
      ~Delivery();
   };
   static Cursor*& activeCursors();

   mutable NotifieeLink* head_ = nullptr;
};

// A subscription to one entity of type E. Entities define their Notifiee as
// a subclass of this with virtual on<Attr>() methods that default to nothing.
template <class E>
class Notifiee : public NotifieeLink {
 public:
   Notifiee() = default;
   explicit Notifiee(const Ptr<const E>& e) { notifierIs(e); }
   virtual ~Notifiee() { detach(); }

   const Ptr<const E>& notifier() const { return notifier_; }
   // Moves the subscription to another entity (or to none).
   void notifierIs(const Ptr<const E>& e) {
      if (e == notifier_) return;
      detach();
      notifier_ = e;
      if (notifier_) notifier_->addNotifiee(this);
   }

 private:
   void detach() {
      if (!notifier_) return;
      notifier_->delNotifiee(this);
      notifier_ = nullptr;  // may destroy the entity: last thing we do with it
   }
   Ptr<const E> notifier_;
};

}  // namespace Tavrin::Rt
