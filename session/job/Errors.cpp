#include "session/job/Errors.h"

#include <new>

#include "korimg/platform/CException.h"

namespace korimg::session {

void ThrowOfFamily() {
  const auto noRoom = [] {
    return Error(ErrorKind::Resource,
                 "out of memory; lower --memory, so that large images go to temporary files");
  };
  try {
    throw;
  } catch (const Error&) {
    throw;
  } catch (CMemoryException* error) {
    error->Delete();
    throw noRoom();
  } catch (const std::bad_alloc&) {
    throw noRoom();
  } catch (const std::exception& error) {
    throw Error(ErrorKind::Internal, error.what());
  }
}

}  // namespace korimg::session
