#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DomainTestSupport.h"
#include "domain/ChangeHistory.h"
#include "platform/report/CaptureSink.h"
#include "qelss/domain/SettingsObserver.h"

namespace QelSS {
namespace {

using platform::ScopedCaptureSink;
using testing::Commit;
using testing::InMemoryDomain;
using testing::Int;
using testing::IntAt;
using testing::MakeRecord;
using testing::NewTransaction;
using testing::Text;

class DomainSettingTest : public ::testing::Test {
 protected:
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
  // Generations 1..n set filler/0..filler/n-1.
  void Advance(int n) {
    for (int i = 0; i < n; ++i) ASSERT_EQ(SetNow("filler/" + std::to_string(i), i), kSuccess);
  }

  std::shared_ptr<InMemoryDomain> domain_ = InMemoryDomain::Make("AlertS");
};

TEST_F(DomainSettingTest, CommitsBecomeVisibleAndRaiseTheGeneration) {
  std::string name;
  EXPECT_EQ(domain_->GetName(name), kSuccess);
  EXPECT_EQ(name, "alerts");

  auto transaction = NewTransaction(*domain_);
  ASSERT_EQ(transaction->Set("sound/volume", Int(4)), kSuccess);
  EXPECT_EQ(IntAt(*domain_, "sound/volume"), std::nullopt);  // not before the commit
  EXPECT_EQ(Commit(*domain_, transaction), kSuccess);
  EXPECT_EQ(IntAt(*domain_, "/sound/volume"), 4);
  EXPECT_EQ(domain_->Generation(), 1);

  EXPECT_EQ(Commit(*domain_, NewTransaction(*domain_)), kSuccess);  // nothing to apply
  EXPECT_EQ(Commit(*domain_, nullptr), kInvalidArgument);
  EXPECT_EQ(domain_->Generation(), 1);
  std::shared_ptr<IValue> value;
  EXPECT_EQ(domain_->Get("sound/missing", value), kNotFound);
  EXPECT_EQ(domain_->Get("/", value), kInvalidArgument);

  // Copies are deep: changing one leaves the domain alone.
  std::shared_ptr<IHash> copy, tree;
  std::shared_ptr<IValue> sound;
  ASSERT_EQ(domain_->CopySettings(copy), kSuccess);
  ASSERT_EQ(DomainRoot::GetInternalSettings(copy, tree), kSuccess);
  ASSERT_EQ(tree->Get("sound", sound), kSuccess);
  ASSERT_EQ(std::dynamic_pointer_cast<IHash>(sound)->Set("volume", Int(99)), kSuccess);
  EXPECT_EQ(IntAt(*domain_, "sound/volume"), 4);
}

// A committed version is shared by readers on every thread without locks, so
// nothing that goes in or comes out may be a way to change it.
TEST_F(DomainSettingTest, ContainersGoingInOrComingOutAreCopiesAndNoVersionChanges) {
  std::shared_ptr<IHash> window;
  ASSERT_EQ(HashFactory::Create(window), kSuccess);
  ASSERT_EQ(window->Set("width", Int(640)), kSuccess);
  auto transaction = NewTransaction(*domain_);
  ASSERT_EQ(transaction->Set("window", window), kSuccess);
  ASSERT_EQ(window->Set("width", Int(1)), kSuccess);
  std::vector<IObserver::ChangeList> heard;
  testing::EventCounter calls;
  std::shared_ptr<SettingsObserver> observer;
  ASSERT_EQ(SettingsObserver::Create(
                [&](const std::shared_ptr<IDomainSetting>&, const IObserver::ChangeList& changes) {
                  heard.push_back(changes);
                  calls.Add();
                },
                observer),
            kSuccess);
  ASSERT_EQ(domain_->AddObserver(nullptr, observer), kSuccess);
  ASSERT_EQ(Commit(*domain_, transaction), kSuccess);
  ASSERT_EQ(window->Set("width", Int(2)), kSuccess);
  ASSERT_TRUE(calls.WaitFor(1));
  observer->Detach();
  auto told = std::dynamic_pointer_cast<IHash>(std::get<2>(heard.at(0).at(0)));
  ASSERT_NE(told, nullptr);
  EXPECT_EQ(told->Set("width", Int(3)), kSuccess);

  std::shared_ptr<IValue> read;
  ASSERT_EQ(domain_->Get("window", read), kSuccess);
  auto readHash = std::dynamic_pointer_cast<IHash>(read);
  ASSERT_NE(readHash, nullptr);
  EXPECT_EQ(readHash->Set("height", Int(4)), kSuccess);
  EXPECT_EQ(readHash->Delete("width"), kSuccess);
  readHash->RemoveAll();

  EXPECT_EQ(IntAt(*domain_, "window/width"), 640);
  EXPECT_EQ(IntAt(*domain_, "window/height"), std::nullopt);
}

// Each thread keeps the versions it read of a few domains; a domain made
// after another is gone, perhaps at its address, must never be read as it.
TEST_F(DomainSettingTest, ReadsOfManyDomainsOnOneThreadEachFindTheirOwnValues) {
  std::vector<std::shared_ptr<InMemoryDomain>> kept;
  for (int i = 0; i < 12; ++i) {
    auto domain = InMemoryDomain::Make("Domain" + std::to_string(i % 3));
    auto transaction = NewTransaction(*domain);
    ASSERT_EQ(transaction->Set("n", Int(i)), kSuccess);
    ASSERT_EQ(Commit(*domain, transaction), kSuccess);
    EXPECT_EQ(IntAt(*domain, "n"), i);
    if (i % 2 == 0) kept.push_back(domain);
  }
  for (size_t k = 0; k < kept.size(); ++k) {
    EXPECT_EQ(IntAt(*kept[k], "n"), static_cast<long long>(2 * k));
  }
}

TEST_F(DomainSettingTest, StaleTransactionsMergeUnlessTheyTouchWhatChanged) {
  ASSERT_EQ(SetNow("gone", 1), kSuccess);
  auto independent = NewTransaction(*domain_);
  auto conflicting = NewTransaction(*domain_);
  auto deleting = NewTransaction(*domain_);
  auto setting = NewTransaction(*domain_);
  ASSERT_EQ(SetNow("shared", 1), kSuccess);
  ASSERT_EQ(DeleteNow("gone"), kSuccess);

  ASSERT_EQ(independent->Set("mine", Int(5)), kSuccess);
  EXPECT_EQ(Commit(*domain_, independent), kSuccess);
  EXPECT_EQ(IntAt(*domain_, "mine"), 5);
  EXPECT_EQ(IntAt(*domain_, "shared"), 1);  // the merge keeps the newer state

  ASSERT_EQ(conflicting->Set("//shared", Int(2)), kSuccess);  // same key, other spelling
  EXPECT_EQ(Commit(*domain_, conflicting), kTransactionConflict);
  ASSERT_EQ(deleting->Delete("gone"), kSuccess);
  EXPECT_EQ(Commit(*domain_, deleting), kSuccess);  // two deletions merge
  ASSERT_EQ(setting->Set("gone", Int(3)), kSuccess);
  EXPECT_EQ(Commit(*domain_, setting), kTransactionConflict);
  EXPECT_EQ(IntAt(*domain_, "shared"), 1);
  EXPECT_EQ(IntAt(*domain_, "gone"), std::nullopt);
  EXPECT_EQ(domain_->Generation(), 5);
}

TEST_F(DomainSettingTest, FiveGenerationsBehindMergesSixIsRefused) {
  auto five = NewTransaction(*domain_);
  auto six = NewTransaction(*domain_);
  ASSERT_EQ(five->Set("five", Int(5)), kSuccess);
  ASSERT_EQ(six->Set("six", Int(6)), kSuccess);
  Advance(5);
  EXPECT_EQ(Commit(*domain_, five), kSuccess);
  EXPECT_EQ(Commit(*domain_, six), kTransactionConflict);  // six behind now
  EXPECT_EQ(IntAt(*domain_, "six"), std::nullopt);
  EXPECT_EQ(domain_->Generation(), 6);

  // The history walks exactly the generations in between.
  EXPECT_EQ(domain_->Validate(MakeRecord("alerts", 1, "filler/1", Int(0))), kTransactionConflict);
  EXPECT_EQ(domain_->Validate(MakeRecord("alerts", 2, "filler/1", Int(0))), kSuccess);
}

TEST(ChangeHistory, KeepsFiveGenerationsAndASettingOverADeletion) {
  auto change = [](const char* path, bool set) {
    Change made;
    (void)StringFactory::Create(made.path, path);
    made.type = set ? Constants::Set : Constants::Delete;
    return made;
  };
  ChangeHistory history;
  for (int generation = 1; generation <= 7; ++generation) {
    history.Record(generation, {change(("g" + std::to_string(generation)).c_str(), true)});
  }
  EXPECT_EQ(history.Size(), 5u);
  EXPECT_FALSE(history.Collides(9, {change("g2", true)}));
  EXPECT_TRUE(history.Collides(9, {change("g3", true)}));

  history.Record(8, {change("p", true), change("/p/", false)});
  history.Record(9, {change("q", false), change("q", true)});
  EXPECT_TRUE(history.Collides(2, {change("p", false)}));
  EXPECT_TRUE(history.Collides(1, {change("q", false)}));
}

TEST_F(DomainSettingTest, RecordsAheadAreRefusedLocallyAndMergedRemotely) {
  Advance(2);
  EXPECT_EQ(domain_->Push(MakeRecord("alerts", 4, "new", Int(1))), kTransactionConflict);

  auto remote = InMemoryDomain::Make("alerts", true);
  ASSERT_EQ(remote->Push(MakeRecord("alerts", 0, "x", Int(1))), kSuccess);
  EXPECT_EQ(remote->Push(MakeRecord("alerts", 6, "new", Int(1))), kSuccess);  // 5 ahead
  EXPECT_EQ(remote->Push(MakeRecord("alerts", 8, "new2", Int(1))), kTransactionConflict);
  EXPECT_EQ(remote->Push(MakeRecord("alerts", 3, "new", Int(2))), kTransactionConflict);
  EXPECT_EQ(remote->Generation(), 2);
  EXPECT_EQ(IntAt(*remote, "new"), 1);
}

TEST_F(DomainSettingTest, RefusalsAreReportedWithTheCounts) {
  Advance(3);
  ScopedCaptureSink capture;
  EXPECT_EQ(domain_->Validate(MakeRecord("alerts", 9, "a", Int(1))), kTransactionConflict);
  EXPECT_EQ(domain_->Validate(MakeRecord("alerts", 2, "filler/2", Int(1))), kTransactionConflict);
  const std::string domain = " QelSharedSettingsErrorDomain ";
  auto report = [&](const char* message, int inCount) {
    return "report DOST/1 | S IsTransactionValid" + domain + "\"" + message +
           "\" | I IsTransactionValid" + domain + "255 | I inGCCount" + domain +
           std::to_string(inCount) + " | I orgGCCount" + domain + "3 | I IsRemoteDomain" + domain +
           "0 | D DomainName=alerts";
  };
  EXPECT_THAT(
      capture->Descriptions(),
      ::testing::ElementsAre(
          "trace \"Transaction is not valid\"", "trace \"IsTransactionValid failed (255)\"",
          report("Transaction is not valid", 9), "trace \"Transaction cannot be merged\"",
          "trace \"IsTransactionValid failed (255)\"", report("Transaction cannot be merged", 2)));
}

TEST_F(DomainSettingTest, MalformedRecordsGetTheirCodeAndChangeNothing) {
  ASSERT_EQ(SetNow("keep", 1), kSuccess);
  ScopedCaptureSink capture;
  auto expectRefused = [&](const std::shared_ptr<IHash>& record, ErrorCode code) {
    EXPECT_EQ(domain_->Push(record), code);
    EXPECT_EQ(domain_->Generation(), 1);
    EXPECT_EQ(IntAt(*domain_, "keep"), 1);
    EXPECT_EQ(IntAt(*domain_, "first"), std::nullopt);
  };
  // Another domain's record is refused before any count is read.
  auto foreign = MakeRecord("other", 1, "first", Int(1));
  ASSERT_EQ(foreign->Set(RecordKeys::kGenerationCount, Text("not a count")), kSuccess);
  expectRefused(foreign, kInvalidData);
  auto report = capture->FindFailureReport("DOST", "DomainSettings");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->Message(), "Domain does not match");
  EXPECT_FALSE(capture->HasTrace("inGCCount failed (498)"));

  expectRefused(nullptr, kInvalidArgument);
  expectRefused(MakeRecord("alerts", 1, "//", Int(1)), kInvalidData);
  auto notArray = MakeRecord("alerts", 1, "first", Int(1));
  ASSERT_EQ(notArray->Set(RecordKeys::kChanges, Text("x")), kSuccess);
  expectRefused(notArray, kInvalidData);

  auto notHash = MakeRecord("alerts", 1, "first", Int(1));
  std::shared_ptr<IArray> changes;
  std::shared_ptr<IValue> change;
  ASSERT_EQ(GetChangeArray(notHash, changes), kSuccess);
  ASSERT_EQ(changes->Append(Int(7)), kSuccess);  // after a good change
  expectRefused(notHash, kInvalidData);
  auto valueless = MakeRecord("alerts", 1, "first", Int(1));
  ASSERT_EQ(GetChangeArray(valueless, changes), kSuccess);
  ASSERT_EQ(changes->Get(0, change), kSuccess);
  ASSERT_EQ(std::dynamic_pointer_cast<IHash>(change)->Delete(RecordKeys::kNewValue), kSuccess);
  expectRefused(valueless, kInvalidData);
}

TEST_F(DomainSettingTest, ReloadsReplaceTheStateAndForgetTheHistory) {
  Advance(2);
  std::shared_ptr<IHash> root;
  ASSERT_EQ(domain_->CopySettings(root), kSuccess);
  ASSERT_EQ(root->Set(RecordKeys::kGenerationCount, Int(10)), kSuccess);
  ASSERT_EQ(domain_->Load(root), kSuccess);
  EXPECT_EQ(domain_->Generation(), 10);
  // Made before the reload: nothing tells what changed since.
  EXPECT_EQ(domain_->Validate(MakeRecord("alerts", 9, "new", Int(1))), kTransactionConflict);
  EXPECT_EQ(domain_->Validate(MakeRecord("alerts", 10, "new", Int(1))), kSuccess);

  std::shared_ptr<IHash> tree;
  ASSERT_EQ(HashFactory::Create(tree), kSuccess);
  EXPECT_EQ(domain_->Load(tree), kInvalidData);  // a tree is not a root
  EXPECT_EQ(domain_->Generation(), 10);
  ASSERT_EQ(tree->Set("loaded", Int(1)), kSuccess);
  ASSERT_EQ(domain_->LoadTree(tree), kSuccess);
  EXPECT_EQ(domain_->Generation(), 0);
  EXPECT_EQ(IntAt(*domain_, "loaded"), 1);
  EXPECT_EQ(IntAt(*domain_, "filler/0"), std::nullopt);
}

}  // namespace
}  // namespace QelSS
