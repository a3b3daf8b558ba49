#pragma once

#include <memory>

#include "persistence/IStorage.h"
#include "platform/support/FileSystem.h"
#include "qelss/platform/Dispatch.h"

namespace QelSS {

// IStorage on the machine's files. Held through std::shared_ptr (make_shared).
class Storage final : public IStorage {
 public:
  // Throws QelSharedSettingsException ("Storage: Failed to init") with the
  // queue service's code when the work queue cannot be made.
  Storage();
  // The same on another file system (a test's fault injector).
  explicit Storage(std::shared_ptr<platform::IFileSystem> files);
  // Lets work already submitted finish, then closes the queue.
  ~Storage() override;
  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;

  // A new storage in `out`; the constructor's code instead of its exception.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IStorage>& out);

  void ReadSettings(const std::string& path, const ReadCompletion& completion) override;
  void WriteSettings(const std::string& path, const std::shared_ptr<IHash>& hash,
                     const WriteCompletion& completion) override;
  void KeepDamagedFile(const std::string& path, const KeepCompletion& completion) override;

 private:
  // Constant after construction.
  std::shared_ptr<platform::IFileSystem> files_;
  std::shared_ptr<DispatchQueue::IQueue> queue_;
};

}  // namespace QelSS
