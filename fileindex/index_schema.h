// The schema of a share's index, as the search daemon gets it.
#pragma once

namespace orbisk::fileindex::elastic {

/// JSON: the field that identifies a document, what holds of every field, and the fields with what differs for each.
extern const char kIndexMappings[];

/// JSON: the shared object that the daemon loads to run the index's event hooks.
extern const char kIndexEventHandler[];

}  // namespace orbisk::fileindex::elastic
