#include "session/job/Errors.h"

#include <filesystem>
#include <new>

#include "korimg/image/Exceptions.h"
#include "korimg/platform/CException.h"

#include "session/files/ImageFile.h"

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
  } catch (const velora::CVmMemoryAllocationError& error) {
    throw Error(ErrorKind::Resource, error.what());
  } catch (const velora::CVmManagerException& error) {
    throw Error(ErrorKind::Resource, error.what());
  } catch (const std::filesystem::filesystem_error& error) {
    const std::string other = error.path2().empty() ? "" : ": " + error.path2().string();
    throw files::FileError(error.path1(), error.code().message() + other);
  } catch (const std::exception& error) {
    throw Error(ErrorKind::Internal, error.what());
  } catch (...) {
    throw Error(ErrorKind::Internal, "something was thrown that is no exception of the standard library");
  }
}

}  // namespace korimg::session
