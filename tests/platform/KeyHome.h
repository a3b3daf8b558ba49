#pragma once

#include <stdlib.h>

#include <memory>

#include <gtest/gtest.h>

#include "platform/ScopedTempDir.h"

namespace QelSS::testing {

// The process's file key lives under a temporary data folder, so that the
// machine's real key file is never read or created. Child processes inherit
// the folder and find the same key file.
class KeyHome : public ::testing::Environment {
 public:
  void SetUp() override {
    folder_ = std::make_unique<ScopedTempDir>();
    ::setenv("XDG_DATA_HOME", folder_->path().c_str(), 1);
  }
  void TearDown() override { folder_.reset(); }

 private:
  std::unique_ptr<ScopedTempDir> folder_;
};

}  // namespace QelSS::testing
