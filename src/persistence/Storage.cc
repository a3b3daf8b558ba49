#include "persistence/Storage.h"

#include <utility>

#include "persistence/DomainFile.h"
#include "platform/dispatch/MakeQueue.h"
#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/Exceptions.h"

namespace QelSS {
namespace {

constexpr uint32_t kTag = QelErrTag("QSST");
constexpr uint32_t kQueueTag = DispatchQueue::MakeTag("QSSE");
constexpr const char* kQueueLabel = "com.qelvarin.storage";

std::shared_ptr<DispatchQueue::IQueue> MakeQueue() {
  std::shared_ptr<DispatchQueue::IQueue> queue;
  const std::error_code code = platform::MakeQueue(queue, DispatchQueue::kQueueTypeDefault,
                                                   kQueueLabel, QOS_CLASS_USER_INTERACTIVE);
  if (code != kSuccess) throw QelSharedSettingsException(code, "Storage: Failed to init");
  return queue;
}

// The work's own result; an exception inside it counts as kFailure so that the
// completion still runs exactly once, outside the try.
template <typename Work>
std::error_code Guarded(const char* operation, Work&& work) {
  try {
    return work();
  } catch (...) {
    ReportCaughtException(2, kTag, operation);
    return kFailure;
  }
}

}  // namespace

IStorage::~IStorage() = default;

Storage::Storage() : Storage(platform::DefaultFileSystem()) {}

Storage::Storage(std::shared_ptr<platform::IFileSystem> files)
    : files_(files ? std::move(files) : platform::DefaultFileSystem()), queue_(MakeQueue()) {}

Storage::~Storage() { (void)queue_->Finish(0, DispatchQueue::kFinishRunPending); }

std::error_code Storage::Create(std::shared_ptr<IStorage>& out) {
  try {
    out = std::make_shared<Storage>();
    return kSuccess;
  } catch (const QelException::StdErrException& e) {
    return e.code();
  } catch (...) {
    return kFailure;
  }
}

// A completion that throws has still run once; its exception is reported here
// like one thrown while handing the work to the queue, and goes no further.
void Storage::ReadSettings(const std::string& path, const ReadCompletion& completion) {
  try {
    const bool ran = queue_->Sync(kQueueTag, DispatchQueue::kRunNoFlags, [&] {
      std::shared_ptr<IHash> hash;
      const std::error_code code =
          Guarded("ReadSettings", [&] { return ReadDomainFile(*files_, path, hash); });
      if (completion) completion(code, code == kSuccess ? std::move(hash) : nullptr);
    });
    if (!ran && completion) completion(make_error_code(kFailure), nullptr);
  } catch (...) {
    ReportCaughtException(2, kTag, "ReadSettings");
  }
}

void Storage::WriteSettings(const std::string& path, const std::shared_ptr<IHash>& hash,
                            const WriteCompletion& completion) {
  try {
    const bool ran = queue_->Sync(kQueueTag, DispatchQueue::kRunChangesState, [&] {
      const std::error_code code =
          Guarded("WriteSettings", [&] { return WriteDomainFile(*files_, path, hash); });
      if (completion) completion(code);
    });
    if (!ran && completion) completion(make_error_code(kFailure));
  } catch (...) {
    ReportCaughtException(2, kTag, "WriteSettings");
  }
}

void Storage::KeepDamagedFile(const std::string& path, const KeepCompletion& completion) {
  try {
    const bool ran = queue_->Sync(kQueueTag, DispatchQueue::kRunChangesState, [&] {
      std::string kept;
      const std::error_code code =
          Guarded("KeepDamagedFile", [&] { return QelSS::KeepDamagedFile(*files_, path, kept); });
      if (completion) completion(code, code == kSuccess ? kept : std::string());
    });
    if (!ran && completion) completion(make_error_code(kFailure), std::string());
  } catch (...) {
    ReportCaughtException(2, kTag, "KeepDamagedFile");
  }
}

}  // namespace QelSS
