#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DomainTestSupport.h"
#include "platform/report/CaptureSink.h"

namespace QelSS {
namespace {

using platform::ScopedCaptureSink;
using testing::Commit;
using testing::InMemoryDomain;
using testing::Int;
using testing::IntAt;
using testing::MakeRecord;
using testing::NewTransaction;
using testing::RecordOf;
using testing::Text;

class DomainSettingTest : public ::testing::Test {
 protected:
  // Commits one change from a fresh transaction.
  std::error_code SetNow(const std::string& path, long long value) {
    auto transaction = NewTransaction(*domain_);
    EXPECT_EQ(transaction->Set(path, Int(value)), kSuccess);
    return Commit(*domain_, transaction);
  }
  std::error_code DeleteNow(const std::string& path) {
    auto transaction = NewTransaction(*domain_);
    EXPECT_EQ(transaction->Delete(path), kSuccess);
    return Commit(*domain_, transaction);
  }
  // Advances the domain by `n` generations, each changing a path of its own.
  void Advance(int n) {
    for (int i = 0; i < n; ++i) {
      ASSERT_EQ(SetNow("filler/" + std::to_string(next_++), i), kSuccess);
    }
  }

  std::shared_ptr<InMemoryDomain> domain_ = InMemoryDomain::Make("AlertS");
  int next_ = 0;
};

TEST_F(DomainSettingTest, NameIsLowerCased) {
  std::string name;
  EXPECT_EQ(domain_->GetName(name), kSuccess);
  EXPECT_EQ(name, "alerts");
}

TEST_F(DomainSettingTest, CommitsBecomeVisibleAndRaiseTheGeneration) {
  auto transaction = NewTransaction(*domain_);
  ASSERT_EQ(transaction->Set("sound/volume", Int(4)), kSuccess);
  EXPECT_EQ(IntAt(*domain_, "sound/volume"), std::nullopt);  // not before the commit

  EXPECT_EQ(Commit(*domain_, transaction), kSuccess);
  EXPECT_EQ(IntAt(*domain_, "/sound/volume"), 4);
  EXPECT_EQ(domain_->Generation(), 1);

  // A transaction without changes commits nothing.
  EXPECT_EQ(Commit(*domain_, NewTransaction(*domain_)), kSuccess);
  EXPECT_EQ(domain_->Generation(), 1);

  std::shared_ptr<IValue> value;
  EXPECT_EQ(domain_->Get("sound/missing", value), kNotFound);
  EXPECT_EQ(domain_->Get("/", value), kInvalidArgument);
}

TEST_F(DomainSettingTest, CommitArgumentsAreChecked) {
  EXPECT_EQ(Commit(*domain_, nullptr), kInvalidArgument);
  class Foreign : public ITransaction {
    std::error_code Delete(const std::string&) override { return kSuccess; }
    std::error_code Set(const std::string&, const std::shared_ptr<IValue>&) override {
      return kSuccess;
    }
  };
  EXPECT_EQ(Commit(*domain_, std::make_shared<Foreign>()), kInvalidData);
  EXPECT_EQ(domain_->Generation(), 0);
}

TEST_F(DomainSettingTest, CopiesAreDeepAndIndependent) {
  ASSERT_EQ(SetNow("a/b", 1), kSuccess);
  std::shared_ptr<IHash> copy;
  ASSERT_EQ(domain_->CopySettings(copy), kSuccess);
  std::shared_ptr<IHash> tree;
  ASSERT_EQ(DomainRoot::GetInternalSettings(copy, tree), kSuccess);
  std::shared_ptr<IValue> nested;
  ASSERT_EQ(tree->Get("a", nested), kSuccess);
  ASSERT_EQ(std::dynamic_pointer_cast<IHash>(nested)->Set("b", Int(99)), kSuccess);
  EXPECT_EQ(IntAt(*domain_, "a/b"), 1);
}

TEST_F(DomainSettingTest, StaleTransactionsMergeWhenTheyTouchNothingChanged) {
  auto early = NewTransaction(*domain_);
  auto conflicting = NewTransaction(*domain_);
  ASSERT_EQ(SetNow("shared", 1), kSuccess);
  ASSERT_EQ(SetNow("other", 1), kSuccess);

  ASSERT_EQ(early->Set("mine", Int(5)), kSuccess);
  EXPECT_EQ(Commit(*domain_, early), kSuccess);
  EXPECT_EQ(IntAt(*domain_, "mine"), 5);
  EXPECT_EQ(IntAt(*domain_, "shared"), 1);  // the merge keeps the newer state

  ASSERT_EQ(conflicting->Set("//shared", Int(2)), kSuccess);  // same key, other spelling
  EXPECT_EQ(Commit(*domain_, conflicting), kTransactionConflict);
  EXPECT_EQ(IntAt(*domain_, "shared"), 1);
  EXPECT_EQ(domain_->Generation(), 3);
}

TEST_F(DomainSettingTest, TwoDeletionsOfOnePathMerge) {
  ASSERT_EQ(SetNow("gone", 1), kSuccess);
  ASSERT_EQ(SetNow("also", 1), kSuccess);
  auto deleting = NewTransaction(*domain_);
  auto setting = NewTransaction(*domain_);
  ASSERT_EQ(DeleteNow("gone"), kSuccess);
  ASSERT_EQ(SetNow("also", 2), kSuccess);

  ASSERT_EQ(deleting->Delete("gone"), kSuccess);
  EXPECT_EQ(Commit(*domain_, deleting), kSuccess);

  // A deletion does not merge with a later setting, nor a setting with a deletion.
  ASSERT_EQ(setting->Set("gone", Int(3)), kSuccess);
  EXPECT_EQ(Commit(*domain_, setting), kTransactionConflict);
  auto late = NewTransaction(*domain_);
  ASSERT_EQ(SetNow("back", 1), kSuccess);
  ASSERT_EQ(late->Set("x", Int(1)), kSuccess);
  ASSERT_EQ(late->Delete("also"), kSuccess);
  ASSERT_EQ(SetNow("also", 9), kSuccess);
  EXPECT_EQ(Commit(*domain_, late), kTransactionConflict);
}

TEST_F(DomainSettingTest, FiveGenerationsBehindMergesSixIsRefused) {
  auto five = NewTransaction(*domain_);
  auto six = NewTransaction(*domain_);
  ASSERT_EQ(five->Set("five", Int(5)), kSuccess);
  ASSERT_EQ(six->Set("six", Int(6)), kSuccess);
  Advance(5);
  EXPECT_EQ(Commit(*domain_, five), kSuccess);  // five behind: 5 -> 6
  ASSERT_EQ(domain_->Generation(), 6);
  EXPECT_EQ(Commit(*domain_, six), kTransactionConflict);  // now six behind
  EXPECT_EQ(IntAt(*domain_, "six"), std::nullopt);
}

TEST_F(DomainSettingTest, HistoryCoversTheLastFiveGenerationsAfterManyCommits) {
  Advance(7);
  auto stale = MakeRecord("alerts", 2, "filler/2", Int(0));
  EXPECT_EQ(domain_->Validate(stale), kTransactionConflict);  // changed five generations ago
  EXPECT_EQ(domain_->Validate(MakeRecord("alerts", 2, "untouched", Int(0))), kSuccess);
  EXPECT_EQ(domain_->Validate(MakeRecord("alerts", 2, "filler/1", Int(0))), kSuccess);
}

TEST_F(DomainSettingTest, RecordsAheadAreRefusedLocallyAndMergedRemotely) {
  Advance(2);
  auto ahead = MakeRecord("alerts", 4, "new", Int(1));
  EXPECT_EQ(domain_->Push(ahead), kTransactionConflict);

  auto remote = InMemoryDomain::Make("alerts", true);
  auto base = NewTransaction(*remote);
  ASSERT_EQ(base->Set("x", Int(1)), kSuccess);
  ASSERT_EQ(Commit(*remote, base), kSuccess);
  EXPECT_EQ(remote->Push(MakeRecord("alerts", 6, "new", Int(1))), kSuccess);  // 5 ahead
  EXPECT_EQ(remote->Push(MakeRecord("alerts", 8, "new2", Int(1))), kTransactionConflict);
  // One generation ahead, on a path the newest generation changed.
  EXPECT_EQ(remote->Push(MakeRecord("alerts", 3, "new", Int(2))), kTransactionConflict);
  EXPECT_EQ(remote->Generation(), 2);
  EXPECT_EQ(IntAt(*remote, "new"), 1);
}

TEST_F(DomainSettingTest, RefusalsAreReportedWithTheCounts) {
  Advance(3);
  ScopedCaptureSink capture;
  EXPECT_EQ(domain_->Validate(MakeRecord("alerts", 9, "a", Int(1))), kTransactionConflict);
  auto report = capture->FindFailureReport("DOST", "IsTransactionValid");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->Message(), "Transaction is not valid");
  EXPECT_EQ(report->Data("DomainName"), "alerts");
  std::vector<std::pair<std::string, int64_t>> ints;
  for (const auto& failure : report->failures) {
    if (failure.kind == platform::ReportFailureEntry::Kind::kInt) {
      ints.emplace_back(failure.operation, failure.code);
    }
  }
  EXPECT_THAT(ints,
              ::testing::ElementsAre(std::pair<std::string, int64_t>("IsTransactionValid", 255),
                                     std::pair<std::string, int64_t>("inGCCount", 9),
                                     std::pair<std::string, int64_t>("orgGCCount", 3),
                                     std::pair<std::string, int64_t>("IsRemoteDomain", 0)));
  EXPECT_TRUE(capture->HasTrace("IsTransactionValid failed (255)"));

  capture->Clear();
  EXPECT_EQ(domain_->Validate(MakeRecord("alerts", 2, "filler/2", Int(1))), kTransactionConflict);
  report = capture->FindFailureReport("DOST", "IsTransactionValid");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->Message(), "Transaction cannot be merged");
}

TEST_F(DomainSettingTest, AnotherDomainsRecordIsMalformedBeforeAnyCountIsRead) {
  ScopedCaptureSink capture;
  auto record = MakeRecord("other", 0, "a", Int(1));
  ASSERT_EQ(record->Set(RecordKeys::kGenerationCount, Text("not a count")), kSuccess);
  EXPECT_EQ(domain_->Push(record), kInvalidData);
  auto report = capture->FindFailureReport("DOST", "DomainSettings");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->Message(), "Domain does not match");
  EXPECT_FALSE(capture->HasTrace("inGCCount failed (498)"));
  EXPECT_EQ(domain_->Generation(), 0);
}

TEST_F(DomainSettingTest, MalformedRecordsChangeNothing) {
  ASSERT_EQ(SetNow("keep", 1), kSuccess);
  auto expectRefused = [&](const std::shared_ptr<IHash>& record, std::error_code code) {
    EXPECT_EQ(domain_->ApplyUnchecked(record, true), code);
    EXPECT_EQ(domain_->Generation(), 1);
    EXPECT_EQ(IntAt(*domain_, "keep"), 1);
    EXPECT_EQ(IntAt(*domain_, "first"), std::nullopt);
  };
  auto record = [&] {
    auto made = MakeRecord("alerts", 1, "first", Int(1));
    std::shared_ptr<IArray> changes;
    EXPECT_EQ(GetChangeArray(made, changes), kSuccess);
    EXPECT_EQ(changes->Append(Int(7)), kSuccess);  // appended after a good change
    return made;
  };
  expectRefused(nullptr, make_error_code(kInvalidArgument));
  expectRefused(record(), make_error_code(kInvalidData));

  auto notArray = MakeRecord("alerts", 1, "first", Int(1));
  ASSERT_EQ(notArray->Set(RecordKeys::kChanges, Text("x")), kSuccess);
  expectRefused(notArray, make_error_code(kInvalidData));
  EXPECT_EQ(domain_->Push(notArray), kInvalidData);

  auto valueless = MakeRecord("alerts", 1, "first", Int(1));
  std::shared_ptr<IArray> changes;
  std::shared_ptr<IValue> change;
  ASSERT_EQ(GetChangeArray(valueless, changes), kSuccess);
  ASSERT_EQ(changes->Get(0, change), kSuccess);
  ASSERT_EQ(std::dynamic_pointer_cast<IHash>(change)->Delete(RecordKeys::kNewValue), kSuccess);
  expectRefused(valueless, make_error_code(kInvalidData));

  expectRefused(MakeRecord("alerts", 1, "//", Int(1)), make_error_code(kInvalidData));
}

TEST_F(DomainSettingTest, ReloadForgetsTheHistory) {
  Advance(2);
  std::shared_ptr<IHash> root;
  ASSERT_EQ(domain_->CopySettings(root), kSuccess);
  ASSERT_EQ(root->Set(RecordKeys::kGenerationCount, Int(10)), kSuccess);
  ASSERT_EQ(domain_->Load(root), kSuccess);
  EXPECT_EQ(domain_->Generation(), 10);
  // Made before the reload: nothing tells what changed since.
  EXPECT_EQ(domain_->Validate(MakeRecord("alerts", 9, "new", Int(1))), kTransactionConflict);
  EXPECT_EQ(domain_->Validate(MakeRecord("alerts", 10, "new", Int(1))), kSuccess);

  std::shared_ptr<IHash> broken;
  ASSERT_EQ(HashFactory::Create(broken), kSuccess);
  ASSERT_EQ(broken->Set(RecordKeys::kGenerationCount, Int(0)), kSuccess);
  EXPECT_EQ(domain_->Load(broken), kInvalidData);
  EXPECT_EQ(domain_->Load(nullptr), kInvalidArgument);
  EXPECT_EQ(domain_->Generation(), 10);

  // A store that keeps only the tree starts again at generation 0.
  std::shared_ptr<IHash> tree;
  ASSERT_EQ(HashFactory::Create(tree), kSuccess);
  ASSERT_EQ(tree->Set("loaded", Int(1)), kSuccess);
  ASSERT_EQ(domain_->LoadTree(tree), kSuccess);
  EXPECT_EQ(domain_->Generation(), 0);
  EXPECT_EQ(IntAt(*domain_, "loaded"), 1);
  EXPECT_EQ(IntAt(*domain_, "filler/0"), std::nullopt);
}

}  // namespace
}  // namespace QelSS
