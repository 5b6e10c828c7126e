// What goes wrong, for every host: of what kind it is, what it is about, and one line that says what to do.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

#include "session/Export.h"

namespace korimg::session {

enum class ErrorKind {
  Usage,      ///< the call itself is wrong
  File,       ///< a file or folder cannot be read, written, or used for this
  Resource,   ///< no room in memory
  Cancelled,  ///< by the user
  Internal    ///< nobody's fault but ours
};

/// Texts name options as the command line writes them, `--max-fwhm`, which no other word looks like: hosts
/// that have other names for them put these in at their edge.
class KORIMG_SESSION_API Error : public std::runtime_error {
 public:
  /// `subject` is the file or the argument that it is about; empty where there is none.
  Error(ErrorKind kind, const std::string& text, std::string subject = "")
      : std::runtime_error(text), kind_(kind), subject_(std::move(subject)) {}

  ErrorKind Kind() const { return kind_; }
  const std::string& Subject() const { return subject_; }

 private:
  ErrorKind kind_;
  std::string subject_;
};

/// Says that the call itself is wrong. The text says what to write instead.
class KORIMG_SESSION_API UsageError : public Error {
 public:
  explicit UsageError(const std::string& text) : Error(ErrorKind::Usage, text) {}
};

/// Says that the job's cancel token was used. The text says what is left of the work.
class KORIMG_SESSION_API Cancelled : public Error {
 public:
  explicit Cancelled(const std::string& text = "cancelled; nothing unfinished was left behind")
      : Error(ErrorKind::Cancelled, text) {}
};

/// Turns what is being handled into one of the family: the library's thrown pointers, and what is thrown for
/// want of memory or by a store, become errors of resources, those of the file system of files, and all other
/// exceptions internal ones. To be called in a catch block; rethrows.
[[noreturn]] KORIMG_SESSION_API void ThrowOfFamily();

}  // namespace korimg::session
