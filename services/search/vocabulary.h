// Fields that have a part in people's searches, by the names that documents use for them.
#pragma once

namespace search {

inline constexpr char kNameField[] = "NIMOMDSearchFileName";
inline constexpr char kTitleField[] = "NIMOMDTitle";
inline constexpr char kContentField[] = "NIMOMDTextContent";
inline constexpr char kDescriptionField[] = "NIMOMDDescription";
inline constexpr char kKindField[] = "NIMOMDKind";
inline constexpr char kExtensionField[] = "NIMOMDExtension";
inline constexpr char kIsDirectoryField[] = "NIMOMDIsDir";
inline constexpr char kSizeField[] = "NIMOMDFSSize";
inline constexpr char kModifiedField[] = "NIMOMDFSContentChangeDate";
inline constexpr char kCreatedField[] = "NIMOMDFSCreationDate";
inline constexpr char kOwnerField[] = "NIMOMDOwnerUserID";

}  // namespace search
