#include "loomwork/platform/Exception.h"

namespace loomwork {

const char* Exception::kindName(ExceptionKind kind) noexcept {
  switch (kind) {
    case ExceptionKind::InternalInconsistency:
      return "internal inconsistency";
    case ExceptionKind::InvalidArgument:
      return "invalid argument";
    case ExceptionKind::OutOfRange:
      return "out of range";
  }
  return "unknown";
}

}  // namespace loomwork
