// Images by bands of rows, whatever store they live in.
#pragma once

#include <algorithm>
#include <string>

#include "korimg/image/CVelImage.h"
#include "korimg/image/View.h"

#include "session/job/Job.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"

namespace korimg::session {

/// Copies rows of an image to a band of the same shape, or a band to the image.
void CopyFromStore(CVelImage& image, const Band<float>& to);
void CopyToStore(CVelImage& image, const Band<const float>& from);

enum class Access { Read, Write };

/// Calls visit(band) for the bands of an image, from the top down: its rows in the store itself when the
/// planes are contiguous, else in a buffer that is filled before the visit or emptied after it.
template <Access access, class Visit>
void ForBands(Job& job, CVelImage& image, const std::string& title, Visit&& visit) {
  const int width = image.GetWidth(), height = image.GetHeight(), planes = image.GetPlanes();
  const bool contiguous = image.GetAllocationPolicy() != CVmManager::Paged;
  const int rows = BandRows(width, planes, height);
  BandBuffer buffer;
  for (int top = 0; top < height; top += rows) {
    job.CheckCancelled();
    job.Progress(title, top, height);
    const int count = std::min(rows, height - top);
    const Band<float> band = contiguous ? Image::RowsOf(image, top, count, access == Access::Read)
                                        : buffer.Get(planes, width, top, count);
    if (!contiguous && access == Access::Read) CopyFromStore(image, band);
    visit(band);
    if (!contiguous && access == Access::Write) CopyToStore(image, band);
  }
  job.EndProgress();
}

}  // namespace korimg::session
