#pragma once

#include <exception>
#include <string>

#include "korimg/platform/Export.h"

namespace velora {

/// Root of the exceptions of images; the text says what failed, with its numbers.
class KORIMG_API CVeloraImageException : public std::exception {
 public:
  CVeloraImageException() = default;
  explicit CVeloraImageException(std::string text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_ = "image error";
};

/// A store could not serve a block, for instance because its swap file can't be read back.
class KORIMG_API CVmManagerException : public CVeloraImageException {
 public:
  using CVeloraImageException::CVeloraImageException;
};

/// The store's manager has ended before the image.
class KORIMG_API CVmManagerHandleDeletedError : public CVmManagerException {
 public:
  using CVmManagerException::CVmManagerException;
};

/// No room for the blocks of an image: the text names the place, how much was needed and how much was there.
class KORIMG_API CVmMemoryAllocationError : public CVeloraImageException {
 public:
  using CVeloraImageException::CVeloraImageException;
};

}  // namespace velora
