// The administrator's drop folder: what is refused and why, what a good file
// does to its domain, files not yet whole, several importers on one folder,
// and hostile byte forms.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "persistence/ByteForm.h"
#include "persistence/DomainFile.h"
#include "persistence/ValueTreeSupport.h"
#include "platform/KeyHome.h"
#include "qelss/api/QSSDomain.h"
#include "qelss/predefine/PreDefineManager.h"
#include "values/KeyPath.h"

namespace QelSS {
namespace {

namespace fs = std::filesystem;
using namespace testing;
using Kind = PredefineOutcome::Kind;

[[maybe_unused]] ::testing::Environment* const kKeyHome =
    ::testing::AddGlobalTestEnvironment(new KeyHome);

constexpr const char* kGood = "<Hash><String>a</String><Number type=\"int\">2</Number></Hash>";
// Whether `name` ends in ".YYYYMMDDTHHMMSSZ", perhaps followed by "-N".
bool Stamped(const std::string& name) {
  std::string stamp = name.substr(name.rfind('.') + 1);
  if (const size_t dash = stamp.find('-'); dash != std::string::npos) stamp.resize(dash);
  if (stamp.size() != 16 || stamp[8] != 'T' || stamp[15] != 'Z') return false;
  return std::all_of(stamp.begin(), stamp.begin() + 8, ::isdigit) &&
         std::all_of(stamp.begin() + 9, stamp.begin() + 15, ::isdigit);
}

// `levels` hashes, each the only value of the one above, around a null.
std::string Nested(int levels) {
  std::string text;
  for (int i = 0; i < levels; ++i) text += "<Hash><String>k</String>";
  text += "<NULL/>";
  for (int i = 0; i < levels; ++i) text += "</Hash>";
  return text;
}

// Counts the commits asked of it and answers each with `answer`.
struct Recorder {
  std::mutex mutex;
  std::map<std::string, int> calls;
  std::error_code answer = make_error_code(kSuccess);

  PreDefineManager::ImportTarget Target() {
    return [this](const std::string& domain, const std::vector<PreDefineManager::Leaf>&) {
      std::lock_guard lock(mutex);
      ++calls[domain];
      return answer;
    };
  }
};

class PredefineTest : public ::testing::Test {
 protected:
  std::string Predefines() const { return dir_ / "predefines"; }
  std::string Domains() const { return dir_ / "domains"; }
  std::string Dropped(const std::string& name) const { return Predefines() + "/Domains/" + name; }

  void Drop(const std::string& name, const std::string& text, mode_t mode = 0600) const {
    const int fd = ::open(Dropped(name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << name;
    ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ASSERT_EQ(::fchmod(fd, mode), 0);
    ::close(fd);
  }

  // The names in Predefines/`sub`, sorted.
  std::vector<std::string> Listing(const std::string& sub) const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(Predefines() + "/" + sub)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  std::shared_ptr<IHash> DomainTree(const std::string& name) const {
    std::shared_ptr<QSSDomain> facade;
    std::shared_ptr<IHash> tree;
    if (!Succeeded(QSSDomain::Create(facade, name.c_str(), "test", Domains().c_str(), true)) ||
        !Succeeded(facade->CopySettings(tree))) {
      return nullptr;
    }
    return tree;
  }

  ScopedTempDir dir_;
  Recorder recorder_;
};

TEST_F(PredefineTest, EveryRefusalMovesTheFileBesideItsReasonAndCommitsNothing) {
  PreDefineManager manager(Predefines(), recorder_.Target());
  const std::string outside = dir_ / "outside.xml";
  std::ofstream(outside) << kGood;
  struct Case {
    std::string name;
    std::function<void()> make;
    ErrorCode code;
    std::string says;
  };
  const std::vector<Case> cases = {
      {"link.xml", [&] { fs::create_symlink(outside, Dropped("link.xml")); }, kPredefineError,
       "symbolic link"},
      {"fifo", [&] { ::mkfifo(Dropped("fifo").c_str(), 0600); }, kPredefineError,
       "not a regular file"},
      {"folder", [&] { fs::create_directory(Dropped("folder")); }, kPredefineError,
       "not a regular file"},
      {"group.xml", [&] { Drop("group.xml", kGood, 0620); }, kPredefineError,
       "writable by its group or by others (mode 0620)"},
      {"others.xml", [&] { Drop("others.xml", kGood, 0602); }, kPredefineError, "(mode 0602)"},
      {"huge.xml",
       [&] {
         Drop("huge.xml", kGood);
         fs::resize_file(Dropped("huge.xml"), kMaxDomainFileSize + 1);
       },
       kPredefineError, "over the limit of 32000000 bytes"},
      {"junk.xml", [&] { Drop("junk.xml", "<Hash><String>a"); }, kSerializationError,
       "not a byte form"},
      {"array.xml", [&] { Drop("array.xml", "<Array></Array>"); }, kInvalidType,
       "other than a Hash"},
      {"slash.xml", [&] { Drop("slash.xml", "<Hash><String>a/b</String><NULL/></Hash>"); },
       kInvalidArgument, "\"/a/b\" cannot be addressed"},
      {"deep.xml", [&] { Drop("deep.xml", Nested(199)); }, kInvalidArgument,
       "nests deeper than a domain keeps"},
      {"bad\x01name.xml", [&] { Drop("bad\x01name.xml", kGood); }, kInvalidArgument,
       "control character"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    c.make();
    PredefineOutcome outcome;
    EXPECT_EQ(manager.ImportFile(c.name, outcome), make_error_code(c.code));
    EXPECT_EQ(outcome.kind, Kind::kRefused);
    EXPECT_FALSE(fs::exists(fs::symlink_status(Dropped(c.name))));
    const std::string moved = fs::path(outcome.movedTo).filename().string();
    EXPECT_EQ(moved.rfind(c.name + ".", 0), 0u) << moved;
    EXPECT_TRUE(Stamped(moved)) << moved;
    std::ifstream reason(outcome.movedTo + ".reason");
    const std::string text((std::istreambuf_iterator<char>(reason)), {});
    EXPECT_EQ(
        text.rfind(std::to_string(c.code) + " " + std::string(ErrorCodeName(c.code)) + ": ", 0), 0u)
        << text;
    EXPECT_NE(text.find(c.says), std::string::npos) << text;
  }
  EXPECT_TRUE(recorder_.calls.empty());
  EXPECT_EQ(Listing("FailedImports").size(), 2 * cases.size());
  EXPECT_TRUE(Listing("Domains").empty());

  // Someone else's file: only root can make one here.
  if (::geteuid() == 0) {
    Drop("foreign.xml", kGood);
    ASSERT_EQ(::chown(Dropped("foreign.xml").c_str(), 65534, 65534), 0);
    PredefineOutcome outcome;
    EXPECT_EQ(manager.ImportFile("foreign.xml", outcome), make_error_code(kPredefineError));
    EXPECT_NE(outcome.message.find("owned by uid 65534, neither root nor uid 0"),
              std::string::npos);
  }
}

TEST_F(PredefineTest, ACommitThatFailsRefusesTheFileWithTheCommitsCode) {
  recorder_.answer = make_error_code(kTransactionConflict);
  PreDefineManager manager(Predefines(), recorder_.Target());
  Drop("com.example.busy", kGood);
  PredefineOutcome outcome;
  EXPECT_EQ(manager.ImportFile("com.example.busy", outcome), make_error_code(kTransactionConflict));
  EXPECT_EQ(outcome.domain, "com.example.busy");
  EXPECT_EQ(recorder_.calls["com.example.busy"], 1);
  ASSERT_EQ(Listing("FailedImports").size(), 2u);
  EXPECT_TRUE(Listing("SuccessfulImports").empty());
}

TEST_F(PredefineTest, AGoodFileSetsEveryLeafItHoldsAndLeavesTheDomainsOtherKeysAlone) {
  {
    std::shared_ptr<QSSDomain> facade;
    ASSERT_TRUE(
        Succeeded(QSSDomain::Create(facade, "com.example.app", "test", Domains().c_str(), true)));
    ASSERT_TRUE(Succeeded(facade->SetCommit("/keep", 1LL)));
    ASSERT_TRUE(Succeeded(facade->SetCommit("/nested/old", std::string("o"))));
  }
  const UUIDBytes uuid = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  const auto kinds = HashOf({{"null", Null()},
                             {"int", Int(-1)},
                             {"uint", UInt(18446744073709551615ULL)},
                             {"bool", Bool(true)},
                             {"double", Double(2.5)},
                             {"string", Str("<&>\"")},
                             {"date", DateAt(1700000000)},
                             {"uuid", Uuid(uuid)},
                             {"data", DataOf({0, 255, 7})}});
  const auto list = ArrayOf({Int(1), HashOf({{"x", Str("y")}})});
  const auto file = HashOf({
      {"nested", HashOf({{"new", Int(-7)}, {"deeper", HashOf({{"empty", HashOf({})}})}})},
      {"kinds", kinds},
      {"list", list},
  });
  PreDefineManager manager(Predefines(), PreDefineManager::FacadeTarget(Domains(), true));
  Bytes bytes;
  ASSERT_EQ(WriteByteForm(file, bytes), make_error_code(kSuccess));
  Drop("com.example.app.xml", ToText(bytes));
  std::vector<PredefineOutcome> outcomes;
  ASSERT_EQ(manager.ImportAll(outcomes), make_error_code(kSuccess));
  ASSERT_EQ(outcomes.size(), 1u);
  EXPECT_EQ(outcomes[0].kind, Kind::kImported) << outcomes[0].message;
  EXPECT_EQ(outcomes[0].domain, "com.example.app");
  const auto moved = Listing("SuccessfulImports");
  ASSERT_EQ(moved.size(), 1u);
  EXPECT_TRUE(Stamped(moved[0])) << moved[0];
  EXPECT_EQ(moved[0].rfind("com.example.app.xml.", 0), 0u);

  const auto tree = DomainTree("com.example.app");
  ASSERT_NE(tree, nullptr);
  const auto at = [&](const char* path) {
    std::shared_ptr<IValue> value;
    return KeyPath::Lookup(tree, path, value) == kSuccess ? Dump(value) : std::string("absent");
  };
  EXPECT_EQ(at("keep"), Dump(Int(1)));
  EXPECT_EQ(at("nested/old"), Dump(Str("o")));
  EXPECT_EQ(at("nested"), Dump(HashOf({{"old", Str("o")},
                                       {"new", Int(-7)},
                                       {"deeper", HashOf({{"empty", HashOf({})}})}})));
  EXPECT_EQ(at("kinds"), Dump(kinds));
  EXPECT_EQ(at("list"), Dump(list));
}

TEST_F(PredefineTest, FilesNotYetWholeOrHiddenAreLeftForLater) {
  PreDefineManager manager(Predefines(), recorder_.Target());
  Drop(".com.example.app.swp", kGood);
  const int writer = ::open(Dropped("com.example.app").c_str(), O_WRONLY | O_CREAT, 0600);
  ASSERT_GE(writer, 0);
  ASSERT_EQ(::write(writer, "<Hash>", 6), 6);

  std::vector<PredefineOutcome> outcomes;
  ASSERT_EQ(manager.ImportAll(outcomes), make_error_code(kSuccess));
  ASSERT_EQ(outcomes.size(), 1u);
  EXPECT_EQ(outcomes[0].kind, Kind::kLeft);
  EXPECT_EQ(outcomes[0].message, "still open for writing");
  EXPECT_TRUE(recorder_.calls.empty());

  const std::string rest = std::string(kGood).substr(6);
  ASSERT_EQ(::write(writer, rest.data(), rest.size()), static_cast<ssize_t>(rest.size()));
  ::close(writer);
  PredefineOutcome outcome;
  EXPECT_EQ(manager.ImportFile("com.example.app", outcome), make_error_code(kSuccess));
  EXPECT_EQ(recorder_.calls["com.example.app"], 1);
  EXPECT_EQ(Listing("Domains"), std::vector<std::string>{".com.example.app.swp"});
}

TEST_F(PredefineTest, ImportersRacingOverOneFolderImportEachFileOnce) {
  constexpr int kFiles = 40;
  constexpr int kImporters = 4;
  std::vector<std::unique_ptr<PreDefineManager>> managers;
  for (int i = 0; i < kImporters; ++i) {
    managers.push_back(std::make_unique<PreDefineManager>(Predefines(), recorder_.Target()));
  }
  for (int i = 0; i < kFiles; ++i) Drop("com.example.d" + std::to_string(i), kGood);
  std::vector<std::vector<PredefineOutcome>> outcomes(kImporters);
  std::vector<std::thread> threads;
  for (int i = 0; i < kImporters; ++i) {
    threads.emplace_back([&, i] { (void)managers[i]->ImportAll(outcomes[i]); });
  }
  for (auto& thread : threads) thread.join();

  int imported = 0;
  for (const auto& list : outcomes) {
    for (const auto& outcome : list) {
      EXPECT_NE(outcome.kind, Kind::kRefused) << outcome.file << ": " << outcome.message;
      imported += outcome.kind == Kind::kImported;
    }
  }
  EXPECT_EQ(imported, kFiles);
  EXPECT_EQ(recorder_.calls.size(), static_cast<size_t>(kFiles));
  for (const auto& [domain, calls] : recorder_.calls) EXPECT_EQ(calls, 1) << domain;
  EXPECT_EQ(Listing("SuccessfulImports").size(), static_cast<size_t>(kFiles));
  EXPECT_TRUE(Listing("Domains").empty());
}

TEST_F(PredefineTest, HostileByteFormsAreRefusedWithoutACrash) {
  PreDefineManager manager(Predefines(), recorder_.Target());
  std::vector<std::string> documents;
  for (const char* corpus : {"hash_from_bytes", "format_bytes", "frame_reader", "decrypt"}) {
    for (const auto& entry : fs::directory_iterator(fs::path(QELSS_FUZZ_CORPUS_DIR) / corpus)) {
      std::ifstream in(entry.path(), std::ios::binary);
      documents.emplace_back((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
    }
  }
  XmlGenerator generator(20261124);
  for (int i = 0; i < 150; ++i) documents.push_back(generator.Document());

  for (size_t i = 0; i < documents.size(); ++i) {
    const std::string name = "com.example.h" + std::to_string(i);
    Drop(name, documents[i]);
    PredefineOutcome outcome;
    (void)manager.ImportFile(name, outcome);
    EXPECT_NE(outcome.kind, Kind::kLeft) << name << ": " << outcome.message;
    EXPECT_FALSE(outcome.movedTo.empty()) << name;
    EXPECT_EQ(recorder_.calls.count(outcome.domain) == 1, outcome.kind == Kind::kImported) << name;
  }
  EXPECT_TRUE(Listing("Domains").empty());
}

}  // namespace
}  // namespace QelSS
