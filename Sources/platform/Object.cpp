#include "loomwork/platform/Object.h"

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <typeinfo>

namespace loomwork {

Object::~Object() = default;

std::string Object::className() const {
  const char* mangled = typeid(*this).name();
  int status = 0;
  char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
  std::string name = (status == 0 && demangled != nullptr) ? demangled : mangled;
  std::free(demangled);
  // Drop namespaces, but keep template arguments intact.
  size_t cut = std::string::npos;
  int depth = 0;
  for (size_t i = 0; i < name.size(); ++i) {
    char c = name[i];
    if (c == '<') ++depth;
    if (c == '>') --depth;
    if (depth == 0 && c == ':' && i + 1 < name.size() && name[i + 1] == ':') cut = i + 1;
  }
  return cut == std::string::npos ? name : name.substr(cut + 1);
}

std::string Object::description() const { return "<" + className() + ": " + addressString(this) + ">"; }

bool Object::isEqual(const Object& other) const { return this == &other; }

size_t Object::hash() const { return std::hash<const void*>()(this); }

std::optional<Value> Object::valueForKey(std::string_view) const { return std::nullopt; }

std::optional<Value> Object::valueForKeyPath(std::string_view keyPath) const {
  size_t dot = keyPath.find('.');
  std::optional<Value> first = valueForKey(keyPath.substr(0, dot));
  if (!first || dot == std::string_view::npos) return first;
  return loomwork::valueForKeyPath(*first, keyPath.substr(dot + 1));
}

std::string addressString(const void* address) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%p", address);
  std::string text = buffer;
  if (text.rfind("0x", 0) != 0) text = "0x" + text;
  return text;
}

}  // namespace loomwork
