// The exception type raised for programming errors.
#pragma once

#include <exception>
#include <string>

#pragma GCC visibility push(default)
namespace loomwork {

// What kind of programming error an Exception reports.
enum class ExceptionKind {
  InternalInconsistency,  // an object was used in a state that does not allow the call
  InvalidArgument,        // an argument is outside what the operation accepts
  OutOfRange,             // an index lies outside the container it addresses
};

// Raised only for programming errors (never for bad data from outside). It
// carries a kind and the documented reason text; what() returns the reason.
class Exception : public std::exception {
 public:
  Exception(ExceptionKind kind, std::string reason) : kind_(kind), reason_(std::move(reason)) {}

  ExceptionKind kind() const noexcept { return kind_; }
  const std::string& reason() const noexcept { return reason_; }
  const char* what() const noexcept override { return reason_.c_str(); }

  // "internal inconsistency", "invalid argument" or "out of range".
  static const char* kindName(ExceptionKind kind) noexcept;

 private:
  ExceptionKind kind_;
  std::string reason_;
};

}  // namespace loomwork
#pragma GCC visibility pop
