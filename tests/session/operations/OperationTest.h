// Operations on images as files give them.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "session/operations/Describe.h"
#include "session/operations/Operations.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"
#include "tests/support/Folder.h"
#include "tests/support/Images.h"

namespace korimg::session {

class OperationTest : public files::FolderTest {
 protected:
  using Values = std::map<std::string, std::string>;

  explicit OperationTest(JobOptions options = {}) : job_(std::move(options)) {}

  Image Saved(CVelImage& image, const files::Header& header = {}) {
    const auto path = In(std::to_string(++count_) + ".fits");
    SaveImage(job_, image, header, path);
    return Image::Open(job_, path);
  }
  void Apply(Image& image, const std::string& operation, const Values& values, CRect* rect = nullptr) {
    Step(FindOperation(operation), values).Run(job_, image, rect);
  }
  std::vector<float> Result(Image image, const std::string& operation, const Values& values) {
    Apply(image, operation, values);
    return test::Pixels(image.Pixels());
  }
  void ExpectRefused(Image image, const std::string& operation, const Values& values,
                     const std::string& says) {
    try {
      Apply(image, operation, values);
      ADD_FAILURE() << operation << " was not refused: " << says;
    } catch (const UsageError& error) {
      EXPECT_NE(std::string(error.what()).find(says), std::string::npos) << error.what();
    }
  }

  Job job_;

 private:
  int count_ = 0;
};

}  // namespace korimg::session
