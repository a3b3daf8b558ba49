// The facade on a real local domain: typed reads and writes of every supported
// type, transactions and the one-call operations, blocks and observers.

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <limits>
#include <thread>

#include <gtest/gtest.h>

#include "api/FacadeTestSupport.h"
#include "platform/report/CaptureSink.h"
#include "qelss/domain/SettingsObserver.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/ArrayHelper.h"
#include "qelss/values/DataFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/HashHelper.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "qelss/values/UUIDFactory.h"

namespace QelSS {
namespace {

using testing::Code;

[[maybe_unused]] ::testing::Environment* const kKeyHome =
    ::testing::AddGlobalTestEnvironment(new testing::KeyHome);

class FacadeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(QSSDomain::Create(facade_, "player", "facade-test", folder_.path().c_str(), true),
              Code(kSuccess));
    ASSERT_TRUE(facade_);
  }

  template <typename T>
  void ExpectStored(const char* key, const T& expected) {
    T read{};
    ASSERT_EQ(facade_->Get(key, read), Code(kSuccess)) << key;
    ExpectSame(expected, read);
  }

  template <typename T>
  static void ExpectSame(const T& expected, const T& read) {
    EXPECT_EQ(expected, read);
  }

  template <typename I>
  static void ExpectSame(const std::shared_ptr<I>& expected, const std::shared_ptr<I>& read) {
    auto a = std::dynamic_pointer_cast<IValue>(expected);
    auto b = std::dynamic_pointer_cast<IValue>(read);
    ASSERT_TRUE(a && b);
    EXPECT_TRUE(*a == *b);
  }

  template <typename T>
  void ExpectSetCommitRoundTrip(const char* key, const T& value) {
    ASSERT_EQ(facade_->SetCommit(key, value), Code(kSuccess)) << key;
    ExpectStored(key, value);
  }

  testing::ScopedTempDir folder_;
  std::shared_ptr<QSSDomain> facade_;
};

struct SampleValues {
  SampleValues() {
    std::shared_ptr<INumber> number;
    std::shared_ptr<IString> other;
    const unsigned char raw[] = {0, 1, 254, 255};
    EXPECT_TRUE(NumberFactory::Create(number, 7LL) == kSuccess &&
                StringFactory::Create(text, "tune") == kSuccess &&
                DataFactory::Create(data, raw, sizeof raw) == kSuccess &&
                UUIDFactory::Create(uuid) == kSuccess && HashFactory::Create(hash) == kSuccess &&
                HashHelper::Set(hash, "depth", 2LL) == kSuccess &&
                ArrayFactory::Create(array) == kSuccess &&
                ArrayHelper::AppendObject(array, std::string("x")) == kSuccess &&
                StringFactory::Create(other, "serialisable") == kSuccess);
    anyValue = number;
    serialisable = std::dynamic_pointer_cast<IValueSerialize>(other);
  }

  std::shared_ptr<IValue> anyValue;
  std::shared_ptr<IString> text;
  std::shared_ptr<IData> data;
  std::shared_ptr<IUUID> uuid;
  std::shared_ptr<IHash> hash;
  std::shared_ptr<IArray> array;
  std::shared_ptr<IValueSerialize> serialisable;
};

// Half the types go through one transaction, invisible until its commit; the
// other half through the one-call form.
TEST_F(FacadeTest, EveryTypeRoundTripsThroughATransactionOrSetCommit) {
  SampleValues v;
  ASSERT_EQ(facade_->CreateTransaction(), Code(kSuccess));
  ASSERT_EQ(facade_->Set("/a/bool", false), Code(kSuccess));
  ASSERT_EQ(facade_->Set("/a/real", 0.125), Code(kSuccess));
  ASSERT_EQ(facade_->Set("/a/date", 86400L), Code(kSuccess));
  ASSERT_EQ(facade_->Set("/a/hash", v.hash), Code(kSuccess));
  ASSERT_EQ(facade_->Set("/a/uuid", v.uuid), Code(kSuccess));
  ASSERT_EQ(facade_->Set("/a/text", std::string("h\xC3\xA9llo")), Code(kSuccess));
  bool unseen = true;
  EXPECT_EQ(facade_->Get("/a/bool", unseen), Code(kNotFound)) << "visible before the commit";
  ASSERT_EQ(facade_->CommitTransaction(), Code(kSuccess));
  ExpectStored("/a/bool", false);
  ExpectStored("/a/real", 0.125);
  ExpectStored("/a/date", 86400L);
  ExpectStored("/a/hash", v.hash);
  ExpectStored("/a/uuid", v.uuid);
  ExpectStored("/a/text", std::string("h\xC3\xA9llo"));

  ExpectSetCommitRoundTrip("/int", std::numeric_limits<long long>::min());
  ExpectSetCommitRoundTrip("/uint", std::numeric_limits<unsigned long long>::max());
  ExpectSetCommitRoundTrip("/bytes", std::vector<unsigned char>{0, 1, 255});
  ExpectSetCommitRoundTrip("/value", v.anyValue);
  ExpectSetCommitRoundTrip("/string", v.text);
  ExpectSetCommitRoundTrip("/data", v.data);
  ExpectSetCommitRoundTrip("/array", v.array);
  ExpectSetCommitRoundTrip("/serialisable", v.serialisable);
}

TEST_F(FacadeTest, WrongTypeReadsGiveTheHelpersCodes) {
  ASSERT_EQ(facade_->SetCommit("/n", 5LL), Code(kSuccess));
  ASSERT_EQ(facade_->SetCommit("/when", 1000L), Code(kSuccess));
  unsigned long long unsignedValue = 99;
  EXPECT_EQ(facade_->Get("/n", unsignedValue), Code(kInvalidType));
  EXPECT_EQ(unsignedValue, 99u) << "written on failure";
  std::string text = "kept";
  EXPECT_EQ(facade_->Get("/n", text), Code(kInvalidData));
  long long number = 0;
  EXPECT_EQ(facade_->Get("/when", number), Code(kInvalidData)) << "a long is a date";
  long date = 0;
  EXPECT_EQ(facade_->Get("/n", date), Code(kInvalidData));
  std::shared_ptr<IHash> hash = SampleValues().hash;
  EXPECT_EQ(facade_->Get("/n", hash), Code(kInvalidData));
  EXPECT_FALSE(hash) << "a pointer output is reset on a type mismatch";
  EXPECT_EQ(facade_->Get("/absent/deeper", number), Code(kNotFound));
}

// Set and Delete need a current transaction; a commit, or a one-call commit,
// ends it and drops what it held.
TEST_F(FacadeTest, TransactionsEndWithEveryKindOfCommit) {
  EXPECT_EQ(facade_->Set("/a", 1LL), Code(kFailure));
  EXPECT_EQ(facade_->Delete("/a"), Code(kFailure));
  ASSERT_EQ(facade_->CreateTransaction(), Code(kSuccess));
  ASSERT_EQ(facade_->Set("/a/x", 1LL), Code(kSuccess));
  ASSERT_EQ(facade_->Set("/a/y", 2LL), Code(kSuccess));
  ASSERT_EQ(facade_->CommitTransaction(), Code(kSuccess));
  EXPECT_EQ(facade_->Set("/b", 2LL), Code(kFailure)) << "the commit cleared the transaction";
  EXPECT_EQ(facade_->CommitTransaction(), Code(kInvalidArgument)) << "nothing left to commit";

  ASSERT_EQ(facade_->CreateTransaction(), Code(kSuccess));
  std::shared_ptr<IValue> none;
  EXPECT_EQ(facade_->Set("/c", none), Code(kInvalidArgument));
  EXPECT_EQ(facade_->Set("/", 1LL), Code(kInvalidArgument));
  EXPECT_EQ(facade_->Set(nullptr, 1LL), Code(kInvalidArgument));
  EXPECT_EQ(facade_->Set("/a/x/below", 1LL), Code(kInvalidType)) << "/a/x holds a number";
  ASSERT_EQ(facade_->Set("/pending", 1LL), Code(kSuccess));
  ASSERT_EQ(facade_->Delete("/a/x"), Code(kSuccess));
  ExpectStored("/a/x", 1LL);
  ASSERT_EQ(facade_->SetCommit("/committed", 2LL), Code(kSuccess));
  long long value = 0;
  EXPECT_EQ(facade_->Get("/pending", value), Code(kNotFound));
  ExpectStored("/a/x", 1LL);
  EXPECT_EQ(facade_->Set("/pending", 1LL), Code(kFailure));

  ASSERT_EQ(facade_->CreateTransaction(), Code(kSuccess));
  ASSERT_EQ(facade_->Delete("/a/x"), Code(kSuccess));
  ASSERT_EQ(facade_->CommitTransaction(), Code(kSuccess));
  EXPECT_EQ(facade_->Get("/a/x", value), Code(kNotFound));
  EXPECT_EQ(facade_->DeleteAndCommit("/a/y"), Code(kSuccess));
  EXPECT_EQ(facade_->Get("/a/y", value), Code(kNotFound));
  EXPECT_EQ(facade_->DeleteAndCommit("/never/there"), Code(kSuccess));
}

TEST_F(FacadeTest, AsynchronousCommitCallsDoneAndThenClearsTheTransaction) {
  ASSERT_EQ(facade_->CreateTransaction(), Code(kSuccess));
  ASSERT_EQ(facade_->Set("/async", 3LL), Code(kSuccess));
  std::promise<std::error_code> outcome;
  ASSERT_EQ(facade_->CommitTransaction([&outcome](std::error_code rc) { outcome.set_value(rc); }),
            Code(kSuccess));
  auto result = outcome.get_future();
  ASSERT_EQ(result.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(result.get(), Code(kSuccess));
  ExpectStored("/async", 3LL);

  EXPECT_EQ(facade_->CommitTransaction(std::function<void(std::error_code)>()),
            Code(kInvalidArgument));
}

TEST_F(FacadeTest, PerformBlockRunsTheFacadeReentrantly) {
  auto ran = std::async(std::launch::async, [this] {
    std::error_code inner = Code(kFailure);
    const std::error_code outer = facade_->PerformBlock([&] {
      inner = facade_->SetCommit("/in/block", 1LL);
      if (Succeeded(inner))
        inner = facade_->PerformBlock([&] { inner = facade_->CreateTransaction(); });
    });
    return std::make_pair(outer, inner);
  });
  ASSERT_EQ(ran.wait_for(std::chrono::seconds(30)), std::future_status::ready) << "deadlock";
  const auto [outer, inner] = ran.get();
  EXPECT_EQ(outer, Code(kSuccess));
  EXPECT_EQ(inner, Code(kSuccess));
  ExpectStored("/in/block", 1LL);
}

TEST_F(FacadeTest, NoOtherThreadsWriteRunsInsideABlock) {
  std::atomic<bool> writerStarted{false};
  std::atomic<bool> blockFinished{false};
  std::future<bool> writer;
  ASSERT_EQ(facade_->PerformBlock([&] {
    writer = std::async(std::launch::async, [&] {
      writerStarted = true;
      const bool ok = Succeeded(facade_->SetCommit("/other", 2LL));
      return ok && blockFinished.load();
    });
    while (!writerStarted) std::this_thread::yield();
    // Give the writer every chance to get in if the block did not exclude it.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    long long seen = 0;
    EXPECT_EQ(facade_->Get("/other", seen), Code(kNotFound));
    blockFinished = true;
  }),
            Code(kSuccess));
  EXPECT_TRUE(writer.get()) << "the writer finished while the block was running";
}

TEST_F(FacadeTest, PerformBlockRefusesNothingAndReportsAThrowingBlock) {
  EXPECT_EQ(facade_->PerformBlock(std::function<void()>()), Code(kInvalidArgument));

  platform::ScopedCaptureSink capture;
  EXPECT_EQ(facade_->PerformBlock([] { throw std::runtime_error("boom"); }), Code(kFailure));
  auto report = capture->FindFailureReport("SDOM", "PerformBlock");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->Message(), "exception");
  EXPECT_EQ(report->Code(), 500);
  // The mutex was given back: another thread can write.
  auto writer =
      std::async(std::launch::async, [this] { return facade_->SetCommit("/after", 1LL); });
  ASSERT_EQ(writer.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(writer.get(), Code(kSuccess));
}

TEST_F(FacadeTest, RemovingASettingsObserverDetachesIt) {
  std::atomic<int> calls{0};
  std::shared_ptr<SettingsObserver> observer;
  ASSERT_EQ(SettingsObserver::Create([&calls](const std::shared_ptr<IDomainSetting>&,
                                              const IObserver::ChangeList&) { ++calls; },
                                     observer),
            Code(kSuccess));
  EXPECT_EQ(facade_->AddObserver(nullptr, nullptr), Code(kInvalidArgument));
  ASSERT_EQ(facade_->AddObserver(nullptr, observer), Code(kSuccess));
  ASSERT_EQ(facade_->RemoveObserver(observer), Code(kSuccess));
  EXPECT_EQ(facade_->RemoveObserver(observer), Code(kNotFound));

  observer->OnChange(nullptr, {});
  EXPECT_EQ(calls.load(), 0) << "a removed adaptor still forwards";
}

}  // namespace
}  // namespace QelSS
