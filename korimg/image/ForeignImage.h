#pragma once

#include <memory>
#include <vector>

#include "korimg/image/CVelImage.h"
#include "korimg/platform/Export.h"

namespace korimg {

/// An image with the store that it lives in.
struct StoredImage {
  std::shared_ptr<CVmManager> store;  ///< must live as long as the image
  std::unique_ptr<CVelImage> image;
};

/// Makes an image of floats over memory of somebody else, without a copy: `planes` are the addresses of its
/// planes, each of which holds height rows of width pixels with nothing between them. Its pixels are those
/// found there, and whoever changes it changes them. What is made from it (results, temporaries) lies in
/// `rest`, a contiguous store. The owner is held as long as the store.
/// Throws velora::CVmMemoryAllocationError when a size is not positive.
KORIMG_API StoredImage MakeImageOver(std::vector<float*> planes, int width, int height,
                                     std::shared_ptr<const void> owner, std::shared_ptr<CVmManager> rest);

}  // namespace korimg
