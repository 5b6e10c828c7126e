// Whatever is thrown becomes one of the family at the edge.
#include <filesystem>
#include <functional>
#include <new>

#include <gtest/gtest.h>

#include "korimg/image/Exceptions.h"
#include "korimg/platform/CException.h"

#include "session/files/ImageFile.h"
#include "session/job/internal/Edge.h"

namespace korimg::session {
namespace {

TEST(Errors, AreOfOneFamily) {
  constexpr const char* kOutOfMemory =
      "out of memory; lower --memory, so that large images go to temporary files";
  const struct {
    std::function<void()> thrown;
    ErrorKind kind;
    std::string text, subject;
  } cases[] = {
      {[] { throw new CMemoryException; }, ErrorKind::Resource, kOutOfMemory, ""},
      {[] { throw std::bad_alloc(); }, ErrorKind::Resource, kOutOfMemory, ""},
      {[] { throw velora::CVmMemoryAllocationError("no room"); }, ErrorKind::Resource, "no room", ""},
      {[] { throw velora::CVmManagerHandleDeletedError("gone"); }, ErrorKind::Resource, "gone", ""},
      {[] { throw velora::CVeloraImageException("odd"); }, ErrorKind::Internal, "odd", ""},
      {[] { std::filesystem::directory_iterator("/no folder"); }, ErrorKind::File,
       "/no folder: No such file or directory", "/no folder"},
      {[] { std::filesystem::rename("/no file", "/no other"); }, ErrorKind::File,
       "/no file: No such file or directory: /no other", "/no file"},
      {[] { throw std::out_of_range("far off"); }, ErrorKind::Internal, "far off", ""},
      {[] { throw files::FileError("a.fits", "is empty"); }, ErrorKind::File, "a.fits: is empty", "a.fits"},
      {[] { throw UsageError("no"); }, ErrorKind::Usage, "no", ""},
      {[] { throw Cancelled("over"); }, ErrorKind::Cancelled, "over", ""}};
  for (const auto& [thrown, kind, text, subject] : cases) {
    try {
      AtEdge(thrown);
      ADD_FAILURE() << text;
    } catch (const Error& error) {
      EXPECT_EQ(error.Kind(), kind) << text;
      EXPECT_EQ(error.what(), text);
      EXPECT_EQ(error.Subject(), subject);
    }
  }
  EXPECT_THROW(AtEdge([] { throw files::FileError("a", "b"); }), files::FileError) << "its class is lost";
}

}  // namespace
}  // namespace korimg::session
