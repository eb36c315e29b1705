#include "rt/Entity.h"

namespace Tavrin::Rt {

EntityBase::Cursor*& EntityBase::activeCursors() {
   static Cursor* top = nullptr;
   return top;
}

EntityBase::Delivery::Delivery() {
   cursor.outer = activeCursors();
   activeCursors() = &cursor;
}

EntityBase::Delivery::~Delivery() { activeCursors() = cursor.outer; }

void EntityBase::addNotifiee(NotifieeLink* n) const {
   // Append, so that subscribers are called in subscription order. Lists
   // are short (a handful of machines follow any one entity).
   n->next_ = nullptr;
   if (!head_) {
      n->prev_ = nullptr;
      head_ = n;
      return;
   }
   NotifieeLink* tail = head_;
   while (tail->next_) tail = tail->next_;
   tail->next_ = n;
   n->prev_ = tail;
}

void EntityBase::delNotifiee(NotifieeLink* n) const {
   // Any delivery about to visit n visits its successor instead.
   for (Cursor* c = activeCursors(); c; c = c->outer) {
      if (c->next == n) c->next = n->next_;
   }
   if (n->prev_) {
      n->prev_->next_ = n->next_;
   } else if (head_ == n) {
      head_ = n->next_;
   }
   if (n->next_) n->next_->prev_ = n->prev_;
   n->next_ = n->prev_ = nullptr;
}

}  // namespace Tavrin::Rt
