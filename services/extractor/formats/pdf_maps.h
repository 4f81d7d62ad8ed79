// The character maps of East Asian fonts, for PDF files that name a map in place of holding it.
#pragma once

namespace extractor {

/// The folder of the maps, from the package poppler-data. It may be missing; text in such fonts is lost then.
inline constexpr char kPdfMapFolder[] = "/usr/share/poppler";

/// Takes hold of the maps while files can still be opened. From then on fopen(3) on a path in kPdfMapFolder gives what
/// was taken, and nothing else, in the whole program: Poppler opens a map by its path when a page first needs it, and
/// offers no other way. Nothing is read before that, so it costs address space only, some 13 MB.
///
/// Threads: call while the process has only one.
void PreparePdfMaps();

}  // namespace extractor
