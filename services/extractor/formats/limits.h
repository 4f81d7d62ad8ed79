// The bounds that keep one hostile file from costing more than a file may.
#pragma once

#include <cstddef>
#include <cstdint>

namespace extractor {

/// Files that a library wants whole in memory (PDF, pictures) are mapped up to this size.
inline constexpr std::uint64_t kMaxMappedBytes = std::uint64_t{256} << 20;

/// What the entries of one office document or book may inflate to altogether.
inline constexpr std::uint64_t kMaxPackageBytes = std::uint64_t{256} << 20;
/// How far into a compressed archive names are looked for.
inline constexpr std::uint64_t kMaxArchiveBytes = std::uint64_t{512} << 20;
/// No honest document inflates to more than this many times its size, once it is past kRatioGraceBytes.
inline constexpr std::uint64_t kMaxInflationRatio = 400;
inline constexpr std::uint64_t kRatioGraceBytes = std::uint64_t{16} << 20;
inline constexpr std::size_t kMaxArchiveEntries = 100'000;

inline constexpr int kMaxHtmlDepth = 2'000;
inline constexpr std::size_t kMaxXmlEntityBytes = 4'096;
inline constexpr std::size_t kMaxXmlEntities = 1'000;

inline constexpr int kMaxPdfPages = 20'000;

inline constexpr int kMaxMailDepth = 16;
inline constexpr int kMaxMailParts = 1'000;
inline constexpr std::size_t kMaxMailHtmlBytes = std::size_t{16} << 20;

inline constexpr std::size_t kMaxRtfDepth = 1'000;

/// Longest value of any field but the text.
inline constexpr std::size_t kMaxFieldBytes = std::size_t{64} << 10;

}  // namespace extractor
