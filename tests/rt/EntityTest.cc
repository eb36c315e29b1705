// The reactor contract where it can break: nested synchronous delivery,
// subscribers removed while a delivery is running, subscription order.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "rt/Collection.h"
#include "rt/Entity.h"

using namespace Tavrin;
using Rt::Ptr;

namespace {

// A minimal entity: one value and one keyed collection.
class Cell : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<Cell> {
    public:
      using Rt::Notifiee<Cell>::Notifiee;
      virtual void onValue() {}
      virtual void onMember(int) {}
   };
   int value() const { return value_; }
   void valueIs(int v) {
      if (Rt::assignIfChanged(value_, v)) notify<Notifiee>([](Notifiee& n) { n.onValue(); });
   }
   bool member(int k) const { return members_.count(k); }
   void memberIs(int k) {
      if (members_.insert(k).second) notify<Notifiee>([k](Notifiee& n) { n.onMember(k); });
   }
   void memberDel(int k) {
      if (members_.erase(k)) notify<Notifiee>([k](Notifiee& n) { n.onMember(k); });
   }

 private:
   int value_ = 0;
   std::set<int> members_;
};

struct Recorder : Cell::Notifiee {
   Recorder(const Ptr<Cell>& c, std::vector<std::string>& log, std::string name)
       : Cell::Notifiee(c), log_(log), name_(std::move(name)) {}
   void onValue() override {
      log_.push_back(name_ + ":" + std::to_string(notifier()->value()));
      if (onValueHook) onValueHook();
   }
   void onMember(int k) override {
      log_.push_back(name_ + (notifier()->member(k) ? ":has " : ":gone ") + std::to_string(k));
      if (onMemberHook) onMemberHook(k);
   }
   std::function<void()> onValueHook;
   std::function<void(int)> onMemberHook;
   std::vector<std::string>& log_;
   std::string name_;
};

}  // namespace

TEST(Entity, aSetterThatStoresTheHeldValueCallsNobody) {
   auto c = Rt::makePtr<Cell>();
   std::vector<std::string> log;
   Recorder r(c, log, "r");
   c->valueIs(0);
   EXPECT_TRUE(log.empty());
   c->valueIs(5);
   c->valueIs(5);
   EXPECT_EQ(log, std::vector<std::string>{"r:5"});
}

TEST(Entity, deliveryIsSynchronousNestedAndInSubscriptionOrder) {
   auto c = Rt::makePtr<Cell>();
   std::vector<std::string> log;
   Recorder first(c, log, "a");
   Recorder second(c, log, "b");
   // a reacts to 1 by writing 2: the write is handled completely by every
   // subscriber before a's handler returns, and b then sees the new value.
   first.onValueHook = [&] {
      if (c->value() == 1) c->valueIs(2);
      log.push_back("a-returns");
   };
   c->valueIs(1);
   EXPECT_EQ(log, (std::vector<std::string>{"a:1", "a:2", "a-returns", "b:2", "a-returns", "b:2"}));
}

TEST(Entity, aSubscriberRemovedDuringDeliveryIsNotCalled) {
   auto c = Rt::makePtr<Cell>();
   std::vector<std::string> log;
   Recorder first(c, log, "a");
   auto second = std::make_unique<Recorder>(c, log, "b");
   Recorder third(c, log, "c");
   first.onValueHook = [&] { second.reset(); };
   c->valueIs(1);
   EXPECT_EQ(log, (std::vector<std::string>{"a:1", "c:1"}));
}

TEST(Entity, aSubscriberMayDestroyItselfAndTheEntityInItsHandler) {
   // The subscriber holds the last reference: dropping itself destroys the
   // entity in the middle of the entity's own delivery (ASan watches).
   std::vector<std::string> log;
   auto c = Rt::makePtr<Cell>();
   Cell* raw = c.get();
   auto owner = std::make_unique<Recorder>(c, log, "a");
   c = nullptr;
   owner->onValueHook = [&] { owner.reset(); };
   raw->valueIs(3);
   EXPECT_EQ(log, std::vector<std::string>{"a:3"});
   EXPECT_FALSE(owner);
}

TEST(Entity, aHandlerFindsAMemberRemovedByAnEarlierNestedHandlerAbsent) {
   auto c = Rt::makePtr<Cell>();
   std::vector<std::string> log;
   Recorder remover(c, log, "a");
   Recorder reader(c, log, "b");
   remover.onMemberHook = [&](int k) {
      if (c->member(k)) c->memberDel(k);
   };
   c->memberIs(7);
   // b is told of the addition after the nested removal: it must look the
   // key up and treat the absent member as deleted.
   EXPECT_EQ(log, (std::vector<std::string>{"a:has 7", "a:gone 7", "b:gone 7", "b:gone 7"}));
}

TEST(Entity, notifierIsMovesTheSubscription) {
   auto c1 = Rt::makePtr<Cell>();
   auto c2 = Rt::makePtr<Cell>();
   std::vector<std::string> log;
   Recorder r(c1, log, "r");
   r.notifierIs(c2);
   c1->valueIs(1);
   c2->valueIs(2);
   EXPECT_EQ(log, std::vector<std::string>{"r:2"});
   r.notifierIs(nullptr);
   c2->valueIs(3);
   EXPECT_EQ(log.size(), 1u);
}
