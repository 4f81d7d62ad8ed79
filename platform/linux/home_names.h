// What homes and recycle bins are called.
#pragma once

namespace nimo {

inline constexpr char kHomes[] = "homes";          ///< the share that has them, each with the name of its account
inline constexpr char kRecycleBin[] = "#recycle";  ///< the folder right below a share or a home

}  // namespace nimo
