#include "configurations/BoundedFile.h"

#include <cstdint>
#include <span>

#include "platform/support/FileSystem.h"
#include "platform/support/ScopedFile.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {

std::error_code ReadBoundedFile(const std::string& path, size_t limit, std::string& contents) {
  platform::IFileSystem& files = *platform::DefaultFileSystem();
  platform::FileKind kind = platform::FileKind::kMissing;
  if (files.KindOf(path, kind) != kSuccess) return make_error_code(kFileReadError);
  if (kind == platform::FileKind::kMissing) return make_error_code(kNotFound);
  uint64_t size = 0;
  if (kind != platform::FileKind::kRegular || files.Stat(path, size) != kSuccess || size > limit) {
    return make_error_code(kFileReadError);
  }
  int fd = -1;
  if (files.Open(path, platform::OpenMode::kRead, fd) != kSuccess) {
    return make_error_code(kFileReadError);
  }
  const platform::ScopedFile file(files, fd);
  // The size is checked again while reading: the file may grow meanwhile.
  std::string text;
  uint8_t buffer[16384];
  for (;;) {
    size_t count = 0;
    if (files.Read(file.fd(), std::span<uint8_t>(buffer), count) != kSuccess) {
      return make_error_code(kFileReadError);
    }
    if (count == 0) break;
    if (text.size() + count > limit) return make_error_code(kFileReadError);
    text.append(reinterpret_cast<const char*>(buffer), count);
  }
  contents = std::move(text);
  return make_error_code(kSuccess);
}

}  // namespace QelSS
