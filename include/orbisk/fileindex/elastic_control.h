// Commands to the search daemon: a share's index, and its documents.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "orbisk/export.h"

namespace orbisk::fileindex::elastic {

// Every share with indexed folders owns one index. All functions wait out a daemon that is not ready or busy and throw
// what SendRequest (orbisk/comm.h) throws.
//
// Threads: any. Calls can take very long: hold no lock that others need.

/// The settings that an index is made with: an empty object.
ORBISK_EXPORT Json::Value GetFileIndexSettings();
/// The fields of an index.
ORBISK_EXPORT Json::Value GetFileIndexMappings();
/// The event handler of an index.
ORBISK_EXPORT Json::Value GetFileIndexEventHandler();
/// The identifier of the index of `share`: "fileindex_" and the name, as it is.
ORBISK_EXPORT std::string GetFileIndexID(const std::string& share);

/// Makes the index of `share` at the share's database path. Throws Error 800, with nothing sent, if there is no such
/// share.
ORBISK_EXPORT void ShareIndexCreate(const std::string& share);
/// Deletes the index of `share` with its files.
ORBISK_EXPORT void ShareIndexDelete(const std::string& share);
/// Closes the index of `share` until ShareIndexResume.
ORBISK_EXPORT void ShareIndexPause(const std::string& share);
/// Opens the index of `share` again.
ORBISK_EXPORT void ShareIndexResume(const std::string& share);
/// Makes the index of `share_from` that of `share_to` and moves its files to `db_path`.
ORBISK_EXPORT void ShareIndexRename(const std::string& share_from, const std::string& share_to,
                                    const std::string& db_path);
/// Moves the files of the index of `share` to `db_path`.
ORBISK_EXPORT void ShareIndexMigrate(const std::string& share, const std::string& db_path);

// Documents. A document stands for one file or folder; `path`, `dir`, `new_path` and `old_path` are full paths.

/// Removes the document of `path`.
ORBISK_EXPORT void IndexDel(const std::string& share, const std::string& path);
/// Removes all documents below `dir`; that of `dir` itself stays.
ORBISK_EXPORT void IndexDelDir(const std::string& share, const std::string& dir);
/// Reads the file and adds or replaces its document, with its text and metadata if `need_meta`, else its attributes
/// alone. Throws Error 914 if the extractor fails, whatever it throws.
ORBISK_EXPORT void IndexUpsert(const std::string& share, const std::string& path, bool need_meta);
/// Reads the file's attributes and sets them in its document. Throws Error 917 if it has none, and as IndexUpsert.
ORBISK_EXPORT void IndexAttr(const std::string& share, const std::string& path);
/// Gives the document of `old_path`, and all below it, their places at and below `new_path`, which comes first; no file
/// is read. What fails behind the first document leaves that one renamed. Throws Error 917 if `old_path` has no
/// document, 916 and 120 for a response that lacks what is needed.
ORBISK_EXPORT void IndexRename(const std::string& share, const std::string& new_path, const std::string& old_path);
/// Appends the paths of all documents below `dir` to `paths`. `index_id` is an index's identifier, not a share. Throws
/// Error 916 for a response without documents, 120 for a document without a path.
ORBISK_EXPORT void IndexGetByPrefixPath(const std::string& index_id, const std::string& dir,
                                        std::vector<std::string>& paths);
/// Makes all changes to the index of `share` last. When that fails and the share's volume is full, marks the share as
/// needing a reindex and throws Error 1003 instead.
ORBISK_EXPORT void IndexCommit(const std::string& share);

/// Appends the names of the term-suggestion databases that have to be built to `dbs`. Throws Error 916 for a response
/// without them.
ORBISK_EXPORT void ListUnAvailTermSuggDB(std::vector<std::string>& dbs);
/// Adds the words of the documents at the paths `docs` to the term-suggestion database `db_name`.
ORBISK_EXPORT void UpdateTermSuggestion(const std::string& db_name, const std::vector<std::string>& docs);

}  // namespace orbisk::fileindex::elastic
