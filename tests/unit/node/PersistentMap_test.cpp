#include "support/PersistentMap.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

namespace VelaNode {

namespace {

struct Entry {
  int number;
  int content;
  int key() const { return number; }
};
using Map = PersistentMap<int, Entry>;

std::map<int, int> contentOf(const Map& map) {
  std::map<int, int> content;
  int last = -1;
  map.forEach([&](const Entry& entry) {
    EXPECT_LT(last, entry.number) << "out of order";
    last = entry.number;
    content.emplace(entry.number, entry.content);
    return true;
  });
  return content;
}

}  // namespace

TEST(PersistentMap, BehavesLikeAMapAndLeavesItsCopiesAlone) {
  constexpr int Keys = 400;
  std::mt19937 random(20240229);
  Map map;
  std::map<int, int> model;
  std::vector<std::pair<Map, std::map<int, int>>> copies;
  for (int step = 0; step < 6000; ++step) {
    const int key = static_cast<int>(random() % Keys);
    // Growing at first, shrinking to nothing in the end.
    if (static_cast<int>(random() % 6000) > step) {
      map.put({key, step});
      model[key] = step;
    } else {
      map.erase(key);
      model.erase(key);
    }
    ASSERT_EQ(map.getSize(), model.size());
    const int probe = static_cast<int>(random() % Keys);
    const Entry* const found = map.find(probe);
    ASSERT_EQ(found != nullptr, model.count(probe) == 1);
    if (found != nullptr) {
      ASSERT_EQ(found->content, model[probe]);
    }
    if (step % 500 == 0) copies.emplace_back(map, model);
  }
  copies.emplace_back(map, model);
  for (const auto& [copy, expected] : copies) EXPECT_EQ(contentOf(copy), expected);
  const int least = copies[1].second.begin()->first;
  EXPECT_EQ(copies[1].first.first()->number, least);
  EXPECT_FALSE(copies[1].first.forEach([&](const Entry& entry) {
    EXPECT_EQ(entry.number, least) << "the walk ends when the visitor says so";
    return false;
  }));
}

}  // namespace VelaNode
