#include <gtest/gtest.h>

#include "DomainTestSupport.h"
#include "domain/ChangeRecord.h"
#include "domain/Transaction.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/HashFactory.h"

namespace QelSS {
namespace {

using testing::Int;
using testing::MakeRecord;
using testing::RecordOf;
using testing::Text;

class TransactionTest : public ::testing::Test {
 protected:
  // A transaction of "alerts" over a root at `generation` holding level = 3.
  std::shared_ptr<ITransaction> Make(long long generation = 0) {
    std::shared_ptr<ITransaction> transaction;
    EXPECT_EQ(DomainRoot::Create(root_), kSuccess);
    EXPECT_EQ(DomainRoot::GetInternalSettings(root_, tree_), kSuccess);
    EXPECT_EQ(tree_->Set("level", Int(3)), kSuccess);
    EXPECT_EQ(root_->Set(RecordKeys::kGenerationCount, Int(generation)), kSuccess);
    EXPECT_EQ(Transaction::Create(transaction, "alerts", root_), kSuccess);
    return transaction;
  }
  static ITransactionInternal& Internal(const std::shared_ptr<ITransaction>& transaction) {
    return dynamic_cast<ITransactionInternal&>(*transaction);
  }
  static std::vector<Change> Changes(const std::shared_ptr<ITransaction>& transaction) {
    std::shared_ptr<IArray> array;
    std::vector<Change> changes;
    EXPECT_EQ(GetChangeArray(RecordOf(transaction), array), kSuccess);
    EXPECT_EQ(ReadChanges(array, changes), kSuccess);
    return changes;
  }

  std::shared_ptr<IHash> root_;
  std::shared_ptr<IHash> tree_;
};

TEST_F(TransactionTest, CreationRefusesMissingNameOrSettings) {
  std::shared_ptr<ITransaction> kept = Make();
  std::shared_ptr<ITransaction> out = kept;
  EXPECT_EQ(Transaction::Create(out, "", root_), kInvalidArgument);
  EXPECT_EQ(Transaction::Create(out, "alerts", nullptr), kInvalidArgument);
  EXPECT_EQ(out, kept);
}

TEST_F(TransactionTest, RecordsOnlyEffectiveChangesInOrder) {
  auto transaction = Make();
  EXPECT_EQ(transaction->Set("level", Int(3)), kSuccess);  // equal to what is there
  EXPECT_EQ(transaction->Delete("missing/deeper"), kSuccess);
  EXPECT_FALSE(Internal(transaction).HasChanges());

  EXPECT_EQ(transaction->Set("/sound//volume/", Int(7)), kSuccess);
  EXPECT_EQ(transaction->Set("sound/volume", Int(7)), kSuccess);  // same key, same value
  EXPECT_EQ(transaction->Delete("sound/volume"), kSuccess);
  EXPECT_TRUE(Internal(transaction).HasChanges());
  // The version it started from stays as it was: readers may hold it.
  std::shared_ptr<IValue> kept;
  EXPECT_EQ(tree_->Get("sound", kept), kNotFound);

  std::vector<Change> changes = Changes(transaction);
  ASSERT_EQ(changes.size(), 2u);
  EXPECT_STREQ(changes[0].path->GetCString(), "/sound//volume/");  // kept as given
  EXPECT_EQ(changes[0].type, Constants::Set);
  EXPECT_TRUE(*changes[0].value == *Int(7));
  EXPECT_STREQ(changes[1].path->GetCString(), "sound/volume");
  EXPECT_EQ(changes[1].type, Constants::Delete);
}

TEST_F(TransactionTest, RefusedChangesLeaveNoRecord) {
  auto transaction = Make();
  EXPECT_EQ(transaction->Set("", Int(1)), kInvalidArgument);
  EXPECT_EQ(transaction->Set("a", nullptr), kInvalidArgument);
  EXPECT_EQ(transaction->Set("//", Int(1)), kInvalidArgument);
  EXPECT_EQ(transaction->Delete("/"), kInvalidArgument);
  EXPECT_EQ(transaction->Set("level/below", Int(1)), kInvalidType);  // level is a number
  EXPECT_EQ(root_->Set(RecordKeys::kInternalSettings, Int(0)), kSuccess);
  EXPECT_EQ(transaction->Set("other", Int(1)), kInvalidData);
  EXPECT_EQ(root_->Delete(RecordKeys::kInternalSettings), kSuccess);
  EXPECT_EQ(transaction->Delete("level"), kNotFound);
  EXPECT_FALSE(Internal(transaction).HasChanges());
}

// What the domain's file could not carry is refused before it is recorded.
TEST_F(TransactionTest, ValuesADomainFileCannotKeepAreRefused) {
  auto transaction = Make();
  auto nested = [](int levels, std::shared_ptr<IValue> bottom) {
    for (int i = 0; i < levels; ++i) {
      std::shared_ptr<IHash> hash;
      EXPECT_EQ(HashFactory::Create(hash), kSuccess);
      EXPECT_EQ(hash->Set("in", bottom), kSuccess);
      bottom = hash;
    }
    return bottom;
  };
  std::shared_ptr<IArray> array;
  ASSERT_EQ(ArrayFactory::Create(array), kSuccess);
  ASSERT_EQ(array->Append(nested(2, Text("bad \x01"))), kSuccess);
  std::shared_ptr<IHash> badKey;
  ASSERT_EQ(HashFactory::Create(badKey), kSuccess);
  ASSERT_EQ(badKey->Set("k\xc3", Int(1)), kSuccess);

  EXPECT_EQ(transaction->Set("a", Text("\xff")), kInvalidArgument);
  EXPECT_EQ(transaction->Set("a", array), kInvalidArgument);
  EXPECT_EQ(transaction->Set("a", badKey), kInvalidArgument);
  EXPECT_EQ(transaction->Set("a/\x1b/b", Int(1)), kInvalidArgument);
  std::string deep;
  for (int i = 0; i < 190; ++i) deep += "/d";
  EXPECT_EQ(transaction->Set(deep, nested(8, Int(1))), kInvalidArgument);
  EXPECT_FALSE(Internal(transaction).HasChanges());

  // Up to the limit, and any text XML allows, are kept.
  EXPECT_EQ(transaction->Set(deep, nested(7, Int(1))), kSuccess);
  EXPECT_EQ(transaction->Set("t", Text("tab\t \xe2\x82\xac \xf0\x9f\x99\x82")), kSuccess);
  EXPECT_EQ(Changes(transaction).size(), 2u);
}

TEST_F(TransactionTest, RecordCarriesNameCountAndTheLiveChangeArray) {
  auto transaction = Make(42);
  std::shared_ptr<IHash> record = RecordOf(transaction);
  int64_t count = 0;
  std::shared_ptr<IValue> name;
  std::shared_ptr<IArray> changes;
  EXPECT_EQ(DomainRoot::GetGenerationCount(record, count), kSuccess);
  EXPECT_EQ(count, 42);
  ASSERT_EQ(record->Get(RecordKeys::kDomainName, name), kSuccess);
  EXPECT_TRUE(*name == *Text("alerts"));
  ASSERT_EQ(GetChangeArray(record, changes), kSuccess);
  EXPECT_EQ(changes->GetCount(), 0u);
  EXPECT_EQ(transaction->Set("x", Int(1)), kSuccess);
  EXPECT_EQ(changes->GetCount(), 1u);  // shared, not copied
}

TEST_F(TransactionTest, TakesOverRecordsOfThisDomainUpToFiveGenerationsOld) {
  auto transaction = Make(10);
  auto& internal = Internal(transaction);
  EXPECT_EQ(internal.SetTransactionRecord(MakeRecord("alerts", 4, "a", Int(1))),
            kTransactionConflict);
  EXPECT_EQ(internal.SetTransactionRecord(MakeRecord("Alerts", 9, "a", Int(1))),
            kTransactionConflict);
  EXPECT_FALSE(internal.HasChanges());
  EXPECT_EQ(internal.SetTransactionRecord(MakeRecord("alerts", 5, "a", Int(1))), kSuccess);
  EXPECT_EQ(internal.SetTransactionRecord(MakeRecord("alerts", 99, "b", Int(2))), kSuccess);
  ASSERT_EQ(Changes(transaction).size(), 1u);
  EXPECT_STREQ(Changes(transaction)[0].path->GetCString(), "b");

  auto countless = MakeRecord("alerts", 10, "a", Int(1));
  ASSERT_EQ(countless->Set(RecordKeys::kGenerationCount, Text("10")), kSuccess);
  EXPECT_EQ(internal.SetTransactionRecord(countless), kInvalidData);
  EXPECT_TRUE(internal.HasChanges());
  // A change list of the wrong type empties the transaction.
  auto broken = MakeRecord("alerts", 10, "a", Int(1));
  ASSERT_EQ(broken->Set(RecordKeys::kChanges, Int(5)), kSuccess);
  EXPECT_EQ(internal.SetTransactionRecord(broken), kNotFound);
  EXPECT_FALSE(internal.HasChanges());
}

}  // namespace
}  // namespace QelSS
