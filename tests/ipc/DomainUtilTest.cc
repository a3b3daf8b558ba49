#include <gtest/gtest.h>

#include <vector>

#include "domain/DomainTestSupport.h"
#include "qelss/ipc/DomainUtil.h"

namespace QelSS {
namespace {

using testing::Int;
using testing::Text;

std::shared_ptr<IHash> HashWith(const char* key, const std::shared_ptr<IValue>& value) {
  std::shared_ptr<IHash> hash;
  (void)HashFactory::Create(hash);
  (void)hash->Set(key, value);
  return hash;
}

TEST(DomainUtil, CommandsRoundTripAndTheCreateFlagIsAnInteger) {
  for (bool create : {true, false}) {
    std::shared_ptr<IHash> command;
    ASSERT_EQ(DomainUtil::CreateCommand("alerts", "com.example.app", 1, create, command), kSuccess);
    EXPECT_EQ(command->GetCount(), 4u);
    std::shared_ptr<IValue> flag;
    ASSERT_EQ(command->Get("DomainCreate", flag), kSuccess);
    EXPECT_TRUE(*flag == *Int(create ? 1 : 0));

    int64_t code = -1;
    std::string name, client;
    bool readCreate = !create;
    EXPECT_EQ(DomainUtil::GetCommand(command, code), kSuccess);
    EXPECT_EQ(code, 1);
    EXPECT_EQ(DomainUtil::GetCommandInfo(command, name, client, readCreate), kSuccess);
    EXPECT_EQ(name, "alerts");
    EXPECT_EQ(client, "com.example.app");
    EXPECT_EQ(readCreate, create);
  }
}

TEST(DomainUtil, CommandFieldsOfTheWrongTypeAreInvalidCommands) {
  std::string name, client;
  bool create = false;
  EXPECT_EQ(DomainUtil::GetCommandInfo(nullptr, name, client, create), kInvalidArgument);
  std::shared_ptr<IHash> command;
  ASSERT_EQ(DomainUtil::CreateCommand("alerts", "app", 0, true, command), kSuccess);
  ASSERT_EQ(command->Set("DomainCreate", Text("yes")), kSuccess);
  EXPECT_EQ(DomainUtil::GetCommandInfo(command, name, client, create), kInvalidCommand);
  EXPECT_EQ(name + "," + client, "alerts,app");  // read before the failing field

  int64_t code = 7;
  EXPECT_EQ(DomainUtil::GetCommand(HashWith("DomainCommand", Text("0")), code), kInvalidCommand);
  EXPECT_EQ(DomainUtil::GetCommand(HashWith("x", Int(0)), code), kInvalidCommand);
  EXPECT_EQ(code, 7);

  std::shared_ptr<IHash> record;
  EXPECT_EQ(DomainUtil::GetTransactionInfo(command, record), kInvalidCommand);
  EXPECT_EQ(DomainUtil::GetTransactionInfo(HashWith("DomainSettingTransaction", Int(1)), record),
            kInvalidCommand);
  auto inner = HashWith("DomainName", Text("alerts"));
  ASSERT_EQ(command->Set("DomainSettingTransaction", inner), kSuccess);
  EXPECT_EQ(DomainUtil::GetTransactionInfo(command, record), kSuccess);
  EXPECT_EQ(record, inner);  // shared, not copied
}

TEST(DomainUtil, ResponseStatusTravelsAsANumberOnly) {
  std::shared_ptr<IHash> response;
  ASSERT_EQ(DomainUtil::CreateResponse(make_error_code(kTransactionConflict), response), kSuccess);
  EXPECT_EQ(DomainUtil::GetResponseStatus(response), kTransactionConflict);
  EXPECT_EQ(DomainUtil::GetResponseStatus(HashWith("DomainResponse", Int(100))), kSuccess);
  const std::error_code zero = DomainUtil::GetResponseStatus(HashWith("DomainResponse", Int(0)));
  EXPECT_EQ(zero, std::error_code(0, qelss_category()));
  EXPECT_FALSE(Succeeded(zero));
  EXPECT_EQ(DomainUtil::GetResponseStatus(HashWith("DomainResponse", Text("100"))),
            kInvalidResponse);
  EXPECT_EQ(DomainUtil::GetResponseStatus(HashWith("Other", Int(100))), kInvalidResponse);
}

TEST(DomainUtil, ChangeRecordsGiveAValueOnlyForSettings) {
  auto change = HashWith("Path", Text("a/b"));
  ASSERT_EQ(change->Set("Change", Int(1)), kSuccess);
  ASSERT_EQ(change->Set("NewValue", Text("v")), kSuccess);
  std::shared_ptr<IString> path;
  Constants::TransactionChangeType type = Constants::Delete;
  std::shared_ptr<IValue> value;
  EXPECT_EQ(DomainUtil::GetTransactionChangeInfo(change, path, type, value), kSuccess);
  EXPECT_STREQ(path->GetCString(), "a/b");
  EXPECT_EQ(type, Constants::Set);
  EXPECT_TRUE(*value == *Text("v"));

  ASSERT_EQ(change->Set("Change", Int(0)), kSuccess);
  auto untouched = Int(42);
  value = untouched;
  EXPECT_EQ(DomainUtil::GetTransactionChangeInfo(change, path, type, value), kSuccess);
  EXPECT_EQ(type, Constants::Delete);
  EXPECT_EQ(value, untouched);

  ASSERT_EQ(change->Set("Change", Text("1")), kSuccess);
  EXPECT_EQ(DomainUtil::GetTransactionChangeInfo(change, path, type, value), kInvalidData);
  EXPECT_EQ(DomainUtil::GetTransactionChangeInfo(HashWith("Path", Int(1)), path, type, value),
            kInvalidData);
}

TEST(DomainUtil, RootsStartAtZeroAndCountByReplacingTheNumber) {
  std::shared_ptr<IHash> root, tree;
  std::shared_ptr<IValue> before, after;
  ASSERT_EQ(DomainUtil::CreateDomainRoot(root), kSuccess);
  EXPECT_EQ(root->GetCount(), 2u);
  ASSERT_EQ(DomainUtil::GetInternalSettings(root, tree), kSuccess);
  EXPECT_EQ(tree->GetCount(), 0u);
  ASSERT_EQ(root->Get("QelSharedSettingsGenerationCount", before), kSuccess);
  EXPECT_EQ(DomainUtil::IncrementGenerationCount(root), kSuccess);
  EXPECT_EQ(DomainUtil::IncrementGenerationCount(root), kSuccess);
  ASSERT_EQ(root->Get("QelSharedSettingsGenerationCount", after), kSuccess);
  EXPECT_TRUE(*after == *Int(2));
  EXPECT_TRUE(*before == *Int(0));  // replaced, not changed in place

  auto countless = HashWith("DomainInternalSettings", tree);
  EXPECT_EQ(DomainUtil::IncrementGenerationCount(countless), kInvalidData);
  EXPECT_EQ(countless->GetCount(), 1u);
  std::shared_ptr<IHash> none;
  EXPECT_EQ(DomainUtil::GetInternalSettings(HashWith("DomainInternalSettings", Int(1)), none),
            kInvalidData);
  EXPECT_EQ(none, nullptr);
}

}  // namespace
}  // namespace QelSS
