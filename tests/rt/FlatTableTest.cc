#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "rt/FlatTable.h"
#include "rt/SmallMap.h"

using namespace Tavrin;
using Rt::Ptr;

namespace {

struct Obj : Rt::RefCounted {
   explicit Obj(int k) : key(k) { ++live; }
   ~Obj() override { --live; }
   int key;
   static inline int live = 0;
};

// Few distinct hashes: long runs that wrap around the end of the table, so
// that deletion has to pull entries back across the wrap.
struct Crowded {
   size_t operator()(int k) const { return size_t(k % 5); }
};

struct KeyOfObj {
   const int& operator()(const Obj& o) const { return o.key; }
};

template <class M>
std::map<int, const Obj*> contents(const M& m) {
   std::map<int, const Obj*> out;
   for (const auto& [k, v] : m) EXPECT_TRUE(out.emplace(k, v.get()).second) << "twice: " << k;
   return out;
}

}  // namespace

TEST(FlatTable, randomUpdatesMatchAnOrderedMapUnderHeavyCollisions) {
   {
      Rt::FlatMap<int, Obj, Crowded> map;
      Rt::FlatKeyedMap<Obj, KeyOfObj, Crowded> keyed;
      std::map<int, Ptr<Obj>> model;
      std::mt19937 rng(7);
      for (int step = 0; step < 20000; ++step) {
         int k = int(rng() % 300);
         switch (rng() % 4) {
            case 0:
            case 1: {
               auto v = Rt::makePtr<Obj>(k);
               map.assign(k, v);
               keyed.erase(k);
               keyed.insert(v);
               model[k] = v;
               break;
            }
            case 2:
               EXPECT_EQ(map.erase(k), model.count(k));
               EXPECT_EQ(keyed.erase(k), model.count(k));
               model.erase(k);
               break;
            default:
               // try_emplace never replaces a held value.
               auto v = Rt::makePtr<Obj>(k);
               auto [it, added] = map.try_emplace(k, v);
               EXPECT_EQ(added, !model.count(k));
               if (added) {
                  keyed.insert(v);
                  model[k] = v;
               }
               EXPECT_EQ(it->second, model[k]);
         }
         if (step % 97 != 0) continue;
         ASSERT_EQ(map.size(), model.size());
         ASSERT_EQ(keyed.size(), model.size());
         std::map<int, const Obj*> want;
         for (const auto& [mk, mv] : model) want.emplace(mk, mv.get());
         ASSERT_EQ(contents(map), want) << "step " << step;
         ASSERT_EQ(contents(keyed), want) << "step " << step;
         for (int probe = 0; probe < 300; ++probe) {
            const Obj* expect = model.count(probe) ? model[probe].get() : nullptr;
            ASSERT_EQ(map.get(probe), expect) << probe;
            ASSERT_EQ(keyed.get(probe), expect) << probe;
         }
      }
      model.clear();
      map.clear();
      EXPECT_TRUE(map.empty());
   }
   EXPECT_EQ(Obj::live, 0);
}

TEST(FlatTable, aValueErasedIsReleasedOnlyOnceTheTableIsWhole) {
   // A value whose destructor reads the table, as an entity's teardown may.
   struct Reader : Rt::RefCounted {
      Rt::FlatMap<int, Reader, Crowded>* table = nullptr;
      std::vector<int> expect;
      bool* released = nullptr;
      ~Reader() override {
         if (!table) return;
         EXPECT_EQ(table->get(5), nullptr);
         for (int k : expect) EXPECT_TRUE(table->get(k)) << k;
         *released = true;
      }
   };
   Rt::FlatMap<int, Reader, Crowded> table;
   bool released = false;
   {
      auto victim = Rt::makePtr<Reader>();
      for (int k : {0, 5, 10, 15, 1, 6}) table.assign(k, k == 5 ? victim : Rt::makePtr<Reader>());
      victim->table = &table;
      victim->expect = {0, 10, 15, 1, 6};
      victim->released = &released;
   }
   // 5 sits in the middle of the run of hash 0; 10 and 15 move back over it.
   EXPECT_EQ(table.erase(5), 1u);
   EXPECT_TRUE(released);
   EXPECT_EQ(table.size(), 5u);
}

TEST(FlatTable, reserveAvoidsRehashAndNullValuesAreNeverStored) {
   Rt::FlatMap<int, Obj> map;
   map.reserve(1000);
   map.assign(0, Rt::makePtr<Obj>(0));
   const auto* first = &*map.find(0);
   for (int k = 1; k < 1000; ++k) map.assign(k, Rt::makePtr<Obj>(k));
   EXPECT_EQ(first, &*map.find(0)) << "the table was rebuilt although reserved";
   map.assign(2, nullptr);
   EXPECT_EQ(map.count(2), 0u);
   EXPECT_EQ(map.size(), 999u);
   EXPECT_FALSE(map.try_emplace(3000, nullptr).second);
   EXPECT_EQ(map.count(3000), 0u);

   Rt::FlatPtrSet<Obj> set;
   auto a = Rt::makePtr<Obj>(1), b = Rt::makePtr<Obj>(1);  // equal keys, two objects
   EXPECT_TRUE(set.insert(a));
   EXPECT_TRUE(set.insert(b));
   EXPECT_FALSE(set.insert(a));
   EXPECT_FALSE(set.insert(nullptr));
   EXPECT_EQ(set.erase(a), 1u);
   EXPECT_EQ(set.count(a), 0u);
   EXPECT_EQ(set.count(b), 1u);
}

TEST(SmallMap, keepsKeyOrderThroughSpillAndReturn) {
   {
      Rt::SmallMap<int, Ptr<Obj>> m;
      for (int k : {5, 1, 9, 3}) EXPECT_TRUE(m.try_emplace(k, Rt::makePtr<Obj>(k)).second);
      EXPECT_FALSE(m.try_emplace(9, Rt::makePtr<Obj>(99)).second);
      std::vector<int> keys;
      for (const auto& [k, v] : m) {
         keys.push_back(k);
         EXPECT_EQ(v->key, k);
      }
      EXPECT_EQ(keys, (std::vector<int>{1, 3, 5, 9}));
      // Down to one: back in place, the survivor intact.
      EXPECT_EQ(m.erase(1), 1u);
      EXPECT_EQ(m.erase(9), 1u);
      EXPECT_EQ(m.erase(7), 0u);
      EXPECT_EQ(m.erase(5), 1u);
      ASSERT_EQ(m.size(), 1u);
      EXPECT_EQ(m.begin()->first, 3);
      EXPECT_EQ(m.find(3)->second->key, 3);
      EXPECT_EQ(Obj::live, 1);
      m[0] = Rt::makePtr<Obj>(0);
      EXPECT_EQ(m.begin()->first, 0);
      EXPECT_EQ(m.count(3), 1u);

      Rt::SmallSet<Ptr<Obj>> s;
      auto a = Rt::makePtr<Obj>(1), b = Rt::makePtr<Obj>(2), c = Rt::makePtr<Obj>(3);
      EXPECT_TRUE(s.insert(a));
      EXPECT_TRUE(s.insert(b));
      EXPECT_TRUE(s.insert(c));
      EXPECT_FALSE(s.insert(b));
      EXPECT_EQ(s.erase(a), 1u);
      EXPECT_EQ(s.count(b) + s.count(c), 2u);
      EXPECT_EQ(s.erase(c), 1u);
      EXPECT_EQ(s.erase(b), 1u);
      EXPECT_TRUE(s.empty());
   }
   EXPECT_EQ(Obj::live, 0);
}
