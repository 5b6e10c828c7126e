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

/// Memory of somebody else that a result may lie in: the first image of the same shape that is made from a
/// foreign one.
struct ResultMemory {
  std::vector<float*> planes = {};  ///< as those of the foreign image; none: results lie in the store
  bool isZero = false;              ///< it holds zeros, as a store's fresh memory does
};

/// Makes an image of floats over memory of somebody else, without a copy: `planes` are the addresses of its
/// planes, each of which holds height rows of width pixels with nothing between them. Its pixels are those
/// found there, and whoever changes it changes them. What is made from it (results, temporaries) lies in
/// `rest`, a contiguous store, but for what the result's memory takes. The owner is held as long as the
/// store.
/// Throws velora::CVmMemoryAllocationError when a size is not positive.
KORIMG_API StoredImage MakeImageOver(std::vector<float*> planes, int width, int height,
                                     std::shared_ptr<const void> owner, std::shared_ptr<CVmManager> rest,
                                     ResultMemory result = {});

}  // namespace korimg
