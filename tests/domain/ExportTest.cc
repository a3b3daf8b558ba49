// Built against the shared library with only the umbrella header, as an
// application is: a domain or message symbol the library fails to export
// breaks this build.
#include <gtest/gtest.h>

#include "qelss/QelSharedSettings.h"

namespace {

TEST(DomainExports, ObserversAndMessagesAreReachable) {
  int calls = 0;
  std::shared_ptr<QelSS::SettingsObserver> observer;
  ASSERT_TRUE(QelSS::Succeeded(
      QelSS::SettingsObserver::Create([&](const std::shared_ptr<QelSS::IDomainSetting>&,
                                          const QelSS::IObserver::ChangeList&) { ++calls; },
                                      observer)));
  std::shared_ptr<QelSS::IObserver> asObserver = observer;
  asObserver->OnChange(nullptr, {});
  observer->Detach();
  asObserver->OnChange(nullptr, {});
  EXPECT_EQ(calls, 1);

  std::shared_ptr<QelSS::IHash> command;
  ASSERT_TRUE(QelSS::Succeeded(QelSS::DomainUtil::CreateCommand(
      "alerts", "app", QelSS::DomainUtil::kCommandCommit, false, command)));
  std::string name, client;
  bool create = true;
  EXPECT_TRUE(QelSS::Succeeded(QelSS::DomainUtil::GetCommandInfo(command, name, client, create)));
  EXPECT_FALSE(create);
}

}  // namespace
