#include <gtest/gtest.h>

#include <vector>

#include "qelss/ipc/DomainUtil.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/INumber.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"

namespace QelSS {
namespace {

std::shared_ptr<IValue> Int(long long value) {
  std::shared_ptr<INumber> number;
  EXPECT_EQ(NumberFactory::Create(number, value), kSuccess);
  return number;
}

std::shared_ptr<IValue> Text(const char* text) {
  std::shared_ptr<IString> value;
  EXPECT_EQ(StringFactory::Create(value, text), kSuccess);
  return value;
}

std::shared_ptr<IHash> HashWith(const char* key, const std::shared_ptr<IValue>& value) {
  std::shared_ptr<IHash> hash;
  EXPECT_EQ(HashFactory::Create(hash), kSuccess);
  if (value) {
    EXPECT_EQ(hash->Set(key, value), kSuccess);
  }
  return hash;
}

std::vector<std::string> Keys(const IHash& hash) {
  std::vector<std::string> keys;
  EXPECT_EQ(hash.Iterate([&](const std::shared_ptr<IString>& key, const std::shared_ptr<IValue>&,
                             bool&) { keys.push_back(key->GetCString()); }),
            kSuccess);
  return keys;
}

TEST(DomainUtilCommand, RoundTripsEveryField) {
  for (bool create : {true, false}) {
    std::shared_ptr<IHash> command;
    ASSERT_EQ(DomainUtil::CreateCommand("alerts", "com.example.app", 1, create, command), kSuccess);
    EXPECT_EQ(Keys(*command), (std::vector<std::string>{"DomainClient", "DomainCommand",
                                                        "DomainCreate", "DomainName"}));
    std::shared_ptr<IValue> flag;
    ASSERT_EQ(command->Get("DomainCreate", flag), kSuccess);
    EXPECT_TRUE(*flag == *Int(create ? 1 : 0));  // an int64, not a boolean number

    int64_t code = -1;
    EXPECT_EQ(DomainUtil::GetCommand(command, code), kSuccess);
    EXPECT_EQ(code, 1);
    std::string name, client;
    bool readCreate = !create;
    EXPECT_EQ(DomainUtil::GetCommandInfo(command, name, client, readCreate), kSuccess);
    EXPECT_EQ(name, "alerts");
    EXPECT_EQ(client, "com.example.app");
    EXPECT_EQ(readCreate, create);
  }
}

TEST(DomainUtilCommand, BadFieldsAreInvalidCommands) {
  std::string name, client;
  bool create = false;
  EXPECT_EQ(DomainUtil::GetCommandInfo(nullptr, name, client, create), kInvalidArgument);

  std::shared_ptr<IHash> command;
  ASSERT_EQ(DomainUtil::CreateCommand("alerts", "app", 0, true, command), kSuccess);
  ASSERT_EQ(command->Set("DomainCreate", Text("yes")), kSuccess);
  EXPECT_EQ(DomainUtil::GetCommandInfo(command, name, client, create), kInvalidCommand);
  EXPECT_EQ(name, "alerts");  // read before the failing field
  EXPECT_EQ(client, "app");

  ASSERT_EQ(command->Delete("DomainClient"), kSuccess);
  name.clear();
  EXPECT_EQ(DomainUtil::GetCommandInfo(command, name, client, create), kInvalidCommand);
  EXPECT_EQ(name, "alerts");

  int64_t code = 7;
  EXPECT_EQ(DomainUtil::GetCommand(HashWith("DomainCommand", Text("0")), code), kInvalidCommand);
  EXPECT_EQ(DomainUtil::GetCommand(HashWith("x", nullptr), code), kInvalidCommand);
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

TEST(DomainUtilResponse, StatusTravelsAsANumberOnly) {
  std::shared_ptr<IHash> response;
  ASSERT_EQ(DomainUtil::CreateResponse(make_error_code(kTransactionConflict), response), kSuccess);
  EXPECT_EQ(DomainUtil::GetResponseStatus(response), kTransactionConflict);
  ASSERT_EQ(DomainUtil::CreateResponse(make_error_code(kSuccess), response), kSuccess);
  EXPECT_EQ(DomainUtil::GetResponseStatus(response), kSuccess);

  const std::error_code zero = DomainUtil::GetResponseStatus(HashWith("DomainResponse", Int(0)));
  EXPECT_EQ(zero.value(), 0);
  EXPECT_EQ(&zero.category(), &qelss_category());
  EXPECT_FALSE(Succeeded(zero));

  EXPECT_EQ(DomainUtil::GetResponseStatus(HashWith("DomainResponse", Text("100"))),
            kInvalidResponse);
  EXPECT_EQ(DomainUtil::GetResponseStatus(HashWith("Other", Int(100))), kInvalidResponse);
}

TEST(DomainUtilChange, ReadsPathTypeAndValueOnlyForSettings) {
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
  EXPECT_EQ(DomainUtil::GetTransactionChangeInfo(HashWith("Change", Int(1)), path, type, value),
            kInvalidData);
}

TEST(DomainUtilRoot, NewRootHasCountZeroAndAnEmptyTree) {
  std::shared_ptr<IHash> root;
  ASSERT_EQ(DomainUtil::CreateDomainRoot(root), kSuccess);
  EXPECT_EQ(Keys(*root), (std::vector<std::string>{"DomainInternalSettings",
                                                   "QelSharedSettingsGenerationCount"}));
  std::shared_ptr<IHash> tree;
  ASSERT_EQ(DomainUtil::GetInternalSettings(root, tree), kSuccess);
  EXPECT_EQ(tree->GetCount(), 0u);

  std::shared_ptr<IValue> before;
  ASSERT_EQ(root->Get("QelSharedSettingsGenerationCount", before), kSuccess);
  EXPECT_TRUE(*before == *Int(0));
  EXPECT_EQ(DomainUtil::IncrementGenerationCount(root), kSuccess);
  EXPECT_EQ(DomainUtil::IncrementGenerationCount(root), kSuccess);
  std::shared_ptr<IValue> after;
  ASSERT_EQ(root->Get("QelSharedSettingsGenerationCount", after), kSuccess);
  EXPECT_TRUE(*after == *Int(2));
  EXPECT_TRUE(*before == *Int(0));  // replaced, not changed in place
}

TEST(DomainUtilRoot, BookkeepingOfTheWrongShapeIsInvalidData) {
  auto countless = HashWith("DomainInternalSettings", HashWith("a", Int(1)));
  EXPECT_EQ(DomainUtil::IncrementGenerationCount(countless), kInvalidData);
  EXPECT_EQ(countless->GetCount(), 1u);
  EXPECT_EQ(
      DomainUtil::IncrementGenerationCount(HashWith("QelSharedSettingsGenerationCount", Text("3"))),
      kInvalidData);

  std::shared_ptr<IHash> tree;
  EXPECT_EQ(DomainUtil::GetInternalSettings(HashWith("DomainInternalSettings", Int(1)), tree),
            kInvalidData);
  EXPECT_EQ(DomainUtil::GetInternalSettings(HashWith("x", nullptr), tree), kInvalidData);
  EXPECT_EQ(tree, nullptr);
}

}  // namespace
}  // namespace QelSS
