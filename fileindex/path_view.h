// Looking into a path without copying it.
#pragma once

#include <string_view>

namespace orbisk::fileindex {

/// What stands behind the last "/", the whole path if there is none.
inline std::string_view BasenameView(std::string_view path) {
  return path.substr(path.rfind('/') + 1);  // npos + 1 is 0
}

/// What stands before the last "/", the whole path if there is none.
inline std::string_view DirnameView(std::string_view path) {
  return path.substr(0, path.rfind('/'));
}

/// What stands behind the last "." of the base name, "" if there is none.
inline std::string_view ExtensionView(std::string_view path) {
  const std::string_view name = BasenameView(path);
  const size_t dot = name.rfind('.');
  return dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
}

/// Whether `inner` is `outer` or lies below it, by components: /a/b holds /a/b/c and not /a/bc.
inline bool IsSameOrBelow(std::string_view outer, std::string_view inner) {
  return inner.substr(0, outer.size()) == outer && (inner.size() == outer.size() || inner[outer.size()] == '/');
}

/// Calls `visit` with every path that holds `path` by IsSameOrBelow, the longest first: `path` itself, then what stands
/// before each of its "/", "" last. Stops when `visit` returns true, and says whether it did.
template <class Visit>
bool FindHolder(std::string_view path, Visit visit) {
  while (true) {
    if (visit(path)) {
      return true;
    }
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
      return false;
    }
    path = path.substr(0, slash);
  }
}

}  // namespace orbisk::fileindex
