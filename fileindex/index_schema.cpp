// The schema of a share's index, as the search daemon gets it.
#include "fileindex/index_schema.h"

namespace orbisk::fileindex::elastic {

const char kIndexMappings[] = R"({
	"property_id": "NIMOMDPath",
	"default": {
		"type": "string",
		"analyzer": "nimostandard",
		"required": false,
		"stored": true,
		"_all": true
	},
	"properties": {
		"NIMOMDPath": {
			"analyzer": "keyword",
			"required": true,
			"_all": false
		},
		"NIMOMDFSName": {
			"analyzer": "keyword",
			"_all": false
		},
		"NIMOMDPrivilege": {
			"analyzer": "keyword",
			"_all": false
		},
		"NIMOMDIsDir": {
			"type": "bool",
			"_all": false
		},
		"NIMOMDOwnerUserID": {
			"analyzer": "keyword",
			"_all": false
		},
		"NIMOMDOwnerGroupID": {
			"analyzer": "keyword",
			"_all": false
		},
		"NIMOMDFSSize": {
			"type": "int"
		},
		"NIMOMDFSContentChangeDate": {
			"type": "int"
		},
		"NIMOMDAttributeChangeDate": {
			"type": "int"
		},
		"NIMOMDFSCreationDate": {
			"type": "int"
		},
		"NIMOMDContentModificationDate": {
			"type": "int"
		},
		"NIMOMDLastUsedDate": {
			"type": "int"
		},
		"NIMOMDContentCreationDate": {
			"type": "int"
		},
		"NIMOMDAuthors": {
			"type": "text",
			"analyzer": "white space"
		},
		"NIMOMDTitle": {
			"type": "text"
		},
		"NIMOMDAlbum": {
			"type": "text"
		},
		"NIMOMDIdentifier": {
			"type": "text",
			"analyzer": "keyword",
			"_all": false
		},
		"NIMOMDAudioTrackNumber": {
			"type": "int"
		},
		"NIMOMDRecordingYear": {
			"type": "int"
		},
		"NIMOMDCreator": {
			"type": "text",
			"analyzer": "white space"
		},
		"NIMOMDMusicalGenre": {
			"type": "text"
		},
		"NIMOMDComposer": {
			"type": "text",
			"analyzer": "white space"
		},
		"NIMOMDComment": {
			"type": "text"
		},
		"NIMOMDDurationSecond": {
			"type": "double"
		},
		"NIMOMDAudioBitRate": {
			"type": "int"
		},
		"NIMOMDTotalBitRate": {
			"type": "int"
		},
		"NIMOMDVideoBitRate": {
			"type": "int"
		},
		"NIMOMDAudioSampleRate": {
			"type": "int"
		},
		"NIMOMDAudioChannelCount": {
			"type": "int"
		},
		"NIMOMDISOSpeed": {
			"type": "int"
		},
		"NIMOMDCodecs": {
			"type": "text",
			"analyzer": "white space"
		},
		"NIMOMDDescription": {
			"type": "text"
		},
		"NIMOMDAcquisitionMake": {
			"type": "text",
			"analyzer": "white space"
		},
		"NIMOMDAcquisitionModel": {
			"type": "text",
			"analyzer": "white space"
		},
		"NIMOMDExposureTimeString": {
			"analyzer": "keyword"
		},
		"NIMOMDAperture": {
			"analyzer": "keyword"
		},
		"NIMOMDResolutionWidthDPI": {
			"type": "int"
		},
		"NIMOMDResolutionHeightDPI": {
			"type": "int"
		},
		"NIMOMDMediaTypes": {
			"analyzer": "keyword"
		},
		"NIMOMDParent": {
			"analyzer": "keyword",
			"_all": false
		},
		"NIMOMDExtension": {
			"analyzer": "keyword",
			"_all": false
		},
		"NIMOMDTextContent": {
			"type": "text"
		},
		"NIMOMDKeywords": {},
		"NIMOMDFinderLabel": {
			"type": "int"
		},
		"NIMOMDGroupId": {
			"analyzer": "keyword"
		},
		"NIMOMDFinderOpenDate": {
			"type": "int"
		},
		"NIMOMDLogicalSize": {
			"type": "int"
		},
		"NIMOMDPhysicalSize": {
			"type": "int"
		},
		"NIMOMDDateAdded": {
			"type": "int"
		},
		"NIMOMDSearchFileName": {
			"type": "text",
			"analyzer": "white space",
			"preprocess": ["tolower", "ngram"]
		},
		"NIMOMDSearchAncestor": {
			"type": "text",
			"analyzer": "white space escaped",
			"_all": false,
			"preprocess": ["list_ancestor"]
		},
		"NIMOMDStarRating": {
			"analyzer": "keyword"
		},
		"_NIMOMDUserTags": {
			"type": "text"
		},
		"NIMOMDSpotlightBoost": {
			"type": "text",
			"analyzer": "white space"
		},
		"NIMOMDIsEncrypted": {
			"type": "bool",
			"_all": false
		}
	}
}
)";

const char kIndexEventHandler[] = R"({"lib_path": "/var/packages/Orbisk/target/handler/fileindex_event_handler.so"})";

}  // namespace orbisk::fileindex::elastic
