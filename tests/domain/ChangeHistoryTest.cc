#include <gtest/gtest.h>

#include "DomainTestSupport.h"
#include "domain/ChangeHistory.h"

namespace QelSS {
namespace {

Change Make(const char* path, Constants::TransactionChangeType type) {
  Change change;
  EXPECT_EQ(StringFactory::Create(change.path, path), kSuccess);
  change.type = type;
  if (type != Constants::Delete) change.value = testing::Int(1);
  return change;
}

TEST(ChangeHistory, KeepsTheFiveNewestGenerations) {
  ChangeHistory history;
  for (int generation = 1; generation <= 7; ++generation) {
    history.Record(generation, {Make(("g" + std::to_string(generation)).c_str(), Constants::Set)});
  }
  EXPECT_EQ(history.Size(), 5u);
  EXPECT_TRUE(history.Collides(5, {Make("g3", Constants::Set)}));
  EXPECT_FALSE(history.Collides(9, {Make("g2", Constants::Set)}));  // forgotten
  EXPECT_FALSE(history.Collides(4, {Make("g3", Constants::Set)}));  // beyond the walk
  EXPECT_FALSE(history.Collides(0, {Make("g7", Constants::Set)}));
}

TEST(ChangeHistory, APathSetAndDeletedInOneGenerationCountsAsSet) {
  for (bool deleteFirst : {false, true}) {
    ChangeHistory history;
    std::vector<Change> changes{Make("p", Constants::Set), Make("/p/", Constants::Delete)};
    if (deleteFirst) std::swap(changes[0], changes[1]);
    history.Record(1, changes);
    EXPECT_TRUE(history.Collides(1, {Make("p", Constants::Delete)})) << deleteFirst;
  }
  ChangeHistory deletions;
  deletions.Record(1, {Make("p", Constants::Delete), Make("q", Constants::Delete)});
  EXPECT_FALSE(deletions.Collides(1, {Make("p", Constants::Delete)}));
  EXPECT_TRUE(deletions.Collides(1, {Make("p", Constants::Delete), Make("q", Constants::Set)}));
  // Any change type other than a deletion stores a value.
  EXPECT_TRUE(deletions.Collides(1, {Make("p", static_cast<Constants::TransactionChangeType>(7))}));
}

}  // namespace
}  // namespace QelSS
